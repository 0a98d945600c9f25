#include "capwap_gen/access_point.h"

#include <arpa/inet.h>

#include <numeric>
#include <stdexcept>

namespace capwap_gen {
namespace {

using capwap::Mac;

// Locally administered addresses. Their first two bytes are no known Ethernet type, so a decoder
// that takes an extension header for the start of the frame behind it finds nothing to misread.
Mac MakeMac(uint8_t family, uint32_t number) {
    return {0xD2,
            family,
            static_cast<uint8_t>(number >> 24),
            static_cast<uint8_t>(number >> 16),
            static_cast<uint8_t>(number >> 8),
            static_cast<uint8_t>(number)};
}

// Marks `percent` of `count` things, chosen at random.
std::vector<bool> Share(uint32_t count, uint32_t percent, Random &random) {
    std::vector<uint32_t> order(count);
    std::iota(order.begin(), order.end(), 0);
    random.Shuffle(order);
    order.resize((uint64_t{count} * percent + 50) / 100);
    std::vector<bool> marked(count);
    for (uint32_t index : order) {
        marked[index] = true;
    }
    return marked;
}

// One tag or two, of the priority that RFC 5415, section 4.5.2.1, gives to control messages.
std::vector<uint16_t> MakeVlans(Random &random) {
    constexpr uint16_t kPriority = 7 << 13;
    std::vector<uint16_t> vlans;
    if (random.OneIn(4)) {
        vlans.push_back(static_cast<uint16_t>(kPriority | random.Between(100, 199)));
    }
    vlans.push_back(static_cast<uint16_t>(kPriority | random.Between(200, 299)));
    return vlans;
}

}  // namespace

Mac AccessPoint::Bssid() const {
    return MakeMac(0xB5, index);
}

Mac AccessPoint::Station(uint32_t number) const {
    return MakeMac(static_cast<uint8_t>(0x50 + number), index);
}

std::string AccessPoint::Address() const {
    return ipv6 ? ToText(ip6) : ToText(ip);
}

std::vector<AccessPoint> MakeAccessPoints(const TrafficOptions &options, Random &random) {
    uint32_t count = options.accessPoints;
    auto ipv6 = Share(count, options.ipv6Percent, random);
    auto vlan = Share(count, options.vlanPercent, random);
    auto dataDtls = Share(count, options.dataDtlsPercent, random);
    auto unregistered = Share(count, options.unregisteredPercent, random);

    std::vector<AccessPoint> all;
    all.reserve(count);
    for (uint32_t i = 0; i < count; i++) {
        auto port = random.Between<uint16_t>(49152, 65534);
        all.push_back({
            .index = i,
            .mac = MakeMac(0xA9, i),
            .vlans = vlan[i] ? MakeVlans(random) : std::vector<uint16_t>(),
            .ipv6 = ipv6[i],
            // From 1 to 250 in each subnet of 10.64.0.0/10.
            .ip = capwap::Ipv4("10.64.0.0") + (i / 250 << 8) + i % 250 + 1,
            .ip6 = {0x20010DB8, 0x00010000, 0, i + 1},
            .controlPort = port,
            .dataPort = static_cast<uint16_t>(port + 1),
            .session = {random.Word(), random.Word(), random.Word(), random.Word()},
            .dataDtls = dataDtls[i],
            .instance = i % options.instances,
            .registered = !unregistered[i],
        });
        if (all.back().ip == options.controller || all.back().ip6 == options.controller6) {
            throw std::invalid_argument("the controller's address is access point " +
                                        std::to_string(i) + "'s: " + all.back().Address());
        }
    }
    return all;
}

std::string ToText(uint32_t ip) {
    char text[INET_ADDRSTRLEN];
    in_addr address = {htonl(ip)};
    return inet_ntop(AF_INET, &address, text, sizeof(text));
}

std::string ToText(const capwap::Ipv6Words &ip6) {
    char text[INET6_ADDRSTRLEN];
    capwap::Ipv6Words network;
    for (size_t i = 0; i < ip6.size(); i++) {
        network[i] = htonl(ip6[i]);
    }
    return inet_ntop(AF_INET6, network.data(), text, sizeof(text));
}

}  // namespace capwap_gen
