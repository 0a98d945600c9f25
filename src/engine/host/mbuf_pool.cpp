#include "standin/mbuf_pool.h"

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>

#include "host/meta.h"
#include "standin/frame_parser.h"

namespace standin {
namespace {

constexpr size_t kHeadroom = 128;
constexpr size_t kDataBuffer = sizeof(HostMbuf) + sizeof(HostMbufMeta);

// The frame ends where the block ends.
HostMbuf *NewBuffer(std::span<const uint8_t> frame, void *pool) {
    auto *block = static_cast<uint8_t *>(::operator new(kDataBuffer + kHeadroom + frame.size()));
    auto *mbuf = new (block) HostMbuf{};
    new (mbuf + 1) HostMbufMeta{};
    mbuf->bufAddr = block + kDataBuffer;
    mbuf->bufLen = static_cast<uint16_t>(kHeadroom + frame.size());
    mbuf->dataOff = kHeadroom;
    mbuf->dataLen = static_cast<uint16_t>(frame.size());
    mbuf->pktLen = mbuf->dataLen;
    mbuf->refCnt = 1;
    mbuf->nbSegs = 1;
    mbuf->privSize = sizeof(HostMbufMeta);
    mbuf->pool = pool;
    if (!frame.empty()) {
        std::memcpy(block + kDataBuffer + kHeadroom, frame.data(), frame.size());
    }
    return mbuf;
}

void NoteArrival(HostMbuf *mbuf, const Arrival &arrival) {
    HostMbufMeta &meta = Meta(mbuf);
    meta.arrival = arrival;
    if (meta.arrival.wireLength == 0) {
        meta.arrival.wireLength = mbuf->pktLen;
    }
    meta.receivePort = arrival.rxPort;
    meta.vrf = arrival.vrf;
    meta.diagSwitch = arrival.diagnose ? 1 : 0;
    mbuf->port = static_cast<uint16_t>(arrival.rxPort);
}

}  // namespace

struct MbufPool::State {
    const uint32_t capacity;
    std::mutex mutex = {};
    std::condition_variable released = {};
    uint32_t inUse = 0;
};

MbufPool::MbufPool(uint32_t capacity) : state_(new State{capacity}) {}

MbufPool::~MbufPool() {
    // The last buffer's release may still be on its way out.
    const std::lock_guard lock(state_->mutex);
}

HostMbuf *MbufPool::Receive(std::span<const uint8_t> frame, const Arrival &arrival) {
    if (frame.size() > kMaxFrame) {
        return nullptr;
    }
    {
        std::unique_lock lock(state_->mutex);
        state_->released.wait(lock, [this] { return state_->inUse < state_->capacity; });
        ++state_->inUse;
    }
    HostMbuf *mbuf = NewBuffer(frame, state_.get());
    NoteArrival(mbuf, arrival);
    ParseFrame(mbuf);
    return mbuf;
}

void MbufPool::Release(HostMbuf *mbuf) {
    auto *state = static_cast<State *>(mbuf->pool);
    ::operator delete(mbuf);
    const std::lock_guard lock(state->mutex);
    --state->inUse;
    state->released.notify_one();
}

uint32_t MbufPool::Capacity() const {
    return state_->capacity;
}

uint32_t MbufPool::InUse() const {
    const std::lock_guard lock(state_->mutex);
    return state_->inUse;
}

}  // namespace standin
