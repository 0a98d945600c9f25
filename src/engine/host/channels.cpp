#include "standin/channels.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <mutex>

#include "host/pointer_ring.h"
#include "standin/lasting.h"
#include "standin/runtime.h"

namespace standin {
namespace {

constexpr uint32_t kMaxChannels = 65536;

// On cache lines of its own.
struct alignas(64) Channel {
    explicit Channel(uint32_t capacity) : packets(capacity) {}

    std::mutex mutex;
    bool open = true;
    PointerRing<HostMbuf> packets;
};

// Channels are found by id without a lock. Ids are not used again, so a channel stays once opened.
struct Table {
    std::array<std::atomic<Channel *>, kMaxChannels> channels{};

    std::mutex mutex;  // of the names
    std::map<std::string, uint32_t, std::less<>> idByName;
    uint32_t nextId = 0;
};

Table &table = Lasting<Table>();

Channel *ChannelOf(uint32_t id) {
    return id < kMaxChannels ? table.channels[id].load(std::memory_order_acquire) : nullptr;
}

}  // namespace

uint32_t OpenChannel(const std::string &name, uint32_t capacity) {
    const std::lock_guard lock(table.mutex);
    if (table.nextId == kMaxChannels || table.idByName.contains(name)) {
        return TOV_CHANNEL_ID_NONE;
    }
    const uint32_t id = table.nextId++;
    table.channels[id].store(new Channel(capacity), std::memory_order_release);
    table.idByName.emplace(name, id);
    return id;
}

HostMbuf *ReceiveFromChannel(uint32_t channelId) {
    HostMbuf *packet = nullptr;
    ReceiveFromChannel(channelId, {&packet, 1});
    return packet;
}

size_t ReceiveFromChannel(uint32_t channelId, std::span<HostMbuf *> packets) {
    Channel *channel = ChannelOf(channelId);
    if (channel == nullptr) {
        return 0;
    }
    const std::lock_guard lock(channel->mutex);
    const size_t count = std::min<size_t>(packets.size(), channel->packets.Size());
    for (HostMbuf *&packet : packets.first(count)) {
        packet = channel->packets.Pop();
    }
    return count;
}

void CloseChannel(uint32_t channelId) {
    Channel *channel = ChannelOf(channelId);
    if (channel == nullptr) {
        return;
    }
    {
        const std::lock_guard lock(table.mutex);
        std::erase_if(table.idByName, [&](const auto &entry) { return entry.second == channelId; });
    }
    const std::lock_guard lock(channel->mutex);
    channel->open = false;
}

}  // namespace standin

using namespace standin;

uint32_t TOV_ChannelGetIdByName(const char *name) {
    if (CallFails("TOV_ChannelGetIdByName") || name == nullptr) {
        return TOV_CHANNEL_ID_NONE;
    }
    const std::lock_guard lock(table.mutex);
    const auto found = table.idByName.find(std::string_view(name));
    return found == table.idByName.end() ? TOV_CHANNEL_ID_NONE : found->second;
}

uint32_t TOV_ChannelDcSend(uint32_t channelId, HostMbuf *packet, uint32_t /*option*/) {
    enum { kNoSuchChannel = 1, kChannelFull = 2 };
    if (CallFails("TOV_ChannelDcSend")) {
        return kChannelFull;
    }
    Channel *channel = ChannelOf(channelId);
    if (channel == nullptr || packet == nullptr) {
        return kNoSuchChannel;
    }
    const std::lock_guard lock(channel->mutex);
    if (!channel->open) {
        return kNoSuchChannel;
    }
    return channel->packets.Push(packet) ? 0 : kChannelFull;
}
