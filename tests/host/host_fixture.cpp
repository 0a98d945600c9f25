#include "host_fixture.h"

#include <cstdarg>
#include <cstdio>

#include "channel/service_channel.h"
#include "dfx/debug_trace.h"
#include "module/lifecycle.h"
#include "module/registration.h"
#include "standin/channels.h"
#include "verify/verify_records.h"

namespace host_test {

namespace {

constexpr uint32_t kStopEvent = 0x80000000;

standin::MbufPool &Pool() {
    static standin::MbufPool pool(65536);
    return pool;
}

}  // namespace

Packet MakePacket(const capwap::FrameSpec &spec, const standin::Arrival &arrival) {
    return MakePacket(capwap::BuildFrame(spec), arrival);
}

Packet MakePacket(std::span<const uint8_t> frame, const standin::Arrival &arrival) {
    return Packet(Pool().Receive(frame, arrival));
}

Packet FirstSegment(const Packet &whole, size_t length) {
    Packet packet = MakePacket(standin::FrameAsReceived(whole.get()).first(length));
    standin::MetaOf(packet.get()) = standin::MetaOf(whole.get());
    packet->dataLen = static_cast<uint16_t>(length);
    packet->pktLen = whole->pktLen;
    return packet;
}

std::string Text(const char *format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

Instance::Instance(uint32_t number, uint32_t pktType, uint32_t channelCapacity)
    : channelId_(
          standin::OpenChannel(TOV_CHN_KES2LYR(pktType) + std::to_string(number), channelCapacity)),
      thread_([this, name = TOV_THD_KES2LYR(pktType) + std::to_string(number)] { Run(name); }) {
    EXPECT_NE(channelId_, TOV_CHANNEL_ID_NONE);
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return registered_; });
}

Instance::~Instance() {
    {
        const std::lock_guard lock(mutex_);
        TOV_EventWrite(threadInfo_, kStopEvent);
    }
    thread_.join();
    standin::CloseChannel(channelId_);
    while (Receive() != nullptr) {
    }
}

void Instance::Run(const std::string &name) {
    TOV_ThreadInfoRegByName(name.c_str());
    {
        const std::lock_guard lock(mutex_);
        threadInfo_ = TOV_ThreadInfoGetByName(name.c_str());
        registered_ = true;
        changed_.notify_all();
    }
    for (uint32_t events = 0; (events & kStopEvent) == 0;) {
        if (TOV_EventRead(&events) != 0) {
            return;
        }
        const std::lock_guard lock(mutex_);
        events_ |= events;
        changed_.notify_all();
    }
}

Packet Instance::Receive() {
    return Packet(standin::ReceiveFromChannel(channelId_));
}

bool Instance::WokenWith(uint32_t events) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(5),
                             [&] { return (events_ & events) == events; });
}

void EngineTest::SetUp() {
    standin::SetStrict(true);
    standin::ClearFaults();
    standin::ClearCapabilities();
    standin::ClearInterfaceMap();
    standin::SetTimersManual(true);
    standin::SetLineSink([this](standin::LineKind kind, std::string_view text) {
        const std::lock_guard lock(mutex_);
        lines_.emplace_back(kind, text);
    });
    mod_kes_lyrhost.moduleId = kModuleId;
    tov_mod_ctr_mod_kes_lyrhost();
}

void EngineTest::TearDown() {
    LyrKes_DebugTraceConfigClear();
    standin::JoinCreatedThreads();
    tov_mod_dtr_mod_kes_lyrhost();
    standin::ClearFaults();
    standin::SetLineSink({});
    EXPECT_EQ(standin::ModuleMemory(kModuleId).blocks, 0u);
    for (const std::string &held : standin::ModuleMemoryByTag(kModuleId)) {
        ADD_FAILURE() << "left allocated: " << held;
    }
    EXPECT_EQ(MundMessagesInUse(), 0u);
    EXPECT_EQ(standin::CurrentHoldings(), standin::Holdings{});
}

Texts EngineTest::Lines(standin::LineKind kind) const {
    const std::lock_guard lock(mutex_);
    Texts lines;
    for (const auto &[lineKind, text] : lines_) {
        if (lineKind == kind) {
            lines.push_back(text);
        }
    }
    return lines;
}

Texts EngineTest::TakeLines(standin::LineKind kind) {
    Texts lines = Lines(kind);
    const std::lock_guard lock(mutex_);
    std::erase_if(lines_, [kind](const auto &line) { return line.first == kind; });
    return lines;
}

Texts EngineTest::TakeReports() {
    return TakeLines(standin::LineKind::kReport);
}

void EngineTest::ForgetLines() {
    const std::lock_guard lock(mutex_);
    lines_.clear();
}

void EngineTest::TraceOn(uint32_t levels) {
    LyrKes_DebugTraceConfigClear();
    LyrKesDebugTraceReq request = {};
    request.debugLevel = levels;
    LyrKes_DebugTraceConfigUpdate(&request);
    ForgetLines();
}

void EngineTest::TraceOff() {
    LyrKes_DebugTraceConfigClear();
}

Texts OfLevels(uint32_t levels, Texts lines) {
    std::erase_if(lines, [levels](const std::string &line) {
        const bool packet = line.starts_with("[LYR-HOST][") || line.starts_with("tov channel dc ");
        return (levels & (packet ? LYR_TRACE_PACKET : LYR_TRACE_FAILURE)) == 0;
    });
    return lines;
}

void StopModule() {
    EXPECT_EQ(LyrKes_Exit(), 0u);
}

void Restart() {
    StopModule();
    ASSERT_EQ(LyrKes_Init(), 0u);
}

size_t HeldBesidesRecords() {
    return standin::ModuleMemory(kModuleId).blocks - LyrKes_VerifyRcdGetCnt(LYR_VERIFY_LB_TUNNELS);
}

void HostTest::SetUp() {
    EngineTest::SetUp();
    ASSERT_EQ(LyrKes_Init(), 0u);
}

void HostTest::TearDown() {
    StopModule();
    EngineTest::TearDown();
}

void TracedHostTest::SetUp() {
    HostTest::SetUp();
    TraceOn();
}

uint32_t Call(MundOperation operation, const void *request, uint32_t size,
              std::vector<uint8_t> *reply) {
    std::vector<uint8_t> buffer(MundReplySize(operation));
    uint32_t replySize = 0;
    uint32_t result = 0;
    const MundStatus status = MundCall(operation, request, size, buffer.data(),
                                       static_cast<uint32_t>(buffer.size()), &replySize, &result);
    EXPECT_EQ(status, MUND_STATUS_OK)
        << MundOperationName(operation) << ": " << MundStatusText(status);
    buffer.resize(replySize);
    if (reply != nullptr) {
        *reply = std::move(buffer);
    }
    return result;
}

LyrKesRpcIpAddr Address(std::string_view text) {
    LyrKesRpcIpAddr address = {};
    if (text.find(':') == std::string_view::npos) {
        address.ipv4Addr = capwap::Ipv4(text);
        return address;
    }
    address.ipVer = 1;
    const capwap::Ipv6Words words = capwap::Ipv6(text);
    for (size_t i = 0; i < words.size(); ++i) {
        address.ipv6Addr[2 * i] = static_cast<uint16_t>(words[i] >> 16);
        address.ipv6Addr[2 * i + 1] = static_cast<uint16_t>(words[i]);
    }
    return address;
}

LyrKesCwpTunnelReq TunnelRequest(uint32_t operation, std::string_view src, uint16_t srcPort,
                                 std::string_view dst, uint16_t dstPort, uint32_t nodeId,
                                 uint32_t vpnId) {
    return {operation, Address(src), Address(dst), srcPort, dstPort, vpnId, nodeId};
}

LyrKesCwpSrcReq SourceRequest(uint32_t operation, uint32_t type, std::string_view ip,
                              uint32_t ifIndex) {
    return {operation, {type, Address(ip), ifIndex}};
}

}  // namespace host_test
