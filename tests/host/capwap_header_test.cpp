// The readers of CAPWAP headers: what they read, where they stop, and what they say of it.
#include "packet/capwap_header.h"

#include <cstring>
#include <optional>

#include "capwap/wire.h"
#include "dfx/debug_trace.h"
#include "host_fixture.h"

using namespace host_test;
using capwap::Bytes;
using capwap::FrameSpec;
using capwap::SessionId;
using capwap::Writer;

namespace {

constexpr uint32_t kFailed = 0xFFFFFFFF;
constexpr SessionId kSession = {0x01020304, 0x05060708, 0x090A0B0C, 0xFDFEFF00};
const char *const kNoHeader = "[LyrKesHost] get capwap header failed:ret=4294967295.";

FrameSpec Ipv4Frame(Bytes payload = {}) {
    return UdpFrame("10.0.10.1", 40000, "10.0.0.1", 5247, std::move(payload));
}

FrameSpec Ipv6Frame(Bytes payload = {}) {
    return UdpFrame("2001:db8::a:1", 40000, "2001:db8::1", 5247, std::move(payload));
}

Bytes Patched(Bytes bytes, size_t at, const Bytes &patch) {
    std::ranges::copy(patch, bytes.begin() + static_cast<ptrdiff_t>(at));
    return bytes;
}

Bytes First(const Bytes &bytes, size_t count) {
    return {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count)};
}

// What the readers make of a packet.
struct Readings {
    std::optional<std::pair<uint32_t, uint32_t>> lengths = {};  // payload, bytes present
    uint32_t type = kFailed;
    uint32_t keepalive = 0;
    uint32_t dtls = 0;
    std::optional<SessionId> session = {};
    std::optional<uint16_t> wlanId = {};
    bool operator==(const Readings &) const = default;
};

void PrintTo(const Readings &readings, std::ostream *out) {
    using testing::PrintToString;
    *out << "lengths " << PrintToString(readings.lengths) << ", message type " << readings.type
         << ", keepalive " << readings.keepalive << ", DTLS " << readings.dtls << ", session "
         << PrintToString(readings.session) << ", WLAN id " << PrintToString(readings.wlanId);
}

// The output of a reader, or nothing when it failed: then it must not have written one.
template <class Output, class Reader>
std::optional<Output> OutputOf(Reader reader) {
    Output untouched;
    std::memset(&untouched, 0xA5, sizeof(untouched));
    Output output = untouched;
    const uint32_t result = reader(&output);
    if (result == 0) {
        return output;
    }
    EXPECT_EQ(result, kFailed);
    EXPECT_EQ(output, untouched);
    return std::nullopt;
}

struct Location {
    const uint8_t *header;
    uint16_t payloadLength, present;
    bool operator==(const Location &) const = default;
};

template <class Locator>
std::optional<Location> Locate(Locator locator, const HostMbuf *packet) {
    return OutputOf<Location>([&](Location *location) {
        return locator(packet, &location->header, &location->payloadLength, &location->present);
    });
}

class CapwapHeaderTest : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        TraceOn(LYR_TRACE_FAILURE);
    }

    // Every reader in turn; the quiet ones must agree with the traced ones, and stay quiet.
    Readings Read(HostMbuf *packet) {
        ForgetLines();
        const auto location = Locate(LyrKes_GetCapwapHeader, packet);
        const uint32_t type = LyrKes_GetCapwapPktMsgType(packet);
        EXPECT_THAT(TakeReports(), IsEmpty());

        Readings readings;
        EXPECT_EQ(Locate(LyrKes_GetCapwapHdr, packet), location);
        if (location) {
            EXPECT_EQ(location->header + location->present,
                      static_cast<uint8_t *>(packet->bufAddr) + packet->dataOff + packet->dataLen);
            readings.lengths.emplace(location->payloadLength, location->present);
        }
        readings.type = LyrKes_GetCapwapMsgType(packet);
        EXPECT_EQ(readings.type, type);
        readings.dtls = LyrKes_CheckIsDtlsHandShakePkt(packet);
        readings.keepalive = LyrKes_CheckIsKaPkt(packet);
        readings.session = OutputOf<SessionId>(
            [&](SessionId *session) { return LyrKes_GetKaSessionid(packet, session->data()); });
        readings.wlanId = OutputOf<uint16_t>(
            [&](uint16_t *wlanId) { return LyrKes_GetVadoAcTunnelWlanId(packet, wlanId); });
        return readings;
    }
};

// What Read provokes when the header cannot be located: a line of each of the five traced readers,
// and that of the WLAN-id reader.
Texts NotLocated(const std::string &line) {
    Texts lines(5, line);
    lines.emplace_back(kNoHeader);
    return lines;
}

// How a datagram is wrapped, and where its UDP payload starts.
struct Wrapping {
    const char *name;
    FrameSpec spec;
    uint32_t payloadAt;
};

std::vector<Wrapping> Wrappings() {
    FrameSpec options = Ipv4Frame(), tagged = Ipv4Frame(), taggedIpv6 = Ipv6Frame();
    options.ipv4Options = Bytes(40, 1);
    tagged.vlans = {100, 200};
    taggedIpv6.vlans = {4094};
    return {{"IPv4", Ipv4Frame(), 42},
            {"IPv4 with options", options, 82},
            {"IPv4 in two tags", tagged, 50},
            {"IPv6", Ipv6Frame(), 62},
            {"IPv6 in a tag", taggedIpv6, 66}};
}

// A payload, what the readers find in all of it, and how many bytes of it each reader needs to
// find that (0: it finds nothing).
struct Content {
    const char *name;
    Bytes payload;
    Readings all;
    struct {
        uint32_t type, keepalive = 0, dtls = 0, session = 0, wlanId = 0;
    } needs;

    // The readings when `present` bytes of the payload are there.
    Readings Of(uint32_t present) const {
        const auto enough = [present](uint32_t need) { return need != 0 && present >= need; };
        Readings left = {.lengths = {{payload.size(), present}}};
        left.type = enough(needs.type) ? all.type : kFailed;
        left.keepalive = enough(needs.keepalive) ? 1 : 0;
        left.dtls = enough(needs.dtls) ? 1 : 0;
        left.session = enough(needs.session) ? all.session : std::nullopt;
        left.wlanId = enough(needs.wlanId) ? all.wlanId : std::nullopt;
        return left;
    }

    Texts LinesOf(uint32_t present) const {
        const std::string lengths = Text("pktLen=%zu, realLen=%u", payload.size(), present);
        if (present <= 3) {
            return {"LyrKes_GetCapwapMsgTypeFromCapwapHdr, check err: " + lengths,
                    "[LyrKesHost] LyrKes_CheckIsKaPkt, check err: " + lengths};
        }
        if (present < needs.type) {
            return {"LyrKes_GetCapwapMsgTypeFromCapwapHdr, headlen not enough: " + lengths};
        }
        return {};
    }
};

std::vector<Content> Contents() {
    const Bytes echo = capwap::ControlMessage(13, 1, capwap::Element(25, Bytes(4)));
    const Bytes vendor = capwap::ControlMessage(0x80C10D01, 1, {});
    const capwap::Header withMac = {.wbid = 0, .radioMac = capwap::Mac{1, 2, 3, 4, 5, 6}};
    const Readings keepalive = {.type = 0x00160023, .session = kSession};
    const std::vector<capwap::ExtensionElement> elements = {{1, {0, 0}}, {6, {2, 1, 0, 0}}};
    const Bytes data = capwap::ExtendedDataFrame(elements, {});
    return {
        {"nothing", {}, {}, {4}},
        {"echo request", echo, {.type = 13}, {12}},
        {"vendor message", vendor, {.type = 0x80C10D01}, {12}},
        {"keepalive", capwap::Keepalive(kSession), keepalive, {12, 4, 0, 30}},
        {"keepalive, radio MAC", capwap::Keepalive(kSession, withMac), keepalive, {20, 4, 0, 38}},
        {"handshake", capwap::DtlsRecord(22, Bytes(4)), {.type = 0x01000000}, {4, 0, 17}},
        {"data for WLAN 513", data, {.type = 18, .wlanId = uint16_t{513}}, {12, 0, 0, 0, 26}},
    };
}

TEST_F(CapwapHeaderTest, ReadersStopWhereTheSegmentEnds) {
    for (const auto &[wrapping, base, payloadAt] : Wrappings()) {
        for (const Content &content : Contents()) {
            FrameSpec spec = base;
            spec.payload = content.payload;
            const Packet whole = MakePacket(spec);
            ASSERT_EQ(whole->dataLen, payloadAt + content.payload.size());
            for (uint32_t length = 0; length <= whole->dataLen; ++length) {
                SCOPED_TRACE(Text("%s, %s, %u bytes", wrapping, content.name, length));
                const Readings readings = Read(FirstSegment(whole, length).get());
                const Texts lines = TakeReports();
                if (length < payloadAt) {
                    EXPECT_EQ(readings, Readings{});
                    EXPECT_EQ(lines, NotLocated(Text("[LyrKesHost] parse udphdr err: total=%u, "
                                                     "parsed=%u",
                                                     length, payloadAt)));
                } else {
                    EXPECT_EQ(readings, content.Of(length - payloadAt));
                    EXPECT_EQ(lines, content.LinesOf(length - payloadAt));
                }
            }
        }
    }
}

TEST_F(CapwapHeaderTest, UdpLengthThatDoesNotCoverTheBytesIsRefused) {
    for (const auto &[wrapping, base, payloadAt] : Wrappings()) {
        FrameSpec spec = base;
        spec.payload = capwap::ControlMessage(13, 1, {});
        const uint32_t total = payloadAt + 16;
        for (const uint32_t length :
             {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 22, 23, 24, 25, 255, 256, 32768, 65535}) {
            SCOPED_TRACE(Text("%s, UDP length %u", wrapping, length));
            spec.udpLengthError = static_cast<int>(length) - 24;
            const Readings readings = Read(MakePacket(spec).get());
            Texts expected;
            if (length < 8) {
                expected =
                    NotLocated(Text("[LyrKesHost] udpHdr len err: len=%u, total=%u, parsedLen=%u",
                                    length, total, payloadAt));
            } else if (length < 24) {
                expected =
                    NotLocated(Text("[LyrKesHost] app len err: appLen=%u, parseLen=%u, totalLen=%u",
                                    length - 8, payloadAt, total));
            }
            EXPECT_EQ(TakeReports(), expected);
            EXPECT_EQ(readings, length < 24
                                    ? Readings{}
                                    : (Readings{.lengths = {{length - 8, 16}}, .type = 13}));
        }
    }
}

TEST_F(CapwapHeaderTest, UdpBeginsWhereTheEngineSaysThatHeadersEnd) {
    FrameSpec spec = Ipv6Frame(capwap::Keepalive(kSession));
    spec.ipv6Extension = {17, 0, 1, 4, 0, 5, 0, 0};
    EXPECT_EQ(Read(MakePacket(spec).get()), Readings{}) << "the extension header is not skipped";
    EXPECT_EQ(TakeReports(),
              NotLocated("[LyrKesHost] udpHdr len err: len=5, total=100, parsedLen=62"));

    const Packet packet = MakePacket(Ipv4Frame(capwap::Keepalive(kSession)));
    standin::HostMbufMeta &meta = standin::MetaOf(packet.get());
    meta.l2Length = 256 + 14;  // only the low byte counts
    meta.ipHeaderLength = 256 + 20;
    EXPECT_EQ(Read(packet.get()).session, kSession);
    EXPECT_EQ(LyrKes_CheckIfFirstIpFrag(packet.get()), 1u);
    for (const uint8_t protoType : Bytes{2, 3, 255}) {
        meta.protoType = protoType;
        EXPECT_EQ(Read(packet.get()), Readings{}) << unsigned{protoType};
        EXPECT_THAT(TakeReports(), ElementsAre(kNoHeader));
        EXPECT_EQ(LyrKes_CheckIfFirstIpFrag(packet.get()), 0u);
    }
}

// The readers that are given a header, for every header length: the word behind it.
TEST_F(CapwapHeaderTest, MessageTypeStandsBehindAHeaderOfAnyLength) {
    for (uint32_t words = 0; words <= 31; ++words) {
        SCOPED_TRACE(words);
        const size_t end = 4 * words + 4;
        Bytes header = Patched(Bytes(end, 0xFF), end - 4, {0x12, 0x34, 0x56, 0x78});
        header[1] = static_cast<uint8_t>(words << 3 | 7);  // the low bits are the radio id's
        const auto read = [&header](size_t present) {
            return OutputOf<uint32_t>([&](uint32_t *type) {
                return LyrKes_GetCapwapMsgTypeFromCapwapHdr(header.data(), 999,
                                                            static_cast<uint16_t>(present), type);
            });
        };
        EXPECT_EQ(read(end), words == 0 ? 0x12075678u : 0x12345678u);
        EXPECT_THAT(TakeReports(), IsEmpty());
        EXPECT_EQ(read(end - 1), std::nullopt);
        EXPECT_THAT(TakeReports(),
                    ElementsAre(Text("LyrKes_GetCapwapMsgTypeFromCapwapHdr, %s: pktLen=999, "
                                     "realLen=%zu",
                                     words == 0 ? "check err" : "headlen not enough", end - 1)));
    }
}

TEST_F(CapwapHeaderTest, KeepaliveHasKWithoutFAndOneSessionElement) {
    const struct {
        const char *name;
        size_t at;
        Bytes patch;
        bool keepalive, session;
        Texts lines = {};
    } kCases[] = {
        {"as sent", 0, {}, true, true},
        {"K and F", 3, {0x88}, false, true},
        {"no K", 3, {0}, false, true},
        {"every flag but F", 3, {0x7F}, true, true},
        {"header too long by a word", 1, {3 << 3}, true, false},
        {"20 bytes", 8, {0, 20}, true, false, {"ElementLen:20"}},
        {"5654 bytes", 8, {22, 22}, true, false, {"ElementLen:5654"}},
        {"element 36", 10, {0, 36}, true, false, {"Type:36, Len:16"}},
        {"element 291", 10, {1, 35}, true, false, {"Type:291, Len:16"}},
        {"of 12", 12, {0, 12}, true, false, {"Type:35, Len:12"}},
        {"of 4112", 12, {16, 16}, true, false, {"Type:35, Len:4112"}},
    };
    for (auto [name, at, patch, keepalive, session, lines] : kCases) {
        SCOPED_TRACE(name);
        const Bytes payload = Patched(capwap::Keepalive(kSession), at, patch);
        const Readings readings = Read(MakePacket(Ipv4Frame(payload)).get());
        EXPECT_EQ(readings.keepalive, keepalive ? 1u : 0u);
        EXPECT_EQ(readings.session, session ? std::optional(kSession) : std::nullopt);
        for (std::string &line : lines) {
            line = "Get KA session id error, " + line;
        }
        EXPECT_EQ(TakeReports(), lines);
    }
}

TEST_F(CapwapHeaderTest, EveryDtlsRecordButApplicationDataIsAHandshake) {
    const std::array<uint8_t, 3> kCases[] = {
        {0x01, 20, 1}, {0x01, 21, 1}, {0x01, 22, 1}, {0x01, 23, 0}, {0x01, 24, 1},  {0x01, 0, 1},
        {0x01, 55, 1}, {0x00, 22, 0}, {0x02, 22, 0}, {0x03, 22, 0}, {0x09, 22, 0},  {0x11, 22, 1},
        {0xF1, 22, 1}, {0x10, 22, 0}, {0x11, 23, 0}, {0xF1, 23, 0}, {0x01, 151, 1},
    };
    for (const auto &[preamble, contentType, handshake] : kCases) {
        SCOPED_TRACE(Text("preamble 0x%02x, content type %u", preamble, contentType));
        const Bytes record = Patched(capwap::DtlsRecord(contentType, {}), 0, {preamble});
        ASSERT_EQ(record.size(), 17u);
        EXPECT_EQ(Read(MakePacket(Ipv4Frame(record)).get()).dtls, handshake);
        EXPECT_EQ(Read(MakePacket(Ipv4Frame(First(record, 16))).get()).dtls, 0u);
    }
}

// What is wrong with a packet is for its filter to let through; a header alone has no packet.
TEST_F(CapwapHeaderTest, ReportsPassTheFilterOfTheirPacket) {
    const Packet cut = FirstSegment(MakePacket(Ipv4Frame(Bytes(8))), 45);
    const std::string type = "LyrKes_GetCapwapMsgTypeFromCapwapHdr, check err: pktLen=8, realLen=3";
    const std::string keepalive =
        "[LyrKesHost] LyrKes_CheckIsKaPkt, check err: pktLen=8, realLen=3";
    const struct {
        uint32_t levels;
        uint32_t srcPort;
        Texts lines;
    } kCases[] = {
        {3, 0, {type, keepalive}}, {1, 40000, {type, keepalive}}, {1, 1, {type}}, {2, 0, {}}};
    for (const auto &[levels, srcPort, lines] : kCases) {
        TraceOn(levels);
        g_lyrKesDebugTrace.srcPort = srcPort;
        Read(cut.get());
        EXPECT_EQ(TakeReports(), lines) << "levels " << levels << ", source port " << srcPort;
    }
}

// A CAPWAP header that announces an extension header, and that.
Bytes Extended(const Writer &extension, uint8_t hlenWords = 2) {
    const Bytes header = capwap::EncodeHeader({.hlenWords = hlenWords, .extension = true});
    return Writer().Raw(header).Raw(extension.From(0)).Take();
}

// The same with an element for WLAN 7 at its end.
Bytes ForWlan7(Writer extension, uint8_t hlenWords = 2) {
    return Extended(extension.U16(6).U16(8).U16(7).U16(0), hlenWords);
}

TEST_F(CapwapHeaderTest, WlanIdIsFoundBehindWholeElementsOnly) {
    const struct {
        const char *name;
        Bytes header;
        std::optional<uint16_t> wlanId = {};
    } kCases[] = {
        {"alone", ForWlan7(Writer().U32(12)), 7},
        {"behind a long header", ForWlan7(Writer().U32(12), 31), 7},
        {"payload behind", Extended(Writer().U32(12).U16(6).U16(8).U16(7).U32(0)), 7},
        {"long value", Extended(Writer().U32(14).U16(6).U16(10).U16(0xFEDC).U32(0)), 0xFEDC},
        {"second", ForWlan7(Writer().U32(20).U16(1).U16(8).U32(0)), 7},
        {"fourth", ForWlan7(Writer().U32(25).U32(4).U32(4).U32(5).U8(0)), 7},
        {"behind an overlapping element", ForWlan7(Writer().U32(18).U16(1).U16(2).U16(4)), 7},
        {"length in place of a header", Writer().U32(12).U32(0x60008).U32(0x70000).Take(), 7},
        {"flag clear", Patched(ForWlan7(Writer().U32(12)), 3, {0xFB})},
        {"length beyond", ForWlan7(Writer().U32(13))},
        {"longest length", ForWlan7(Writer().U32(0xFFFFFFFF))},
        {"an element header", ForWlan7(Writer().U32(8))},
        {"WLAN id beyond the length", ForWlan7(Writer().U32(11))},
        {"element beyond the length", ForWlan7(Writer().U32(16).U16(1).U16(13))},
        {"no WLAN id", Extended(Writer().U32(12).U16(1).U16(8).U32(0))},
        {"type 262", Extended(Writer().U32(12).U16(262).U16(8).U32(7))},
        {"WLAN id of length 7", Extended(Writer().U32(12).U16(6).U16(7).U32(7))},
        {"WLAN id of length 0", Extended(Writer().U32(12).U16(6).U16(0).U32(7))},
        {"WLAN id longer than what is left",
         Extended(Writer().U32(20).U16(1).U16(8).U32(0).U16(6).U16(9).U32(7))},
        {"length 0 before", ForWlan7(Writer().U32(16).U16(1).U16(0))},
        {"header of an element left", Extended(Writer().U32(12).U32(4).U16(6).U16(8))},
    };
    const auto read = [](const Bytes &bytes) {
        return OutputOf<uint16_t>([&](uint16_t *wlanId) {
            const auto present = static_cast<uint16_t>(bytes.size());
            return LyrKes_GetWlanIdFromCapwapHeader(bytes.data(), present, wlanId);
        });
    };
    for (const auto &[name, header, wlanId] : kCases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(read(header), wlanId);
        // Cut anywhere, there is nothing else to find.
        for (size_t size = 0; size < header.size(); ++size) {
            const auto found = read(First(header, size));
            EXPECT_TRUE(!found || found == wlanId) << size;
        }
    }
    EXPECT_THAT(TakeReports(), IsEmpty());
}

TEST_F(CapwapHeaderTest, EngineGetsTheWlanIdOrAFailure) {
    const Bytes tagged = ForWlan7(Writer().U32(12)), plain = capwap::DataFrame({});
    const standin::Arrival marked = {.diagnose = true};
    const char *const kPrint = "[LyrKesHost] get capwap ext header wlanid:ret=%u, wlanid=%u.";
    const struct {
        Packet packet;
        uint32_t result;
        uint16_t wlanId;
        Texts prints = {}, reports = {};
    } kCases[] = {
        {MakePacket(Ipv4Frame(tagged)), 0, 7},
        {MakePacket(Ipv6Frame(tagged), marked), 0, 7, {Text(kPrint, 0, 7)}},
        {MakePacket(Ipv4Frame(plain), marked), kFailed, 99, {Text(kPrint, kFailed, 99)}},
        {FirstSegment(MakePacket(Ipv4Frame(), marked), 41), kFailed, 99, {}, {kNoHeader}},
    };
    for (const auto &[packet, result, expected, prints, reports] : kCases) {
        uint16_t wlanId = 99;
        EXPECT_EQ(LyrKes_GetVadoAcTunnelWlanId(packet.get(), &wlanId), result);
        EXPECT_EQ(wlanId, expected);
        EXPECT_EQ(TakeLines(LineKind::kPrint), prints);
        EXPECT_EQ(TakeReports(), reports);
        EXPECT_EQ(LyrKes_GetVadoAcTunnelWlanId(packet.get(), nullptr), kFailed);
        EXPECT_EQ(LyrKes_GetVadoAcTunnelWlanId(nullptr, &wlanId), kFailed);
        EXPECT_THAT(TakeReports(), IsEmpty());
    }
}

TEST_F(CapwapHeaderTest, OffsetZeroIsAFirstFragmentAndMissingBytesAreNone) {
    constexpr size_t kIp = 18;
    FrameSpec ipv4 = Ipv4Frame(Bytes(40)), ipv6 = Ipv6Frame(Bytes(40));
    ipv4.vlans = ipv6.vlans = {5};
    const Bytes whole4 = capwap::BuildFrame(ipv4), whole6 = capwap::BuildFrame(ipv6);
    const std::vector<Bytes> parts4 = capwap::BuildFragments(ipv4, 16);
    const std::vector<Bytes> parts6 = capwap::BuildFragments(ipv6, 16);
    const struct {
        const char *name;
        Bytes frame;
        uint32_t first;
        size_t needs;  // bytes of the IP packet
    } kCases[] = {
        {"IPv4, whole", whole4, 1, 8},
        {"IPv4, first", parts4.front(), 1, 8},
        {"IPv4, last", parts4.back(), 0, 8},
        {"IPv4, every flag", Patched(whole4, kIp + 6, {0xE0, 0}), 1, 8},
        {"IPv4, offset 1", Patched(whole4, kIp + 6, {0, 1}), 0, 8},
        {"IPv4, offset 256", Patched(whole4, kIp + 6, {0x01, 0}), 0, 8},
        {"IPv6, whole", whole6, 1, 7},
        {"IPv6, first", parts6.front(), 1, 44},
        {"IPv6, last", parts6.back(), 0, 44},
        {"IPv6, reserved bits", Patched(parts6.front(), kIp + 42, {0, 7}), 1, 44},
        {"IPv6, offset 1", Patched(parts6.front(), kIp + 42, {0, 8}), 0, 44},
        {"IPv6, offset 4096", Patched(parts6.front(), kIp + 42, {0x80, 0}), 0, 44},
    };
    for (const auto &[name, frame, first, needs] : kCases) {
        const Packet whole = MakePacket(frame);
        for (size_t length = 0; length <= whole->dataLen; ++length) {
            const Packet packet = FirstSegment(whole, length);
            EXPECT_EQ(LyrKes_CheckIfFirstIpFrag(packet.get()), length < kIp + needs ? 0 : first)
                << name << ", " << length << " bytes";
        }
    }
    EXPECT_THAT(TakeReports(), IsEmpty());
}

}  // namespace
