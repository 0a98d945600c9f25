// Who sent packets that the module should have given to a service instance and did not, and why.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "explanation.h"
#include "kes/mbuf.h"
#include "standin/packet_path.h"

namespace kes_engine {

struct UnservedReport {
    // The packets of one kind that went from one address to another and met one fate.
    struct Talk {
        std::string source;
        std::string destination;
        std::string kind;  // "control", "keepalive", "DTLS handshake", "WAPI"
        bool undelivered;  // or else returned
        std::string why;   // of the first of them
        uint64_t packets;
    };
    std::vector<Talk> talks;  // the most packets first
    uint64_t others = 0;      // packets of further talks, which were not told apart
};

// Its memory is bounded. A packet that was taken, or is not the module's, costs nothing here; of
// each talk the first packet is explained, by a dry run beside the traffic.
class Unserved {
  public:
    static constexpr size_t kMostTalks = 4096;

    // The module must have started, and stay so.
    explicit Unserved(const standin::Module &module);

    // Counts a packet that was returned or not delivered. Callable from any thread.
    void Count(const HostMbuf *packet, bool undelivered);

    UnservedReport Report();

  private:
    struct Key {
        uint32_t source[4];  // IPv6, IPv4 or MAC address
        uint32_t destination[4];
        uint8_t family;
        uint8_t kind;
        bool undelivered;

        bool operator==(const Key &) const = default;
    };
    struct HashOfKey {
        size_t operator()(const Key &key) const;
    };
    struct Talk {
        std::string why;
        uint64_t packets = 0;
    };

    static std::optional<Key> KeyOf(const HostMbuf *packet, bool undelivered);
    std::string WhyOf(const HostMbuf *packet, bool undelivered) const;

    std::optional<Explainer> explainer_;  // none of a module that cannot be asked
    std::mutex mutex_;
    std::unordered_map<Key, Talk, HashOfKey> talks_;
    uint64_t others_ = 0;
};

}  // namespace kes_engine
