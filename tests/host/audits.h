// Audits of the distribution tables, and what they leave on record.
#pragma once

#include <sys/time.h>

#include <cstring>
#include <vector>

#include "dist_tables.h"
#include "mund/reconciliation_messages.h"

namespace host_test {

using Records = std::vector<LyrKesReconRecord>;

inline LyrKesReconRecord Record(uint32_t type, uint32_t nodeId) {
    LyrKesReconRecord record = {};
    record.reconType = type;
    record.nodeId = nodeId;
    return record;
}

inline LyrKesReconRecord Begin(uint32_t nodeId) {
    return Record(LYR_KES_RECON_BEGIN, nodeId);
}

inline LyrKesReconRecord Finish(uint32_t nodeId) {
    return Record(LYR_KES_RECON_FINISH, nodeId);
}

// A confirmation of what a request adds. Any version but 0 of a source is IPv6; that of a
// destination is not read.
inline LyrKesReconRecord Confirmation(const LyrKesCwpTunnelReq &request) {
    LyrKesReconRecord record = Record(LYR_KES_RECON_TUNNEL, request.nodeId);
    record.srcAddr = request.srcAddr;
    record.srcAddr.ipVer *= 3;
    record.dstAddr = request.dstAddr;
    record.dstAddr.ipVer = 7;
    record.srcPort = request.srcPort;
    record.dstPort = request.dstPort;
    record.vpnId = request.vpnId;
    return record;
}

inline LyrKesReconRecord Confirmation(const LyrKesKaTunnelReq &request) {
    LyrKesReconRecord record = Record(LYR_KES_RECON_SESSION, request.nodeId);
    std::memcpy(record.sessionId, request.sessionId, sizeof(record.sessionId));
    return record;
}

template <class Table>
LyrKesReconRecord Confirmation(uint32_t n, uint32_t nodeId) {
    return Confirmation(Table::Request(kAdd, n, nodeId));
}

// A batch as it travels.
inline std::vector<uint8_t> Batch(const Records &records) {
    std::vector<uint8_t> wire(8 + records.size() * sizeof(LyrKesReconRecord));
    const auto count = static_cast<uint32_t>(records.size());
    std::memcpy(wire.data(), &count, sizeof(count));
    if (!records.empty()) {
        std::memcpy(&wire[8], records.data(), wire.size() - 8);
    }
    return wire;
}

inline uint32_t Send(const LyrKesReconRecord &record) {
    return Call(MUND_OP_Reconciliation, record);
}

inline uint32_t Send(const Records &records) {
    const std::vector<uint8_t> wire = Batch(records);
    return Call(MUND_OP_BatchReconciliation, wire.data(), static_cast<uint32_t>(wire.size()));
}

// Sends records as one batch and waits until they are processed.
inline void Audit(const Records &records) {
    ASSERT_EQ(Send(records), 0u);
    standin::WaitUntilCreatedThreadsIdle();
}

// The reply of the operation that reads the verify records.
inline LyrKesVerifyRcdGetRsp ReadVerifyRecords(uint8_t listIndex = 0) {
    const auto reply = Ask<LyrKesVerifyRcdGetRsp>(MUND_OP_VerifyRcdGet,
                                                  LyrKesVerifyRcdGetReq{{0xEE, 0xEE}, listIndex});
    EXPECT_EQ(reply.msgLen, sizeof(reply));
    return reply;
}

// The description of the tunnel that a request adds.
inline LyrKesVerifyTunnel Description(const LyrKesCwpTunnelReq &request) {
    LyrKesVerifyTunnel tunnel = {};
    tunnel.ipVer = request.srcAddr.ipVer;
    tunnel.srcIpv4 = request.srcAddr.ipv4Addr;
    tunnel.dstIpv4 = request.dstAddr.ipv4Addr;
    std::memcpy(tunnel.srcIpv6, request.srcAddr.ipv6Addr, sizeof(tunnel.srcIpv6));
    std::memcpy(tunnel.dstIpv6, request.dstAddr.ipv6Addr, sizeof(tunnel.dstIpv6));
    tunnel.srcPort = request.srcPort;
    tunnel.dstPort = request.dstPort;
    return tunnel;
}

// The second as the module's clock has it; time() may lie a tick behind.
inline uint32_t WallClockSecond() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<uint32_t>(now.tv_sec);
}

// The reply for records that were added in this order. Takes over the time of each record, which
// must lie between the two.
inline void ExpectVerifyRecords(const std::vector<LyrKesVerifyTunnel> &added, uint32_t from,
                                uint32_t to, uint8_t listIndex = 0, uint8_t type = 1) {
    const LyrKesVerifyRcdGetRsp reply = ReadVerifyRecords(listIndex);
    LyrKesVerifyRcdGetRsp expected = {};
    expected.msgLen = 5604;
    expected.rcdNum = static_cast<uint16_t>(std::min<size_t>(added.size(), 100));
    for (size_t i = 0; i < expected.rcdNum; ++i) {
        const uint32_t time = reply.records[i].time;
        EXPECT_TRUE(from <= time && time <= to) << time;
        expected.records[i] = {added[added.size() - 1 - i], time, type, {}};
        EXPECT_TRUE(SameBytes(reply.records[i], expected.records[i])) << "record " << i;
    }
    EXPECT_EQ(reply.rcdNum, expected.rcdNum);
    EXPECT_TRUE(SameBytes(reply, expected)) << "of list " << +listIndex;
}

}  // namespace host_test
