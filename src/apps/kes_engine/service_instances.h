// The service instances that the module serves: threads that take packets from channels.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "output_directory.h"
#include "packet_class.h"

namespace kes_engine {

// What one instance got.
struct InstanceReport {
    uint32_t instance = 0;
    // Of one packet type.
    struct Received {
        uint64_t packets = 0;
        std::map<std::string, uint64_t> messages;  // by what the packets carry, in words
        ClassCounts byClass = {};
    };
    Received cwp;
    Received wapi;
    // What became of them at the instance's port, if it has one.
    struct Delivery {
        uint64_t sent = 0;
        uint64_t refused = 0;
    };
    std::optional<Delivery> delivery = {};

    bool IsConserved() const {
        return !delivery || cwp.packets + wapi.packets == delivery->sent + delivery->refused;
    }
};

// Packets for instances travel under these names, each with the instance's number behind it.
struct PacketType {
    const char *name;
    const char *channelPrefix;
    const char *threadPrefix;
    uint32_t event;  // written to the thread when a packet has been queued
};
inline constexpr PacketType kCwp = {"cwp", "chn/kes2lyrcwp", "thd/kes2lyrcwp", 1u << 0};
inline constexpr PacketType kWapi = {"wapi", "chn/kes2lyrwapi", "thd/kes2lyrwapi", 1u << 1};

// The thread of one instance that takes the packets of one type.
class Receiver;

// How many packets of each type one instance has got so far.
struct InstanceCount {
    uint32_t instance;
    uint64_t cwp;
    uint64_t wapi;
};

// The numbers of a module's instances, from 0 to the last. Throws Failure if they are too many.
std::vector<uint32_t> InstancesUpTo(uint32_t last);

class ServiceInstances {
  public:
    // Starts the instances of these numbers, each with a channel and a thread for each packet type;
    // the threads have made themselves known when this returns. A channel that holds
    // `channelCapacity` packets refuses none as long as there are no more. Throws Failure.
    ServiceInstances(const std::vector<uint32_t> &instances, uint32_t channelCapacity,
                     const OutputDirectory &out);
    ~ServiceInstances();
    ServiceInstances(const ServiceInstances &) = delete;
    ServiceInstances &operator=(const ServiceInstances &) = delete;

    // Lets the threads take what is still queued, ends them and closes the channels. The module
    // must have stopped.
    void Stop();
    // Completes the captures. Returns what went wrong with each, or an empty text.
    std::vector<std::string> CloseCaptures();
    // How many packets the instances have got so far, of those that got any. Called from any
    // thread.
    std::vector<InstanceCount> Counts() const;
    // What the instances got, of those that got anything. To be asked after Stop().
    std::vector<InstanceReport> Reports() const;

  private:
    struct Instance {
        uint32_t number;
        std::unique_ptr<Receiver> cwp;
        std::unique_ptr<Receiver> wapi;
    };
    std::vector<Instance> instances_;
};

}  // namespace kes_engine
