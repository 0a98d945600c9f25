// Packet buffers of the stand-in engine, and what it knows of the packet in each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "kes/mbuf.h"

#pragma GCC visibility push(default)
namespace standin {

// How a frame came in.
struct Arrival {
    int64_t timeNs = 0;       // since the epoch
    uint32_t wireLength = 0;  // bytes on the wire; 0: as many as captured
    uint64_t number = 0;      // position in its capture, from 1
    uint32_t rxPort = 0;      // forwarding-plane port index
    uint32_t vrf = 0;
    bool diagnose = false;  // mark for the diagnostic print
};

// The private area behind the buffer's record: the parsed packet and its marks.
struct HostMbufMeta {
    uint8_t protoType = HOST_PROTO_OTHER;
    uint8_t ipProtocol = 0;
    uint8_t diagSwitch = 0;
    bool hasMacs = false;
    bool transmitted = false;  // its way is the transmit path
    uint16_t etherType = 0;
    uint16_t l2Length = 0;
    uint16_t ipHeaderLength = 0;
    uint16_t srcPort = 0;
    uint16_t dstPort = 0;
    uint16_t causeAction = 0;
    uint16_t causeId = 0;
    uint8_t srcMac[6] = {};
    uint8_t dstMac[6] = {};
    uint32_t srcIp = 0;
    uint32_t dstIp = 0;
    uint32_t srcIp6[4] = {};
    uint32_t dstIp6[4] = {};
    uint32_t vrf = 0;
    uint32_t receivePort = 0;
    uint32_t outgoingInterface = 0;
    uint32_t lbKey = HOST_LB_KEY_NONE;
    uint32_t needTrace = 0;
    uint32_t needStat = 0;
    // As received, before any padding was trimmed.
    uint32_t frameLength = 0;
    Arrival arrival;
};

// What is known of every packet that comes in so, before it is parsed.
HostMbufMeta FreshMeta(const Arrival &arrival);

// Fetches records that another processor has written, and what is known of the packets, before they
// are looked at.
void Prefetch(std::span<HostMbuf *const> mbufs);

HostMbufMeta &MetaOf(HostMbuf *mbuf);
const HostMbufMeta &MetaOf(const HostMbuf *mbuf);

// The frame's bytes as received, trimmed padding included.
std::span<const uint8_t> FrameAsReceived(const HostMbuf *mbuf);

// A bounded supply of single-segment packet buffers. They are used again, the last one first, and
// each thread keeps some that are free, so that taking and releasing meet no other thread as a
// rule. Built for memory checkers, each buffer is an allocation of its own that ends with its
// frame. Callable from any thread; a pool outlives its buffers.
class MbufPool {
  public:
    // The longest frame that one buffer holds.
    static constexpr size_t kMaxFrame = 65535 - 128;

    explicit MbufPool(uint32_t capacity);
    ~MbufPool();
    MbufPool(const MbufPool &) = delete;
    MbufPool &operator=(const MbufPool &) = delete;

    // A buffer with a copy of the frame, parsed and ready for the receive path. Waits while all
    // buffers are in use. Null only for a frame longer than kMaxFrame.
    HostMbuf *Receive(std::span<const uint8_t> frame, const Arrival &arrival);

    // Gives a buffer back to the pool that it came from.
    static void Release(HostMbuf *mbuf);

    uint32_t Capacity() const;
    uint32_t InUse() const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace standin
#pragma GCC visibility pop
