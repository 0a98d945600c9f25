#include "capwap_gen/commands.h"

#include <cstdio>
#include <string>

namespace capwap_gen {
namespace {

// The control-plane index of the interface that the capture is taken on.
constexpr uint32_t kInterface = 7;

std::string ToHex(const capwap::SessionId &session) {
    char text[33];
    std::snprintf(text, sizeof(text), "%08x%08x%08x%08x", session[0], session[1], session[2],
                  session[3]);
    return text;
}

void WriteTunnel(std::ostream &out, const AccessPoint &ap, uint16_t port,
                 const std::string &controller, uint16_t controllerPort) {
    out << "tunnel add " << ap.Address() << ' ' << port << ' ' << controller << ' '
        << controllerPort << " --node " << ap.instance << '\n';
}

}  // namespace

void WriteCommands(std::ostream &out, const Traffic &traffic) {
    const TrafficOptions &options = traffic.Options();
    std::string controller = ToText(options.controller);
    std::string controller6 = ToText(options.controller6);

    out << "# The controller's addresses; broadcasts count on the interface.\n"
        << "source add 1 " << controller << " --if " << kInterface << '\n'
        << "source add 1 " << controller6 << " --if " << kInterface << '\n'
        << "# Whatever is not registered.\n"
        << "tunnel default --node " << kDefaultInstance << '\n'
        << "tunnel default --node " << kDefaultInstance << " --ipv6\n"
        << "# Stations are spread over all instances.\n"
        << "wapi 0 " << options.instances << '\n'
        << "# Access points.\n";
    for (const AccessPoint &ap : traffic.AccessPoints()) {
        if (!ap.registered) {
            continue;
        }
        const std::string &to = ap.ipv6 ? controller6 : controller;
        WriteTunnel(out, ap, ap.controlPort, to, capwap::kControlPort);
        if (ap.dataDtls) {
            WriteTunnel(out, ap, ap.dataPort, to, capwap::kDataPort);
        }
        out << "session add " << ToHex(ap.session) << " --node " << ap.instance << '\n';
    }
}

}  // namespace capwap_gen
