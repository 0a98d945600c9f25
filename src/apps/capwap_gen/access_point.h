// The access points of a capture and what sets each apart.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capwap/packet_builder.h"
#include "capwap_gen/mix.h"
#include "capwap_gen/random.h"

namespace capwap_gen {

// What a capture is made of; equal options give equal captures.
struct TrafficOptions {
    uint64_t seed = 1;
    uint32_t accessPoints = 50;  // at most kMaxAccessPoints
    uint32_t instances = 4;      // of the management service, from 0; at least 1
    uint32_t rounds = 20;        // turns that each access point has after its set-up
    uint32_t controller = capwap::Ipv4("10.0.0.1");
    capwap::Ipv6Words controller6 = capwap::Ipv6("2001:db8::1");
    std::string controllerName = "controller-1";
    Mix mix = Mix::All();
    // Percentages of the access points.
    uint32_t ipv6Percent = 25;
    uint32_t vlanPercent = 20;
    uint32_t dataDtlsPercent = 50;  // have DTLS on the data port too
    uint32_t unregisteredPercent = 0;
    int64_t startNs = 1'735'689'600'000'000'000;  // since the epoch
    uint32_t framesPerSecond = 10'000;            // on average, in the capture's time; at least 1
};

constexpr uint32_t kMaxAccessPoints = 1'000'000;

// The instance that gets the packets of tunnels that are not registered.
constexpr uint32_t kDefaultInstance = 0;

struct AccessPoint {
    uint32_t index;
    capwap::Mac mac;
    std::vector<uint16_t> vlans;
    bool ipv6;
    uint32_t ip;
    capwap::Ipv6Words ip6;
    uint16_t controlPort, dataPort;
    capwap::SessionId session;
    bool dataDtls;
    uint32_t instance;  // that owns it
    bool registered;    // with the module, by the commands of the capture

    // Where its conversation stands.
    uint8_t sequence = 0, controllerSequence = 0;
    uint16_t ipId = 0, fragmentId = 0;
    uint64_t dtlsRecords = 0;

    static constexpr uint32_t kStations = 16;
    capwap::Mac Bssid() const;
    capwap::Mac Station(uint32_t number) const;  // below kStations
    std::string Address() const;
};

// Makes the access points; each share of them is exact, and which they are depends on the seed.
// Throws std::invalid_argument when a controller's address is one of theirs.
std::vector<AccessPoint> MakeAccessPoints(const TrafficOptions &options, Random &random);

// Addresses as people write them.
std::string ToText(uint32_t ip);
std::string ToText(const capwap::Ipv6Words &ip6);

}  // namespace capwap_gen
