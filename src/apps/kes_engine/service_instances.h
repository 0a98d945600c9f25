// The service instances that the module serves: threads that take packets from channels.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
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
};

// The thread of one instance that takes the packets of one type.
class Receiver;

// How many packets of each type one instance has got so far.
struct InstanceCount {
    uint32_t instance;
    uint64_t cwp;
    uint64_t wapi;
};

class ServiceInstances {
  public:
    // Starts `count` instances, numbered from 0, each with a channel and a thread for each packet
    // type; the threads have made themselves known when this returns. A channel that holds
    // `channelCapacity` packets refuses none as long as there are no more. Throws Failure.
    ServiceInstances(uint64_t count, uint32_t channelCapacity, const OutputDirectory &out);
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
        std::unique_ptr<Receiver> cwp;
        std::unique_ptr<Receiver> wapi;
    };
    std::vector<Instance> instances_;
};

}  // namespace kes_engine
