#include "host/meta.h"

namespace standin {

HostMbufMeta &MetaOf(HostMbuf *mbuf) {
    return Meta(mbuf);
}

const HostMbufMeta &MetaOf(const HostMbuf *mbuf) {
    return Meta(mbuf);
}

std::span<const uint8_t> FrameAsReceived(const HostMbuf *mbuf) {
    return {FirstByte(mbuf), Meta(mbuf).frameLength};
}

}  // namespace standin

using standin::Meta;

uint8_t HostMbufGetProtoType(const HostMbuf *mbuf) {
    return Meta(mbuf).protoType;
}

uint32_t HostMbufGetL2HeadLength(const HostMbuf *mbuf) {
    return Meta(mbuf).l2Length;
}

uint32_t HostMbufGetIphdrHeadlen(const HostMbuf *mbuf) {
    return Meta(mbuf).ipHeaderLength;
}

uint32_t HostMbufGetIphdrProtocol(const HostMbuf *mbuf) {
    return Meta(mbuf).ipProtocol;
}

uint32_t HostMbufGetIphdrSrcIp(const HostMbuf *mbuf) {
    return Meta(mbuf).srcIp;
}

uint32_t HostMbufGetIphdrDstIp(const HostMbuf *mbuf) {
    return Meta(mbuf).dstIp;
}

const uint32_t *HostMbufGetIp6hdrSrcip(const HostMbuf *mbuf) {
    return Meta(mbuf).srcIp6;
}

const uint32_t *HostMbufGetIp6hdrDstip(const HostMbuf *mbuf) {
    return Meta(mbuf).dstIp6;
}

uint32_t HostMbufGetL4SrcPort(const HostMbuf *mbuf) {
    return Meta(mbuf).srcPort;
}

uint32_t HostMbufGetL4DstPort(const HostMbuf *mbuf) {
    return Meta(mbuf).dstPort;
}

const uint8_t *HostMbufGetSrcMac(const HostMbuf *mbuf) {
    return Meta(mbuf).hasMacs ? Meta(mbuf).srcMac : nullptr;
}

const uint8_t *HostMbufGetDstMac(const HostMbuf *mbuf) {
    return Meta(mbuf).hasMacs ? Meta(mbuf).dstMac : nullptr;
}

uint32_t HostMbufGetEthhdrTypeorlen(const HostMbuf *mbuf) {
    return Meta(mbuf).etherType;
}

uint32_t HostMbufGetCauseAction(const HostMbuf *mbuf) {
    return Meta(mbuf).causeAction;
}

uint32_t HostMbufGetCauseId(const HostMbuf *mbuf) {
    return Meta(mbuf).causeId;
}

uint32_t HostMbufGetReceiveVrfIndex(const HostMbuf *mbuf) {
    return Meta(mbuf).vrf;
}

uint32_t HostMbufGetReceivePortIndex(const HostMbuf *mbuf) {
    return Meta(mbuf).receivePort;
}

void HostMbufSetReceivePortIndex(HostMbuf *mbuf, uint32_t index) {
    Meta(mbuf).receivePort = index;
}

uint32_t HostMbufGetOeIfIndex(const HostMbuf *mbuf) {
    return Meta(mbuf).outgoingInterface;
}

void HostMbufSetOeIfIndex(HostMbuf *mbuf, uint32_t index) {
    Meta(mbuf).outgoingInterface = index;
}

uint32_t HostMbufGetLbKey(const HostMbuf *mbuf) {
    return Meta(mbuf).lbKey;
}

void HostMbufSetLbKey(HostMbuf *mbuf, uint32_t key) {
    Meta(mbuf).lbKey = key;
}

uint8_t HostMbufGetHostDiagSwitch(const HostMbuf *mbuf) {
    return Meta(mbuf).diagSwitch;
}

uint32_t HostMbufGetNeedTrace(const HostMbuf *mbuf) {
    return Meta(mbuf).needTrace;
}

void HostMbufSetNeedTrace(HostMbuf *mbuf, uint32_t mark) {
    Meta(mbuf).needTrace = mark;
}

void HostMbufSetNeedStat(HostMbuf *mbuf, uint32_t mark) {
    Meta(mbuf).needStat = mark;
}
