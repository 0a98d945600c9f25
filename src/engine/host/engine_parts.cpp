#include "host/engine_parts.h"

#include <algorithm>
#include <mutex>

#include "host/large_pages.h"
#include "host/pointer_ring.h"
#include "standin/lasting.h"
#include "standin/mbuf_pool.h"

namespace standin {
namespace {

class LockedRow : public ChannelRow {
  public:
    explicit LockedRow(uint32_t capacity) : packets_(capacity) {}

    bool Push(HostMbuf *packet) override {
        const std::lock_guard lock(mutex_);
        return open_ && packets_.Push(packet);
    }
    size_t Pop(std::span<HostMbuf *> packets) override {
        const std::lock_guard lock(mutex_);
        const size_t count = std::min<size_t>(packets.size(), packets_.Size());
        for (HostMbuf *&packet : packets.first(count)) {
            packet = packets_.Pop();
        }
        return count;
    }
    size_t Size() override {
        const std::lock_guard lock(mutex_);
        return packets_.Size();
    }
    void Close() override {
        const std::lock_guard lock(mutex_);
        open_ = false;
    }

  private:
    std::mutex mutex_;
    bool open_ = true;
    PointerRing<HostMbuf> packets_;
};

class StandinParts : public EngineParts {
  public:
    void Release(std::span<HostMbuf *const> packets) override {
        std::ranges::for_each(packets, MbufPool::Release);
    }
    void *TakeMemory(size_t size) override {
        return MapMemory(size);
    }
    void GiveBackMemory(void *memory, size_t size) override {
        UnmapMemory(static_cast<uint8_t *>(memory), size);
    }
    std::unique_ptr<ChannelRow> MakeRow(const std::string & /*channel*/,
                                        uint32_t capacity) override {
        return std::make_unique<LockedRow>(capacity);
    }
};

EngineParts *partsInUse = &Lasting<StandinParts>();

}  // namespace

EngineParts &Parts() {
    return *partsInUse;
}

void UseParts(EngineParts &parts) {
    partsInUse = &parts;
}

void Release(std::span<HostMbuf *const> packets) {
    partsInUse->Release(packets);
}

}  // namespace standin
