#include "ports_options.h"

#include <algorithm>
#include <map>
#include <string_view>

#include "control/command_table.h"
#include "control/input_error.h"
#include "control/values.h"
#include "failure.h"
#include "mund/server.h"

namespace kes_dpdk {
namespace {

using kes_engine::Sides;
using kes_engine::UsageError;

constexpr const char *kExamples =
    R"(Usage, as of all programs on DPDK: its arguments, two hyphens, and these options:
  kes_dpdk EAL-ARGUMENTS -- [OPTIONS]

Examples:
  kes_dpdk -l 0-2 -a 0000:03:00.0 --vdev net_tap3,iface=wlc3 -- --exec tunnels.txt --instance 3=net_tap3
      a network card, two lcores that forward, and instance 3 behind a tap
  kes_dpdk -l 0,1 --no-huge -m 256 --no-pci --vdev net_af_packet0,iface=eth1 \
      --vdev net_tap0,iface=wlc -- --exec tunnels.txt --kernel net_tap0
      an interface of the system, without huge pages; what is not for an instance goes to a tap

The main lcore (the first of -l) serves clients and counts; the others forward, and there must be one.
A port is named by its device or by DPDK's number.

What an instance with a port is handed leaves by that port as it came, and what comes in on it goes
down the transmit path and out of the network port from which frames of the receiver have come, or of
all when none have. Instances without a port are counted, and kept as captures with --out. What the
module gives back goes to the kernel port, or is dropped.
Packets that resolve addresses (ARP, neighbour discovery) are given back, and copied to the port of
every instance. Of the answers that come from there, only those of one stack go out: the kernel's, or
where there is no such port, that of the first instance named.

SIGINT and SIGTERM stop the run in order, with the report on standard output; a second one ends it at
once. SIGHUP opens the log anew. Exit status: 0 all went well, 1 something did not, 2 the command line
makes no sense, or what it names cannot be had.

Commands for --exec and --exec-after, one on a line, '#' begins a comment:
)";

// Options whose values are not plain texts, as they were given.
struct RawOptions {
    std::vector<std::string> networks;
    std::vector<std::string> instances;
    std::vector<std::string> addresses;
    std::string buffers;
    std::string longestFrame = "2048";
    std::string channelSize = "2048";
    std::string idle;
};

void Describe(CLI::App &app, kes_engine::CommonCommandLine &line, PortsOptions &options,
              RawOptions &raw) {
    line.Repeated("--port", raw.networks,
                  "receive from a port, which is INDEX in the forwarding plane (repeatable)")
        ->type_name("PORT[=INDEX]")
        ->default_str("all that have no other role, with DPDK's numbers");
    line.Repeated("--instance", raw.instances,
                  "give a service instance a port of its own (repeatable)")
        ->type_name("N=PORT");
    app.add_option("--kernel", options.kernel,
                   "give the system's own stack what is for no instance")
        ->type_name("PORT");
    line.Repeated("--address", raw.addresses,
                  "copy ARP requests and neighbour solicitations to the instances' ports only for "
                  "this address of the controller (repeatable)")
        ->type_name("ADDR")
        ->default_str("for any");
    app.add_option("--buffers", raw.buffers, "packet buffers")
        ->type_name("N")
        ->default_str("as many as ports and channels hold, and some more");
    app.add_option("--max-frame", raw.longestFrame, "bytes of the longest frame")
        ->type_name("BYTES")
        ->capture_default_str();
    app.add_option("--channel", raw.channelSize, "packets that an instance's channel holds")
        ->type_name("N")
        ->capture_default_str();
    app.add_flag(
        "--reassemble", options.reassemble,
        "put IP datagrams together that come in fragments; needs a --max-frame above 2048");
    app.add_flag("--busy", options.busy,
                 "never let an lcore rest, which it otherwise does when nothing comes");
    app.add_option("--idle-exit", raw.idle, "end the run when no packet has come in for so long")
        ->type_name("SECONDS");
}

NetworkPort ReadNetwork(const std::string &text) {
    if (text.find('=') == std::string::npos) {
        return {text, std::nullopt};
    }
    const auto [port, index] = Sides("--port", text);
    return {port, control::ParseNumber("--port INDEX", index)};
}

InstancePort ReadInstance(const std::string &text) {
    const auto [number, port] = Sides("--instance", text);
    return {control::ParseNumber("--instance N", number), port};
}

// Throws UsageError for an instance with two ports.
void RefuseRepeatedInstances(const PortsOptions &options) {
    std::map<uint32_t, std::string> ports;
    for (const InstancePort &given : options.instances) {
        const auto [entry, isFirst] = ports.emplace(given.instance, given.port);
        if (!isFirst) {
            throw UsageError("--instance " + std::to_string(given.instance) + " has the ports '" +
                             entry->second + "' and '" + given.port + "'");
        }
    }
}

void ReadValues(const RawOptions &raw, PortsOptions &options) {
    constexpr uint32_t kMostPackets = 1u << 24;
    std::ranges::transform(raw.networks, std::back_inserter(options.networks), ReadNetwork);
    std::ranges::transform(raw.instances, std::back_inserter(options.instances), ReadInstance);
    RefuseRepeatedInstances(options);
    std::ranges::transform(raw.addresses, std::back_inserter(options.addresses),
                           [](const auto &text) { return ParseAddress("--address", text); });
    if (!raw.buffers.empty()) {
        options.buffers = control::ParseNumber("--buffers", raw.buffers, kMostPackets);
        if (options.buffers == 0) {
            throw UsageError("--buffers '0': too few for any packet");
        }
    }
    options.longestFrame =
        static_cast<uint16_t>(control::ParseNumber("--max-frame", raw.longestFrame, kLongestFrame));
    if (options.longestFrame < 1522) {
        throw UsageError("--max-frame '" + raw.longestFrame +
                         "': a full Ethernet frame with its tag has 1522 bytes");
    }
    // Up to there ports keep their usual MTU, and would not let a whole datagram out.
    if (options.reassemble && options.longestFrame <= 2048) {
        throw UsageError("--reassemble: --max-frame '" + raw.longestFrame +
                         "' is too short for whole datagrams: above 2048");
    }
    options.channelSize = control::ParseNumber("--channel", raw.channelSize, kMostPackets);
    if (options.channelSize == 0) {
        throw UsageError("--channel '0': a channel holds a packet at least");
    }
    if (!raw.idle.empty()) {
        options.idleSeconds = control::ParseNumber("--idle-exit", raw.idle);
        if (options.idleSeconds == 0) {
            throw UsageError("--idle-exit '0': at least a second");
        }
    }
    if (options.controlPath.empty()) {
        options.controlPath = mund::DefaultSocketPath();
    }
}

// Where the program's own options begin: behind the two hyphens. A lone question needs none.
char **OwnOptions(int argc, char **argv) {
    char **const end = argv + argc;
    char **const hyphens = std::find(argv + 1, end, std::string_view("--"));
    const bool asks =
        argc == 2 && (argv[1] == std::string_view("--help") || argv[1] == std::string_view("-h") ||
                      argv[1] == std::string_view("--version"));
    return asks ? argv + 1 : hyphens == end ? end : hyphens + 1;
}

}  // namespace

std::optional<PortsOptions> ParseOptions(int argc, char **argv) {
    CLI::App app("Runs the module on the ports of DPDK, and reports where every packet went.",
                 "kes_dpdk EAL-ARGUMENTS --");
    app.footer(kExamples + control::Operations().Help());
    app.set_version_flag("--version", "kes_dpdk " KES_DPDK_VERSION);
    PortsOptions options;
    RawOptions raw;
    kes_engine::CommonCommandLine line(app, options, "any traffic", "");
    Describe(app, line, options, raw);

    char **const own = OwnOptions(argc, argv);
    std::vector<const char *> words = {argv[0]};
    words.insert(words.end(), own, argv + argc);
    if (!line.Parse(static_cast<int>(words.size()), words.data())) {
        return std::nullopt;
    }
    char **const environmentEnd = std::find(argv + 1, argv + argc, std::string_view("--"));
    options.environment.assign(argv + 1, environmentEnd);
    try {
        line.ReadValues();
        ReadValues(raw, options);
    } catch (const control::InputError &error) {
        throw UsageError(error.what());
    }
    return options;
}

}  // namespace kes_dpdk
