// The packet builder, the decoder that names packets, and the traffic made with both.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "capture.h"
#include "capwap/describe.h"
#include "capwap/message_type.h"
#include "capwap/wire.h"
#include "capwap_gen/commands.h"
#include "capwap_gen/traffic.h"
#include "program.h"

namespace capwap_gen {
namespace {

using capwap::BuildFrame;
using capwap::Bytes;
using capwap::ControlMessage;
using capwap::Describe;
using capwap::FrameSpec;
using programs::Directory;
using programs::Lines;
using programs::Outcome;
using testing::HasSubstr;

uint32_t Read16(std::span<const uint8_t> bytes, size_t at) {
    return static_cast<uint32_t>(bytes[at] << 8 | bytes[at + 1]);
}

std::string Hex(std::span<const uint8_t> bytes) {
    std::string text;
    for (uint8_t byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", byte);
        text += digits;
    }
    return text;
}

FrameSpec Spec4(Bytes payload) {
    return capwap::UdpFrame("10.64.0.1", 5246, "10.0.0.1", 5246, std::move(payload));
}

FrameSpec Spec6(Bytes payload) {
    return capwap::UdpFrame("2001:db8:1::1", 5246, "2001:db8::ffff:1", 5246, std::move(payload));
}

// Of a frame without extension headers.
std::span<const uint8_t> IpPayload(std::span<const uint8_t> frame) {
    size_t type = 12;
    while (Read16(frame, type) == 0x8100 || Read16(frame, type) == 0x88A8)
        type += 4;
    const size_t ip = type + 2, header = (frame[ip] & 15u) * 4;
    if (Read16(frame, type) == 0x86DD)
        return frame.subspan(ip + 40, Read16(frame, ip + 4));
    return frame.subspan(ip + header, Read16(frame, ip + 2) - header);
}

TEST(MessageType, NamesComeInPairsAndLeadBackToTheirTypes) {
    std::vector<uint32_t> requests = {3398913, capwap::kVendorProbeRequest,
                                      capwap::kVendorPingRequest};
    for (uint32_t type = 1; type < 26; type += 2)
        requests.push_back(type);
    std::set<std::string> stems;
    for (uint32_t type : requests) {
        std::string request(capwap::MessageTypeName(type));
        ASSERT_TRUE(request.ends_with(" Request")) << type << " is " << request;
        std::string stem = request.substr(0, request.size() - 8);
        EXPECT_EQ(capwap::MessageTypeName(type + 1), stem + " Response");
        EXPECT_EQ(capwap::MessageTypeByName(request), type);
        stems.insert(stem);
    }
    EXPECT_EQ(stems.size(), 16u);
    for (uint32_t type : {0u, 27u, 3398912u, 3398915u, 0xFFFFFFFFu})
        EXPECT_EQ(capwap::MessageTypeName(type), "");

    EXPECT_EQ(capwap::MessageTypeByName("change-state_EVENT request"), 11u);
    EXPECT_EQ(capwap::MessageTypeByName("vendor-probe-response"), capwap::kVendorPen * 256 + 78);
    EXPECT_EQ(capwap::MessageTypeByName("vendor-ping-request"), capwap::kVendorPen * 256 + 117);
    EXPECT_EQ(capwap::MessageTypeByName("ieee-802.11-wlan-configuration-response"), 3398914u);
    for (const char *name : {"", "Echo", "Echo Request ", "EchoRequest"})
        EXPECT_EQ(capwap::MessageTypeByName(name), std::nullopt) << name;
}

TEST(PacketBuilder, LayoutsAreRight) {
    const Bytes element = capwap::Element(0x1234, Bytes{0xAA, 0xBB, 0xCC});
    const capwap::ExtensionElement wlan = {6, {0, 9, 0, 0}};
    FrameSpec tagged = Spec4({0x55});
    tagged.vlans = {100, 200};
    tagged.ipId = 0x0102;
    FrameSpec zeroSum = Spec4({0xC2, 0x9C});
    tagged.padToMinimum = zeroSum.padToMinimum = false;
    const struct {
        const char *name;
        Bytes bytes;
        std::string hex;
    } kCases[] = {
        {"header", capwap::EncodeHeader({}), "0010020000000000"},
        {"every field",
         capwap::EncodeHeader({1, 2, true, true, true, true, true, 3, 0xABCD, 0x1FFF, 0x1D}),
         "011747ccabcdfff8"},
        {"longer header", capwap::EncodeHeader({.hlenWords = 4}),
         "00200200000000000000000000000000"},
        {"lying header", capwap::EncodeHeader({.hlenWords = 1}), "0008020000000000"},
        {"optional headers",
         capwap::EncodeHeader(
             {.radioMac = capwap::Mac{1, 2, 3, 4, 5, 6}, .wirelessInfo = {9, 8, 7, 6}}),
         "003002300000000006010203040506000409080706000000"},
        {"control message", ControlMessage(0x00010203, 7, element),
         "00100200000000000001020307000a0012340003aabbcc"},
        {"keepalive", capwap::Keepalive({0x01020304, 0x05060708, 0x090A0B0C, 0x0D0E0F10}),
         "0010000800000000001600230010"
         "0102030405060708090a0b0c0d0e0f10"},
        {"DTLS record", capwap::DtlsRecord(22, Bytes{0xEE}, 0x0001000000000002),
         "0100000016fefd00010000000000020001ee"},
        {"extended data", capwap::ExtendedDataFrame({&wlan, 1}, Bytes{0xFF}),
         "00100204000000000000000c0006000800090000ff"},
        {"tagged frame", BuildFrame(tagged),
         "02000000000202000000000188a80064810000c80800"
         "4500001d010200004011658d0a4000010a000001147e147e00096d9e55"},
        {"checksum of 0, which has to be 0xFFFF (RFC 768)", BuildFrame(zeroSum),
         "020000000002020000000001"
         "08004500001e000000004011668e0a4000010a000001147e147e000affffc29c"},
        {"padded frame", BuildFrame({.etherType = 0x88B4, .payload = {1, 2, 3}}),
         "02000000000202000000000188b401020300" + std::string(2 * 42, '0')},
    };
    for (const auto &c : kCases)
        EXPECT_EQ(Hex(c.bytes), c.hex) << c.name;
}

TEST(PacketBuilder, RefusesWhatNoPacketCanBe) {
    EXPECT_THROW(capwap::BuildFragments(Spec4({1}), 12), std::invalid_argument);
    EXPECT_THROW(capwap::BuildFragments(Spec4({1}), 0), std::invalid_argument);
    EXPECT_THROW(BuildFrame(Spec4(Bytes(65508))), std::length_error);
    EXPECT_THROW(BuildFrame(Spec6(Bytes(65528))), std::length_error);
}

// Frames that the traffic below does not hold, or holds only among others.
TEST(Describe, NamesFrames) {
    auto udp = [](uint16_t from, uint16_t to, const Bytes &payload) {
        return BuildFrame(capwap::UdpFrame("10.64.0.1", from, "10.0.0.1", to, payload));
    };
    const uint16_t control = capwap::kControlPort, data = capwap::kDataPort;
    const Bytes echo = ControlMessage(13, 0, {});
    FrameSpec hopByHop = Spec6(echo);
    hopByHop.ipv6Extension = {17, 0, 1, 4, 0, 0, 0, 0};
    Bytes trailing = capwap::Keepalive({1, 2, 3, 4});
    trailing.push_back(0);
    const struct {
        Bytes frame;
        const char *name;
    } kCases[] = {
        {BuildFrame(hopByHop), "Echo Request"},
        {udp(data, control, echo), "Echo Request"},
        {udp(control, control, ControlMessage(8323150, 0, {})), "message type 8323150"},
        {udp(data, data, capwap::DtlsRecord(25, Bytes(4))), "DTLS content type 25"},
        {udp(data, data, capwap::Keepalive({1, 2, 3, 4}, {.fragment = true, .wbid = 0})),
         "CAPWAP fragment"},
        {udp(data, data, trailing), "damaged"},
        {udp(data, data, capwap::DataFrame({})), "Data"},
        {udp(data, data, {}), "damaged"},
        {udp(5248, 5248, echo), "not CAPWAP"},
        {BuildFrame({.vlans = {1, 2, 3}, .etherType = 0x88B4}), "WAPI"},
        {{}, "damaged"},
    };
    for (const auto &c : kCases)
        EXPECT_EQ(Describe(c.frame), c.name) << Hex(c.frame);
}

TEST(Describe, CutFramesAreDamaged) {
    for (const FrameSpec &spec : {Spec4(ControlMessage(3, 1, capwap::Element(35, Bytes(16)))),
                                  Spec6(capwap::DtlsRecord(22, Bytes(40)))}) {
        const Bytes frame = BuildFrame(spec);
        for (size_t size = 0; size < frame.size(); size++)
            EXPECT_EQ(Describe(std::span(frame).first(size)), "damaged") << size;
    }
}

TrafficOptions Everything() {
    TrafficOptions options;
    options.accessPoints = 40;
    options.instances = 7;
    options.rounds = 100;
    options.unregisteredPercent = 20;
    return options;
}

std::vector<Frame> FramesOf(const TrafficOptions &options) {
    std::vector<Frame> frames;
    Traffic(options).Generate([&](const Frame &frame) { frames.push_back(frame); });
    return frames;
}

// The bytes of a capture.
std::string Capture(const TrafficOptions &options,
                    capture::Times times = capture::Times::kMicroseconds) {
    const Directory directory;
    capture::Writer writer(directory.Path("pcap"), times);
    for (const Frame &frame : FramesOf(options))
        writer.Write({frame.bytes, frame.timeNs, static_cast<uint32_t>(frame.bytes.size())});
    writer.Close();
    return directory.Read("pcap");
}

uint64_t HashOf(const Traffic &traffic) {
    uint64_t hash = 14695981039346656037u;
    auto add = [&](uint64_t value) { hash = (hash ^ value) * 1099511628211u; };
    traffic.Generate([&](const Frame &frame) {
        add(static_cast<uint64_t>(frame.timeNs));
        for (uint8_t byte : frame.bytes)
            add(byte);
    });
    return hash;
}

// The value is what one machine made; any other machine and compiler has to make the same, and so
// has every run.
TEST(Traffic, IsTheSameOnEveryMachine) {
    if (capwap::kVendorPen != 32473)
        GTEST_SKIP() << "vendor messages are of enterprise number " << capwap::kVendorPen;
    TrafficOptions options = Everything();
    const Traffic traffic(options);
    EXPECT_EQ(HashOf(traffic), 3149901173796852686u);
    EXPECT_EQ(HashOf(traffic), 3149901173796852686u) << "a second run continues the first";
    EXPECT_FALSE(Capture(options) == Capture(options, capture::Times::kNanoseconds));
    options.seed++;
    EXPECT_NE(HashOf(Traffic(options)), 3149901173796852686u);
}

// What there is among the frames, each of which is what it is said to be.
std::set<std::string_view> ContentsOf(const TrafficOptions &options) {
    std::set<std::string_view> contents;
    for (const Frame &frame : FramesOf(options)) {
        EXPECT_EQ(Describe(frame.bytes), frame.content) << Hex(frame.bytes);
        contents.insert(frame.content);
    }
    return contents;
}

// RFC 5415, sections 5 to 10, and RFC 5416, section 5; an IPv4 or IPv6 element each counts as the
// IPv4 one.
TEST(Traffic, MessagesHaveTheirMandatoryElements) {
    const std::set<uint32_t> kCapabilities = {20, 38, 39, 41, 44, 1048},
                             kServices = {1, 4, 10, 1048};
    std::map<std::string_view, std::set<uint32_t>> mandatory = {
        {"Discovery Request", kCapabilities},
        {"Primary Discovery Request", kCapabilities},
        {"Discovery Response", kServices},
        {"Primary Discovery Response", kServices},
        {"Join Request", {28, 30, 35, 38, 39, 41, 44, 45, 53, 1048}},
        {"Join Response", {1, 4, 10, 30, 33, 53, 1048}},
        {"Configuration Status Request", {4, 31, 36, 48}},
        {"Configuration Status Response", {2, 12, 16, 23, 40}},
        {"WTP Event Request", {47}},
        {"Change State Event Request", {32, 33}},
        {"Reset Request", {25}},
        {"Data Transfer Request", {13}},
        {"IEEE 802.11 WLAN Configuration Request", {1024, 1029}},
    };
    for (const char *answersWithResult :
         {"Configuration Update", "Image Data", "Data Transfer", "Clear Configuration",
          "Station Configuration", "IEEE 802.11 WLAN Configuration"})
        mandatory[capwap::MessageTypeName(
            *capwap::MessageTypeByName(answersWithResult + std::string(" Response")))] = {33};
    const std::map<uint32_t, uint32_t> kLengths = {
        {6, 4},   {10, 6},  {11, 18}, {12, 2}, {16, 3},  {20, 1},   {23, 4},  {27, 0}, {29, 2},
        {30, 4},  {31, 2},  {32, 3},  {33, 4}, {35, 16}, {36, 2},   {40, 1},  {41, 1}, {44, 1},
        {47, 20}, {48, 15}, {50, 16}, {51, 1}, {53, 1},  {1026, 8}, {1048, 5}};
    const std::map<uint32_t, uint32_t> kIpv4Twins = {{3, 2}, {11, 10}, {50, 30}};

    std::set<std::string_view> checked;
    for (const Frame &frame : FramesOf(Everything())) {
        auto elements = mandatory.find(frame.content);
        if (elements == mandatory.end())
            continue;
        std::set<uint32_t> missing = elements->second;
        constexpr size_t kHeaders = 8 + 8 + 8;
        for (auto run = IpPayload(frame.bytes).subspan(kHeaders); !run.empty();) {
            uint32_t type = Read16(run, 0), length = Read16(run, 2);
            if (auto fixed = kLengths.find(type); fixed != kLengths.end()) {
                EXPECT_EQ(length, fixed->second) << "element " << type << " of " << frame.content;
            }
            auto twin = kIpv4Twins.find(type);
            missing.erase(twin == kIpv4Twins.end() ? type : twin->second);
            run = run.subspan(4 + length);
        }
        EXPECT_EQ(missing, std::set<uint32_t>()) << frame.content;
        checked.insert(frame.content);
    }
    EXPECT_EQ(checked.size(), mandatory.size());
}

TEST(Traffic, KindsAreAloneWhenAskedFor) {
    const std::map<std::string, std::set<std::string_view>> kContents = {
        {"discovery", {"Discovery Request", "Discovery Response"}},
        {"handshake", {"DTLS handshake", "DTLS change cipher spec"}},
        {"data-handshake", {"DTLS handshake", "DTLS change cipher spec"}},
        {"join",
         {"Join Request", "Join Response", "Configuration Status Request",
          "Configuration Status Response", "Change State Event Request",
          "Change State Event Response"}},
        {"keepalive", {"Data keepalive"}},
        {"secured", {"DTLS application data", "DTLS alert"}},
        {"data", {"Data"}},
        {"wlan", {"Data"}},
        {"wapi", {"WAPI"}},
        {"fragment", {"IP fragment", "CAPWAP fragment"}},
        {"damaged", {"damaged"}},
        {"unrelated", {"not CAPWAP"}},
        {"ping", {"Vendor Ping Request", "Vendor Ping Response", "CAPWAP fragment"}},
        {"probe", {"Vendor Probe Request", "Vendor Probe Response"}},
    };
    for (const auto &[kind, expected] : kContents) {
        TrafficOptions options = Everything();
        options.mix = Mix::Parse(kind + "=3");
        EXPECT_EQ(ContentsOf(options), expected) << kind;
    }
    EXPECT_EQ(ContentsOf(Everything()).size(), 28u + 2u + 4u + 7u)
        << "message types, vendor's, DTLS and the rest";
    Mix mix = Mix::Parse("all,data=0,wapi=7");
    EXPECT_EQ(mix.Weight(Kind::kData), 0u);
    EXPECT_EQ(mix.Weight(Kind::kWapi), 7u);
    EXPECT_EQ(mix.Weight(Kind::kWlan), Mix::All().Weight(Kind::kWlan));
}

// 20 bytes behind the CAPWAP header.
TEST(Traffic, ProbesNameTheirAccessPoint) {
    TrafficOptions options = Everything();
    options.mix = Mix::Parse("probe=1");
    for (const Frame &frame : FramesOf(options)) {
        const auto datagram = IpPayload(frame.bytes);
        const bool up = Read16(datagram, 2) == capwap::kControlPort;
        ASSERT_GE(datagram.size(), 16u + 32u);
        EXPECT_EQ(Hex(datagram.subspan(16 + 20, 6)),
                  Hex(std::span(frame.bytes).subspan(up ? 6 : 0, 6)));
    }
}

// Fields of a frame as tshark has them, first occurrences only.
using Witness = std::map<std::string, std::string>;

std::string ContentOf(const Witness &witness) {
    static const std::map<std::string, std::string> kRecords = {{"20", "DTLS change cipher spec"},
                                                                {"21", "DTLS alert"},
                                                                {"22", "DTLS handshake"},
                                                                {"23", "DTLS application data"}};
    auto isSet = [&](const char *field) {
        const std::string &value = witness.at(field);
        return !value.empty() && value != "0";
    };
    const std::string &type = witness.at("capwap.control.header.message_type");
    if (isSet("wai.version"))
        return "WAPI";
    if (isSet("ip.flags.mf") || isSet("ip.frag_offset") || isSet("ipv6.fraghdr.nxt"))
        return "IP fragment";
    if (witness.at("capwap.preamble.type").empty())
        return "not CAPWAP";
    if (isSet("capwap.preamble.type"))
        return kRecords.at(witness.at("dtls.record.content_type"));
    if (isSet("capwap.header.flags.f"))
        return "CAPWAP fragment";
    if (type.empty())
        return isSet("capwap.header.flags.k") ? "Data keepalive" : "Data";
    return std::string(capwap::MessageTypeName(static_cast<uint32_t>(std::stoul(type))));
}

TEST(Traffic, IsWhatAnotherDecoderSees) {
    const Directory directory;
    if (directory.Shell("tshark --version").status != 0)
        GTEST_SKIP() << "tshark is not installed";
    TrafficOptions options = Everything();
    options.mix = Mix::Parse("all,damaged=0,ping=10,probe=5");
    directory.Write("pcap", Capture(options, capture::Times::kNanoseconds));
    std::string command =
        "tshark -r pcap -T fields -E header=y -E separator=';' -E occurrence=f "
        "-o ip.check_checksum:TRUE -o udp.check_checksum:TRUE -o tcp.check_checksum:TRUE";
    for (const std::string field :
         {"_ws.malformed", "wai.version", "ip.flags.mf", "ip.frag_offset", "ipv6.fraghdr.nxt",
          "capwap.preamble.type", "capwap.header.flags.f", "capwap.header.flags.k",
          "dtls.record.content_type", "dtls.handshake.type", "dtls.handshake.ciphersuite",
          "capwap.control.header.message_type", "ip.checksum.status", "udp.checksum.status",
          "tcp.checksum.status", "icmp.checksum.status", "icmpv6.checksum.status"})
        command += " -e " + field;
    const std::vector<std::string> lines = Lines(directory.Shell(command).out);
    const std::vector<Frame> frames = FramesOf(options);
    ASSERT_EQ(lines.size(), 1 + frames.size());
    for (size_t i = 0; i < frames.size(); i++) {
        SCOPED_TRACE("frame " + std::to_string(i + 1));
        std::istringstream fields(lines[0]), values(lines[i + 1]);
        Witness witness;
        for (std::string field; std::getline(fields, field, ';');) {
            std::getline(values, witness[field], ';');
            ASSERT_FALSE(field.ends_with(".status") && witness[field] == "0") << field;
        }
        ASSERT_EQ(witness["_ws.malformed"], "");
        ASSERT_EQ(ContentOf(witness), frames[i].content);
        bool hello = witness["dtls.handshake.type"] == "1" || witness["dtls.handshake.type"] == "2";
        ASSERT_EQ(witness["dtls.handshake.ciphersuite"], hello ? "0x008c" : "");
    }
}

TEST(Program, RefusesBadOptionsInOneLine) {
    const struct {
        const char *options, *names, *value;
        int status = 2;
    } kCases[] = {
        {"", "--out", "required"},
        {"--out x --aps 0", "--aps", "0"},
        {"--out x --aps 1000001", "--aps", "1000001"},
        {"--out x --rounds many", "--rounds", "many"},
        {"--out x --seed -1", "--seed", "-1"},
        {"--out x --unregistered 101", "--unregistered", "101"},
        {"--out x --mix all,bogus=1", "--mix", "bogus=1"},
        {"--out x --mix data=lots", "--mix", "data=lots"},
        {"--out x --mix data=0", "--mix", "data=0"},
        {"--out x --controller 10.0.0", "--controller", "10.0.0"},
        {"--out x --controller6 10.0.0.1", "--controller6", "10.0.0.1"},
        {"--out x --controller 10.64.0.2", "controller", "10.64.0.2"},
        {"--out /no/such/file", "cannot write", "/no/such/file", 1},
        {"--out x --commands /no/such/file", "cannot write", "/no/such/file", 1},
        {"--out /dev/full", "cannot write", "/dev/full", 1},
        {"--out x --bogus", "not expected", "--bogus"},
    };
    const Directory directory;
    for (const auto &c : kCases) {
        const Outcome outcome = directory.Shell(CAPWAP_GEN " " + std::string(c.options));
        EXPECT_EQ(outcome.status, c.status) << c.options;
        EXPECT_EQ(Lines(outcome.out + outcome.err).size(), 1u) << outcome.out << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr(c.names));
        EXPECT_THAT(outcome.err, HasSubstr(c.value));
    }
    EXPECT_EQ(directory.Shell(CAPWAP_GEN " --version").status, 0);
}

TEST(Program, WritesWhatTheLibraryMakesAndSumsItUp) {
    const Directory directory;
    const Outcome outcome =
        directory.Shell(CAPWAP_GEN
                        " --out pcap --commands commands --aps 40 --instances 7 --rounds 100 "
                        "--unregistered 20");
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_TRUE(directory.Read("pcap") == Capture(Everything()));
    std::ostringstream commands;
    WriteCommands(commands, Traffic(Everything()));
    EXPECT_EQ(directory.Read("commands"), commands.str());

    Tally tally(7);
    for (const Frame &frame : FramesOf(Everything()))
        tally.Count(frame);
    uint64_t fates = tally.returned + tally.undelivered;
    auto expectLine = [&](const std::string &what, uint64_t count) {
        const std::string line = "  " + what + std::string(40 - what.size(), ' ');
        EXPECT_THAT(outcome.out, HasSubstr(line + std::to_string(count) + '\n'));
    };
    for (const auto &[content, count] : tally.byContent)
        expectLine(std::string(content), count);
    for (size_t i = 0; i < tally.byInstance.size(); i++) {
        expectLine("instance " + std::to_string(i), tally.byInstance[i]);
        EXPECT_GT(tally.byInstance[i], 0u);
        fates += tally.byInstance[i];
    }
    EXPECT_EQ(fates, tally.frames);
}

// The module decides on every frame from the commands; what each instance then holds is named by
// content, so that a frame's fate is not made up for by another's.
TEST(Program, AReplayMeetsThePredictions) {
    const Directory directory;
    for (const char *mix :
         {"all", "damaged=9,fragment=1", "control=1,keepalive=1,handshake=1", "ping=1,probe=1"}) {
        TrafficOptions options = Everything();
        options.rounds = 500;
        options.mix = Mix::Parse(mix);
        Traffic traffic(options);
        EXPECT_EQ(std::ranges::count(traffic.AccessPoints(), true, &AccessPoint::registered), 32);
        std::ostringstream commands;
        WriteCommands(commands, traffic);
        directory.Write("commands", commands.str());
        directory.Write("pcap", Capture(options));
        Tally tally(7);
        std::map<uint32_t, std::map<std::string, uint64_t>> expected, delivered;
        traffic.Generate([&](const Frame &frame) {
            tally.Count(frame);
            if (frame.fate.kind == Fate::kDelivered)
                expected[frame.fate.instance][std::string(frame.content)]++;
        });
        const Outcome outcome =
            directory.Shell(KES_ENGINE " --exec commands --replay pcap --rx-port 7 --report json");
        const auto report = nlohmann::json::parse(outcome.out, nullptr, false);
        ASSERT_TRUE(report.is_object()) << outcome.err;
        EXPECT_EQ(report["received"], tally.frames) << mix;
        EXPECT_EQ(report["returned"], tally.returned) << mix;
        EXPECT_EQ(report["undelivered"], tally.undelivered) << mix;
        for (const auto &instance : report["instances"])
            instance["messages"].get_to(delivered[instance["instance"]]);
        EXPECT_EQ(delivered, expected) << mix;
        EXPECT_TRUE(tally.undelivered > 0 || !options.mix.Weight(Kind::kKeepalive));
    }
}

}  // namespace
}  // namespace capwap_gen
