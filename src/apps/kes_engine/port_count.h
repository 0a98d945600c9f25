// What went through the ports of an engine that has some.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace kes_engine {

struct PortCount {
    std::string name;
    std::string role;                  // "network", "instance" or "kernel"
    std::optional<uint32_t> instance;  // whose it is
    bool up = false;
    // As the driver counts.
    uint64_t receivedPackets = 0;
    uint64_t receivedBytes = 0;
    uint64_t receiveErrors = 0;
    uint64_t missed = 0;    // came while the queue was full
    uint64_t noBuffer = 0;  // came while no buffer was free
    uint64_t sentBytes = 0;
    uint64_t sendErrors = 0;
    // As the engine does.
    uint64_t sentPackets = 0;
    uint64_t oversize = 0;  // came, and were dropped: longer than a buffer
    uint64_t refused = 0;   // the port would not send them
    uint64_t waiting = 0;   // packets in the channels of the instance
    uint64_t room = 0;      // that these have in all
};

struct BufferCount {
    uint64_t buffers = 0;
    uint64_t inUse = 0;
};

// What became of fragments that an engine puts together. They are no packets of it; the datagrams
// are.
struct ReassemblyCount {
    uint64_t fragments = 0;
    uint64_t joined = 0;
    uint64_t datagrams = 0;  // that these became
    uint64_t expired = 0;    // the others of their datagram have not come
    uint64_t dropped = 0;    // damaged, contradictory or too many
    uint64_t tooLong = 0;    // their datagram is longer than a buffer

    // Those that wait for the others.
    uint64_t Held() const {
        return fragments - joined - expired - dropped - tooLong;
    }
};

// All that an engine with ports counts besides the packets' fates.
struct Traffic {
    std::vector<PortCount> ports;
    BufferCount buffers;
    std::optional<ReassemblyCount> reassembly = std::nullopt;  // if it puts fragments together
};

// {"ports": [...], "buffers": {...}}, and "reassembly" if there is one
nlohmann::ordered_json ToJson(const Traffic &traffic);

// A table for people, ending in a newline.
void Print(std::ostream &out, const Traffic &traffic);

}  // namespace kes_engine
