#include "port_count.h"

#include <algorithm>
#include <iomanip>
#include <ostream>

namespace kes_engine {
namespace {

using Json = nlohmann::ordered_json;

std::string RoleOf(const PortCount &count) {
    return count.role + (count.instance ? " " + std::to_string(*count.instance) : "");
}

Json PortToJson(const PortCount &count) {
    return {{"name", count.name},
            {"role", count.role},
            {"instance", count.instance ? Json(*count.instance) : Json()},
            {"up", count.up},
            {"receivedPackets", count.receivedPackets},
            {"receivedBytes", count.receivedBytes},
            {"receiveErrors", count.receiveErrors},
            {"missed", count.missed},
            {"noBuffer", count.noBuffer},
            {"oversize", count.oversize},
            {"sentPackets", count.sentPackets},
            {"sentBytes", count.sentBytes},
            {"sendErrors", count.sendErrors},
            {"refused", count.refused},
            {"waiting", count.waiting},
            {"room", count.room}};
}

Json ReassemblyToJson(const ReassemblyCount &count) {
    return {{"fragments", count.fragments}, {"held", count.Held()},     {"joined", count.joined},
            {"datagrams", count.datagrams}, {"expired", count.expired}, {"dropped", count.dropped},
            {"tooLong", count.tooLong}};
}

}  // namespace

Json ToJson(const Traffic &traffic) {
    Json ports = Json::array();
    for (const PortCount &count : traffic.ports) {
        ports.push_back(PortToJson(count));
    }
    Json json = {
        {"ports", std::move(ports)},
        {"buffers", {{"total", traffic.buffers.buffers}, {"inUse", traffic.buffers.inUse}}}};
    if (traffic.reassembly) {
        json["reassembly"] = ReassemblyToJson(*traffic.reassembly);
    }
    return json;
}

void Print(std::ostream &out, const Traffic &traffic) {
    constexpr int kNumber = 12;
    size_t width = 0;
    for (const PortCount &count : traffic.ports) {
        width = std::max(width, count.name.size());
    }
    const int name = static_cast<int>(std::max(width, std::string("port").size())) + 2;
    out << '\n' << std::left << std::setw(name) << "port" << std::setw(14) << "role" << std::right;
    for (const char *column :
         {"received", "missed", "no buffer", "oversize", "errors", "sent", "refused", "errors"}) {
        out << std::setw(kNumber) << column;
    }
    out << '\n';
    for (const PortCount &count : traffic.ports) {
        out << std::left << std::setw(name) << count.name << std::setw(14) << RoleOf(count)
            << std::right;
        for (const uint64_t number :
             {count.receivedPackets, count.missed, count.noBuffer, count.oversize,
              count.receiveErrors, count.sentPackets, count.refused, count.sendErrors}) {
            out << std::setw(kNumber) << number;
        }
        out << '\n';
    }
    out << "buffers " << traffic.buffers.buffers << ", " << traffic.buffers.inUse << " in use\n";
    if (const auto &count = traffic.reassembly) {
        out << "fragments " << count->fragments << ": " << count->joined << " joined to "
            << count->datagrams << " datagrams, " << count->expired << " expired, "
            << count->dropped << " dropped, " << count->tooLong << " too long, " << count->Held()
            << " held\n";
    }
}

}  // namespace kes_engine
