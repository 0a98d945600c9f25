#include "standin/channels.h"

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "host/engine_parts.h"
#include "standin/lasting.h"
#include "standin/runtime.h"

namespace standin {
namespace {

constexpr uint32_t kMaxChannels = 65536;

struct Channel {
    std::unique_ptr<ChannelRow> row;
    std::atomic<bool> open{true};
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
    std::unique_ptr<ChannelRow> row = Parts().MakeRow(name, capacity);
    if (row == nullptr) {
        return TOV_CHANNEL_ID_NONE;
    }
    const uint32_t id = table.nextId++;
    table.channels[id].store(new Channel{.row = std::move(row)}, std::memory_order_release);
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
    return channel == nullptr ? 0 : channel->row->Pop(packets);
}

size_t PacketsInChannel(uint32_t channelId) {
    Channel *channel = ChannelOf(channelId);
    return channel == nullptr ? 0 : channel->row->Size();
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
    channel->open = false;
    channel->row->Close();
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
    if (channel->row->Push(packet)) {
        return 0;
    }
    return channel->open ? kChannelFull : kNoSuchChannel;
}
