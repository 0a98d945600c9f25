#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <system_error>

#include "capture/writer.h"
#include "capwap/message_type.h"
#include "capwap_gen/commands.h"
#include "capwap_gen/traffic.h"

namespace {

using namespace capwap_gen;

enum ExitStatus { kOk = 0, kFailed = 1, kUsage = 2 };

struct Arguments {
    TrafficOptions traffic;
    std::string out, commands;
    std::string controller = ToText(traffic.controller);
    std::string controller6 = ToText(traffic.controller6);
    std::string mix = "all";
    int64_t startSeconds = traffic.startNs / 1'000'000'000;
    bool nanoseconds = false;
};

std::string Footer() {
    std::string text = "Kinds of traffic, with their weights in the mix \"all\":\n";
    for (const KindInfo &info : kKinds) {
        std::string name(info.name);
        std::string weight = std::to_string(info.weight);
        text.append("  ").append(name).append(17 - name.size() - weight.size(), ' ');
        text.append(weight).append("  ").append(info.help).append("\n");
    }
    return text +
           "A kind of weight 0 never appears. Kinds that set a session up also start it.\n"
           "Pings and probes are added by name, as in all,ping=10,probe=5; they are of message\n"
           "types that the controller's vendor has formed from the enterprise number " +
           std::to_string(capwap::kVendorPen) +
           ".\n\n"
           "Example: 200 access points on 8 instances, nothing damaged, and the commands that\n"
           "register them:\n"
           "  capwap_gen --out day.pcap --commands day.cmd --aps 200 --instances 8 \\\n"
           "      --mix all,damaged=0\n"
           "\n"
           "Exit status: 0 all went well, 1 a file could not be written, 2 the command line makes\n"
           "no sense.\n";
}

// Adds an option whose text has to be parsed, so that an error names the option and the text.
template <typename Parse>
void AddParsed(CLI::App &app, const char *name, std::string &text, const char *type,
               const char *help, Parse parse) {
    app.add_option(name, text, help)
        ->option_text(std::string(type) + " [" + text + "]")
        ->check([parse](const std::string &value) -> std::string {
            try {
                parse(value);
                return {};
            } catch (const std::invalid_argument &error) {
                return error.what();
            }
        });
}

void AddOptions(CLI::App &app, Arguments &arguments) {
    TrafficOptions &traffic = arguments.traffic;
    auto number = [&](const char *name, auto &value, auto low, auto high, const char *help) {
        app.add_option(name, value, help)
            ->option_text("N [" + std::to_string(value) + "]")
            ->check(CLI::Range(low, high));
    };
    app.add_option("--out", arguments.out, "Capture to write; - for standard output")
        ->option_text("FILE (required)")
        ->required();
    app.add_option("--commands", arguments.commands,
                   "Where to write the control commands that register the access points")
        ->option_text("FILE");
    number("--seed", traffic.seed, uint64_t{0}, uint64_t{INT64_MAX},
           "Equal options and seeds give equal captures");
    number("--aps", traffic.accessPoints, 1u, kMaxAccessPoints, "Access points");
    number("--instances", traffic.instances, 1u, 65536u, "Service instances, numbered from 0");
    number("--rounds", traffic.rounds, 0u, 1'000'000'000u,
           "Turns that each access point takes after its set-up, each an exchange or a frame");
    AddParsed(app, "--mix", arguments.mix, "NAME=WEIGHT,...", "What appears and how often",
              [&](const std::string &text) { traffic.mix = Mix::Parse(text); });
    AddParsed(app, "--controller", arguments.controller, "IPV4", "The controller's address",
              [&](const std::string &text) { traffic.controller = capwap::Ipv4(text); });
    AddParsed(app, "--controller6", arguments.controller6, "IPV6", "Its IPv6 address",
              [&](const std::string &text) { traffic.controller6 = capwap::Ipv6(text); });
    number("--ipv6", traffic.ipv6Percent, 0u, 100u, "Percentage of access points on IPv6");
    number("--vlan", traffic.vlanPercent, 0u, 100u, "Percentage behind one VLAN tag or two");
    number("--data-dtls", traffic.dataDtlsPercent, 0u, 100u,
           "Percentage with DTLS on the data port");
    number("--unregistered", traffic.unregisteredPercent, 0u, 100u,
           "Percentage left out of the commands");
    number("--start-time", arguments.startSeconds, int64_t{0}, int64_t{0xFFFFFFFF},
           "Time of the capture's start in seconds since 1970");
    number("--rate", traffic.framesPerSecond, 1u, 1'000'000'000u,
           "Frames per second of the capture's time, on average");
    app.add_flag("--nanoseconds", arguments.nanoseconds, "Write nanosecond timestamps");
}

void PrintSummary(std::ostream &out, const Tally &tally, const Traffic &traffic) {
    auto line = [&](std::string_view what, uint64_t count) {
        out << "  " << what << std::string(what.size() < 40 ? 40 - what.size() : 1, ' ') << count
            << '\n';
    };
    out << tally.frames << " frames of " << traffic.AccessPoints().size() << " access points:\n";
    for (const auto &[content, count] : tally.byContent) {
        line(content, count);
    }
    out << "With the capture's commands a replay delivers to:\n";
    for (size_t i = 0; i < tally.byInstance.size(); i++) {
        line("instance " + std::to_string(i), tally.byInstance[i]);
    }
    line("nobody: no owner for the session", tally.undelivered);
    line("nobody: not for the management service", tally.returned);
}

void Run(Arguments &arguments) {
    arguments.traffic.startNs = arguments.startSeconds * 1'000'000'000;
    Traffic traffic(arguments.traffic);
    if (!arguments.commands.empty()) {
        std::ofstream file(arguments.commands);
        WriteCommands(file, traffic);
        if (!file.flush()) {
            throw std::runtime_error("cannot write " + arguments.commands + ": " +
                                     std::generic_category().message(errno));
        }
    }
    capture::Writer writer(arguments.out, arguments.nanoseconds ? capture::Times::kNanoseconds
                                                                : capture::Times::kMicroseconds);
    Tally tally(arguments.traffic.instances);
    traffic.Generate([&](const Frame &frame) {
        writer.Write({.bytes = frame.bytes,
                      .timeNs = frame.timeNs,
                      .wireLength = static_cast<uint32_t>(frame.bytes.size())});
        tally.Count(frame);
    });
    writer.Close();
    PrintSummary(arguments.out == capture::kStandardStream ? std::cerr : std::cout, tally, traffic);
}

ExitStatus Complain(const std::string &what, ExitStatus status) {
    std::cerr << "capwap_gen: " << what << '\n';
    return status;
}

ExitStatus ParseAndRun(int argc, char **argv) {
    CLI::App app("Writes captures of realistic CAPWAP traffic, the same for the same options.",
                 "capwap_gen");
    Arguments arguments;
    AddOptions(app, arguments);
    app.footer(Footer());
    app.set_version_flag("--version", "capwap_gen " CAPWAP_GEN_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &answer) {
        app.exit(answer);
        return kOk;
    }
    Run(arguments);
    return kOk;
}

ExitStatus Main(int argc, char **argv) {
    try {
        return ParseAndRun(argc, argv);
    } catch (const CLI::ParseError &error) {
        return Complain(std::string(error.what()) + " (--help lists the options)", kUsage);
    } catch (const std::invalid_argument &error) {
        return Complain(error.what(), kUsage);
    } catch (const std::exception &error) {
        return Complain(error.what(), kFailed);
    }
}

}  // namespace

int main(int argc, char **argv) {
    return Main(argc, argv);
}
