// The operations, each with its own messages, and the queries of several pages.
#include <cstring>
#include <vector>

#include "client.h"
#include "recon_frame.h"

namespace {

using client::BadReply;

template <typename Message>
std::span<const uint8_t> BytesOf(const Message &message) {
    return {reinterpret_cast<const uint8_t *>(&message), sizeof message};
}

// A reply has the size of its layout, or is lacking where the operation failed.
void CheckSize(const LyrClient &client, size_t wanted) {
    const size_t size = client.connection.Payload().size();
    const bool mayLack = client.result != MUND_RESULT_OK;
    if (size != wanted && (size != 0 || !mayLack)) {
        throw BadReply("the reply has " + std::to_string(size) + " bytes, not " +
                       std::to_string(wanted));
    }
}

void Ask(LyrClient &client, MundOperation operation, std::span<const uint8_t> request) {
    client::Send(client, static_cast<uint16_t>(operation), request);
    CheckSize(client, 0);
    client::CheckResult(client);
}

template <typename Reply>
void Ask(LyrClient &client, MundOperation operation, std::span<const uint8_t> request,
         Reply &reply) {
    reply = {};
    client::Send(client, static_cast<uint16_t>(operation), request);
    CheckSize(client, sizeof reply);
    const std::span<const uint8_t> payload = client.connection.Payload();
    if (!payload.empty()) {
        std::memcpy(&reply, payload.data(), sizeof reply);
    }
    client::CheckResult(client);
}

template <typename Request, typename... Reply>
LyrClientOutcome Call(LyrClient *client, MundOperation operation, const Request *request,
                      Reply *...reply) {
    return client::Run(*client, [&] { Ask(*client, operation, BytesOf(*request), *reply...); });
}

// Of an operation that reads no request.
template <typename... Reply>
LyrClientOutcome CallBare(LyrClient *client, MundOperation operation, Reply *...reply) {
    return client::Run(*client, [&] { Ask(*client, operation, {}, *reply...); });
}

template <typename Entry>
LyrClientOutcome VisitTable(LyrClient *client, int (*visit)(void *, const Entry *), void *context) {
    return client::Run(*client, [&] {
        client::ForEachEntry<Entry>(
            [&](const MundWireEntriesReq &asked) {
                client::Send(*client, MUND_WIRE_ENTRIES, BytesOf(asked));
                const std::span<const uint8_t> page = client->connection.Payload();
                return std::vector<uint8_t>(page.begin(), page.end());
            },
            [&](const Entry &entry) { return visit(context, &entry) == 0; });
    });
}

}  // namespace

LyrClientOutcome LyrClientCwpTunnel(LyrClient *client, const LyrKesCwpTunnelReq *request) {
    return Call(client, MUND_OP_CwpTunnel, request);
}

LyrClientOutcome LyrClientKaTunnel(LyrClient *client, const LyrKesKaTunnelReq *request) {
    return Call(client, MUND_OP_KaTunnel, request);
}

LyrClientOutcome LyrClientWapiTunnel(LyrClient *client, const LyrKesWapiTunnelReq *request,
                                     LyrKesWapiTunnelRsp *reply) {
    return Call(client, MUND_OP_WapiTunnel, request, reply);
}

LyrClientOutcome LyrClientLoadBalanceDfx(LyrClient *client, const LyrKesLbDfxReq *request,
                                         LyrKesLbDfxRsp *reply) {
    return Call(client, MUND_OP_LoadBalanceDfx, request, reply);
}

LyrClientOutcome LyrClientCwpSrc(LyrClient *client, const LyrKesCwpSrcReq *request) {
    return Call(client, MUND_OP_CwpSrc, request);
}

LyrClientOutcome LyrClientCwpSrcReconciliation(LyrClient *client,
                                               const LyrKesCwpSrcReconReq *request) {
    return Call(client, MUND_OP_CwpSrcReconciliation, request);
}

LyrClientOutcome LyrClientDebugTraceSet(LyrClient *client, const LyrKesDebugTraceReq *request) {
    return Call(client, MUND_OP_DebugTraceSet, request);
}

LyrClientOutcome LyrClientReconciliation(LyrClient *client, const LyrKesReconRecord *record) {
    return Call(client, MUND_OP_Reconciliation, record);
}

LyrClientOutcome LyrClientBatchReconciliation(LyrClient *client, const LyrKesReconRecord *records,
                                              uint32_t count) {
    return client::Run(*client, [&] {
        Ask(*client, MUND_OP_BatchReconciliation, client::BatchOf({records, count}));
    });
}

LyrClientOutcome LyrClientVerifyRcdGet(LyrClient *client, const LyrKesVerifyRcdGetReq *request,
                                       LyrKesVerifyRcdGetRsp *reply) {
    return Call(client, MUND_OP_VerifyRcdGet, request, reply);
}

LyrClientOutcome LyrClientVerifyRcdReset(LyrClient *client) {
    return CallBare(client, MUND_OP_VerifyRcdReset);
}

LyrClientOutcome LyrClientCwpPingStat(LyrClient *client, const LyrKesCwpPingStatReq *request,
                                      LyrKesCwpPingStatRsp *reply) {
    return Call(client, MUND_OP_CwpPingStat, request, reply);
}

LyrClientOutcome LyrClientCwpTraceRecord(LyrClient *client, const LyrKesCwpTraceRecordReq *request,
                                         LyrKesCwpTraceRecordRsp *reply) {
    return Call(client, MUND_OP_CwpTraceRecord, request, reply);
}

LyrClientOutcome LyrClientCwpMsgTypeStat(LyrClient *client, const LyrKesCwpMsgTypeStatReq *request,
                                         LyrKesCwpMsgTypeStatRsp *reply) {
    return Call(client, MUND_OP_CwpMsgTypeStat, request, reply);
}

LyrClientOutcome LyrClientGetPktStatistics(LyrClient *client, LyrKesGetPktStatisticsRsp *reply) {
    return CallBare(client, MUND_OP_GetPktStatistics, reply);
}

LyrClientOutcome LyrClientResetPktStatistics(LyrClient *client,
                                             LyrKesResetPktStatisticsRsp *reply) {
    return CallBare(client, MUND_OP_ResetPktStatistics, reply);
}

LyrClientOutcome LyrClientVisitTunnels(LyrClient *client, uint32_t ipVer, uint16_t port,
                                       LyrClientTunnelVisitor visit, void *context) {
    LyrKesLbDfxReq request = {};
    request.ipVer = ipVer;
    request.tunnelPort = port;
    request.msgType = LYR_KES_LB_LIST;
    return client::Run(*client, [&] {
        client::ForEachTunnel(
            request,
            [&](const LyrKesLbDfxReq &asked) {
                LyrKesLbDfxRsp page;
                Ask(*client, MUND_OP_LoadBalanceDfx, BytesOf(asked), page);
                return page;
            },
            [&](const LyrKesLbDfxEntry &tunnel) { return visit(context, &tunnel) == 0; });
    });
}

LyrClientOutcome LyrClientVisitProbes(LyrClient *client, uint32_t from, LyrClientProbeVisitor visit,
                                      void *context) {
    const LyrKesCwpTraceRecordReq request = {.startIdx = from, .msgType = LYR_KES_PROBE_GET};
    return client::Run(*client, [&] {
        client::ForEachProbe(
            request,
            [&](const LyrKesCwpTraceRecordReq &asked) {
                LyrKesCwpTraceRecordRsp page;
                Ask(*client, MUND_OP_CwpTraceRecord, BytesOf(asked), page);
                return page;
            },
            [&](uint32_t position, const LyrKesCwpTraceEntry &probe) {
                return visit(context, position, &probe) == 0;
            });
    });
}

LyrClientOutcome LyrClientVisitIpv4Tunnels(LyrClient *client, LyrClientIpv4TunnelVisitor visit,
                                           void *context) {
    return VisitTable(client, visit, context);
}

LyrClientOutcome LyrClientVisitIpv6Tunnels(LyrClient *client, LyrClientIpv6TunnelVisitor visit,
                                           void *context) {
    return VisitTable(client, visit, context);
}

LyrClientOutcome LyrClientVisitSessions(LyrClient *client, LyrClientSessionVisitor visit,
                                        void *context) {
    return VisitTable(client, visit, context);
}
