#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <thread>

#include "channel/service_channel.h"
#include "dist_tables.h"
#include "mund/statistics_messages.h"
#include "standin/packet_path.h"

namespace {

using namespace host_test;
using namespace std::chrono_literals;

// The instances that are up: four for CAPWAP, then two for WAPI.
struct Place {
    uint32_t pktType, number;
};
constexpr Place kPlaces[] = {{0, 0}, {0, 1}, {0, 2}, {0, 3}, {1, 0}, {1, 1}};
constexpr size_t kPlaceCount = std::size(kPlaces);
constexpr uint32_t kCapwapInstances = 4;

// Access points and sessions: some stay at one instance, others move.
constexpr uint32_t kFixed4 = 1, kFixed6 = 2, kFixedSession = 3, kMoving = 4, kUnknown = 5;

// A kind of packet, and the places where it may arrive.
struct Kind {
    const char *name;
    capwap::FrameSpec frame;
    std::vector<size_t> places;
};

std::vector<Kind> Kinds() {
    const auto stranger = UdpFrame("172.16.0.1", 5246, "10.9.9.9", 5246, capwap::Bytes(20));
    const auto data = UdpFrame(Ipv4Tunnels::Address(kFixed4), 5247, kController, 5247,
                               capwap::DataFrame(capwap::Bytes(40)));
    const auto ping =
        UdpFrame(Ipv4Tunnels::Address(kFixed4), 5246, kController, 5246,
                 capwap::ControlMessage(LYR_KES_VENDOR_PEN * 256 + 117, 1, capwap::Bytes(60)));
    capwap::FrameSpec wapi;
    wapi.etherType = 0x88B4;
    return {
        {"tunnel", Ipv4Tunnels::Frame(kFixed4), {0}},
        {"IPv6 tunnel", Ipv6Tunnels::Frame(kFixed6), {1}},
        {"session", KaSessions::Frame(kFixedSession), {2}},
        {"tunnel that moves", Ipv4Tunnels::Frame(kMoving), {0, 1, 2, 3}},
        {"session that moves", KaSessions::Frame(kMoving), {0, 1, 2, 3}},
        {"unknown tunnel", Ipv4Tunnels::Frame(kUnknown), {3}},
        {"station", wapi, {4, 5}},
        {"ping", ping, {0}},
        {"stranger", stranger, {}},
        {"data", data, {}},
    };
}

// Two forwarding threads that run packets of every kind through the receive path, and a thread
// that receives what the instances get.
class Traffic {
  public:
    explicit Traffic(const std::vector<Kind> &kinds)
        : kinds_(kinds), taken_(kinds.size()), received_(kinds.size()) {
        for (const auto &[pktType, number] : kPlaces) {
            instances_.push_back(std::make_unique<Instance>(number, pktType));
        }
        for (const uint64_t first : {0, 1}) {
            threads_.emplace_back([this, first] { Forward(first); });
        }
        threads_.emplace_back([this] {
            while (!stopping_) {
                Receive();
                std::this_thread::sleep_for(100us);
            }
        });
    }

    void Stop() {
        stopping_ = true;
        for (std::thread &thread : threads_) {
            thread.join();
        }
        Receive();
    }

    bool EveryKindArrived() const {
        for (size_t kind = 0; kind < kinds_.size(); ++kind) {
            if (!kinds_[kind].places.empty() && Received(kind) == 0) {
                return false;
            }
        }
        return true;
    }

    void ExpectConservation() const {
        EXPECT_EQ(pool_.InUse(), 0u) << "packets lost";
        for (size_t kind = 0; kind < kinds_.size(); ++kind) {
            SCOPED_TRACE(kinds_[kind].name);
            EXPECT_EQ(Received(kind), taken_[kind]);
            for (size_t place = 0; place < kPlaceCount; ++place) {
                const bool allowed = std::ranges::count(kinds_[kind].places, place) != 0;
                EXPECT_TRUE(allowed || received_[kind][place] == 0) << "at place " << place;
            }
        }
    }

  private:
    uint64_t Received(size_t kind) const {
        uint64_t sum = 0;
        for (const std::atomic<uint64_t> &count : received_[kind]) {
            sum += count;
        }
        return sum;
    }

    void Forward(uint64_t first) {
        std::vector<capwap::Bytes> frames;
        for (const Kind &kind : kinds_) {
            frames.push_back(capwap::BuildFrame(kind.frame));
        }
        for (uint64_t number = first; !stopping_; ++number) {
            const size_t kind = number % kinds_.size();
            HostMbuf *packet =
                pool_.Receive(frames[kind], {.number = kind, .diagnose = number % 16 == 0});
            standin::MetaOf(packet).causeId = number % 8 == 0 ? 1769 : 0;
            standin::MetaOf(packet).needTrace = number % 16 == 1;
            standin::RunTransmitPath(packet);  // as if it went out before it came in
            if (standin::RunReceivePath(packet) == standin::Fate::kTaken) {
                ++taken_[kind];
            } else {
                standin::MbufPool::Release(packet);
            }
        }
    }

    void Receive() {
        for (size_t place = 0; place < kPlaceCount; ++place) {
            while (const Packet packet = instances_[place]->Receive()) {
                ++received_[standin::MetaOf(packet.get()).arrival.number][place];
            }
        }
    }

    standin::MbufPool pool_{1024};
    const std::vector<Kind> &kinds_;
    std::vector<std::unique_ptr<Instance>> instances_;
    std::vector<std::atomic<uint64_t>> taken_;                              // by kind
    std::vector<std::array<std::atomic<uint64_t>, kPlaceCount>> received_;  // by kind and place
    std::atomic<bool> stopping_{false};
    std::vector<std::thread> threads_;
};

// The management plane, which calls whether the service is open or not.
class Caller {
  public:
    template <class Request>
    void operator()(MundOperation operation, const Request &request) {
        (*this)(operation, &request, sizeof(request));
    }

    void operator()(MundOperation operation, const void *request = nullptr, uint32_t size = 0) {
        static thread_local uint8_t reply[sizeof(LyrKesCwpTraceRecordRsp)];
        uint32_t replySize = 0, result = 0;
        const MundStatus status =
            MundCall(operation, request, size, reply, sizeof(reply), &replySize, &result);
        // The tables come after the service, and the sources go before it.
        const bool answered = status == MUND_STATUS_OK && (result <= 1 || result == kError);
        served += answered ? 1 : 0;
        wrong += answered || status == MUND_STATUS_NO_SERVICE ? 0 : 1;
    }

    std::atomic<int> served{0}, wrong{0};
};

void ChangeTunnels(Caller &call, uint32_t round) {
    const uint32_t node = round % kCapwapInstances;
    call(MUND_OP_CwpTunnel, Ipv4Tunnels::Request(kAdd, kFixed4, 0));
    call(MUND_OP_CwpTunnel, Ipv6Tunnels::Request(kAdd, kFixed6, 1));
    call(MUND_OP_KaTunnel, KaSessions::Request(kAdd, kFixedSession, 2));
    call(MUND_OP_CwpTunnel, Ipv4Tunnels::Request(round % 5 == 0 ? kDelete : kAdd, kMoving, node));
    call(MUND_OP_KaTunnel, KaSessions::Request(round % 7 == 0 ? kDelete : kAdd, kMoving, node));
    call(MUND_OP_CwpTunnel, TunnelRequest(round % 3 == 0 ? kDelete : kAdd, "255.255.255.255", 65535,
                                          "255.255.255.255", 5246, 3, 65535));
    call(MUND_OP_WapiTunnel, LyrKesWapiTunnelReq{round % 2, 1});
    for (uint32_t n = 10; n < 14; ++n) {  // neighbours come and go
        call(MUND_OP_CwpTunnel, Ipv6Tunnels::Request(round % 2, n, n % kCapwapInstances));
    }
}

void ChangeSources(Caller &call, uint32_t round) {
    LyrKesCwpSrcReconReq sources = {};
    sources.entries[round % 4] = SourceRequest(kAdd, 1, kController, round).source;
    sources.entries[4 + round % 4] = SourceRequest(kAdd, 4, kController6, round).source;
    call(MUND_OP_CwpSrcReconciliation, sources);
    call(MUND_OP_CwpSrc, SourceRequest(kAdd, 2, "10.0.0.7", round % 3));
    call(MUND_OP_CwpSrc, SourceRequest(kDelete, 2, "10.0.0.7", round % 3));
    LyrKesDebugTraceReq trace = {};
    trace.msgType = round % 2;
    trace.debugLevel = 3;
    trace.srcPort = round % 4 == 0 ? 5246 : 0;
    call(MUND_OP_DebugTraceSet, trace);
    LyrKes_QueryCwpSrc();
}

void UseStatistics(Caller &call, uint32_t round) {
    call(MUND_OP_CwpPingStat,
         LyrKesCwpPingStatReq{round % 4, Address(Ipv4Tunnels::Address(round % 8 < 4 ? 1 : 2))});
    call(MUND_OP_CwpTraceRecord, LyrKesCwpTraceRecordReq{round % 512, round % 16 == 0});
    call(MUND_OP_CwpMsgTypeStat, LyrKesCwpMsgTypeStatReq{round % 4, round % 8 < 4 ? 13 : ~0u});
    call(round % 8 != 0 ? MUND_OP_GetPktStatistics : MUND_OP_ResetPktStatistics);
    const auto list = static_cast<uint8_t>(round % 2);
    call(MUND_OP_LoadBalanceDfx, LyrKesLbDfxReq{round / 2 % 2, 0, 5246, list, {}});
}

using Concurrency = EngineTest;

TEST_F(Concurrency, StartsAndStopsUnderTrafficAndChanges) {
    std::atomic<uint64_t> lines{0};
    standin::SetLineSink([&](standin::LineKind, std::string_view) { ++lines; });
    const std::vector<Kind> kinds = Kinds();
    Traffic traffic(kinds);
    Caller call;
    std::atomic<bool> stopping{false};
    auto keepChanging = [&](void (*change)(Caller &, uint32_t)) {
        for (uint32_t round = 0; !stopping; ++round) {
            change(call, round);
            std::this_thread::sleep_for(50us);
        }
    };
    std::thread tunnels(keepChanging, ChangeTunnels), sources(keepChanging, ChangeSources),
        statistics(keepChanging, UseStatistics);

    const auto deadline = std::chrono::steady_clock::now() + 60s;
    for (int cycle = 0; cycle < 12 || !traffic.EveryKindArrived(); ++cycle) {
        SCOPED_TRACE(cycle);
        EXPECT_EQ(LyrKes_Init(), 0u);
        std::this_thread::sleep_for(60ms);
        EXPECT_EQ(LyrKes_Exit(), 0u);
        standin::JoinCreatedThreads();
        EXPECT_EQ(standin::ModuleMemory(kModuleId).blocks, 0u);
        EXPECT_EQ(standin::CurrentHoldings(), standin::Holdings{});
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "packets of some kind do not arrive";
            break;
        }
    }
    stopping = true;
    tunnels.join();
    sources.join();
    statistics.join();
    traffic.Stop();
    traffic.ExpectConservation();
    EXPECT_EQ(call.wrong, 0);
    EXPECT_GT(call.served, 0);
    EXPECT_GT(lines, 0u);
}

}  // namespace
