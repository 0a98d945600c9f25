#include "lcore.h"

#include <rte_cycles.h>
#include <rte_pause.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "address_resolution.h"
#include "dpdk/checksum.h"
#include "flow.h"
#include "standin/engine_parts.h"
#include "standin/packet_path.h"

namespace kes_dpdk {
namespace {

using kes_engine::FlowOf;
using standin::Fate;

// An lcore that has had nothing to do for a millisecond looks again after some microseconds.
constexpr uint64_t kIdleShare = 1000;  // of a second
constexpr std::chrono::microseconds kRest{20};

int64_t Now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

LcoreCounts &LcoreCounts::operator+=(const LcoreCounts &other) {
    frames += other.frames;
    received += other.received;
    unserved += other.unserved;
    fates += other.fates;
    reassembly += other.reassembly;
    return *this;
}

Lcore::Lcore(Board &board, unsigned number)
    : board_(board), number_(number), held_(board.lcores), leaving_(board.networks.size()) {
    unsigned dealt = 0;  // queues that have all flows, in turn to the lcores
    for (unsigned place = 0; place < board.networks.size(); ++place) {
        UsedPort &port = *board.networks[place];
        const bool isSpread = port.port.SpreadsFlows();
        for (unsigned queue = 0; queue < port.port.ReceiveQueues(); ++queue) {
            if ((isSpread ? queue : dealt++ % board.lcores) == number) {
                queues_.push_back({port, place, queue, isSpread || board.lcores == 1});
            }
        }
    }
    // The lcore that has the first network port's queue is the last to get an instance.
    const auto isMine = [&](size_t i) { return (i + 1) % board.lcores == number; };
    for (size_t i = 0; i < board.instances.size(); ++i) {
        if (isMine(i)) {
            instances_.push_back(board.instances[i].get());
        }
    }
    if (board.options.reassemble) {
        reassembly_.emplace();
    }
    servesKernel_ = board.kernel != nullptr && isMine(board.instances.size());
}

void Lcore::Run() {
    FollowModule();
    for (const PortedInstance *instance : instances_) {
        known_ = instance->MakeKnown() && known_;
    }
    entered_.count_down();
    for (Phase phase; (phase = board_.phase.load()) != Phase::kEnding;) {
        FollowModule();
        const size_t moved = phase == Phase::kWaiting ? 0 : Pass(phase);
        if (moved > 0) {
            Publish();
        }
        idle_ = phase == Phase::kDraining && moved == 0 && heldPackets_ == 0;
        Rest(moved);
    }
    if (Use() != ModuleUse::kOutside) {
        board_.module.LeaveLcore();
    }
}

void Lcore::FollowModule() {
    const ModuleUse wanted = board_.moduleUse.load(std::memory_order_acquire);
    const ModuleUse now = use_.load(std::memory_order_relaxed);
    if (wanted == now) {
        return;
    }
    if (now == ModuleUse::kOutside) {
        board_.module.EnterLcore();
    } else if (wanted == ModuleUse::kOutside) {
        board_.module.LeaveLcore();
    }
    Publish();
    use_.store(wanted, std::memory_order_release);
}

bool Lcore::WaitUntilEntered() {
    entered_.wait();
    return known_;
}

LcoreCounts Lcore::Counts() {
    const std::lock_guard lock(mutex_);
    return published_;
}

void Lcore::Publish() {
    if (reassembly_) {
        counts_.reassembly = reassembly_->Counts();
    }
    const std::lock_guard lock(mutex_);
    published_ = counts_;
}

void Lcore::Rest(size_t moved) {
    if (moved > 0 || board_.options.busy) {
        idleSince_ = 0;
        return;
    }
    const uint64_t now = rte_get_timer_cycles();
    if (idleSince_ == 0) {
        idleSince_ = now;
    }
    if (now - idleSince_ < rte_get_timer_hz() / kIdleShare) {
        rte_pause();
    } else {
        std::this_thread::sleep_for(kRest);
    }
}

size_t Lcore::Pass(Phase phase) {
    size_t moved = GiveHeld() + TakeHandedOver();
    for (PortedInstance *instance : instances_) {
        moved += instance->Deliver(number_);
    }
    if (reassembly_) {
        const bool isOver = phase != Phase::kForwarding && moved == 0;
        moved += reassembly_->Expire(isOver ? dpdk::Reassembly::kEnd : rte_get_timer_cycles());
    }
    if (phase != Phase::kForwarding) {
        return moved;
    }
    for (const Queue &queue : queues_) {
        moved += ReceiveFromNetwork(queue);
    }
    // One stack answers for the address that all of them have.
    for (PortedInstance *instance : instances_) {
        const bool mayAnswer =
            board_.kernel == nullptr && instance == board_.instances.front().get();
        moved += ReceiveFromLocal(instance->Port(), mayAnswer);
    }
    return moved + (servesKernel_ ? ReceiveFromLocal(*board_.kernel, true) : 0);
}

size_t Lcore::Receive(UsedPort &port, unsigned queue, Burst &packets, bool transmitted) {
    std::array<rte_mbuf *, standin::kMaxBurst> frames;
    const size_t come = port.port.Receive(queue, frames);
    if (come == 0) {
        return 0;
    }
    const auto fresh = standin::FreshMeta({.timeNs = Now(),
                                           .rxPort = port.number,
                                           .vrf = board_.options.vrf,
                                           .diagnose = board_.options.diagnose});
    size_t count = 0;
    for (rte_mbuf *frame : std::span(frames).first(come)) {
        if (!dpdk::PacketPool::Adopt(frame, fresh)) {
            port.CountOversize();
            rte_pktmbuf_free(frame);
            continue;
        }
        packets[count++] = dpdk::Host(frame);
        if (transmitted) {
            standin::MetaOf(dpdk::Host(frame)).transmitted = true;
        } else {
            board_.options.frameRules.Apply(standin::MetaOf(dpdk::Host(frame)));
        }
    }
    return count;
}

// While another lcore has no room, nothing more is received for it: the port's own queue fills.
size_t Lcore::ReceiveFromNetwork(const Queue &queue) {
    if (!queue.isSpread && heldPackets_ > 0) {
        return 0;
    }
    Burst packets;
    const size_t count = Receive(queue.port, queue.queue, packets, false);
    const auto received = std::span(packets).first(count);
    if (board_.networks.size() > 1) {
        for (const HostMbuf *packet : received) {
            board_.behind.Learn(standin::MetaOf(packet).srcMac, queue.place);
        }
    }
    if (queue.isSpread) {
        Forward(received);
    } else {
        HandOn(received);
    }
    return count;
}

void Lcore::HandOn(std::span<HostMbuf *const> packets) {
    Burst mine;
    size_t mineCount = 0;
    for (HostMbuf *packet : packets) {
        const auto owner = static_cast<unsigned>(FlowOf(packet) % board_.lcores);
        if (owner == number_) {
            mine[mineCount++] = packet;
        } else {
            held_[owner].Add(packet);
            ++heldPackets_;
        }
    }
    GiveHeld();
    Forward(std::span(mine).first(mineCount));
}

size_t Lcore::GiveHeld() {
    size_t given = 0;
    for (unsigned lcore = 0; heldPackets_ > 0 && lcore < board_.lcores; ++lcore) {
        Held &held = held_[lcore];
        if (held.count == 0) {
            continue;
        }
        const size_t taken =
            board_.handOver.Give(number_, lcore, std::span(held.packets).first(held.count));
        std::copy_n(held.packets.begin() + static_cast<ptrdiff_t>(taken), held.count - taken,
                    held.packets.begin());
        held.count -= taken;
        given += taken;
        heldPackets_ -= taken;
    }
    return given;
}

size_t Lcore::TakeHandedOver() {
    if (board_.lcores == 1) {
        return 0;
    }
    Burst packets;
    const size_t count = board_.handOver.Take(number_, packets);
    standin::Prefetch(std::span(packets).first(count));
    Forward(std::span(packets).first(count));
    return count;
}

std::span<HostMbuf *const> Lcore::Reassemble(std::span<HostMbuf *const> come, Burst &whole) {
    if (!reassembly_) {
        return come;
    }
    const uint64_t now = rte_get_timer_cycles();
    reassembly_->Expire(now);
    size_t count = 0;
    for (HostMbuf *packet : come) {
        const uint64_t datagrams = reassembly_->Counts().datagrams;
        if (HostMbuf *const joined = reassembly_->Join(packet, now)) {
            if (reassembly_->Counts().datagrams != datagrams) {
                board_.options.frameRules.Apply(standin::MetaOf(joined));
            }
            whole[count++] = joined;
        }
    }
    return std::span(whole).first(count);
}

void Lcore::Forward(std::span<HostMbuf *const> come) {
    Burst whole;
    const auto packets = Reassemble(come, whole);
    counts_.frames += packets.size();
    counts_.received += packets.size();
    std::array<Fate, standin::kMaxBurst> fates;
    Burst returned;
    Burst undelivered;
    size_t returnedCount = 0;
    size_t undeliveredCount = 0;
    const bool isServed = use_.load(std::memory_order_relaxed) == ModuleUse::kServing;
    const auto judged = counts_.fates.returnedControl;
    if (isServed) {
        standin::RunReceivePath(packets, fates);
    } else {
        fates.fill(Fate::kReturned);
        counts_.unserved += packets.size();
    }
    for (size_t i = 0; i < packets.size(); ++i) {
        board_.captures.Account(counts_.fates, packets[i], fates[i], false);
        if (fates[i] == Fate::kReturned) {
            returned[returnedCount++] = packets[i];
        } else if (fates[i] == Fate::kUndelivered) {
            undelivered[undeliveredCount++] = packets[i];
        }
    }
    if (!isServed) {
        counts_.fates.returnedControl = judged;  // what the module has judged, and counted
    }
    Return(std::span(returned).first(returnedCount));
    standin::Release(std::span(undelivered).first(undeliveredCount));
}

void Lcore::Return(std::span<HostMbuf *const> packets) {
    if (!board_.instances.empty()) {
        for (const HostMbuf *packet : packets) {
            if (ResolvesAddresses(packet) && !AsksForAnother(packet, board_.options.addresses)) {
                CopyToInstances(packet);
            }
        }
    }
    if (board_.kernel == nullptr) {
        standin::Release(packets);
        return;
    }
    for (HostMbuf *packet : packets) {
        dpdk::CompleteChecksum(packet);
        dpdk::PacketPool::Restore(packet);
    }
    board_.kernel->SendAll(number_, packets);
}

void Lcore::CopyToInstances(const HostMbuf *packet) {
    for (const auto &instance : board_.instances) {
        if (HostMbuf *copy = board_.pool->Copy(packet)) {
            instance->Port().SendAll(number_, {&copy, 1});
        } else {
            instance->Port().CountRefused(1);
        }
    }
}

size_t Lcore::ReceiveFromLocal(UsedPort &port, bool mayAnswer) {
    size_t come = 0;
    for (unsigned queue = 0; queue < port.port.ReceiveQueues(); ++queue) {
        come += ReceiveFromLocal(port, queue, mayAnswer);
    }
    return come;
}

size_t Lcore::ReceiveFromLocal(UsedPort &port, unsigned queue, bool mayAnswer) {
    Burst packets;
    const size_t come = Receive(port, queue, packets, true);
    size_t count = 0;
    for (HostMbuf *packet : std::span(packets).first(come)) {
        if (!mayAnswer && AnswersResolution(packet)) {
            standin::Release({&packet, 1});
        } else {
            packets[count++] = packet;
        }
    }
    counts_.frames += count;
    Transmit(std::span(packets).first(count));
    return come;
}

void Lcore::Transmit(std::span<HostMbuf *const> packets) {
    std::array<Fate, standin::kMaxBurst> fates;
    Burst through;
    size_t count = 0;
    standin::RunTransmitPath(packets, fates);
    for (size_t i = 0; i < packets.size(); ++i) {
        HostMbuf *packet = packets[i];
        board_.captures.Account(counts_.fates, packet, fates[i], true);
        if (fates[i] == Fate::kReturned) {
            dpdk::PacketPool::Restore(packet);
            through[count++] = packet;
        } else if (fates[i] == Fate::kUndelivered) {
            standin::Release({&packet, 1});
        }
    }
    SendToNetwork(std::span(through).first(count));
}

void Lcore::SendToNetwork(std::span<HostMbuf *const> packets) {
    if (board_.networks.size() == 1) {
        board_.networks.front()->SendAll(number_, packets);
        return;
    }
    for (HostMbuf *packet : packets) {
        unsigned place = board_.behind.Find(standin::MetaOf(packet).dstMac);
        if (place == ForwardingTable::kUnknown) {
            AddCopies(packet);
            place = 0;
        }
        leaving_[place].Add(packet);
    }
    for (size_t place = 0; place < leaving_.size(); ++place) {
        Held &leaving = leaving_[place];
        board_.networks[place]->SendAll(number_, std::span(leaving.packets).first(leaving.count));
        leaving.count = 0;
    }
}

void Lcore::AddCopies(const HostMbuf *packet) {
    for (size_t place = 1; place < leaving_.size(); ++place) {
        if (HostMbuf *copy = board_.pool->Copy(packet)) {
            leaving_[place].Add(copy);
        } else {
            board_.networks[place]->CountRefused(1);
        }
    }
}

}  // namespace kes_dpdk
