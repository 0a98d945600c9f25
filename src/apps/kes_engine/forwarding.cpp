#include "forwarding.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "standin/mbuf_pool.h"

namespace kes_engine {
namespace {

// Packets for which it is worth to wake a thread.
constexpr uint32_t kWakeAfter = 256;

uint64_t Mix(uint64_t value) {
    value = (value ^ value >> 32) * 0x9E3779B97F4A7C15;
    return value ^ value >> 29;
}

uint64_t HashOf(const uint32_t (&address)[4]) {
    const auto pair = [&](int i) { return uint64_t{address[i]} << 32 | address[i + 1]; };
    return Mix(pair(0) + Mix(pair(2)));
}

uint64_t HashOf(const uint8_t (&mac)[6]) {
    uint64_t value = 0;
    std::memcpy(&value, mac, sizeof mac);
    return Mix(value);
}

// The same for both directions of a conversation.
uint64_t FlowHash(const HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    switch (meta.protoType) {
        case HOST_PROTO_IPV4:
            return Mix(meta.srcIp) + Mix(meta.dstIp);
        case HOST_PROTO_IPV6:
            return HashOf(meta.srcIp6) + HashOf(meta.dstIp6);
        default:
            return HashOf(meta.srcMac) + HashOf(meta.dstMac);
    }
}

// How many of the first packets go the same way, at most a burst of them. Both directions of a
// conversation stay in order.
size_t BurstOf(std::span<HostMbuf *const> packets, bool transmitted) {
    const auto most = packets.first(std::min(packets.size(), standin::kMaxBurst));
    const auto other = std::ranges::find_if(most, [transmitted](const HostMbuf *packet) {
        return standin::MetaOf(packet).transmitted != transmitted;
    });
    return static_cast<size_t>(other - most.begin());
}

}  // namespace

ForwardingThread::ForwardingThread(ForwardingPath &path, size_t wakeAfter)
    : queue_(wakeAfter), path_(path), thread_(&ForwardingThread::Run, this) {
    entered_.wait();
}

Fates ForwardingThread::WaitUntilIdle() {
    queue_.WaitUntilEmpty();
    return FatesSoFar();
}

Fates ForwardingThread::FatesSoFar() {
    const std::lock_guard lock(mutex_);
    return published_;
}

void ForwardingThread::Stop() {
    if (thread_.joinable()) {
        queue_.Close();
        thread_.join();
    }
}

void ForwardingThread::Run() {
    path_.module.EnterLcore();
    entered_.count_down();
    for (auto burst = queue_.Take(); !burst.empty(); burst = queue_.Take()) {
        Forward(burst);
        {
            const std::lock_guard lock(mutex_);
            published_ = fates_;
        }
        queue_.Done(burst.size());
    }
    path_.module.LeaveLcore();
}

void ForwardingThread::Forward(std::span<HostMbuf *const> packets) {
    standin::Prefetch(packets);
    std::array<standin::Fate, standin::kMaxBurst> fates;
    while (!packets.empty()) {
        const bool transmitted = standin::MetaOf(packets.front()).transmitted;
        const auto burst = packets.first(BurstOf(packets, transmitted));
        if (transmitted) {
            standin::RunTransmitPath(burst, fates);
        } else {
            standin::RunReceivePath(burst, fates);
        }
        for (size_t i = 0; i < burst.size(); ++i) {
            path_.captures.Account(fates_, burst[i], fates[i], transmitted);
            if (fates[i] != standin::Fate::kTaken) {
                standin::MbufPool::Release(burst[i]);
            }
        }
        packets = packets.subspan(burst.size());
    }
}

ForwardingThreads::ForwardingThreads(const standin::Module &module, uint32_t count,
                                     uint32_t buffers, const OutputDirectory &out)
    : path_{module, FateCaptures(out)} {
    for (uint32_t i = 0; i < count; ++i) {
        threads_.push_back(std::make_unique<ForwardingThread>(
            path_, std::clamp(buffers / 4 / count, 1u, kWakeAfter)));
    }
}

void ForwardingThreads::Forward(HostMbuf *packet) {
    const size_t thread = threads_.size() == 1 ? 0 : FlowHash(packet) % threads_.size();
    threads_[thread]->Push(packet);
}

Fates ForwardingThreads::WaitUntilIdle() {
    Fates fates;
    for (const auto &thread : threads_) {
        fates += thread->WaitUntilIdle();
    }
    return fates;
}

void ForwardingThreads::Flush() {
    for (const auto &thread : threads_) {
        thread->Flush();
    }
}

Fates ForwardingThreads::FatesSoFar() const {
    Fates fates;
    for (const auto &thread : threads_) {
        fates += thread->FatesSoFar();
    }
    return fates;
}

void ForwardingThreads::Stop() {
    for (const auto &thread : threads_) {
        thread->Stop();
    }
}

std::vector<std::string> ForwardingThreads::CloseCaptures() {
    return path_.captures.Close();
}

}  // namespace kes_engine
