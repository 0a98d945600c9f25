#include "instance_port.h"

#include <algorithm>

#include "dpdk/checksum.h"
#include "dpdk/packet_pool.h"
#include "failure.h"
#include "kes/thread.h"
#include "standin/channels.h"
#include "standin/engine_parts.h"

namespace kes_dpdk {
namespace {

uint32_t Open(const kes_engine::PacketType &type, uint32_t instance, uint32_t size) {
    const std::string name = type.channelPrefix + std::to_string(instance);
    const uint32_t id = standin::OpenChannel(name, size);
    if (id == TOV_CHANNEL_ID_NONE) {
        throw kes_engine::Failure("cannot open channel '" + name + "' for " + std::to_string(size) +
                                  " packets");
    }
    return id;
}

// Only one thread writes it.
void Add(std::atomic<uint64_t> &counter, uint64_t number) {
    counter.store(counter.load(std::memory_order_relaxed) + number, std::memory_order_relaxed);
}

}  // namespace

PortedInstance::PortedInstance(UsedPort &port, uint32_t channelSize)
    : port_(port),
      channelSize_(channelSize),
      channels_{{{kes_engine::kCwp, Open(kes_engine::kCwp, port.number, channelSize)},
                 {kes_engine::kWapi, Open(kes_engine::kWapi, port.number, channelSize)}}} {}

PortedInstance::~PortedInstance() {
    for (const Channel &channel : channels_) {
        standin::CloseChannel(channel.id);
    }
    Abandon();
}

bool PortedInstance::MakeKnown() const {
    return std::ranges::all_of(channels_, [this](const Channel &channel) {
        const std::string name = channel.type.threadPrefix + std::to_string(Number());
        return TOV_ThreadInfoRegByName(name.c_str()) == 0;
    });
}

bool PortedInstance::TakeBurst() {
    first_ = end_ = 0;
    for (size_t i = 0; i < channels_.size() && end_ == 0; ++i) {
        Channel &channel = channels_[turn_];
        turn_ = (turn_ + 1) % channels_.size();
        end_ = standin::ReceiveFromChannel(channel.id, waiting_);
        Add(channel.packets, end_);
        for (HostMbuf *packet : std::span(waiting_).first(end_)) {
            kes_engine::CountByClass(channel.byClass, packet);
            dpdk::CompleteChecksum(packet);
            dpdk::PacketPool::Restore(packet);
        }
    }
    held_.store(end_, std::memory_order_relaxed);
    return end_ > 0;
}

size_t PortedInstance::Deliver(unsigned lcore) {
    if (first_ == end_ && !TakeBurst()) {
        return 0;
    }
    const size_t sent = port_.Send(lcore, std::span(waiting_).subspan(first_, end_ - first_));
    first_ += sent;
    held_.store(end_ - first_, std::memory_order_relaxed);
    Add(sent_, sent);
    return sent;
}

void PortedInstance::Abandon() {
    do {
        const auto rest = std::span(waiting_).subspan(first_, end_ - first_);
        refused_ += rest.size();
        port_.CountRefused(rest.size());
        standin::Release(rest);
        first_ = end_;
    } while (TakeBurst());
}

bool PortedInstance::IsEmpty() const {
    return held_.load(std::memory_order_relaxed) == 0 &&
           std::ranges::all_of(channels_, [](const Channel &channel) {
               return standin::PacketsInChannel(channel.id) == 0;
           });
}

kes_engine::InstanceCount PortedInstance::Count() const {
    return {Number(), channels_[0].packets.load(std::memory_order_relaxed),
            channels_[1].packets.load(std::memory_order_relaxed)};
}

kes_engine::PortCount PortedInstance::PortCounts() const {
    kes_engine::PortCount count = port_.Counts();
    count.waiting = held_.load(std::memory_order_relaxed);
    for (const Channel &channel : channels_) {
        count.waiting += standin::PacketsInChannel(channel.id);
    }
    count.room = uint64_t{channelSize_} * channels_.size();
    return count;
}

kes_engine::InstanceReport PortedInstance::Report() const {
    const auto received = [](const Channel &channel) {
        return kes_engine::InstanceReport::Received{
            channel.packets.load(std::memory_order_relaxed), {}, channel.byClass};
    };
    return {.instance = Number(),
            .cwp = received(channels_[0]),
            .wapi = received(channels_[1]),
            .delivery = {{sent_.load(std::memory_order_relaxed), refused_}}};
}

}  // namespace kes_dpdk
