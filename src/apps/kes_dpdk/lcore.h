// The lcores: each polls queues, takes bursts down the paths of the engine, and serves instances.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "dpdk/packet_pool.h"
#include "dpdk/reassembly.h"
#include "fates.h"
#include "forwarding_table.h"
#include "hand_over.h"
#include "instance_port.h"
#include "ports_options.h"
#include "standin/module_loader.h"
#include "used_port.h"

namespace kes_dpdk {

// What all lcores do at a time.
enum class Phase {
    kWaiting,     // for the ports to start
    kForwarding,  // all of it
    kDraining,    // nothing comes in any more
    kEnding,
};

// What lcores have to do with the module.
enum class ModuleUse {
    kServing,  // they give it their packets
    kAside,    // its packets are returned
    kOutside,  // and they have left it
};

// What the lcores share.
struct Board {
    Board(const standin::Module &ofLcores, const PortsOptions &given,
          const kes_engine::OutputDirectory &out, unsigned lcoreCount)
        : module(ofLcores),
          options(given),
          lcores(lcoreCount),
          captures(out),
          handOver(lcoreCount) {}

    // Ends instances and ports, when no lcore runs any more.
    void ClosePorts() {
        instances.clear();
        networks.clear();
        instancePorts.clear();
        kernel.reset();
    }

    const standin::Module &module;
    const PortsOptions &options;
    const unsigned lcores;
    const dpdk::PacketPool *pool = nullptr;
    kes_engine::FateCaptures captures;
    HandOver handOver;
    std::vector<std::unique_ptr<UsedPort>> networks;
    ForwardingTable behind;  // network ports, by their place, if there are several
    std::vector<std::unique_ptr<UsedPort>> instancePorts;
    std::unique_ptr<UsedPort> kernel;  // if there is one
    std::vector<std::unique_ptr<PortedInstance>> instances;
    std::atomic<Phase> phase{Phase::kWaiting};
    std::atomic<ModuleUse> moduleUse{ModuleUse::kServing};  // that is wanted
};

// What an lcore has counted.
struct LcoreCounts {
    uint64_t frames = 0;
    uint64_t received = 0;  // of these; the others are to be transmitted
    uint64_t unserved = 0;  // of those: returned while the module was exchanged
    kes_engine::Fates fates;
    dpdk::ReassemblyCounts reassembly;  // fragments are none of the frames, datagrams are

    LcoreCounts &operator+=(const LcoreCounts &other);
};

class Lcore {
  public:
    // The lcore of this number, from 0. Its work is shared out by number.
    Lcore(Board &board, unsigned number);
    Lcore(const Lcore &) = delete;
    Lcore &operator=(const Lcore &) = delete;

    // The lcore's body: an lcore of the module until the phase says to end.
    void Run();

    // Waits until it has entered the module. False if it cannot take the packets of its instances.
    bool WaitUntilEntered();
    // What it has to do with the module now.
    ModuleUse Use() const {
        return use_.load(std::memory_order_acquire);
    }
    // Whether its last look found nothing to do.
    bool IsIdle() const {
        return idle_;
    }
    // The counts up to its last burst. Callable from any thread.
    LcoreCounts Counts();

  private:
    using Burst = std::array<HostMbuf *, standin::kMaxBurst>;

    // A queue of a network port.
    struct Queue {
        UsedPort &port;
        unsigned place;  // of the port among the network ports
        unsigned queue;
        bool isSpread;  // its flows belong to this lcore
    };
    // Packets for another lcore that had no room for them, or for a network port.
    struct Held {
        Burst packets;
        size_t count = 0;

        void Add(HostMbuf *packet) {
            packets[count++] = packet;
        }
    };

    // Each returns how many packets it has moved.
    void FollowModule();
    size_t Pass(Phase phase);
    size_t ReceiveFromNetwork(const Queue &queue);
    size_t ReceiveFromLocal(UsedPort &port, bool mayAnswer);
    size_t ReceiveFromLocal(UsedPort &port, unsigned queue, bool mayAnswer);
    size_t TakeHandedOver();
    size_t GiveHeld();

    // Frames as packets of the engine; drops those that are too long.
    size_t Receive(UsedPort &port, unsigned queue, Burst &packets, bool transmitted);
    void HandOn(std::span<HostMbuf *const> packets);
    void Forward(std::span<HostMbuf *const> come);
    // The packets without fragments, and with the datagrams that these complete.
    std::span<HostMbuf *const> Reassemble(std::span<HostMbuf *const> come, Burst &whole);
    void Transmit(std::span<HostMbuf *const> packets);
    // Out of the network port that each is for.
    void SendToNetwork(std::span<HostMbuf *const> packets);
    void AddCopies(const HostMbuf *packet);
    void Return(std::span<HostMbuf *const> packets);
    void CopyToInstances(const HostMbuf *packet);
    void Rest(size_t moved);
    void Publish();

    Board &board_;
    const unsigned number_;
    std::atomic<ModuleUse> use_{ModuleUse::kOutside};
    std::vector<Queue> queues_;
    std::vector<PortedInstance *> instances_;
    bool servesKernel_ = false;
    std::vector<Held> held_;  // by lcore
    size_t heldPackets_ = 0;
    std::vector<Held> leaving_;                   // by network port
    std::optional<dpdk::Reassembly> reassembly_;  // if the options ask for it
    LcoreCounts counts_;
    std::mutex mutex_;
    LcoreCounts published_;
    std::atomic<bool> idle_{false};
    uint64_t idleSince_ = 0;  // 0: it is not idle
    std::latch entered_{1};
    bool known_ = true;
};

}  // namespace kes_dpdk
