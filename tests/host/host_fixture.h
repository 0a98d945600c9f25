// What the module's tests share: a started module on the stand-in engine, packets, service
// instances, and the lines that come out.
#pragma once

#include <gmock/gmock.h>

#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capwap/packet_builder.h"
#include "kes/mbuf.h"
#include "kes/thread.h"
#include "mund/call.h"
#include "mund/messages.h"
#include "standin/mbuf_pool.h"
#include "standin/runtime.h"

namespace host_test {

using capwap::UdpFrame;
using standin::LineKind;
using testing::AllOf, testing::Contains, testing::Each, testing::ElementsAre, testing::EndsWith,
    testing::HasSubstr, testing::IsEmpty, testing::SizeIs, testing::StartsWith;
using Texts = std::vector<std::string>;

struct ReleaseMbuf {
    void operator()(HostMbuf *mbuf) const {
        standin::MbufPool::Release(mbuf);
    }
};
// A packet of the test's own. One that the module took belongs to the instance: release() it.
using Packet = std::unique_ptr<HostMbuf, ReleaseMbuf>;

// A packet buffer with this frame, as the receive path would see it.
Packet MakePacket(const capwap::FrameSpec &spec, const standin::Arrival &arrival = {});
Packet MakePacket(std::span<const uint8_t> frame, const standin::Arrival &arrival = {});
// A packet of which only `length` bytes lie in its first segment, which ends where its buffer ends:
// the engine knows all of the whole packet.
Packet FirstSegment(const Packet &whole, size_t length);

// A text in printf's manner.
std::string Text(const char *format, ...) KES_PRINTF(1, 2);

// A service instance for one packet type (0 CAPWAP, 1 WAPI): its channel and its registered thread.
class Instance {
  public:
    Instance(uint32_t number, uint32_t pktType, uint32_t channelCapacity = 64);
    ~Instance();
    Instance(const Instance &) = delete;
    Instance &operator=(const Instance &) = delete;

    // The oldest packet handed over, or null.
    Packet Receive();
    // Event bits that the thread has been woken with so far; waits until `events` are among them.
    bool WokenWith(uint32_t events);
    uint32_t ChannelId() const {
        return channelId_;
    }

  private:
    void Run(const std::string &name);

    uint32_t channelId_;
    std::mutex mutex_;
    std::condition_variable changed_;
    uint32_t events_ = 0;
    TovThreadInfo *threadInfo_ = nullptr;
    bool registered_ = false;
    std::thread thread_;
};

// The stand-in engine in a known state; lines are collected. The module is loaded and constructed,
// not started.
class EngineTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // The lines of a kind so far.
    Texts Lines(standin::LineKind kind) const;
    // The lines of a kind since the last call of this for it, or of ForgetLines.
    Texts TakeLines(standin::LineKind kind);
    // Those of logs and traces.
    Texts TakeReports();
    void ForgetLines();

    // Switches the debug trace on without a filter, so that log and trace lines come out from now
    // on; off.
    void TraceOn(uint32_t levels = 3);
    static void TraceOff();

  private:
    mutable std::mutex mutex_;
    std::vector<std::pair<standin::LineKind, std::string>> lines_;
};

// The same with the module started (27 + 1 instances, default table sizes), and stopped after the
// test; a module that leaves something behind fails the test.
class HostTest : public EngineTest {
  protected:
    void SetUp() override;
    void TearDown() override;
};

// The same with the trace on.
class TracedHostTest : public HostTest {
  protected:
    void SetUp() override;
};

// Of trace lines, those that a mask of levels shows.
Texts OfLevels(uint32_t levels, Texts lines);

// Stops the module; starts it anew.
void StopModule();
void Restart();

// Blocks that the module holds besides its verify records, which outlast a stop.
size_t HeldBesidesRecords();

// The module id that the tests' module has.
constexpr uint32_t kModuleId = 42;

// Calls an operation through the stub; the operation's result. Fails the test if it did not run.
// `reply` takes the reply, if there is one.
uint32_t Call(MundOperation operation, const void *request, uint32_t size,
              std::vector<uint8_t> *reply = nullptr);

template <class Request>
uint32_t Call(MundOperation operation, const Request &request,
              std::vector<uint8_t> *reply = nullptr) {
    return Call(operation, &request, sizeof(request), reply);
}

// The reply of an operation that has one, always of the same size.
template <class Reply, class Request>
Reply Ask(MundOperation operation, const Request &request, uint32_t result = 0) {
    std::vector<uint8_t> bytes;
    EXPECT_EQ(Call(operation, &request, MundRequestSize(operation), &bytes), result);
    EXPECT_EQ(bytes.size(), sizeof(Reply));
    Reply reply = {};
    std::memcpy(&reply, bytes.data(), std::min(bytes.size(), sizeof(reply)));
    return reply;
}

// Whether two objects are the same byte by byte.
template <class Object>
bool SameBytes(const Object &a, const Object &b) {
    return std::memcmp(&a, &b, sizeof(Object)) == 0;
}

// Requests, from texts: addresses of either family.
LyrKesRpcIpAddr Address(std::string_view text);
LyrKesCwpTunnelReq TunnelRequest(uint32_t operation, std::string_view src, uint16_t srcPort,
                                 std::string_view dst, uint16_t dstPort, uint32_t nodeId,
                                 uint32_t vpnId = 0);
LyrKesCwpSrcReq SourceRequest(uint32_t operation, uint32_t type, std::string_view ip,
                              uint32_t ifIndex = 0);

}  // namespace host_test
