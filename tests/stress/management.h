// The management plane: every operation with all kinds of arguments, whether the service is open or
// not.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <vector>

#include "mund/call.h"
#include "mund/reconciliation_messages.h"
#include "mund/statistics_messages.h"
#include "standin/runtime.h"
#include "traffic.h"

namespace stress {

class Management {
  public:
    // Calls some operation.
    void Act(Random &random) {
        using Change = void (Management::*)(Random &);
        static constexpr Change kChanges[] = {
            &Management::ChangeTunnel,  &Management::ChangeTunnel, &Management::ChangeTunnel,
            &Management::ChangeSession, &Management::Audit,        &Management::Audit,
            &Management::ChangeSources, &Management::SetTrace,     &Management::UseStatistics,
        };
        (this->*random.Pick(kChanges))(random);
    }

    // Sends the records of an audit, or one record.
    void Audit(Random &random) {
        const uint32_t nodeId = SomeInstance(random);
        if (nodeId == OwnerOf(kUnaudited)) {
            return;
        }
        if (random.OneIn(4)) {
            return Try(MUND_OP_Reconciliation, Record(random.Below(5), nodeId));
        }
        Records records = {Record(LYR_KES_RECON_BEGIN, nodeId)};
        const uint32_t longest = random.OneIn(8) ? 200 : 24;
        for (uint32_t confirmations = random.Below(longest); confirmations > 0; --confirmations) {
            records.push_back(Confirmation(random, nodeId));
        }
        records.push_back(Record(LYR_KES_RECON_FINISH, nodeId));
        const std::vector<uint8_t> wire = Batch(records);
        Call(MUND_OP_BatchReconciliation, wire.data(), wire.size());
    }

    // While calls of the engine may fail, an operation may go without its reply.
    void ExpectFaults(bool expected) {
        faults_ = expected;
    }

    // The others run while the module is started, most of them while nobody else is at work;
    // operations have to succeed.

    void DeclareController() {
        LyrKesCwpSrcReconReq sources = {};
        sources.entries[0] = {kAnyInterface, ControllerAddress(false), 0};
        sources.entries[1] = {kAnyInterface, ControllerAddress(true), 0};
        Do(MUND_OP_CwpSrcReconciliation, sources);
    }
    // In each of the tables.
    void Register(uint32_t tunnel) {
        const uint32_t owner = OwnerOf(tunnel);
        for (const bool ipv6 : {false, true}) {
            Do(MUND_OP_CwpTunnel, Tunnel(LYR_KES_OPERATION_ADD, tunnel, ipv6, 5246, owner));
        }
        Do(MUND_OP_KaTunnel, Session(LYR_KES_OPERATION_ADD, tunnel, owner));
    }
    // Has the audits that are queued carried out, also where a wake-up was lost. A thread that the
    // engine has failed leaves a queue that may be full, and so does one that is not done yet.
    void FinishAudits() {
        standin::WaitUntilCreatedThreadsIdle();
        const LyrKesReconRecord wakeUp = Record(LYR_KES_RECON_FINISH, 0xFFFF);
        faults_ ? Try(MUND_OP_Reconciliation, wakeUp) : Do(MUND_OP_Reconciliation, wakeUp);
        standin::WaitUntilCreatedThreadsIdle();
    }
    // Audits the instances up to `last`, and confirms nothing.
    void RemoveEverything(uint32_t last) {
        Records records;
        for (uint32_t nodeId = 0; nodeId <= last; ++nodeId) {
            // Twice: an audit that is open may have confirmations in it.
            for (const int type : {LYR_KES_RECON_BEGIN, LYR_KES_RECON_FINISH, LYR_KES_RECON_BEGIN,
                                   LYR_KES_RECON_FINISH}) {
                records.push_back(Record(static_cast<uint32_t>(type), nodeId));
            }
        }
        const std::vector<uint8_t> wire = Batch(records);
        Require(Call(MUND_OP_BatchReconciliation, wire.data(), wire.size()) == 0,
                "audits are queued");
        standin::WaitUntilCreatedThreadsIdle();
    }
    uint32_t CountTunnels(bool ipv6, uint16_t port) {
        LyrKesLbDfxRsp reply = {};
        Do(MUND_OP_LoadBalanceDfx, LyrKesLbDfxReq{ipv6, 0, port, LYR_KES_LB_COUNT, {}}, &reply);
        return reply.entryNum;
    }
    void ResetPacketCounters() {
        Do(MUND_OP_ResetPktStatistics, Nothing{});
    }
    // Packets that came and were handed over: control, keepalive, DTLS handshake.
    void ExpectPacketCounters(std::array<uint32_t, LYR_KES_PKT_STAT_ROW_NUM> packets) {
        LyrKesGetPktStatisticsRsp reply = {};
        Do(MUND_OP_GetPktStatistics, Nothing{}, &reply);
        for (size_t row = 0; row < packets.size(); ++row) {
            Require(
                reply.rows[row].rxCnt == packets[row] && reply.rows[row].sendOkCnt == packets[row],
                "packets are counted");
        }
    }

    // Whether the service is open.
    bool Answers() {
        return Call(MUND_OP_GetPktStatistics, nullptr, 0) != kClosed;
    }
    uint64_t Served(uint32_t operation) const {
        return served_[operation];
    }
    uint64_t RecordsRead() const {
        return recordsRead_;
    }

  private:
    using Records = std::vector<LyrKesReconRecord>;
    struct Nothing {};  // the request of an operation that reads none
    static constexpr uint32_t kClosed = 0xC105ED, kAddress = 1, kAnyInterface = 4;

    // The operation's result, or kClosed.
    uint32_t Call(MundOperation operation, const void *request, size_t size,
                  void *reply = nullptr) {
        static thread_local uint8_t ownReply[sizeof(LyrKesCwpTraceRecordRsp)];
        uint32_t replySize = 0, result = 0;
        const MundStatus status = MundCall(operation, request, static_cast<uint32_t>(size),
                                           reply != nullptr ? reply : ownReply,
                                           MundReplySize(operation), &replySize, &result);
        if (status == MUND_STATUS_NO_SERVICE) {
            return kClosed;
        }
        // A strict engine lets calls in while the module stops, which refuses them.
        const bool refused = standin::Strict() && result == 1 && replySize == 0;
        const bool replied = replySize == MundReplySize(operation) || faults_ || refused;
        if (status != MUND_STATUS_OK || !replied || (result > 2 && result != 0xFFFFFFFF)) {
            Fail("%s: %s, %u bytes of reply, result %u", MundOperationName(operation),
                 MundStatusText(status), replySize, result);
        }
        served_[operation] += refused ? 0 : 1;
        return result;
    }
    template <class Request>
    void Try(MundOperation operation, const Request &request) {
        Call(operation, &request, MundRequestSize(operation));
    }
    template <class Request>
    void Do(MundOperation operation, const Request &request, void *reply = nullptr) {
        const uint32_t result = Call(operation, &request, MundRequestSize(operation), reply);
        if (result != 0) {
            Fail("%s does not work: %x", MundOperationName(operation), result);
        }
    }

    // Mostly an instance that is up, sometimes one that is not, or none at all.
    static uint32_t SomeInstance(Random &random) {
        return random.OneIn(8) ? random.Below(40) : random.Below(kCapwapInstances);
    }
    // An add as often as not, seldom neither that nor a delete.
    static uint32_t SomeOperation(Random &random) {
        return random.OneIn(64) ? 7 : random.OneIn(3);
    }
    static uint32_t SomeOwner(Random &random, uint32_t tunnel) {
        return tunnel < kFixed ? OwnerOf(tunnel) : SomeInstance(random);
    }
    static LyrKesCwpTunnelReq Tunnel(uint32_t operation, uint32_t tunnel, bool ipv6, uint16_t port,
                                     uint32_t owner) {
        return {operation, TunnelAddress(tunnel, ipv6), ControllerAddress(ipv6), port, port, 0,
                owner};
    }
    static LyrKesCwpTunnelReq DefaultTunnel(uint32_t operation, bool ipv6) {
        LyrKesRpcIpAddr all;
        std::memset(&all, 0xFF, sizeof(all));
        all.ipVer = ipv6;
        return {operation, all, all, 65535, 5246, 65535, kDefaultInstance};
    }
    static LyrKesKaTunnelReq Session(uint32_t operation, uint32_t tunnel, uint32_t owner) {
        const capwap::SessionId id = SessionOf(tunnel);
        return {operation, {id[0], id[1], id[2], id[3]}, owner};
    }
    static LyrKesReconRecord Record(uint32_t type, uint32_t nodeId) {
        LyrKesReconRecord record = {};
        record.reconType = type;
        record.nodeId = nodeId;
        return record;
    }
    static LyrKesReconRecord Confirmation(Random &random, uint32_t nodeId) {
        const uint32_t tunnel = random.Below(kTunnels);
        const bool ipv6 = random.OneIn(2);
        LyrKesReconRecord record = Record(1 + random.Below(2), nodeId);
        record.srcAddr = TunnelAddress(tunnel, ipv6);
        record.dstAddr = ControllerAddress(ipv6);
        record.srcPort = record.dstPort = 5246;
        std::memcpy(record.sessionId, SessionOf(tunnel).data(), sizeof(record.sessionId));
        return record;
    }
    // Records as they travel.
    static std::vector<uint8_t> Batch(const Records &records) {
        std::vector<uint8_t> wire(8 + records.size() * sizeof(LyrKesReconRecord));
        const auto count = static_cast<uint32_t>(records.size());
        std::memcpy(wire.data(), &count, sizeof(count));
        std::memcpy(&wire[8], records.data(), wire.size() - 8);
        return wire;
    }

    void ChangeTunnel(Random &random) {
        const uint32_t operation = SomeOperation(random), tunnel = random.Below(kTunnels);
        const bool ipv6 = random.OneIn(2);
        switch (random.Below(8)) {
            case 0:
                return Try(MUND_OP_CwpTunnel, DefaultTunnel(operation, ipv6));
            case 1:
                return Try(MUND_OP_WapiTunnel,
                           LyrKesWapiTunnelReq{random.Below(3), random.Below(4)});
            default:
                return Try(MUND_OP_CwpTunnel,
                           Tunnel(operation, tunnel, ipv6, random.OneIn(4) ? 5247 : 5246,
                                  SomeOwner(random, tunnel)));
        }
    }
    void ChangeSession(Random &random) {
        const uint32_t tunnel = random.Below(kTunnels);
        Try(MUND_OP_KaTunnel, Session(SomeOperation(random), tunnel, SomeOwner(random, tunnel)));
    }
    void ChangeSources(Random &random) {
        if (random.OneIn(2)) {
            const uint32_t type = random.OneIn(2) ? kAddress : 1 + random.Below(5);
            return Try(MUND_OP_CwpSrc, LyrKesCwpSrcReq{SomeOperation(random),
                                                       {type, ControllerAddress(random.OneIn(2)),
                                                        random.Below(3)}});
        }
        LyrKesCwpSrcReconReq sources = {};
        sources.entries[random.Below(4)] = {kAddress, ControllerAddress(false), random.Below(3)};
        sources.entries[4 + random.Below(4)] = {kAnyInterface, ControllerAddress(true), 0};
        Try(MUND_OP_CwpSrcReconciliation, sources);
    }
    void SetTrace(Random &random) {
        LyrKesDebugTraceReq request = {};
        // More off than on: a line takes longer than a packet.
        request.msgType = random.OneIn(4) ? LYR_KES_TRACE_SET : LYR_KES_TRACE_CLEAR;
        request.debugLevel = random.Below(4);
        request.srcPort = random.OneIn(2) ? 5246 : 0;
        Try(MUND_OP_DebugTraceSet, request);
    }
    void UseStatistics(Random &random) {
        const uint32_t what = random.Below(4);
        const auto mode = static_cast<uint8_t>(random.Below(2));
        const auto bucket = static_cast<uint16_t>(random.Below(64));
        switch (random.Below(8)) {
            case 0:
                return Try(MUND_OP_CwpPingStat,
                           LyrKesCwpPingStatReq{what, TunnelAddress(random.Below(4), mode)});
            case 1:
                return Try(MUND_OP_CwpTraceRecord,
                           LyrKesCwpTraceRecordReq{random.Below(512), random.OneIn(8)});
            case 2:
                return Try(MUND_OP_CwpMsgTypeStat,
                           LyrKesCwpMsgTypeStatReq{what, mode != 0 ? 13 : LYR_KES_MSG_TYPE_OFF});
            case 3:
                return Try(MUND_OP_LoadBalanceDfx, LyrKesLbDfxReq{what, bucket, 5246, mode, {}});
            case 4:
                return ReadVerifyRecords(mode);
            case 5:
                return Try(MUND_OP_VerifyRcdReset, Nothing{});
            default:
                return Try(what != 0 ? MUND_OP_GetPktStatistics : MUND_OP_ResetPktStatistics,
                           Nothing{});
        }
    }

    // What audits have removed: all of it tunnels that there have been, and nothing behind them.
    void ReadVerifyRecords(uint8_t listIndex) {
        LyrKesVerifyRcdGetRsp reply = {};
        const LyrKesVerifyRcdGetReq request = {{}, listIndex};
        if (Call(MUND_OP_VerifyRcdGet, &request, sizeof(request), &reply) != 0) {
            return;
        }
        Require(reply.msgLen == sizeof(reply) || faults_, "verify records are told whole");
        Require(reply.rcdNum <= (listIndex == 0 ? LYR_KES_VERIFY_RCD_NUM : 0),
                "there are at most 100 verify records, all of one list");
        constexpr LyrKesVerifyRcd kUnused = {};
        for (uint32_t i = 0; i < LYR_KES_VERIFY_RCD_NUM; ++i) {
            const LyrKesVerifyRcd &record = reply.records[i];
            Require(i < reply.rcdNum
                        ? record.excptType == 1 && record.time != 0 && WasATunnel(record.tunnel)
                        : std::memcmp(&record, &kUnused, sizeof(kUnused)) == 0,
                    "a verify record is of a tunnel that there was");
        }
        recordsRead_ += reply.rcdNum;
    }
    static bool WasATunnel(const LyrKesVerifyTunnel &tunnel) {
        const bool ipv6 = tunnel.ipVer != 0;
        const uint32_t host = ipv6 ? tunnel.srcIpv6[7] : tunnel.srcIpv4 & 0xFFFF;
        const LyrKesCwpTunnelReq request = tunnel.srcPort == 65535
                                               ? DefaultTunnel(0, ipv6)
                                               : Tunnel(0, host, ipv6, tunnel.srcPort, 0);
        const LyrKesRpcIpAddr &src = request.srcAddr, &dst = request.dstAddr;
        const bool sameAddresses =
            ipv6 ? std::ranges::equal(tunnel.srcIpv6, src.ipv6Addr) &&
                       std::ranges::equal(tunnel.dstIpv6, dst.ipv6Addr)
                 : tunnel.srcIpv4 == src.ipv4Addr && tunnel.dstIpv4 == dst.ipv4Addr;
        return sameAddresses && tunnel.dstPort == request.dstPort &&
               (tunnel.srcPort == 65535 || (host <= kUnaudited && tunnel.dstPort / 2 == 5246 / 2));
    }

    std::atomic<uint64_t> recordsRead_{0};
    std::atomic<bool> faults_{false};
    std::array<std::atomic<uint64_t>, MUND_OPERATION_COUNT> served_{};
};

}  // namespace stress
