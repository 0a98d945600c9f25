#include "forwarding.h"

#include <algorithm>
#include <array>

#include "flow.h"
#include "standin/mbuf_pool.h"

namespace kes_engine {
namespace {

// Packets for which it is worth to wake a thread.
constexpr uint32_t kWakeAfter = 256;

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
    const size_t thread = threads_.size() == 1 ? 0 : FlowOf(packet) % threads_.size();
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
