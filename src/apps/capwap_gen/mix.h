// What kinds of traffic appear, and how often.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace capwap_gen {

enum class Kind {
    kDiscovery,
    kHandshake,
    kJoin,
    kDataHandshake,
    kKeepalive,
    kControl,
    kSecured,
    kData,
    kWlan,
    kWapi,
    kFragment,
    kDamaged,
    kUnrelated,
    kPing,
    kProbe,
};

struct KindInfo {
    Kind kind;
    std::string_view name;
    uint32_t weight;  // in the mix "all"
    bool setsUp;      // a step of every session's set-up too
    std::string_view help;
};

// In the order of a session's set-up, then the rest.
constexpr std::array kKinds = {
    KindInfo{Kind::kDiscovery, "discovery", 2, true,
             "Discovery by broadcast, multicast and unicast"},
    KindInfo{Kind::kHandshake, "handshake", 1, true, "DTLS handshake on the control port"},
    KindInfo{Kind::kJoin, "join", 1, true, "Join, Configuration Status and Change State Event"},
    KindInfo{Kind::kDataHandshake, "data-handshake", 1, true, "DTLS handshake on the data port"},
    KindInfo{Kind::kKeepalive, "keepalive", 15, true, "data channel keepalives"},
    KindInfo{Kind::kControl, "control", 25, false,
             "Echo, WTP Event and all other exchanges, vendor pings too"},
    KindInfo{Kind::kSecured, "secured", 5, false, "DTLS application data and alerts"},
    KindInfo{Kind::kData, "data", 30, false, "data frames, 802.11 and 802.3"},
    KindInfo{Kind::kWlan, "wlan", 5, false, "data frames whose extension header names the WLAN"},
    KindInfo{Kind::kWapi, "wapi", 5, false, "WAPI frames from stations"},
    KindInfo{Kind::kFragment, "fragment", 3, false, "messages and data in IP or CAPWAP fragments"},
    KindInfo{Kind::kDamaged, "damaged", 2, false, "truncated, mis-sized and contradictory packets"},
    KindInfo{Kind::kUnrelated, "unrelated", 5, false, "ARP, DNS, TCP, ICMP and other UDP"},
    KindInfo{Kind::kPing, "ping", 0, false, "vendor pings of any size, some in CAPWAP fragments"},
    KindInfo{Kind::kProbe, "probe", 0, false, "vendor probes and their responses"},
};

// A relative weight for each kind; a kind of weight 0 never appears.
class Mix {
  public:
    // "all" or "NAME=WEIGHT" between commas; the last word on a kind counts: "all,damaged=0".
    // Throws std::invalid_argument that names the faulty item.
    static Mix Parse(const std::string &text);
    static Mix All();

    uint32_t Weight(Kind kind) const {
        return weights_[static_cast<size_t>(kind)];
    }
    void Set(Kind kind, uint32_t weight) {
        weights_[static_cast<size_t>(kind)] = weight;
    }

  private:
    std::array<uint32_t, kKinds.size()> weights_ = {};
};

}  // namespace capwap_gen
