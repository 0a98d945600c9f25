#include "channel/packet_handoff.h"

#include "channel/station_service.h"
#include "dfx/debug_trace.h"
#include "dfx/message_type_stat.h"
#include "kes/channel.h"
#include "kes/interface_index.h"
#include "kes/thread.h"
#include "module/capability.h"
#include "module/diag_log.h"
#include "module/placement.h"
#include "module/shared_word.h"
#include "module/status.h"
#include "packet/capwap_header.h"
#include "packet/packet_fields.h"

alignas(lyr::kCacheLine) LYR_PACKETS_COUNT uint32_t g_lyrKesChnSendSucceedPktCnt[LYR_PKT_TYPE_NUM];
LYR_PACKETS_COUNT uint32_t g_lyrKesChnSendFailPktCnt[LYR_PKT_TYPE_NUM];
LYR_PACKETS_COUNT uint32_t g_lyrKesWapiPacket2Svc;
LYR_PACKETS_COUNT uint32_t g_lyrKesWapiPacket2Fail;

namespace {

using lyr::kError;
using lyr::kOk;

constexpr uint32_t kSendOption = 1000;

// Where an instance's packets of one type go.
struct Receiver {
    uint32_t channelId;
    TovThreadInfo *thread;
};

bool FindReceiver(const HostMbuf *packet, uint32_t lbKey, uint32_t pktType, Receiver *receiver) {
    if (!lyr::IsInstance(lbKey)) {
        LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet,
                         "lb key %u out of bound, svc num %u, pkt type %u", lbKey,
                         g_lyrHostsvcNum + 1, pktType);
        return false;
    }
    const uint32_t *channels = LyrKes_GetChnMapByPktType(pktType);
    if (channels == nullptr) {
        LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet,
                         "channel map not initialized, key %u, pktType %u", lbKey, pktType);
        return false;
    }
    TovThreadInfo *const *threads = LyrKes_GetThdInfoByPktType(pktType);
    if (threads == nullptr) {
        LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet,
                         "thread info not initialized, key %u, pktType %u", lbKey, pktType);
        return false;
    }
    receiver->channelId = lyr::LoadAcquire(channels[lbKey]);
    if (receiver->channelId == TOV_CHANNEL_ID_NONE) {
        LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet,
                         "channel id not initialized, key:%u, pktType:%u, ip:0x%x, pktlen:%u",
                         lbKey, pktType, HostMbufGetIphdrSrcIp(packet), packet->pktLen);
        return false;
    }
    receiver->thread = lyr::LoadRelaxed(threads[lbKey]);
    return true;
}

// What has to be known of a packet before it is sent, to report on it afterwards.
struct PacketMarks {
    bool traced;
    bool diagnosed;
};

void ReportSent(PacketMarks marks, uint32_t lbKey, uint32_t pktType, uint32_t channelId) {
    const uint32_t count = lyr::CountOne(g_lyrKesChnSendSucceedPktCnt[pktType]);
    if (marks.traced) {
        LyrKesDebugTrace(LYR_TRACE_PACKET, false, nullptr,
                         "tov channel dc send ok, lb key %u, succeed count %u.", lbKey, count);
    }
    if (marks.diagnosed) {
        LYR_KES_DiagPrintf(
            "[LYR_HOST]Channel send pkt succeeded, ret:%u, key:%u, channelId:%u, successCnt:%u, "
            "pktType:%u",
            kOk, lbKey, channelId, count, pktType);
    }
}

void ReportNotSent(const HostMbuf *packet, uint32_t result, uint32_t lbKey, uint32_t pktType,
                   uint32_t channelId) {
    const uint32_t count = lyr::CountOne(g_lyrKesChnSendFailPktCnt[pktType]);
    LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet,
                     "LYR ChannelDcSend failed,ret:%u,key:%u,channelId:%u,cnt:%u,pktType:%u.",
                     result, lbKey, channelId, count, pktType);
    if (HostMbufGetHostDiagSwitch(packet) != 0) {
        LYR_KES_DiagPrintf(
            "[LYR_HOST]Channel send pkt failed, ret:%u, key:%u, channelId:%u, failCnt:%u, "
            "pktType:%u",
            result, lbKey, channelId, count, pktType);
    }
}

}  // namespace

uint32_t LyrKes_ChnSendPktToLyr(HostMbuf *packet, uint32_t lbKey, uint32_t pktType) {
    Receiver receiver;
    if (!FindReceiver(packet, lbKey, pktType, &receiver)) {
        return kError;
    }
    LyrKes_ReFillMbufPara(packet);
    const PacketMarks marks = {
        .traced = lyr::TraceWanted(LYR_TRACE_PACKET, true, packet),
        .diagnosed = HostMbufGetHostDiagSwitch(packet) != 0,
    };
    const uint32_t result = TOV_ChannelDcSend(receiver.channelId, packet, kSendOption);
    if (result == kOk) {
        ReportSent(marks, lbKey, pktType, receiver.channelId);
    } else {
        ReportNotSent(packet, result, lbKey, pktType, receiver.channelId);
    }
    TOV_EventWrite(receiver.thread, 1u << pktType);
    return result == kOk ? kOk : kError;
}

uint32_t LyrKes_SendPktToLyrSvcByChannel(HostMbuf *packet) {
    const uint32_t lbKey = HostMbufGetLbKey(packet);
    if (HostMbufGetHostDiagSwitch(packet) != 0) {
        const uint8_t *mac = lyr::SrcMac(packet);
        LYR_KES_DiagPrintf("[LYR_HOST]Capwap packet, src mac:" LYR_MAC_FORMAT ", lb key:%u",
                           LYR_MAC_ARGS(mac), lbKey);
    }
    // Read before the send, and only for those who count it.
    const bool counted = LyrKes_IsPktMsgTypeStatEnabled();
    const uint32_t messageType = counted ? LyrKes_GetCapwapMsgType(packet) : 0;
    const bool sent = LyrKes_ChnSendPktToLyr(packet, lbKey, LYR_PKT_TYPE_CAPWAP) == kOk;
    if (counted) {
        const auto count =
            sent ? LyrKes_IncrPktMsgTypeStatRecvCnt : LyrKes_IncrPktMsgTypeStatDropCnt;
        count(messageType, lbKey);
    }
    return sent ? LYR_HANDED_OVER : LYR_NOT_HANDED_OVER;
}

uint32_t LyrKes_SendPktToLyrStaByChannel(HostMbuf *packet) {
    const uint8_t *mac = lyr::SrcMac(packet);
    const uint32_t lbKey = LyrKes_GetPidByMac(mac);
    const uint32_t count = lyr::CountOne(g_lyrKesWapiPacket2Svc);
    if (HostMbufGetHostDiagSwitch(packet) != 0) {
        LYR_KES_DiagPrintf("[LYR_HOST]Wapi packet, mac:" LYR_MAC_FORMAT ", key:%u, cnt:%u, fail:%u",
                           LYR_MAC_ARGS(mac), lbKey, count,
                           lyr::LoadRelaxed(g_lyrKesWapiPacket2Fail));
    }
    const uint32_t result = LyrKes_ChnSendPktToLyr(packet, lbKey, LYR_PKT_TYPE_WAPI);
    if (result == kOk) {
        return LYR_HANDED_OVER;
    }
    lyr::CountOne(g_lyrKesWapiPacket2Fail);
    LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet, "LyrKes Wapi ChnSendPktToLyr Fail %u.",
                     result);
    return LYR_NOT_HANDED_OVER;
}

void LyrKes_ReFillMbufPara(HostMbuf *packet) {
    HostMbufSetOeIfIndex(packet, HostFwdIfIdx2CtrlIfIdx(HostMbufGetOeIfIndex(packet)));
    HostMbufSetReceivePortIndex(packet,
                                HostFwdIfIdx2CtrlIfIdx(HostMbufGetReceivePortIndex(packet)));
}
