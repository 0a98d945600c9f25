// What peer_bench compares: the module's lookups and its peers', each over the same packets.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "kes/hook.h"
#include "peer_tables.h"
#include "traffic.h"

namespace bench {

// The owners that the entries are spread over, so that an entry mistaken for another shows.
constexpr uint32_t kOwners = 16;

enum class Side { kOurs, kPeer, kFloor };

struct Contender {
    std::string name;
    Side side;
    Traffic traffic;
    // What is timed: looks up each packet of a burst and stamps its owner on it. The floor leaves
    // the hash in `hashes` (one for each packet), and stamps nothing.
    std::function<void(std::span<HostMbuf *const> packets, std::span<uint32_t> hashes)> work;
};

// The module and the peers' tables with the same entries, in tables made for so many.
class Contest {
  public:
    // The module's packets pass its stages `stageBurst` at a time.
    Contest(uint32_t entries, size_t stageBurst);

    uint32_t Entries() const {
        return entries_;
    }
    std::span<const Contender> Contenders() const {
        return contenders_;
    }
    // Ends the program unless each packet carries its owner, or has its hash (the floor's packets).
    void Check(const Contender &contender, const Bursts &burst,
               std::span<const uint32_t> hashes) const;

  private:
    void AddOurs(const std::string &table, Traffic traffic, std::vector<HostHookFunc> stages,
                 uint32_t (*lookUp)(HostMbuf *packet), size_t stageBurst);
    void AddPeers();

    uint32_t entries_;
    std::vector<uint32_t> hashes_;  // of the flows' IPv4 keys, as the module hashes them
    PeerTable lockFree_;
    PeerTable readWriteLock_;
    std::vector<Contender> contenders_;
};

}  // namespace bench
