// The counters for a monitoring system, over HTTP.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "mund/control_socket.h"

namespace kes_engine {

// The place that metrics are asked for at. Who asks before they are served waits.
class MetricsSocket {
  public:
    // Listens on "[ADDRESS:]PORT": on loopback without an address, on a free port for 0; an IPv6
    // address stands in brackets. Throws UsageError for what is no such place, and Failure for one
    // that cannot be had.
    explicit MetricsSocket(const std::string &place);

    int Number() const {
        return socket_.Number();
    }
    // "127.0.0.1:9275".
    const std::string &Place() const {
        return place_;
    }

  private:
    mund::Descriptor socket_;
    std::string place_;
};

class MetricsService {
  public:
    // Answers GET and HEAD of /metrics with what `page` returns, or with what it throws. A thread
    // of its own does so for one asker after the other; `page` is called on it. Throws Failure.
    MetricsService(const MetricsSocket &socket, std::function<std::string()> page);
    // Closes all connections.
    ~MetricsService();
    MetricsService(const MetricsService &) = delete;
    MetricsService &operator=(const MetricsService &) = delete;

  private:
    class Server;
    std::unique_ptr<Server> server_;
};

}  // namespace kes_engine
