// trace follow: the engine's lines as they come.
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <ratio>
#include <regex>
#include <utility>

#include "control/input_error.h"
#include "control/json_line.h"
#include "control/line_decoder.h"
#include "control/message_bytes.h"
#include "control/module_object.h"
#include "control/printable.h"
#include "control/values.h"
#include "mund/control_socket.h"
#include "mund/module_objects.h"
#include "own_commands.h"

namespace lyrctl {
namespace {

struct Kind {
    std::string_view name;
    const char *colour;
};

// By the kind of a line.
constexpr Kind kKinds[] = {
    {"report", "36"}, {"print", "32"}, {"log", "33"}, {"alarm", "1;31"}, {"assertion", "1;35"}};

Kind KindOf(uint32_t kind) {
    return kind < std::size(kKinds) ? kKinds[kind] : Kind{"line", "0"};
}

std::string Time(uint64_t timeNs) {
    return control::TimeText(static_cast<int64_t>(timeNs / std::nano::den),
                             static_cast<uint32_t>(timeNs % std::nano::den / 1'000'000));
}

// Interrupts, as a descriptor that becomes readable, for as long as this lives.
class Interrupts {
  public:
    Interrupts() {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        sigaddset(&signals_, SIGHUP);
        sigaddset(&signals_, SIGQUIT);
        pthread_sigmask(SIG_BLOCK, &signals_, &before_);
        descriptor_ = signalfd(-1, &signals_, SFD_CLOEXEC);
    }
    ~Interrupts() {
        if (descriptor_ >= 0) {
            // Those that are still to be read have been obeyed.
            const timespec now = {};
            while (sigtimedwait(&signals_, nullptr, &now) > 0) {
            }
            close(descriptor_);
        }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    Interrupts(const Interrupts &) = delete;
    Interrupts &operator=(const Interrupts &) = delete;

    int Descriptor() const {
        return descriptor_;
    }

  private:
    sigset_t signals_;
    sigset_t before_;
    int descriptor_ = -1;
};

// The right to set the level: of two at once the second would put the first one's level back. It is
// a name that the kernel gives to one process at a time, and takes back when that ends.
mund::Descriptor TakeTurn(const std::string &path) {
    struct stat engine = {};
    stat(path.c_str(), &engine);
    const std::string name =
        "lyrctl trace level " + std::to_string(engine.st_dev) + " " + std::to_string(engine.st_ino);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    name.copy(&address.sun_path[1], sizeof address.sun_path - 1);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    mund::Descriptor turn(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (bind(turn.Number(), reinterpret_cast<const sockaddr *>(&address), length) != 0) {
        throw control::Refused(
            "another 'trace follow' has set the level for as long as it runs; its lines come "
            "without --level, too");
    }
    return turn;
}

// The trace at a level of its own, until it is put back.
class TraceLevel {
  public:
    TraceLevel(Client &client, uint32_t level)
        : client_(client),
          turn_(TakeTurn(client.Path())),
          before_(ReadObject<MundTraceConfig>(client.Engine(), MUND_OBJECT_TRACE)) {
        Set(LYR_KES_TRACE_SET, level);
    }
    // For what ends the following other than as it should.
    ~TraceLevel() {
        try {
            PutBack();
        } catch (const std::exception &) {
        }
    }
    TraceLevel(const TraceLevel &) = delete;
    TraceLevel &operator=(const TraceLevel &) = delete;

    void PutBack() {
        if (std::exchange(isBack_, true)) {
            return;
        }
        Set(before_.enable != 0 ? LYR_KES_TRACE_SET : LYR_KES_TRACE_CLEAR, before_.debugLevel);
    }

  private:
    // All but the level stays.
    void Set(uint32_t operation, uint32_t level) {
        constexpr uint32_t kKeep = 2;
        LyrKesDebugTraceReq request = {};
        request.msgType = operation;
        request.debugLevel = level;
        std::ranges::copy(before_.mac, request.mac);
        request.srcAddr.ipVer = kKeep;
        request.dstAddr.ipVer = kKeep;
        request.srcPort = before_.srcPort;
        request.dstPort = before_.dstPort;
        request.capwapMsgType = before_.capwapMsgType;
        const control::Answer answer =
            client_.Engine().Call(MUND_OP_DebugTraceSet, control::BytesOf(request));
        if (!answer.failure.empty() || answer.result != MUND_RESULT_OK) {
            throw control::Refused(
                "the trace's level cannot be set to " + std::to_string(level) + ": " +
                (answer.failure.empty() ? "result " + std::to_string(answer.result)
                                        : answer.failure));
        }
    }

    Client &client_;
    mund::Descriptor turn_;
    MundTraceConfig before_;
    bool isBack_ = false;
};

class LinePrinter {
  public:
    LinePrinter(bool json, bool decode, const std::string *pattern) : json_(json), decode_(decode) {
        if (pattern != nullptr) {
            try {
                pattern_ = std::regex(*pattern);
            } catch (const std::regex_error &) {
                throw control::InputError("--grep '" + *pattern + "' is not a regular expression");
            }
        }
        // Nobody changes the environment.
        const char *noColour = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
        colours_ = isatty(STDOUT_FILENO) == 1 && (noColour == nullptr || *noColour == '\0');
    }

    // False when no one reads any more.
    bool Print(const MundWireLine &line, std::string_view text) {
        lost_ += line.lost;
        const std::optional<std::string> decoded =
            decode_ ? control::DecodeLine(text) : std::nullopt;
        if (!IsWanted(text) && !(decoded && IsWanted(*decoded))) {
            return true;
        }
        json_ ? PrintJson(line, text, decoded) : PrintText(line, text, decoded);
        lost_ = 0;
        return static_cast<bool>(std::cout.flush());
    }

  private:
    bool IsWanted(std::string_view text) const {
        return !pattern_ || std::regex_search(text.begin(), text.end(), *pattern_);
    }

    void PrintJson(const MundWireLine &line, std::string_view text,
                   const std::optional<std::string> &decoded) {
        ordered_json json = {{"time", Time(line.timeNs)},
                             {"kind", KindOf(line.kind).name},
                             {"lost", lost_},
                             {"text", text}};
        if (decode_) {
            json["decoded"] = decoded ? ordered_json(*decoded) : ordered_json();
        }
        std::cout << control::JsonLine(json) << '\n';
    }

    void PrintText(const MundWireLine &line, std::string_view text,
                   const std::optional<std::string> &decoded) {
        if (lost_ != 0) {
            std::cout << Coloured("1;33", "-- " + std::to_string(lost_) +
                                              " lines lost: they came faster than they were read")
                      << '\n';
        }
        const Kind kind = KindOf(line.kind);
        std::string name(kind.name);
        name.resize(kKinds[std::size(kKinds) - 1].name.size(), ' ');
        std::cout << Coloured("2", Time(line.timeNs)) << "  " << Coloured(kind.colour, name) << "  "
                  << (decoded ? control::Printable(*decoded) +
                                    Coloured("2", std::string(control::kDecodedFrom) +
                                                      control::Printable(text))
                              : control::Printable(text))
                  << '\n';
    }

    std::string Coloured(const char *colour, const std::string &text) const {
        return colours_ ? "\033[" + std::string(colour) + "m" + text + "\033[0m" : text;
    }

    bool json_;
    bool decode_;
    bool colours_ = false;
    std::optional<std::regex> pattern_;
    uint64_t lost_ = 0;  // since the last line that was printed
};

// Lines that come only while the trace is on are missed without a word otherwise.
void NoteIfOff(Client &client) {
    if (ReadObject<MundTraceConfig>(client.Engine(), MUND_OBJECT_TRACE).enable == 0) {
        Complain(
            "note: the trace is off, so trace and log lines do not come; --level 3 switches "
            "it on for as long as this runs");
    }
}

}  // namespace

ExitStatus FollowTrace(Client &client, const control::Arguments &arguments) {
    LinePrinter printer(client.Json(), arguments.Find("--decode") != nullptr,
                        arguments.Find("--grep"));
    std::optional<uint32_t> level;
    if (const std::string *text = arguments.Find("--level")) {
        level = control::ParseTraceLevel("--level", *text);
    }
    // A connection follows or asks, not both; the one that asks is not needed meanwhile.
    control::Connection lines(client.Path());
    std::optional<TraceLevel> trace;
    {
        const Interrupts interrupts;
        if (level) {
            trace.emplace(client, *level);
        } else {
            NoteIfOff(client);
        }
        client.HangUp();
        lines.Follow([&](const MundWireLine &line,
                         std::string_view text) { return printer.Print(line, text); },
                     interrupts.Descriptor());
    }
    // From here on another interrupt ends the program, should the engine not answer.
    if (trace) {
        trace->PutBack();
    }
    return kOk;
}

}  // namespace lyrctl
