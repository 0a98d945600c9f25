#include "metrics_service.h"

#include <fcntl.h>
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

#include "failure.h"

namespace kes_engine {
namespace {

constexpr const char *kLoopback = "127.0.0.1";
constexpr const char *kText = "text/plain; charset=utf-8";
constexpr const char *kMetricsText = "text/plain; version=0.0.4; charset=utf-8";
constexpr const char *kOverview =
    "kes_engine: /metrics has all counters in the text format of Prometheus.\n";

// Askers at once; more wait to be accepted.
constexpr unsigned kConnections = 16;
// Seconds that one of them may keep silent.
constexpr unsigned kPatience = 10;

[[noreturn]] void Refuse(const std::string &place, const std::string &reason) {
    throw UsageError("--metrics '" + place + "': " + reason);
}

// Address and port of "[ADDRESS:]PORT".
std::pair<std::string, std::string> Split(const std::string &place) {
    const size_t colon = place.rfind(':');
    if (colon == std::string::npos) {
        return {kLoopback, place};
    }
    std::string address = place.substr(0, colon);
    if (address.starts_with('[') && address.ends_with(']')) {
        address = address.substr(1, address.size() - 2);
    } else if (address.find(':') != std::string::npos) {
        Refuse(place, "an IPv6 address stands in brackets, as in [::1]:9275");
    }
    return {address, place.substr(colon + 1)};
}

using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

Addresses AddressOf(const std::string &place) {
    const auto [address, port] = Split(place);
    const bool isNumber =
        !port.empty() && port.find_first_not_of("0123456789") == std::string::npos;
    if (!isNumber || port.size() > 5 || std::stoul(port) > UINT16_MAX) {
        Refuse(place, "'" + port + "' is no port, from 0 to 65535");
    }
    addrinfo wanted = {};
    wanted.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (address.empty() || getaddrinfo(address.c_str(), port.c_str(), &wanted, &found) != 0) {
        Refuse(place, "'" + address + "' is no IPv4 or IPv6 address");
    }
    return {found, &freeaddrinfo};
}

std::string PlaceOf(int socket) {
    sockaddr_storage address;
    socklen_t size = sizeof address;
    auto *any = reinterpret_cast<sockaddr *>(&address);
    char host[NI_MAXHOST] = "";
    char port[NI_MAXSERV] = "";
    getsockname(socket, any, &size);
    getnameinfo(any, size, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV);
    return (address.ss_family == AF_INET6 ? "[" + std::string(host) + "]" : host) + ":" + port;
}

}  // namespace

MetricsSocket::MetricsSocket(const std::string &place) {
    const Addresses addresses = AddressOf(place);
    const addrinfo &address = *addresses;
    socket_ =
        mund::Descriptor(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    setsockopt(socket_.Number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (!socket_.Open() || bind(socket_.Number(), address.ai_addr, address.ai_addrlen) != 0 ||
        listen(socket_.Number(), SOMAXCONN) != 0) {
        throw Failure("cannot serve metrics on " + place + ": " +
                      std::generic_category().message(errno));
    }
    place_ = PlaceOf(socket_.Number());
}

class MetricsService::Server {
  public:
    Server(const MetricsSocket &socket, std::function<std::string()> page)
        : page_(std::move(page)) {
        // It closes the socket that it is given.
        mund::Descriptor own(fcntl(socket.Number(), F_DUPFD_CLOEXEC, 0));
        daemon_ = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL, 0, nullptr,
                                   nullptr, &Server::Answer, this, MHD_OPTION_LISTEN_SOCKET,
                                   own.Number(), MHD_OPTION_CONNECTION_LIMIT, kConnections,
                                   MHD_OPTION_CONNECTION_TIMEOUT, kPatience, MHD_OPTION_END);
        if (daemon_ == nullptr) {
            throw Failure("cannot serve metrics on " + socket.Place());
        }
        own.Release();
    }
    ~Server() {
        MHD_stop_daemon(daemon_);
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

  private:
    static MHD_Result Send(MHD_Connection *connection, unsigned status, std::string text,
                           const char *type = kText) {
        MHD_Response *response =
            MHD_create_response_from_buffer(text.size(), text.data(), MHD_RESPMEM_MUST_COPY);
        if (response == nullptr) {
            return MHD_NO;
        }
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
        if (status == MHD_HTTP_METHOD_NOT_ALLOWED) {
            MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
        }
        const MHD_Result result = MHD_queue_response(connection, status, response);
        MHD_destroy_response(response);
        return result;
    }

    static MHD_Result Answer(void *self, MHD_Connection *connection, const char *path,
                             const char *method, const char * /*version*/, const char * /*data*/,
                             size_t * /*dataSize*/, void ** /*ofRequest*/) {
        const std::string_view wanted = path;
        if (method != std::string_view(MHD_HTTP_METHOD_GET) &&
            method != std::string_view(MHD_HTTP_METHOD_HEAD)) {
            return Send(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "GET and HEAD only\n");
        }
        if (wanted == "/") {
            return Send(connection, MHD_HTTP_OK, kOverview);
        }
        if (wanted != "/metrics") {
            return Send(connection, MHD_HTTP_NOT_FOUND, "there is only /metrics\n");
        }
        try {
            return Send(connection, MHD_HTTP_OK, static_cast<const Server *>(self)->page_(),
                        kMetricsText);
        } catch (const std::exception &error) {
            return Send(connection, MHD_HTTP_SERVICE_UNAVAILABLE, error.what() + std::string("\n"));
        }
    }

    const std::function<std::string()> page_;
    MHD_Daemon *daemon_;
};

MetricsService::MetricsService(const MetricsSocket &socket, std::function<std::string()> page)
    : server_(std::make_unique<Server>(socket, std::move(page))) {}

MetricsService::~MetricsService() = default;

}  // namespace kes_engine
