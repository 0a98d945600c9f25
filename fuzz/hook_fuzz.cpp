// Frames before the four statistics hooks, while they watch a peer and trace probes.
#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>

#include "dfx/debug_trace.h"
#include "dfx/ping_stat.h"
#include "dfx/probe_trace.h"
#include "dfx/vendor_message.h"
#include "kes/hook.h"
#include "packet/capwap_header.h"
#include "packet_claims.h"
#include "standin/packet_path.h"
#include "started_module.h"

namespace {

using fuzz::Require;

constexpr uint32_t kPoints[] = {HOST_HOOK_TX_IN, HOST_HOOK_TX_OUT, HOST_HOOK_RX_IN,
                                HOST_HOOK_RX_OUT};

// The front of an input; claims follow where it says so, and then the frame.
struct Circumstances {
    uint8_t hookKind;  // low two bits
    uint8_t flags;
    uint16_t causeId;
};

enum Flags : uint8_t {
    // Whom the module watches: the packet's peer, or
    kNobody = 1,
    kAnother = 2,
    kOtherVersion = 3,
    kNeedTrace = 1 << 2,
    kClaims = 1 << 3,
    kShortSegment = 1 << 4,
    kLines = 7 << 5,  // all of them, for lines cost more than all else
};
constexpr uint8_t kWatched = 3;

standin::MbufPool pool(1);

struct End {
    uint32_t ipv4;
    uint32_t ipv6[4];
};

// Where the packet's peer is.
End PeerOf(const standin::HostMbufMeta &meta, uint32_t hookKind) {
    const bool transmit = hookKind == KES_HOOK_TXIN || hookKind == KES_HOOK_TXOUT;
    End end = {transmit ? meta.dstIp : meta.srcIp, {}};
    std::ranges::copy(transmit ? meta.dstIp6 : meta.srcIp6, end.ipv6);
    return end;
}

// Has the module watch the peer. False when it watches another, or nobody.
bool Watch(const standin::HostMbufMeta &meta, const Circumstances &in) {
    const End end = PeerOf(meta, in.hookKind & 3u);
    uint16_t groups[8];
    for (size_t i = 0; i < 8; ++i) {
        groups[i] = static_cast<uint16_t>(end.ipv6[i / 2] >> (i % 2 == 0 ? 16 : 0));
    }
    const bool hasIpv6 = std::ranges::any_of(groups, [](uint16_t group) { return group != 0; });
    bool ipv4 = meta.protoType != HOST_PROTO_IPV6;
    switch (in.flags & kWatched) {
        case kNobody:
            LyrKes_UpdateCwpPingConfig(true, 0, groups);
            return false;
        case kAnother:
            ++groups[7];
            LyrKes_UpdateCwpPingConfig(ipv4, end.ipv4 + 1, groups);
            return false;
        case kOtherVersion:
            ipv4 = !ipv4;
            break;
        default:
            break;
    }
    LyrKes_UpdateCwpPingConfig(ipv4, end.ipv4, groups);
    return ipv4 ? end.ipv4 != 0 : hasIpv6;
}

// What a hook has to do with a packet.
struct Expected {
    bool counted = false;
    bool fragment = false;
    uint32_t bytes = 0;
    bool recorded = false;
    bool marked = false;  // for the trace
};

// A probe message as the transmit path needs it.
bool CarriesPeerMac(const uint8_t *header, uint32_t length, uint32_t present, uint32_t type) {
    return header != nullptr && present >= length + 8 + 24 && lyr::IsProbe(type);
}

Expected Expect(HostMbuf *packet, const Circumstances &in, bool watched) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    const uint32_t kind = in.hookKind & 3u;
    const bool receive = kind == KES_HOOK_RXIN || kind == KES_HOOK_RXOUT;
    const bool isIp = meta.protoType == HOST_PROTO_IPV4 || meta.protoType == HOST_PROTO_IPV6;
    if (receive && (meta.causeId == 1769 || meta.causeId == 1770)) {
        return {.recorded = isIp, .marked = meta.needTrace != 0};
    }
    Expected expected = {.marked = meta.needTrace != 0};
    const uint8_t *header = nullptr;
    uint16_t payload = 0, present = 0;
    if ((receive && !watched) || !isIp || meta.ipProtocol != 17 ||
        (meta.srcPort != 5246 && meta.dstPort != 5246) || LyrKes_CheckIfFirstIpFrag(packet) == 0 ||
        LyrKes_GetCapwapHeader(packet, &header, &payload, &present) != 0 || present < 4) {
        return expected;
    }
    const uint32_t length = (header[1] >> 1) & 0x7Cu;
    if (present < length + 4) {
        return expected;
    }
    const uint32_t type = static_cast<uint32_t>(header[length]) << 24 |
                          static_cast<uint32_t>(header[length + 1]) << 16 |
                          static_cast<uint32_t>(header[length + 2]) << 8 | header[length + 3];
    if (watched && lyr::IsPing(type)) {
        if (payload - length < 36) {
            return expected;
        }
        expected.counted = true;
        expected.fragment = header[3] >> 7 != 0;
        expected.bytes = payload - length - 36;
    }
    if (lyr::IsProbe(type) || expected.marked) {
        expected.recorded = kind != KES_HOOK_TXIN || CarriesPeerMac(header, length, present, type);
        expected.marked = true;
    }
    return expected;
}

void CheckCounters(const Expected &expected, uint32_t hookKind) {
    for (uint32_t kind = 0; kind < KES_HOOK_NUM; ++kind) {
        const LyrKesCwpPingCounter &counter = g_LyrHostCwpPingStat.counters[kind];
        const bool here =
            expected.counted &&
            (kind == hookKind || (hookKind == KES_HOOK_RXOUT && kind == KES_HOOK_RXIN));
        Require(counter.pktCnt == (here ? 1 : 0) &&
                    counter.fragCnt == (here && expected.fragment ? 1 : 0) &&
                    counter.byteCnt == (here ? expected.bytes : 0),
                "the peer's pings count, and nothing else");
    }
}

// What the service tells of the counters is their low halves.
void CheckToldCounters() {
    LyrKesCwpPingStatRsp told = {};
    LyrKes_CwpPingGetStat(&told);
    for (uint32_t kind = 0; kind < KES_HOOK_NUM; ++kind) {
        const LyrKesCwpPingCounter &counter = g_LyrHostCwpPingStat.counters[kind];
        Require(told.counts[kind].pktCnt == counter.pktCnt &&
                    told.counts[kind].fragCnt == counter.fragCnt &&
                    told.counts[kind].byteCnt == counter.byteCnt,
                "the service tells the counters");
    }
}

// What the service tells of the newest record.
void CheckToldRecord(const CwpTraceRcd &record, uint32_t position) {
    static LyrKesCwpTraceRecordRsp page;
    const LyrKesCwpTraceRecordReq request = {position, LYR_KES_PROBE_GET};
    Require(LyrKes_CwpTraceGet(&request, &page) == LYR_KES_PROBE_LAST && page.entryNum == 1,
            "the newest record is the last");
    const LyrKesCwpTraceEntry &told = page.entries[0];
    const auto peer = std::span(told.peerAddr.ipv6Addr);
    bool same = told.peerAddr.ipVer == (record.peer.ipVer == 4 ? 0 : 1) &&
                (record.peer.ipVer != 4 || told.peerAddr.ipv4Addr == record.peer.ip[0]);
    for (size_t i = 0; record.peer.ipVer != 4 && i < peer.size(); ++i) {
        same &= peer[i] == (record.peer.ip[i / 2] >> (i % 2 == 0 ? 16 : 0) & 0xFFFF);
    }
    Require(same && told.hookKind == record.hookKind && std::ranges::equal(told.mac, record.mac) &&
                std::string_view(told.name) == record.name && told.seconds == record.seconds,
            "the service tells a record");
}

// The ring since an earlier look.
class Ring {
  public:
    void CheckAppended(bool appended, uint32_t hookKind, const End &peer, bool ipv6) const {
        const LyrKesCwpTrace &now = g_LyrHostCwpTrace;
        const uint32_t more = appended ? 1 : 0;
        Require(now.tail == (tail_ + more) % LYR_CWP_TRACE_NUM, "a sighting moves the tail");
        Require(now.count == std::min(count_ + more, LYR_CWP_TRACE_NUM), "sightings are counted");
        Require(now.head == (now.tail - now.count) % LYR_CWP_TRACE_NUM,
                "the head is the oldest record");
        if (!appended) {
            return;
        }
        const CwpTraceRcd &record = now.records[tail_];
        Require(record.hookKind == hookKind && record.peer.ipVer == (ipv6 ? 6 : 4) &&
                    (ipv6 ? std::ranges::equal(record.peer.ip, peer.ipv6)
                          : record.peer.ip[0] == peer.ipv4),
                "a record names point and peer");
        CheckToldRecord(record, now.count - 1);
    }

  private:
    uint32_t tail_ = g_LyrHostCwpTrace.tail;
    uint32_t count_ = g_LyrHostCwpTrace.count;
};

HostMbuf *Receive(fuzz::Reader &input, const Circumstances &in) {
    const bool claimed = (in.flags & kClaims) != 0;
    const auto claims = claimed ? input.Take<fuzz::PacketClaims>() : fuzz::PacketClaims{};
    HostMbuf *packet = pool.Receive(input.Rest(), {});
    if (packet == nullptr) {
        return nullptr;
    }
    if (claimed) {
        Claim(claims, packet);
    }
    if ((in.flags & kShortSegment) != 0) {
        packet->dataLen = static_cast<uint16_t>(packet->dataLen / 2);
    }
    standin::HostMbufMeta &meta = standin::MetaOf(packet);
    meta.causeId = in.causeId;
    meta.needTrace = (in.flags & kNeedTrace) != 0 ? 1 : 0;
    return packet;
}

void SetLines(const Circumstances &in) {
    LyrKesDebugTraceReq request = {};
    request.debugLevel = 3;
    if ((in.flags & kLines) == kLines) {
        LyrKes_DebugTraceConfigUpdate(&request);
    } else if (g_lyrKesDebugTrace.enable != 0) {
        LyrKes_DebugTraceConfigClear();
    }
}

void RunHook(HostMbuf *packet, const Circumstances &in, fuzz::ByteSpan frame) {
    const uint32_t kind = in.hookKind & 3u;
    standin::HostMbufMeta before = standin::MetaOf(packet);
    const bool watched = Watch(before, in);
    const Expected expected = Expect(packet, in, watched);
    const Ring ring;
    Require(standin::RunHooks(kPoints[kind], packet) == HOST_HOOK_CONTINUE,
            "the hooks take no packet");
    const standin::HostMbufMeta &after = standin::MetaOf(packet);
    Require(after.needStat == (expected.counted ? 1 : 0), "what counts is marked");
    Require(after.needTrace == (expected.marked ? 1 : 0), "what is traced is marked");
    before.needStat = after.needStat;
    before.needTrace = after.needTrace;
    Require(std::memcmp(&before, &after, sizeof before) == 0, "nothing else is changed");
    Require(std::ranges::equal(standin::FrameAsReceived(packet), frame), "no frame is changed");
    CheckCounters(expected, kind);
    if (expected.counted) {
        CheckToldCounters();
    }
    ring.CheckAppended(expected.recorded, kind, PeerOf(before, kind),
                       before.protoType == HOST_PROTO_IPV6);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const fuzz::StartedModule module;
    fuzz::Reader input(data, size);
    const auto in = input.Take<Circumstances>();
    if (HostMbuf *packet = Receive(input, in)) {
        SetLines(in);
        RunHook(packet, in, input.Rest());
        standin::MbufPool::Release(packet);
    }
    return 0;
}

std::vector<fuzz::Bytes> fuzz::Seeds() {
    std::vector<Bytes> inputs;
    for (const Bytes &claimed : SeedsWithClaims()) {
        for (uint8_t kind = 0; kind < KES_HOOK_NUM; ++kind) {
            const uint8_t flags = inputs.size() % 5 == 0 ? kClaims | kNeedTrace : kClaims;
            Append(inputs.emplace_back(), Circumstances{kind, flags, 0});
            inputs.back().insert(inputs.back().end(), claimed.begin(), claimed.end());
        }
    }
    return inputs;
}
