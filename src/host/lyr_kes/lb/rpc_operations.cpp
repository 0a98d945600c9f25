#include "lb/rpc_operations.h"

#include "dfx/debug_trace.h"
#include "dfx/message_type_stat.h"
#include "dfx/packet_counters.h"
#include "dfx/ping_stat.h"
#include "dfx/probe_trace.h"
#include "kes/bounded.h"
#include "lb/rpc_frame.h"
#include "lb/table_query.h"
#include "lb/tunnel_registration.h"
#include "mund/messages.h"
#include "mund/reconciliation_messages.h"
#include "mund/statistics_messages.h"
#include "packet/cwp_source.h"
#include "verify/recon_queue.h"
#include "verify/verify_records.h"

namespace {

uint32_t ChangeIpv4Tunnel(const LyrKesCwpTunnelReq &request, bool remove) {
    LyrKesDistIpv4Key key = {};
    LyrKes_DistIPv4SetKey(&key, &request);
    return remove ? LyrKes_DistDelIPv4Tunnel(request.nodeId, &key)
                  : LyrKes_DistAddIPv4Tunnel(request.nodeId, &key);
}

uint32_t ChangeIpv6Tunnel(const LyrKesCwpTunnelReq &request, bool remove) {
    LyrKesDistIpv6Key key = {};
    LyrKes_DistIPv6SetKey(&key, &request);
    return remove ? LyrKes_DistDelIPv6Tunnel(request.nodeId, &key)
                  : LyrKes_DistAddIPv6Tunnel(request.nodeId, &key);
}

// Queues records for the reconciliation thread; a failure is logged in these words.
uint32_t QueueRecords(const LyrKesReconRecord *records, uint64_t count, const char *failure) {
    const uint64_t length = count * sizeof(LyrKesReconRecord);
    if (length > UINT32_MAX ||
        LyrKes_WriteReconMsgQueue(records, static_cast<uint32_t>(length)) != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "%s", failure);
        return MUND_RESULT_FAILED;
    }
    return MUND_RESULT_OK;
}

bool IsAddOrDelete(uint32_t operation) {
    return operation == LYR_KES_OPERATION_ADD || operation == LYR_KES_OPERATION_DELETE;
}

uint32_t QueryTables(const LyrKesLbDfxReq &request, LyrKesLbDfxRsp &reply) {
    LYR_KES_DiagLog(LYR_HOST_INFO,
                    "LyrHost_Kes_LoadBalanceDfx ipVer[%u] msgType[%u] tunnelPort[%u] index[%u]",
                    request.ipVer, request.msgType, request.tunnelPort, request.index);
    switch (request.msgType) {
        case LYR_KES_LB_COUNT:
            return LyrHost_Kes_LbEntryNum(&request, &reply);
        case LYR_KES_LB_LIST:
            return LyrHost_Kes_LbEntryInfo(&request, &reply);
        default:
            return MUND_RESULT_FAILED;
    }
}

uint32_t UsePingStatistics(const LyrKesCwpPingStatReq &request, LyrKesCwpPingStatRsp &reply) {
    const LyrKesRpcIpAddr &peer = request.peerAddr;
    switch (request.msgType) {
        case LYR_KES_PING_GET:
            reply.result = LyrKes_CwpPingGetStat(&reply);
            break;
        case LYR_KES_PING_RESET:
            LyrKes_ResetCwpPingStat();
            break;
        case LYR_KES_PING_SET:
            LyrKes_UpdateCwpPingConfig(peer.ipVer == 0, peer.ipv4Addr, peer.ipv6Addr);
            break;
        default:
            reply.result = MUND_RESULT_REFUSED;
            break;
    }
    return MUND_RESULT_OK;
}

uint32_t UseMessageTypeStatistics(const LyrKesCwpMsgTypeStatReq &request,
                                  LyrKesCwpMsgTypeStatRsp &reply) {
    switch (request.msgType) {
        case LYR_KES_MSG_TYPE_GET:
            reply.result = LyrKes_GetCwpMsgTypeStat(&reply);
            break;
        case LYR_KES_MSG_TYPE_SELECT:
            reply.result = LyrKes_SetCwpMsgTypeStat(request.cwpMsgType);
            break;
        case LYR_KES_MSG_TYPE_RESET:
            LyrKes_ResetPktMsgTypeStatCnt();
            break;
        default:
            reply.result = MUND_RESULT_REFUSED;
            break;
    }
    return MUND_RESULT_OK;
}

// --- the operations; each gets its own name, for its lines ---

uint32_t CwpTunnel(const char * /*operation*/, const void *inMsg, void ** /*outMsg*/) {
    const auto *request = static_cast<const LyrKesCwpTunnelReq *>(inMsg);
    if (request == nullptr || !IsAddOrDelete(request->operation)) {
        return MUND_RESULT_REFUSED;
    }
    const bool remove = request->operation == LYR_KES_OPERATION_DELETE;
    return request->srcAddr.ipVer == 0 ? ChangeIpv4Tunnel(*request, remove)
                                       : ChangeIpv6Tunnel(*request, remove);
}

uint32_t KaTunnel(const char * /*operation*/, const void *inMsg, void ** /*outMsg*/) {
    const auto *request = static_cast<const LyrKesKaTunnelReq *>(inMsg);
    if (request == nullptr) {
        return MUND_RESULT_REFUSED;
    }
    LyrKesDistKaKey key = {};
    const int error = memcpy_s(&key, sizeof(key), request->sessionId, sizeof(request->sessionId));
    if (error != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "Add KA tunnel memcpy_s failed, err = %d", error);
        return MUND_RESULT_FAILED;
    }
    switch (request->operation) {
        case LYR_KES_OPERATION_ADD:
            return LyrKes_DistAddKaTunnel(request->nodeId, &key);
        case LYR_KES_OPERATION_DELETE:
            return LyrKes_DistDelKaTunnel(request->nodeId, &key);
        default:
            return MUND_RESULT_REFUSED;
    }
}

uint32_t WapiTunnel(const char *operation, const void *inMsg, void **outMsg) {
    return lyr::Answer<LyrKesWapiTunnelReq, LyrKesWapiTunnelRsp>(
        operation, inMsg, outMsg, MUND_RESULT_REFUSED, [](const auto &request, auto &reply) {
            reply.result = LyrKes_DistAddWapiTunnel(request.startVcpuId, request.instSpec);
            return reply.result;
        });
}

uint32_t LoadBalanceDfx(const char *operation, const void *inMsg, void **outMsg) {
    return lyr::Answer<LyrKesLbDfxReq, LyrKesLbDfxRsp>(operation, inMsg, outMsg,
                                                       MUND_RESULT_REFUSED, QueryTables);
}

uint32_t CwpSrc(const char * /*operation*/, const void *inMsg, void ** /*outMsg*/) {
    const auto *request = static_cast<const LyrKesCwpSrcReq *>(inMsg);
    if (request == nullptr || !IsAddOrDelete(request->operation)) {
        return MUND_RESULT_REFUSED;
    }
    const auto change =
        request->operation == LYR_KES_OPERATION_DELETE ? LyrKes_DelCwpSrc : LyrKes_AddCwpSrc;
    const LyrKesCwpSrcEntry &source = request->source;
    return change(source.srcAddr.ipVer == 0, source.cwpType, source.srcAddr.ipv4Addr,
                  source.srcAddr.ipv6Addr, source.srcIf);
}

uint32_t CwpSrcReconciliation(const char * /*operation*/, const void *inMsg, void ** /*outMsg*/) {
    const auto *request = static_cast<const LyrKesCwpSrcReconReq *>(inMsg);
    if (request == nullptr) {
        return MUND_RESULT_REFUSED;
    }
    return lyr::ReplaceCwpSources(*request);
}

uint32_t DebugTraceSet(const char *operation, const void *inMsg, void ** /*outMsg*/) {
    const auto *request = static_cast<const LyrKesDebugTraceReq *>(inMsg);
    if (request == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "%s rpc inmsg is NULL", operation);
        return MUND_RESULT_REFUSED;
    }
    if (request->msgType == LYR_KES_TRACE_CLEAR) {
        LyrKes_DebugTraceConfigClear();
    } else if (request->msgType == LYR_KES_TRACE_SET) {
        LyrKes_DebugTraceConfigUpdate(request);
    }
    LYR_KES_DiagLog(LYR_HOST_DEBUG,
                    "LyrHost_Kes_DebugTraceSet msgType:%u, debugLevel:%u, mac:" LYR_MAC_FORMAT,
                    request->msgType, request->debugLevel, LYR_MAC_ARGS(request->mac));
    return MUND_RESULT_OK;
}

uint32_t Reconciliation(const char * /*operation*/, const void *inMsg, void ** /*outMsg*/) {
    const auto *record = static_cast<const LyrKesReconRecord *>(inMsg);
    if (record == nullptr) {
        return MUND_RESULT_REFUSED;
    }
    return QueueRecords(record, 1, "Failed to write recon msg queue");
}

uint32_t BatchReconciliation(const char * /*operation*/, const void *inMsg, void ** /*outMsg*/) {
    const auto *request = static_cast<const LyrKesBatchReconReq *>(inMsg);
    if (request == nullptr || request->count == 0) {
        return MUND_RESULT_REFUSED;
    }
    return QueueRecords(request->records, request->count, "Failed to write batch recon msg queue");
}

uint32_t VerifyRcdGet(const char *operation, const void *inMsg, void **outMsg) {
    if (inMsg == nullptr || outMsg == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "Cmp host verify recd get inMsg or outMsg is NULL.");
        return MUND_RESULT_FAILED;
    }
    auto *reply = lyr::CreateReply<LyrKesVerifyRcdGetRsp>(operation, outMsg);
    if (reply == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "Cmp host verify recd get fail.");
        return MUND_RESULT_FAILED;
    }
    const auto *request = static_cast<const LyrKesVerifyRcdGetReq *>(inMsg);
    LyrKes_VerifyRcdGet(request->listIndex, &reply->rcdNum, reply->records,
                        sizeof(reply->records[0]));
    reply->msgLen = sizeof(*reply);
    return MUND_RESULT_OK;
}

uint32_t VerifyRcdReset(const char * /*operation*/, const void *inMsg, void ** /*outMsg*/) {
    if (inMsg == nullptr) {
        return MUND_RESULT_REFUSED;
    }
    LyrKes_VerifyRcdClearAllTable();
    return MUND_RESULT_OK;
}

uint32_t CwpPingStat(const char *operation, const void *inMsg, void **outMsg) {
    return lyr::Answer<LyrKesCwpPingStatReq, LyrKesCwpPingStatRsp>(
        operation, inMsg, outMsg, MUND_RESULT_FAILED, UsePingStatistics);
}

uint32_t CwpTraceRecord(const char *operation, const void *inMsg, void **outMsg) {
    if (inMsg == nullptr || outMsg == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "%s rpc inMsg or outMsg is NULL", operation);
        return MUND_RESULT_FAILED;
    }
    auto *reply = lyr::NewReply<LyrKesCwpTraceRecordRsp>(operation, outMsg);
    if (reply == nullptr) {
        return MUND_RESULT_FAILED;
    }
    const auto *request = static_cast<const LyrKesCwpTraceRecordReq *>(inMsg);
    reply->result = LYR_KES_PROBE_LAST;
    if (request->msgType == LYR_KES_PROBE_CLEAR) {
        LyrKes_CwpTraceReset();
    } else if (request->msgType == LYR_KES_PROBE_GET) {
        reply->result = LyrKes_CwpTraceGet(request, reply);
    }
    return MUND_RESULT_OK;
}

uint32_t CwpMsgTypeStat(const char *operation, const void *inMsg, void **outMsg) {
    return lyr::Answer<LyrKesCwpMsgTypeStatReq, LyrKesCwpMsgTypeStatRsp>(
        operation, inMsg, outMsg, MUND_RESULT_FAILED, UseMessageTypeStatistics);
}

uint32_t GetPktStatistics(const char *operation, const void * /*inMsg*/, void **outMsg) {
    if (outMsg == nullptr) {
        lyr::ReportNoMessages(operation);
        return MUND_RESULT_FAILED;
    }
    auto *reply = lyr::CreateReply<LyrKesGetPktStatisticsRsp>(operation, outMsg);
    if (reply == nullptr) {
        return MUND_RESULT_FAILED;
    }
    reply->rowNum = LYR_KES_PKT_STAT_ROW_NUM;
    reply->counterNum = LYR_KES_PKT_STAT_COUNTER_NUM;
    LyrKes_GetCtrlPktStatic(reply->rows, sizeof(reply->rows));
    return MUND_RESULT_OK;
}

uint32_t ResetPktStatistics(const char *operation, const void * /*inMsg*/, void **outMsg) {
    if (outMsg == nullptr) {
        lyr::ReportNoMessages(operation);
        return MUND_RESULT_FAILED;
    }
    LyrKes_ClearCtrlPktStatic();
    return lyr::CreateReply<LyrKesResetPktStatisticsRsp>(operation, outMsg) != nullptr
               ? MUND_RESULT_OK
               : MUND_RESULT_FAILED;
}

}  // namespace

// What the framework calls.
#define LYR_DEFINE_OPERATION(name)                                                                \
    uint32_t LyrHost_Kes_##name(const void *inMsg, void **outMsg) {                               \
        const lyr::RunningOperation running;                                                      \
        return running.Admitted() ? name(__func__, inMsg, outMsg) : uint32_t{MUND_RESULT_FAILED}; \
    }                                                                                             \
    uint32_t LyrHost_Kes_##name##_free(void *message) {                                           \
        return lyr::DestroyMessage(__func__, message);                                            \
    }
LYR_RPC_OPERATIONS(LYR_DEFINE_OPERATION)
#undef LYR_DEFINE_OPERATION
