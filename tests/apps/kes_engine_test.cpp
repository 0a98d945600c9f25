// The runner as a process: captures in, captures and a report out.
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "capwap/packet_builder.h"

namespace {

namespace fs = std::filesystem;
using capwap::Bytes;
using nlohmann::json;

struct Frame {
    int64_t timeNs = 0;
    uint32_t wireLength = 0;
    Bytes bytes;

    bool operator==(const Frame &) const = default;
};

// Without the bytes, which would fill the screen.
void PrintTo(const Frame &frame, std::ostream *out) {
    *out << frame.bytes.size() << " bytes at " << frame.timeNs;
}

using Frames = std::vector<Frame>;
using FramesByFile = std::map<std::string, Frames>;

Frames ReadCapture(const std::string &path) {
    char error[PCAP_ERRBUF_SIZE];
    pcap_t *capture =
        pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO, error);
    Frames frames;
    if (capture == nullptr) {
        ADD_FAILURE() << error;
        return frames;
    }
    pcap_pkthdr *header;
    const u_char *bytes;
    while (pcap_next_ex(capture, &header, &bytes) == 1) {
        frames.push_back({header->ts.tv_sec * 1'000'000'000 + header->ts.tv_usec, header->len,
                          Bytes(bytes, bytes + header->caplen)});
    }
    pcap_close(capture);
    return frames;
}

void WriteCapture(const std::string &path, const Frames &frames, int linkType = DLT_EN10MB) {
    pcap_t *shape =
        pcap_open_dead_with_tstamp_precision(linkType, 262144, PCAP_TSTAMP_PRECISION_NANO);
    pcap_dumper_t *file = pcap_dump_open(shape, path.c_str());
    ASSERT_NE(file, nullptr) << pcap_geterr(shape);
    for (const Frame &frame : frames) {
        pcap_pkthdr header = {};
        header.ts.tv_sec = frame.timeNs / 1'000'000'000;
        header.ts.tv_usec = frame.timeNs % 1'000'000'000;
        header.caplen = static_cast<bpf_u_int32>(frame.bytes.size());
        header.len = frame.wireLength;
        pcap_dump(reinterpret_cast<u_char *>(file), &header, frame.bytes.data());
    }
    pcap_dump_close(file);
    pcap_close(shape);
}

// A pcapng file: section header, one interface with times in nanoseconds, a block a frame.
void WritePcapng(const std::string &path, const Frames &frames) {
    std::ofstream file(path, std::ios::binary);
    const auto word = [](uint32_t value) {
        return std::string(reinterpret_cast<const char *>(&value), 4);
    };
    const auto block = [&](uint32_t type, std::string body) {
        body.resize((body.size() + 3) / 4 * 4);
        const std::string length = word(static_cast<uint32_t>(body.size()) + 12);
        file << word(type) << length << body << length;
    };
    block(0x0A0D0D0A, word(0x1A2B3C4D) + word(1) + word(UINT32_MAX) + word(UINT32_MAX));
    block(1, word(DLT_EN10MB) + word(262144) + word(0x00010009) + word(9) + word(0));
    for (const Frame &frame : frames) {
        const auto time = static_cast<uint64_t>(frame.timeNs);
        block(6, word(0) + word(static_cast<uint32_t>(time >> 32)) +
                     word(static_cast<uint32_t>(time)) +
                     word(static_cast<uint32_t>(frame.bytes.size())) + word(frame.wireLength) +
                     std::string(frame.bytes.begin(), frame.bytes.end()));
    }
}

const std::string kModules = fs::path(KES_ENGINE).parent_path() / "../lib/";

std::string ReadText(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

template <typename... Values>
std::string Format(const char *format, Values... values) {
    char text[256];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

std::string Replaced(std::string text, const std::string &what, const std::string &with) {
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
        text.replace(at, what.size(), with);
    }
    return text;
}

class KesEngine : public testing::Test {
  protected:
    struct Outcome {
        int status;
        std::string out;
        std::string err;
    };

    void SetUp() override {
        directory_ = testing::TempDir() + "kes_engine.XXXXXX";
        ASSERT_NE(mkdtemp(directory_.data()), nullptr);
    }
    void TearDown() override {
        fs::remove_all(directory_);
    }

    std::string Path(const std::string &name) const {
        return directory_ + "/" + name;
    }
    void WriteText(const std::string &name, const std::string &text) const {
        std::ofstream(Path(name)) << text;
    }

    // Runs the program; '@' in the arguments stands for the test's directory.
    Outcome Run(const std::string &arguments, const std::string &shellPrefix = "") const {
        const std::string command = shellPrefix + KES_ENGINE " " +
                                    Replaced(arguments, "@", directory_ + "/") + " 2>" +
                                    Path("stderr");
        FILE *pipe = popen(command.c_str(), "r");
        std::string out;
        std::array<char, 4096> part;
        for (size_t size; (size = fread(part.data(), 1, part.size(), pipe)) > 0;) {
            out.append(part.data(), size);
        }
        const int status = pclose(pipe);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out, ReadText(Path("stderr"))};
    }

    // Runs the program to its success; the report.
    json Replay(const std::string &arguments) const {
        const Outcome outcome = Run(arguments + " --report json --log @log");
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return json::parse(outcome.out, nullptr, false);
    }

    // The captures in a directory by name, each in the order of time.
    FramesByFile ReadOut(const std::string &name) const {
        FramesByFile captures;
        for (const auto &entry : fs::directory_iterator(Path(name))) {
            Frames &frames = captures[entry.path().filename()];
            frames = ReadCapture(entry.path());
            std::ranges::stable_sort(frames, {}, &Frame::timeNs);
        }
        return captures;
    }

    std::string directory_;
};

// --- traffic of every fate ---

using capwap::BuildFrame;
using capwap::FrameSpec;

constexpr capwap::SessionId kSession = {0x00112233, 0x44556677, 0x8899AABB, 0xCCDDEEFF};
constexpr const char *kCommands = R"(# One controller, five instances.
source add 1 10.0.0.254 --if 7
source add 1 2001:db8::fe --if 7
tunnel add 10.0.0.1 12380 10.0.0.254 5246 --node 3
tunnel add 10.0.0.1 12380 10.0.0.254 5247 --node 6
tunnel add 2001:db8::1 12380 2001:db8::fe 5246 --node 4
tunnel default --node 0
session add 00112233445566778899aabbccddeeff --node 6
wapi 1 1
)";

FrameSpec Udp(const char *source, const char *destination, uint16_t port, Bytes payload) {
    FrameSpec spec;
    spec.ipv6 = std::strchr(source, ':') != nullptr;
    if (spec.ipv6) {
        spec.srcIp6 = capwap::Ipv6(source);
        spec.dstIp6 = capwap::Ipv6(destination);
    } else {
        spec.srcIp = capwap::Ipv4(source);
        spec.dstIp = capwap::Ipv4(destination);
    }
    spec.srcPort = 12380;
    spec.dstPort = port;
    spec.payload = std::move(payload);
    return spec;
}

struct Fixture {
    const char *name;
    Bytes frame;
    const char *file;      // which of the captures it is to be found in
    bool fromAp;           // from an address of the registered access point
    uint32_t missing = 0;  // bytes on the wire that were not captured
};

std::vector<Fixture> Traffic() {
    constexpr uint32_t kJoinRequest = 3, kEchoRequest = 13;
    const Bytes join = capwap::ControlMessage(kJoinRequest, 1, {});
    const Bytes echo = capwap::ControlMessage(kEchoRequest, 2, {});
    const Bytes handshake = capwap::DtlsRecord(22, Bytes(40, 1));
    const Bytes keepalive = capwap::Keepalive(kSession);
    const Bytes stranger = capwap::Keepalive({1, 2, 3, 4});
    const Bytes data = capwap::DataFrame(Bytes(200, 7));
    const char *const ap = "10.0.0.1", *const ac = "10.0.0.254";
    const char *const ap6 = "2001:db8::1", *const ac6 = "2001:db8::fe";
    FrameSpec tagged = Udp(ap, ac, 5246, echo);
    tagged.vlans = {100, 7};
    FrameSpec tcp = Udp(ap, ac, 5246, {0x30, 0x5C, 0x14, 0x7E});
    tcp.ipProtocol = 6;
    return {
        {"registered", BuildFrame(Udp(ap, ac, 5246, join)), "instance-3-cwp", true},
        {"tagged", BuildFrame(tagged), "instance-3-cwp", true},
        {"registered, IPv6", BuildFrame(Udp(ap6, ac6, 5246, join)), "instance-4-cwp", true},
        {"data handshake", BuildFrame(Udp(ap, ac, 5247, handshake)), "instance-6-cwp", true},
        {"unregistered", BuildFrame(Udp("10.0.0.2", ac, 5246, echo)), "instance-0-cwp", false},
        {"broadcast", BuildFrame(Udp("0.0.0.0", "255.255.255.255", 5246, echo)), "instance-0-cwp",
         false},
        {"keepalive", BuildFrame(Udp(ap, ac, 5247, keepalive)), "instance-6-cwp", true},
        {"station", BuildFrame({.etherType = 0x88B4, .payload = Bytes(60)}), "instance-1-wapi",
         false},
        {"another controller's", BuildFrame(Udp(ap, "10.0.0.253", 5246, join)), "returned", true},
        {"data", BuildFrame(Udp(ap, ac, 5247, data)), "returned", true},
        {"padded TCP", BuildFrame(tcp), "returned", true},
        {"ARP", BuildFrame({.etherType = 0x0806, .payload = Bytes(28)}), "returned", false},
        {"cut short", Bytes(9, 0xFF), "returned", false, 51},
        {"unknown session", BuildFrame(Udp(ap, ac, 5247, stranger)), "undelivered", true},
        {"unregistered, IPv6", BuildFrame(Udp("2001:db8::2", ac6, 5246, join)), "undelivered",
         false},
    };
}

// `rounds` times the traffic, at times that need nanoseconds.
Frames TrafficFrames(int rounds) {
    Frames frames;
    for (int round = 0; round < rounds; ++round) {
        for (const Fixture &fixture : Traffic()) {
            const auto number = static_cast<int64_t>(frames.size());
            const auto length = static_cast<uint32_t>(fixture.frame.size());
            frames.push_back({1'700'000'000'000'000'001 + number * 1'000'003,
                              length + fixture.missing, fixture.frame});
        }
    }
    return frames;
}

FramesByFile ExpectedCaptures(const Frames &frames, bool apIsLocal = false) {
    const std::vector<Fixture> traffic = Traffic();
    FramesByFile captures;
    for (size_t i = 0; i < frames.size(); ++i) {
        const Fixture &fixture = traffic[i % traffic.size()];
        const std::string file = apIsLocal && fixture.fromAp ? "transmitted" : fixture.file;
        captures[file + ".pcap"].push_back(frames[i]);
    }
    return captures;
}

// The report's list of instances after n rounds.
json ExpectedInstances(int n) {
    const auto entry = [](int instance, int cwp, int wapi, const json &messages) {
        return json{{"instance", instance}, {"cwp", cwp}, {"wapi", wapi}, {"messages", messages}};
    };
    return {entry(0, 2 * n, 0, {{"Echo Request", 2 * n}}), entry(1, 0, n, {{"WAPI", n}}),
            entry(3, 2 * n, 0, {{"Echo Request", n}, {"Join Request", n}}),
            entry(4, n, 0, {{"Join Request", n}}),
            entry(6, 2 * n, 0, {{"DTLS handshake", n}, {"Data keepalive", n}})};
}

// The report's counters of a class.
json Counters(size_t received, size_t sent, size_t sendFailed, size_t mismatch) {
    return {{"received", received},        {"sent", sent},
            {"send_failed", sendFailed},   {"processing_failed", mismatch},
            {"source_mismatch", mismatch}, {"not_distributed", 0},
            {"session_id_failed", 0}};
}

TEST_F(KesEngine, EveryPacketGoesWhereItBelongs) {
    WriteText("commands", kCommands);
    const struct {
        const char *name;
        int rounds;
        bool pcapng;
        const char *arguments;
    } cases[] = {
        {"one worker", 1, false, ""},
        {"pcapng", 1, true, ""},
        {"four workers", 2000, false, "--workers 4"},
        {"marked", 1, false, "--diag"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const Frames frames = TrafficFrames(c.rounds);
        c.pcapng ? WritePcapng(Path("in"), frames) : WriteCapture(Path("in"), frames);
        const json report = Replay("--exec @commands --replay @in --rx-port 7 --out @out " +
                                   std::string(c.arguments));

        const FramesByFile expected = ExpectedCaptures(frames);
        EXPECT_EQ(ReadOut("out"), expected);
        // All that these get is of one flow.
        for (const char *capture : {"instance-3-cwp.pcap", "instance-6-cwp.pcap"}) {
            EXPECT_TRUE(
                std::ranges::is_sorted(ReadCapture(Path("out/") + capture), {}, &Frame::timeNs))
                << capture;
        }
        EXPECT_EQ(report["received"], frames.size());
        EXPECT_EQ(report["returned"], expected.at("returned.pcap").size());
        EXPECT_EQ(report["undelivered"], expected.at("undelivered.pcap").size());
        EXPECT_EQ(report["taken"], 8 * c.rounds);
        EXPECT_EQ(report["instances"], ExpectedInstances(c.rounds));
        EXPECT_EQ(report["commands"], 8);
        if (c.rounds == 1) {  // counts may be lost where several workers count
            const json counters = {{"control", Counters(7, 5, 1, 1)},
                                   {"keepalive", Counters(2, 1, 1, 0)},
                                   {"dtls_handshake", Counters(1, 1, 0, 0)}};
            EXPECT_EQ(report["counters"], counters);
            EXPECT_EQ(report["drop_alarm"]["watching"], true);
            EXPECT_EQ(report["drop_alarm"]["dropped"], 2);
            EXPECT_GT(report["drop_alarm"]["period_start"], 1'700'000'000);
        }
    }
}

// Shown by a module that also counts a received frame with cause id N in its N-th counter, and a
// transmitted frame in its last two.
TEST_F(KesEngine, FramesAreToldApartByTheirSource) {
    const std::string common =
        "--exec @commands --replay @in --rx-port 7 --module " + kModules + "miscounting_module.so ";
    WriteText("commands", kCommands);
    const Frames frames = TrafficFrames(1);
    WriteCapture(Path("in"), frames);
    const std::string failed = ", send failed or processing failed";
    const struct {
        const char *arguments;
        size_t transmitted;
        std::vector<std::string> contradictions;
    } cases[] = {
        {"--cause-id 10.0.0.1=22 --cause-id 10.0.0.9=2 --cause-id 02-00-00-00-00-02=2", 0, {}},
        // Its TCP is left alone.
        {"--cause-id 10.0.0.1=2",
         0,
         {"control packets: 12 sent, but 5 reached the instances",
          "control packets: 7 received, but 14 sent" + failed}},
        {"--cause-id 2001:db8::1=0x3",
         0,
         {"control packets: 2 send failed, but 1 were not delivered",
          "control packets: 7 received, but 8 sent" + failed}},
        {"--cause-id 02:00:00:00:00:01=15",
         0,
         {"DTLS handshake packets: 15 received, but 1 sent" + failed}},
        // The first rule counts.
        {"--cause-id 10.0.0.1=0 --cause-id 02:00:00:00:00:01=15",
         0,
         {"DTLS handshake packets: 8 received, but 1 sent" + failed}},
        {"--local 10.0.0.1 --local 2001:db8::1 --cause-id 02:00:00:00:00:01=2",
         9,
         {"control packets: 7 sent, but 2 reached the instances",
          "control packets: 3 received, but 8 sent" + failed}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.arguments);
        const Outcome outcome = Run(common + "--out @out --log @log --report json " + c.arguments);
        EXPECT_EQ(outcome.status, c.contradictions.empty() ? 0 : 1);
        const json report = json::parse(outcome.out);
        EXPECT_EQ(report["contradictions"].size(), c.contradictions.size());
        for (size_t i = 0; i < c.contradictions.size(); ++i) {
            const std::string line = "counters of " + c.contradictions[i];
            EXPECT_EQ(report["contradictions"][i], line);
            EXPECT_NE(outcome.err.find("kes_engine: " + line + "\n"), std::string::npos) << line;
        }
        EXPECT_EQ(report["ok"], c.contradictions.empty());
        EXPECT_EQ(report["conserved"], true);
        EXPECT_EQ(report["received"], frames.size() - c.transmitted);
        for (const json &count :
             {report["transmitted"], report["counters"]["dtls_handshake"]["not_distributed"],
              report["counters"]["dtls_handshake"]["session_id_failed"]}) {
            EXPECT_EQ(count, c.transmitted);
        }
        EXPECT_EQ(ReadOut("out"), ExpectedCaptures(frames, c.transmitted != 0));
    }
    const Outcome several = Run(common + "--workers 2 --cause-id 10.0.0.1=2");
    EXPECT_EQ(several.status, 0) << several.err;
    EXPECT_NE(several.err.find("kes_engine: note: counters of control"), std::string::npos);
}

TEST_F(KesEngine, AModuleNeedNotKeepCounters) {
    WriteCapture(Path("in"), {});
    const std::string arguments = "--replay @in --module " + kModules + "sample_module.so";
    const json report = Replay(arguments);
    EXPECT_TRUE(report["counters"].is_null() && report["drop_alarm"].is_null()) << report;
    EXPECT_NE(Run(arguments).out.find("no counters"), std::string::npos);
}

TEST_F(KesEngine, LinesGoToTheLogBehindTheirKind) {
    WriteText("commands", std::string(kCommands) + "trace set --level 2\n");
    WriteText("log", "from an earlier run\n");
    WriteCapture(Path("in"), TrafficFrames(1));
    Replay("--exec @commands --replay @in --rx-port 7 --diag");
    size_t prints = 0;
    size_t summaries = 0;
    for (const std::string &line : Lines(ReadText(Path("log")))) {
        EXPECT_TRUE(line.starts_with("report: ") || line.starts_with("print: ")) << line;
        prints += line.starts_with("print: [LYR_HOST]LyrKes_PktProc, ethType:") ? 1 : 0;
        summaries += line.find("[DATA-KEEPALIVE]") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(prints, Traffic().size());
    EXPECT_EQ(summaries, 2u);

    const Outcome toStderr = Run("--exec @commands --replay @in --diag");
    EXPECT_EQ(toStderr.status, 0);
    EXPECT_NE(toStderr.err.find("\nprint: [LYR_HOST]"), std::string::npos) << toStderr.err;
    EXPECT_NE(toStderr.err.find("wapi 1 1: ok\n"), std::string::npos) << toStderr.err;
    EXPECT_EQ(toStderr.out.find("LYR_HOST"), std::string::npos) << toStderr.out;
}

TEST_F(KesEngine, ReportForPeopleIsAligned) {
    WriteText("commands", kCommands);
    WriteCapture(Path("in"), TrafficFrames(1));
    const std::vector<std::string> lines =
        Lines(Run("--exec @commands --replay @in --rx-port 7").out);
    for (const char *line :
         {"received             15", "returned              5", "taken                 8",
          "undelivered           2", "transmitted           0", "conserved           yes",
          "instance  type  packets  of these", "       3  cwp         2          1  Echo Request",
          "                                 1  Join Request",
          "       1  wapi        1          1  WAPI",
          "counters                    control       keepalive  DTLS handshake",
          "sent                              5               1               1",
          "source mismatch                   1               0               0",
          "drop alarm not raised, 2 of 2 messages dropped, 0 periods with drops; 0 raises, 0 "
          "restores"}) {
        EXPECT_EQ(std::ranges::count(lines, line), 1) << line;
    }
}

TEST_F(KesEngine, ALaterRunReplacesTheCapturesOfAnEarlierOne) {
    fs::create_directory(Path("out"));
    for (const char *name : {"returned.pcap", "instance-9-cwp.pcap", "notes.txt", "other.pcap"}) {
        WriteText(std::string("out/") + name, "old");
    }
    const Frames frames = TrafficFrames(1);
    WriteCapture(Path("in"), {frames[0]});
    Replay("--replay @in --out @out");
    EXPECT_EQ(ReadCapture(Path("out/returned.pcap")), Frames{frames[0]});
    EXPECT_FALSE(fs::exists(Path("out/instance-9-cwp.pcap")));
    EXPECT_EQ(ReadText(Path("out/notes.txt")) + ReadText(Path("out/other.pcap")), "oldold");

    const Outcome outcome = Run("--replay @out/returned.pcap --out @out");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find("is being replayed and would be replaced"), std::string::npos);
    EXPECT_EQ(ReadCapture(Path("out/returned.pcap")), Frames{frames[0]});
}

// --- a real session ---

TEST_F(KesEngine, RealSessionReachesItsInstances) {
    const std::string capture = TEST_DATA "/ap-session.pcap";
    const std::string source = "source add 1 192.168.10.9 --if 7\n";
    const std::string fallback = "tunnel default --node 0\n";
    const std::string tunnel = "tunnel add 192.168.10.10 12380 192.168.10.9 5246 --node 3";
    const std::string all = source + tunnel + "\n" + fallback;
    const struct {
        std::string commands;
        const char *arguments;
        int unicastTo;  // instance, or -1 for returned
        int broadcastTo;
        bool controllerIsLocal = false;
    } cases[] = {
        {all, "--rx-port 7", 3, 0},
        {all, "--rx-port 7 --workers 4", 3, 0},
        {all, "--rx-port 8", 3, -1},
        {all, "--rx-port 8 --if-map 8=7", 3, 0},
        {all, "--rx-port 7 --vrf 9", 0, 0},
        {source + tunnel + " --vpn 9\n" + fallback, "--rx-port 7 --vrf 9", 3, 0},
        {source + fallback, "--rx-port 7", 0, 0},
        {fallback, "--rx-port 7", -1, -1},
        {all, "--rx-port 7 --local 192.168.10.9", 3, 0, true},
    };
    // Ethernet and IPv4 have no options in this session.
    constexpr size_t kSource = 26, kDestination = 30;
    const auto has = [](const Bytes &b, size_t at, std::array<uint8_t, 4> address) {
        return b.size() > 38 && b[12] == 8 && b[13] == 0 &&
               std::ranges::equal(address, std::span(b).subspan(at, 4));
    };
    const auto isControlTo = [&](const Bytes &b, std::array<uint8_t, 4> destination) {
        return has(b, kDestination, destination) && b[23] == 17 && (b[36] << 8 | b[37]) == 5246;
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.commands + c.arguments);
        WriteText("commands", c.commands);
        const json report =
            Replay("--exec @commands --replay " + capture + " --out @out " + c.arguments);

        FramesByFile expected;
        for (const Frame &frame : ReadCapture(capture)) {
            const int instance = isControlTo(frame.bytes, {192, 168, 10, 9})      ? c.unicastTo
                                 : isControlTo(frame.bytes, {255, 255, 255, 255}) ? c.broadcastTo
                                                                                  : -1;
            const bool transmitted =
                c.controllerIsLocal && has(frame.bytes, kSource, {192, 168, 10, 9});
            expected[transmitted    ? "transmitted.pcap"
                     : instance < 0 ? "returned.pcap"
                                    : Format("instance-%d-cwp.pcap", instance)]
                .push_back(frame);
        }
        EXPECT_EQ(ReadOut("out"), expected);
        const size_t transmitted = c.controllerIsLocal ? 110 : 0;
        const size_t taken = (c.unicastTo < 0 ? 0 : 111) + (c.broadcastTo < 0 ? 0 : 4);
        EXPECT_EQ(report["transmitted"], transmitted);
        EXPECT_EQ(report["received"], 422 - transmitted);
        EXPECT_EQ(report["returned"], 422 - transmitted - taken);
        if (report["workers"] == 1) {
            const size_t control = c.controllerIsLocal ? 115 : 222;
            const json counters = {{"control", Counters(control, taken, 0, control - taken)},
                                   {"keepalive", Counters(0, 0, 0, 0)},
                                   {"dtls_handshake", Counters(0, 0, 0, 0)}};
            EXPECT_EQ(report["counters"], counters);
        }
    }
}

// --- audits ---

// The lines of a text that hold a phrase, from there on, with one space between words.
std::vector<std::string> LinesFrom(const std::string &text, const std::string &phrase) {
    std::vector<std::string> rows;
    for (const std::string &line : Lines(text)) {
        if (const size_t at = line.find(phrase); at != std::string::npos) {
            rows.push_back(std::regex_replace(line.substr(at), std::regex(" +"), " "));
        }
    }
    return rows;
}

TEST_F(KesEngine, AnAuditTakesAwayWhatIsNotConfirmedAndNothingElse) {
    const std::string to3 = "10.0.0.1 12380 10.0.0.254 5246";
    const std::string to4 = "2001:db8::1 12380 2001:db8::fe 5246";
    const struct {
        int node;
        std::string lost;  // the command that the audit does not confirm; empty: none
        std::string tunnel = "";
    } cases[] = {
        {3, "tunnel add " + to3 + " --node 3\n", to3},
        {4, "tunnel add " + to4 + " --node 4\n", to4},
        {6, "session add 00112233445566778899aabbccddeeff --node 6\n"},  // which also has a tunnel
        {0, ""},
    };
    WriteText("all", kCommands);
    WriteCapture(Path("in"), TrafficFrames(20));
    const std::string replay = "--replay @in --rx-port 7 --workers 2 --out @out --exec ";
    Replay(replay + "@all");
    const FramesByFile before = ReadOut("out");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.node);
        WriteText("known", c.lost.empty() ? kCommands : Replaced(kCommands, c.lost, ""));
        WriteText("audit", Format("trace set --level 3\nrecon run %d ", c.node) + Path("known") +
                               "\nverify show\nverify clear\nverify show\n");
        Replay(replay + "@known");
        const FramesByFile after = ReadOut("out");
        EXPECT_EQ(before == after, c.lost.empty());
        const Outcome outcome = Run(replay + "@all --exec @audit --log @log");
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(ReadOut("out"), after) << "as if the lost one had never been registered";

        const std::string log = ReadText(Path("log"));
        EXPECT_EQ(LinesFrom(log, "recon del ").size(), c.lost.empty() ? 0u : 1u);
        std::vector<std::string> shown;
        if (!c.tunnel.empty()) {
            shown = {"not confirmed " + c.tunnel};
        }
        EXPECT_EQ(LinesFrom(outcome.err, "not confirmed "), shown);
        EXPECT_EQ(LinesFrom(outcome.err, "no tunnels").size(), shown.empty() ? 2u : 1u);
    }
}

// --- bad input ---

TEST_F(KesEngine, BadInputEndsItBeforeAnythingIsWritten) {
    const Frames frames = TrafficFrames(1);
    WriteCapture(Path("good.pcap"), frames);
    WriteCapture(Path("wifi.pcap"), frames, DLT_IEEE802_11);
    WriteText("text", "These are words, and many of them, but no capture.\n");
    WriteText("cut", ReadText(Path("good.pcap")).substr(0, 20));
    WriteText("unknown", "# tunnels\nwapi 0 1\nwapy 0 1\n");
    WriteText("refused", "wapi 0 1\nwapi 29 1\n");
    WriteText("audit", "recon run 3 " + Path("unknown") + "\n");
    const struct {
        const char *arguments;
        int status;
        const char *error;
    } cases[] = {
        {"--frobnicate", 2, "--frobnicate"},
        {"--workers 0", 2, "--workers '0': there must be a forwarding thread"},
        {"--workers 65", 2, "--workers '65' is not a number from 0 to 64"},
        {"--rx-port x7", 2, "--rx-port 'x7' is not a number from 0 to 4294967295"},
        {"--if-map 7", 2, "--if-map '7' has no '='"},
        {"--local 10.0.0", 2, "--local '10.0.0' is not an IPv4 or IPv6 address"},
        {"--cause-id 10.0.0.1", 2, "--cause-id '10.0.0.1' has no '='"},
        {"--cause-id 2:0:0:0:0:1=7", 2,
         "--cause-id SOURCE '2:0:0:0:0:1' is not an IPv4, IPv6 or MAC address"},
        {"--cause-id 10.0.0.1=65536", 2, "--cause-id ID '65536' is not a number from 0 to 65535"},
        {"--report xml", 2, "xml"},
        {"--capability WCWP_SPEC_SVC=3", 2,
         "--capability: unknown capability 'WCWP_SPEC_SVC'; there are: WCWP_SPEC_SVC_NUM, "},
        {"--capability WCWP_SPEC_SVC_NUM=many", 2,
         "--capability WCWP_SPEC_SVC_NUM 'many' is not a number from 0 to 4294967295"},
        {"--replay @none.pcap", 1, "cannot replay '@none.pcap': No such file or directory"},
        {"--replay @", 1, "cannot replay '@': "},
        {"--replay @text", 1, "cannot replay '@text': unknown file format"},
        {"--replay @cut", 1, "cannot replay '@cut': truncated dump file"},
        {"--replay @wifi.pcap", 1,
         "cannot replay '@wifi.pcap': its frames are not Ethernet but 802.11"},
        {"--exec @none", 1, "cannot read commands from '@none': No such file or directory"},
        {"--exec @unknown", 1, "@unknown:3: unknown command 'wapy 0'; there are: tunnel add, "},
        {"--exec @audit", 1,
         "@audit:1: @unknown:3: unknown command 'wapy 0'; there are: tunnel add, "},
        {"--module @none.so", 1, "cannot load the module: @none.so"},
        {"--log @none/log", 1, "--log: cannot write '@none/log': No such file or directory"},
        {"--out @none/out", 1,
         "--out: cannot make directory '@none/out': No such file or directory"},
        {"--out @text", 1, "--out: cannot make directory '@text': "},
        {"--exec @refused", 1,
         "@refused:2: wapi 29 1: failed (1): the range is beyond the service instances"},
        {"--capability WCWP_SPEC_SVC_NUM=1000", 1,
         "the module has 1001 service instances; at most 1000 can be served here"},
    };
    for (const auto &c : cases) {
        std::string arguments = c.arguments;
        SCOPED_TRACE(arguments);
        arguments += arguments.find("--replay") == std::string::npos ? " --replay @good.pcap" : "";
        arguments += arguments.find("--out") == std::string::npos ? " --out @out" : "";
        arguments += arguments.find("--log") == std::string::npos ? " --log @log" : "";
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(outcome.status, c.status);
        EXPECT_EQ(outcome.out, "");
        const std::vector<std::string> lines = Lines(outcome.err);
        ASSERT_FALSE(lines.empty());
        // Commands that went well before the one that did not have said so.
        EXPECT_LE(lines.size(), lines.front() == "wapi 0 1: ok" ? 2u : 1u) << outcome.err;
        EXPECT_TRUE(lines.back().starts_with("kes_engine: ")) << lines.back();
        EXPECT_NE(lines.back().find(Replaced(c.error, "@", directory_ + "/")), std::string::npos)
            << lines.back();
        EXPECT_FALSE(fs::exists(Path("out")));
    }
    EXPECT_EQ(Run("").err, "kes_engine: one of --replay, --listen and --serve is required\n");
    EXPECT_EQ(ReadText(Path("text")), "These are words, and many of them, but no capture.\n");
}

TEST_F(KesEngine, ALogIsLeftAloneByARunThatDoesNotBegin) {
    WriteCapture(Path("in"), {});
    WriteText("old", "old\n");
    for (const char *log : {"old", "new"}) {
        EXPECT_EQ(Run("--replay @in --module @none.so --log @" + std::string(log)).status, 1);
    }
    EXPECT_EQ(ReadText(Path("old")), "old\n");
    EXPECT_FALSE(fs::exists(Path("new")));
}

// --- replays that fail on the way ---

TEST_F(KesEngine, WhatWentBeforeABreakIsReported) {
    const Frames frames = TrafficFrames(3);
    WriteCapture(Path("whole"), frames);
    const std::string bytes = ReadText(Path("whole"));
    WriteText("cut", bytes.substr(0, bytes.size() - 1));
    Frames withGiant = frames;
    withGiant[30].bytes.resize(65408);
    withGiant[30].wireLength = 65408;
    WriteCapture(Path("giant"), withGiant);
    const struct {
        const char *capture;
        size_t received;
        const char *error;
    } cases[] = {
        {"cut", frames.size() - 1, "'@cut' breaks off after frame 44: truncated dump file"},
        {"giant", 30, "'@giant': frame 31 has 65408 bytes; at most 65407 fit into a buffer"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.capture);
        const Outcome outcome =
            Run("--report json --log @log --out @out --replay @" + std::string(c.capture));
        EXPECT_EQ(outcome.status, 1);
        const std::string error = Replaced(c.error, "@", directory_ + "/");
        EXPECT_TRUE(outcome.err.starts_with("kes_engine: " + error)) << outcome.err;
        EXPECT_EQ(Lines(outcome.err).size(), 1u);
        const json report = json::parse(outcome.out);
        EXPECT_EQ(report["received"], c.received);
        EXPECT_EQ(report["conserved"], true);
        EXPECT_EQ(report["ok"], false);
        EXPECT_EQ(report["failures"].size(), 1u);
    }
}

TEST_F(KesEngine, AFullDiskIsReported) {
    WriteCapture(Path("in"), TrafficFrames(200));
    const Outcome outcome =
        Run("--report json --log /dev/null --out @out --replay @in", "ulimit -f 2; ");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(Replaced(outcome.err, directory_, "."),
              "kes_engine: cannot write ./out/returned.pcap: File too large\n"
              "kes_engine: cannot write ./out/undelivered.pcap: File too large\n");
    EXPECT_EQ(json::parse(outcome.out)["received"], 200 * Traffic().size());

    EXPECT_EQ(Run("--log @log --replay @in >/dev/full").status, 1);
    EXPECT_EQ(Run("--diag --log /dev/full --replay @in").status, 1);
}

}  // namespace
