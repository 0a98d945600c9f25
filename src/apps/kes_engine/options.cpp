#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <tuple>

#include "capture/reader.h"
#include "control/command_table.h"
#include "control/input_error.h"
#include "control/values.h"
#include "failure.h"
#include "mund/server.h"
#include "standin/runtime.h"

namespace kes_engine {
namespace {

constexpr const char *kExamples = R"(Examples:
  kes_engine --replay session.pcap
      replays a capture through a module that knows no tunnels yet
  kes_engine --exec tunnels.txt --replay session.pcap --rx-port 7 --out session.d
      registers tunnels first, and keeps what each service instance got
  kes_engine --exec tunnels.txt --replay session.pcap --exec-after questions.txt
      asks the module what it has counted, before it is stopped
  kes_engine --exec tunnels.txt --replay session.pcap --explain
      says step by step where each packet would go, and why
  kes_engine --state /var/lib/lyr_host/state --serve
      begins with the sources, tunnels and sessions of the last time, and keeps those of this one
  kes_engine --exec tunnels.txt --serve --listen eth1
      serves live traffic, and clients on the control socket, until it is interrupted
  kes_engine --exec tunnels.txt --replay day.pcapng.gz --filter 'host 10.64.0.3' --speed 10
      replays one access point's frames, ten times as fast as they came
  kes_engine --exec tunnels.txt --listen eth1 --metrics 9275
      and metrics on http://127.0.0.1:9275/metrics
  kes_engine --capability WCWP_SPEC_SVC_NUM=3 --workers 4 --replay big.pcapng --report json
      four service instances, four forwarding threads, a report for a program

The report goes to standard output: where every packet went, the module's own counters, and its alarm
for dropped packets; --report html makes a page for a browser, which tells as well who was not served,
and why. What came of the commands, and errors, go to standard error. A run goes wrong, too, if a packet is lost or if the counters contradict what was seen. With several workers the latter
is reported as a note, since the module counts without locks.
SIGINT and SIGTERM stop a run in order, with the report; a second one ends it at once. SIGHUP opens
the log anew, as after a rotation.
Exit status: 0 all went well, 1 something did not, 2 the command line makes no sense, or what it
names to be read (a capture, commands, the module, an interface) cannot be.

Frames from an address given with --local go down the transmit path, and are kept as such. With
--cause-id, SOURCE is an IPv4 or IPv6 address, for UDP packets from it, or a MAC address, for all
frames from it; the first that fits a received frame counts.

With --state, the module begins with what it has been told before: the file is loaded, then --exec is
run, and from then on the file has the module's state: what 'lyrctl save' writes. It is written within
two seconds of a change, so that no more than that is lost in a crash, and at an orderly stop; what
does not change is not written. A file that is not there is a first start; one that is cut short, was
saved from tables of another size, or has a service instance that there is not, is refused with its
line, and nothing is loaded or written then.

The standard input is '-'. Frames of Linux cooked captures (both versions), raw IP and BSD loopback
get an Ethernet header and are counted; other link layers are refused. Frames that a capture cut short
are replayed as what is there of them and counted; those longer than a buffer of 65407 bytes are left
out and counted.

--frames counts as the capture does, and --filter is compiled for the capture's own link layer; both
together mean frames that fit both. Where --listen is given, the kernel applies the filter, and what
has come is counted over all interfaces; the last frame that is meant ends it.

A replay that falls behind its --rate catches up: with the frames of a tenth of a second at once, and
then at twice the rate at most. With --speed, frames that are due go at once, and times that go
backward are not waited for: by more than a second, the times begin anew there.

Captures written with --out have times in nanoseconds. With several workers, frames of one flow
keep their order; those of different flows may change places. Captures that an earlier run left
in the directory are removed when the replay begins.

Commands for --exec and --exec-after, one on a line, '#' begins a comment; lyrctl has these and more
('lyrctl exec'). What a command leaves to the module's own threads, as audits do, is done before the
next command or the replay begins:
)";

// Options whose values are not plain texts, as they were given.
struct RawOptions {
    std::vector<std::string> localAddresses;
    std::string workers = "1";
    std::string rxPort = "0";
    std::string loops = "1";
    std::string rate;
    std::optional<std::string> speed;
    std::optional<std::string> frames;
    std::optional<std::string> bufferSize;
};

// Throws UsageError for a text that is not a number above 0.
double ParseSpeed(const std::string &text) {
    double speed = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), speed);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(speed) ||
        speed <= 0) {
        throw UsageError("--speed '" + text + "' is not a number above 0, such as 1, 0.5 or 60");
    }
    return speed;
}

// The same for a size with its unit, in bytes.
uint32_t ParseBufferSize(const std::string &text) {
    constexpr uint32_t kMost = INT32_MAX;
    uint64_t size = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), size);
    const std::string unit(end, text.data() + text.size());
    const unsigned shift = unit == "KiB" ? 10 : unit == "MiB" ? 20 : 0;
    if (error != std::errc() || shift == 0 || size == 0 || size > kMost >> shift) {
        throw UsageError("--buffer-size '" + text +
                         "' is not a size from 1KiB to 2047MiB, such as 512KiB or 64MiB");
    }
    return static_cast<uint32_t>(size << shift);
}

// Throws UsageError for what would be read again after its end.
void RefuseSecondReading(const Options &options) {
    if (options.loops != 1 && capture::CanBeReadOnlyOnce(options.capture)) {
        throw UsageError("--loop '" + std::to_string(options.loops) + "': '" + options.capture +
                         "' is no file that can be read again");
    }
    std::vector<std::string> read = {options.capture};
    read.insert(read.end(), options.commandFiles.begin(), options.commandFiles.end());
    read.insert(read.end(), options.laterCommandFiles.begin(), options.laterCommandFiles.end());
    if (std::ranges::count(read, capture::kStandardStream) > 1) {
        throw UsageError("the standard input ('-') can be read only once");
    }
}

// Throws UsageError for what only a replay can do.
void RefuseWithoutCapture(const Options &options, const RawOptions &raw) {
    const std::pair<const char *, bool> given[] = {{"--explain", options.explain},
                                                   {"--rate", !raw.rate.empty()},
                                                   {"--speed", raw.speed.has_value()},
                                                   {"--loop", raw.loops != RawOptions().loops}};
    for (const auto &[option, isGiven] : given) {
        if (isGiven) {
            throw UsageError(std::string(option) + " needs --replay");
        }
    }
}

// And for what a frame that is explained, once and at once, has no use for.
void RefuseWithExplain(const Options &options, const RawOptions &raw) {
    const std::tuple<const char *, bool, const char *> given[] = {
        {"--report html", options.report == ReportForm::kHtml, "has no report"},
        {"--local", !options.frameRules.local.empty(), "tells of received frames"},
        {"--rate", !raw.rate.empty(), "passes no packets"},
        {"--speed", raw.speed.has_value(), "passes no packets"},
        {"--loop", raw.loops != RawOptions().loops, "passes no packets"}};
    for (const auto &[option, isGiven, reason] : given) {
        if (isGiven) {
            throw UsageError(std::string("--explain ") + reason + ": it goes without " + option);
        }
    }
}

// And for what only an interface can, or what needs frames from somewhere.
void RefuseWithoutInterface(const Options &options, const RawOptions &raw) {
    const std::tuple<const char *, bool, bool> given[] = {
        {"--promiscuous", options.listening.promiscuous, false},
        {"--buffer-size", raw.bufferSize.has_value(), false},
        {"--filter", !options.selection.filter.empty(), true},
        {"--frames", raw.frames.has_value(), true}};
    for (const auto &[option, isGiven, ofCaptures] : given) {
        if (isGiven && !(ofCaptures && !options.capture.empty())) {
            throw UsageError(std::string(option) +
                             (ofCaptures ? " needs --replay or --listen" : " needs --listen"));
        }
    }
}

void ReadSelection(const RawOptions &raw, Options &options) {
    if (raw.frames) {
        options.selection.frames = capture::FrameRanges("--frames", *raw.frames);
    }
    if (raw.speed) {
        if (!raw.rate.empty()) {
            throw UsageError("--speed '" + *raw.speed + "' goes without --rate '" + raw.rate + "'");
        }
        options.speed = ParseSpeed(*raw.speed);
    }
    options.listening.filter = options.selection.filter;
    if (raw.bufferSize) {
        options.listening.bufferBytes = ParseBufferSize(*raw.bufferSize);
    }
}

void ReadValues(const RawOptions &raw, Options &options) {
    for (const std::string &text : raw.localAddresses) {
        options.frameRules.local.push_back(control::ParseAddress("--local", text));
    }
    options.workers = control::ParseNumber("--workers", raw.workers, kMaxWorkers, 1);
    options.rxPort = control::ParseNumber("--rx-port", raw.rxPort);
    options.loops = control::ParseNumber("--loop", raw.loops);
    RefuseSecondReading(options);
    if (!raw.rate.empty()) {
        options.rate = control::ParseNumber("--rate", raw.rate, UINT32_MAX, 1);
    }
    ReadSelection(raw, options);
    if (options.capture.empty() && options.interfaces.empty() && !options.stay) {
        throw UsageError("one of --replay, --listen and --serve is required");
    }
    if (options.capture.empty()) {
        RefuseWithoutCapture(options, raw);
    }
    if (options.interfaces.empty()) {
        RefuseWithoutInterface(options, raw);
    }
    if (options.explain) {
        RefuseWithExplain(options, raw);
    }
    if (options.controlPath.empty() && (options.stay || !options.interfaces.empty())) {
        options.controlPath = mund::DefaultSocketPath();
    }
}

void Describe(CLI::App &app, CommonCommandLine &line, Options &options, RawOptions &raw) {
    app.add_option("--replay", options.capture,
                   "pass the frames of a capture: pcap or pcapng, packed with gzip or not")
        ->type_name("CAPTURE")
        ->check([](const std::string &path) {
            return path.empty() ? "the path of the capture is empty" : "";
        });
    app.add_flag("--explain", options.explain,
                 "say of each frame of the capture what the module would do, instead of a replay");
    app.add_option("--loop", raw.loops, "replay so many times; 0: until interrupted")
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--rate", raw.rate, "frames a second of a replay")
        ->type_name("PPS")
        ->default_str("as fast as possible");
    app.add_option("--speed", raw.speed,
                   "replay at so many times the capture's own times: 1 as they were, 10 ten times "
                   "as fast; not with --rate")
        ->type_name("X");
    app.add_option("--filter", options.selection.filter,
                   "only frames that match, in libpcap's language (pcap-filter(7))")
        ->type_name("EXPR");
    app.add_option("--frames", raw.frames,
                   "only the frames of these numbers, from 1: 7, 3-9, 100-, -20, or several with "
                   "commas between")
        ->type_name("LIST");
    line.Repeated("--listen", options.interfaces,
                  "receive frames from a network interface, until interrupted (repeatable, or "
                  "several with commas between)")
        ->delimiter(',')
        ->type_name("INTERFACE");
    app.add_flag("--promiscuous", options.listening.promiscuous,
                 "listen to frames for others, too");
    app.add_option("--buffer-size", raw.bufferSize,
                   "the kernel's buffer for an interface that is listened to, in KiB or MiB")
        ->type_name("SIZE")
        ->default_str("16MiB");
    app.add_flag("--serve", options.stay, "stay up for clients, until interrupted");
    app.add_option("--workers", raw.workers, "forwarding threads; a flow stays on one")
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--rx-port", raw.rxPort, "port on which the frames arrive")
        ->type_name("N")
        ->capture_default_str();
    line.Repeated("--local", raw.localAddresses,
                  "pass frames from an address down the transmit path (repeatable)")
        ->type_name("IP");
}

}  // namespace

std::optional<Options> ParseOptions(int argc, char **argv) {
    CLI::App app("Replays a capture through the module, and reports where every packet went.",
                 "kes_engine");
    app.footer(kExamples + control::Operations().Help());
    app.set_version_flag("--version", "kes_engine " KES_ENGINE_VERSION);
    Options options;
    RawOptions raw;
    CommonCommandLine line(app, options, "the replay",
                           "; with --serve and --listen there is one anyway");
    Describe(app, line, options, raw);
    if (!line.Parse(argc, argv)) {
        return std::nullopt;
    }
    try {
        line.ReadValues();
        ReadValues(raw, options);
    } catch (const control::InputError &error) {
        throw UsageError(error.what());
    }
    return options;
}

}  // namespace kes_engine
