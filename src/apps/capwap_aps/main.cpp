// capwap_aps: many access points that look for a controller, join it and stay with it, over UDP
// sockets of this system.
#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <nlohmann/json.hpp>

#include "capwap_aps/crowd.h"

namespace {

using namespace capwap_aps;
using capwap_gen::ToText;
using capwap_gen::TrafficOptions;
using nlohmann::ordered_json;

enum ExitStatus { kOk = 0, kUnserved = 1, kUsage = 2, kFailed = 3 };

volatile std::sig_atomic_t interrupted = 0;

struct Arguments {
    TrafficOptions traffic = {.accessPoints = 10, .vlanPercent = 0};
    Timers timers;
    std::string controller = ToText(traffic.controller);
    std::string controller6 = ToText(traffic.controller6);
    double seconds = 0;
    double every = 1;
    bool json = false;
};

constexpr const char *kFooter =
    "Access point N has the address 10.64.0.N (1 to 250, then 10.64.1.1 and on), or "
    "2001:db8:1::N,\n"
    "and a port that depends on the seed. All of these have to be addresses of this system:\n"
    "  ip route add local 10.64.0.0/16 dev lo\n"
    "  ip -6 route add local 2001:db8:1::/64 dev lo\n"
    "\n"
    "Each sends a Discovery Request, a Join Request, and then Echo Requests and keepalives. It is\n"
    "served while it has joined and its last request and keepalive are answered in time. There is\n"
    "no DTLS.\n"
    "\n"
    "Exit status: 0 all were served at the end, 1 some were not, 2 the command line makes no "
    "sense,\n"
    "3 the sockets cannot be had.\n";

void AddOptions(CLI::App &app, Arguments &arguments) {
    TrafficOptions &traffic = arguments.traffic;
    Timers &timers = arguments.timers;
    const auto number = [&](const char *name, auto &value, auto low, auto high, const char *help) {
        app.add_option(name, value, help)
            ->option_text("N [" + std::to_string(value) + "]")
            ->check(CLI::Range(low, high));
    };
    const auto time = [&](const char *name, std::chrono::milliseconds &value, const char *help) {
        app.add_option_function<uint32_t>(
               name, [&value](uint32_t ms) { value = std::chrono::milliseconds(ms); }, help)
            ->option_text("MS [" + std::to_string(value.count()) + "]")
            ->check(CLI::Range(1u, 3'600'000u));
    };
    const auto address = [&](const char *name, std::string &text, const char *type,
                             const char *help, auto set) {
        app.add_option(name, text, help)
            ->option_text(std::string(type) + " [" + text + "]")
            ->check([set](const std::string &value) -> std::string {
                try {
                    set(value);
                    return {};
                } catch (const std::invalid_argument &error) {
                    return error.what();
                }
            });
    };
    number("--aps", traffic.accessPoints, 1u, 10'000u, "Access points");
    number("--seed", traffic.seed, uint64_t{0}, uint64_t{INT64_MAX},
           "Equal seeds give equal ports and session ids");
    number("--ipv6", traffic.ipv6Percent = 0, 0u, 100u, "Percentage of access points on IPv6");
    address("--controller", arguments.controller, "IPV4", "The controller's address",
            [&](const std::string &text) { traffic.controller = capwap::Ipv4(text); });
    address("--controller6", arguments.controller6, "IPV6", "Its IPv6 address",
            [&](const std::string &text) { traffic.controller6 = capwap::Ipv6(text); });
    time("--echo", timers.echo, "Between Echo Requests");
    time("--keepalive", timers.keepalive, "Between keepalives");
    time("--retransmit", timers.retransmit,
         "How long an answer may take; doubles with each retransmission");
    number("--max-retransmit", timers.maxRetransmit, 0u, 100u,
           "Retransmissions, before it looks for its controller anew");
    app.add_option("--seconds", arguments.seconds, "How long to go on; 0: until SIGINT or SIGTERM")
        ->option_text("S [0]")
        ->check(CLI::Range(0.0, 1e9));
    app.add_option("--every", arguments.every, "Between lines on the standard output")
        ->option_text("S [1]")
        ->check(CLI::Range(0.05, 1e6));
    app.add_flag("--json", arguments.json,
                 "Lines in JSON, which name the access points that are not served");
}

ordered_json JsonOf(const Situation &situation, double seconds) {
    const Exchanges &counts = situation.counts;
    ordered_json json = {{"seconds", seconds},
                         {"served", situation.served.size()},
                         {"unserved", situation.unserved.size()},
                         {"byController", situation.byController},
                         {"requests", counts.requests},
                         {"answered", counts.answered},
                         {"retransmissions", counts.retransmissions},
                         {"keepalives", counts.keepalives},
                         {"keepalivesAnswered", counts.keepalivesAnswered},
                         {"joins", counts.joins}};
    ordered_json &unserved = json["unservedAccessPoints"] = ordered_json::array();
    for (const LiveAccessPoint *ap : situation.unserved) {
        unserved.push_back({{"address", ap->Identity().Address()},
                            {"controlPort", ap->Identity().controlPort},
                            {"controller", ap->ControllerName()}});
    }
    return json;
}

std::string TextOf(const Situation &situation, double seconds) {
    char head[96];
    std::snprintf(head, sizeof head, "%8.1f s  %zu served, %zu not", seconds,
                  situation.served.size(), situation.unserved.size());
    std::string text = head;
    const char *before = "  by ";
    for (const auto &[name, count] : situation.byController) {
        text += before + name + ": " + std::to_string(count);
        before = ", ";
    }
    return text;
}

ExitStatus Run(const Arguments &arguments) {
    Crowd crowd(arguments.traffic, arguments.timers);
    const Moment start = Clock::now();
    const auto after = [start](double seconds) {
        return start +
               std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    };
    const Moment end = arguments.seconds > 0 ? after(arguments.seconds) : Moment::max();
    Situation situation;
    for (uint64_t line = 1; interrupted == 0 && Clock::now() < end; ++line) {
        crowd.RunUntil(std::min(end, after(arguments.every * static_cast<double>(line))),
                       [] { return interrupted == 0; });
        const Moment now = Clock::now();
        const double seconds = std::chrono::duration<double>(now - start).count();
        situation = crowd.Look(now);
        std::cout << (arguments.json ? JsonOf(situation, seconds).dump()
                                     : TextOf(situation, seconds))
                  << std::endl;
    }
    return situation.unserved.empty() ? kOk : kUnserved;
}

ExitStatus Complain(const std::string &what, ExitStatus status) {
    std::cerr << "capwap_aps: " << what << '\n';
    return status;
}

ExitStatus ParseAndRun(int argc, char **argv) {
    CLI::App app("Speaks to a controller as many access points do.", "capwap_aps");
    Arguments arguments;
    AddOptions(app, arguments);
    app.footer(kFooter);
    app.set_version_flag("--version", "capwap_aps " CAPWAP_APS_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &answer) {
        app.exit(answer);
        return kOk;
    }
    for (const int signal : {SIGINT, SIGTERM}) {
        std::signal(signal, [](int) { interrupted = 1; });
    }
    return Run(arguments);
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
