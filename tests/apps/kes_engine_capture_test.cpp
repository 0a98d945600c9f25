// Captures of any kind: the same traffic in each is judged alike.
#include <cstring>
#include <optional>

#include "kes_engine/pace.h"
#include "kes_engine_fixture.h"

namespace programs {
namespace {

using KesEngineCapture = KesEngine;

void Append(std::string &to, const std::string &bytes) {
    to += bytes;
}
template <class T>
void Append(std::string &to, T value) {
    to.append(reinterpret_cast<const char *>(&value), sizeof value);
}
template <class... Parts>
std::string Join(const Parts &...parts) {
    std::string text;
    (Append(text, parts), ...);
    return text;
}

std::string TextOf(const Bytes &bytes) {
    return {bytes.begin(), bytes.end()};
}

// A frame as another link layer has it; nothing where it has no such frames.
using Convert = std::optional<std::string> (*)(const std::string &ethernet);
std::optional<std::string> Same(const std::string &frame) {
    return frame;
}
std::optional<std::string> Cooked(const std::string &frame) {
    return frame.size() < 14 ? std::nullopt
                             : std::optional(std::string("\0\0\0\1\0\6", 6) + frame.substr(6, 6) +
                                             std::string(2, '\0') + frame.substr(12));
}
std::optional<std::string> Cooked2(const std::string &frame) {
    return frame.size() < 14
               ? std::nullopt
               : std::optional(frame.substr(12, 2) + std::string("\0\0\0\0\0\3\0\1\0\6", 10) +
                               frame.substr(6, 6) + std::string(2, '\0') + frame.substr(14));
}
std::optional<std::string> Raw(const std::string &frame) {
    size_t at = 12;
    while (frame.size() > at + 6 && (frame[at] == '\x81' || frame[at] == '\x88') &&
           frame[at + 1] != '\xB4') {
        at += 4;  // tags go with Ethernet
    }
    const std::string type = frame.size() < 14 ? "" : frame.substr(at, 2);
    return type == std::string("\x08\0", 2) || type == "\x86\xDD"
               ? std::optional(frame.substr(at + 2))
               : std::nullopt;
}
std::optional<std::string> Loopback(const std::string &frame) {
    const auto packet = Raw(frame);
    return packet
               ? std::optional(std::string(packet->at(0) >> 4 == 4 ? "\2\0\0\0" : "\x1e\0\0\0", 4) +
                               *packet)
               : std::nullopt;
}

struct Kind {
    const char *name;
    uint16_t number;  // in files
    Convert convert;
};
constexpr Kind kKinds[] = {{"", 1, Same},
                           {"Linux cooked v1", 113, Cooked},
                           {"Linux cooked v2", 276, Cooked2},
                           {"Raw IP", 101, Raw},
                           {"BSD loopback", 0, Loopback}};

std::string PcapOf(const Kind &kind) {
    std::string file =
        Join(0xA1B23C4Du, uint16_t{2}, uint16_t{4}, uint64_t{0}, 262144u, uint32_t{kind.number});
    for (const Frame &frame : TrafficFrames()) {
        if (const auto bytes = kind.convert(TextOf(frame.bytes))) {
            const auto size = static_cast<uint32_t>(bytes->size());
            Append(file,
                   Join(static_cast<uint32_t>(frame.timeNs / 1'000'000'000),
                        static_cast<uint32_t>(frame.timeNs % 1'000'000'000), size, size, *bytes));
        }
    }
    return file;
}

std::string Block(uint32_t type, std::string content) {
    content.resize((content.size() + 3) & ~size_t{3});
    const auto size = static_cast<uint32_t>(content.size() + 12);
    return Join(type, size, content, size);
}

// Every kind an interface of its own, with a resolution of its own, and blocks without frames.
std::string PcapngOfAll() {
    const std::pair<uint8_t, uint64_t> resolutions[] = {
        {9, 1'000'000'000}, {6, 1'000'000}, {0x80 | 20, 1 << 20}, {3, 1000}, {0, 1}};
    std::string file = Block(0x0A0D0D0A, Join(0x1A2B3C4Du, uint16_t{1}, uint16_t{0}, int64_t{-1}));
    std::string frames;
    for (uint32_t i = 0; i < std::size(kKinds); ++i) {
        Append(file, Block(1, Join(uint32_t{kKinds[i].number}, 262144u, uint16_t{9}, uint16_t{1},
                                   uint32_t{resolutions[i].first}, 0u)));
        for (const Frame &frame : TrafficFrames()) {
            if (const auto bytes = kKinds[i].convert(TextOf(frame.bytes))) {
                const auto units = static_cast<uint64_t>(static_cast<long double>(frame.timeNs) *
                                                         resolutions[i].second / 1e9L);
                const auto size = static_cast<uint32_t>(bytes->size());
                Append(frames, Block(6, Join(i, static_cast<uint32_t>(units >> 32),
                                             static_cast<uint32_t>(units), size, size, *bytes)));
                Append(frames, Block(0xBAD, "nobody knows this"));
            }
        }
    }
    return file + frames + Block(5, std::string(12, '\0'));
}

TEST_F(KesEngineCapture, OfAnyKindIsJudgedAlike) {
    const std::string options = "--exec commands --rx-port 7 --replay ";
    json whole = Replay(options + "in");
    size_t sum = 0;
    for (const Kind &kind : kKinds) {
        SCOPED_TRACE(kind.name);
        Write("kind", PcapOf(kind));
        ASSERT_EQ(Shell("gzip -k -f kind").status, 0);
        const json report = Replay(options + "kind");
        for (const char *from : {"kind.gz", "- <kind", "- <kind.gz"}) {
            json same = Replay(options + from);
            for (const char *key : {"received", "converted", "classes", "instances"}) {
                EXPECT_EQ(same[key], report[key]) << from << " " << key;
            }
        }
        EXPECT_EQ(report["classes"], whole["classes"]);
        EXPECT_EQ(report["instances"].size(),
                  kind.convert == Same || kind.convert == Cooked || kind.convert == Cooked2
                      ? whole["instances"].size()
                      : whole["instances"].size() - 1);  // no stations
        const size_t frames = report["received"];
        EXPECT_EQ(report["converted"],
                  kind.number == 1 ? json::object() : json({{kind.name, frames}}));
        sum += frames;
    }
    Write("all", PcapngOfAll());
    EXPECT_EQ(Replay(options + "all --out out")["received"], sum);
    for (const auto &[file, frames] : ReadOut()) {
        for (const Frame &frame : frames) {
            EXPECT_EQ(frame.timeNs / 1'000'000'000, 1'700'000'000) << file;
        }
    }
}

TEST_F(KesEngineCapture, SaysWhereItBreaksOff) {
    Write("all", PcapngOfAll());
    ASSERT_EQ(Shell("gzip -k all in").status, 0);
    std::string usb = PcapngOfAll();
    usb[28 + 32 + 8] = static_cast<char>(220);
    const std::string all = Read("all"), gz = Read("in.gz");
    const struct {
        std::string file;
        int status;
        const char *error;
    } cases[] = {
        {all.substr(0, all.size() - 1), 1, "breaks off after frame 6"},
        {all.substr(0, 40), 2, "truncated pcapng file: it ends in a block of 32 bytes"},
        {all.substr(0, 28), 2, "a pcapng file without an interface"},
        {gz.substr(0, gz.size() - 20), 1, "damaged gzip data: they end too early"},
        {gz.substr(0, 12), 2, "cannot read 'file': damaged gzip data"},
        {usb, 1, "'file': frame 16 is of interface 1, whose frames are not Ethernet but USB with"},
    };
    for (const auto &c : cases) {
        Write("file", c.file);
        const Outcome outcome = Run("--replay file --log log");
        EXPECT_EQ(outcome.status, c.status) << c.error;
        EXPECT_THAT(outcome.err, testing::HasSubstr(c.error));
    }
}

TEST_F(KesEngineCapture, FramesAreSelected) {
    Write("all", PcapngOfAll());
    const size_t all = Replay("--replay all")["received"];
    const struct {
        const char *selection;
        size_t received;  // of the fifteen frames of Ethernet, which come first
    } cases[] = {
        {"--frames 3,14-15,2-4,15", 5},
        {"--frames -7 --filter 'udp port 5246'", 4},  // one has tags, one is of DTLS on 5247
        {"--frames 8,9-15 --filter 'ether proto 0x88b4 or arp'", 2},
        {"--frames 15-15 --filter tcp", 0},
    };
    for (const auto &c : cases) {
        const json report = Replay("--replay all " + std::string(c.selection));
        EXPECT_EQ(report["received"], c.received) << c.selection;
        EXPECT_LE(report["passedOver"], 15) << c.selection << " has read the rest";
    }
    const json report = Replay("--replay all --frames 16- --filter udp");
    EXPECT_GT(report["received"], 15);
    EXPECT_EQ(report["received"].get<size_t>() + report["passedOver"].get<size_t>(), all);
    const std::pair<const char *, const char *> mistakes[] = {
        {"--frames 7-3", "--frames '7-3': '7-3' is not a frame or a range of frames"},
        {"--filter 'udp prot'", "--filter 'udp prot': can't parse filter expression"},
        {"--speed 2 --rate 3", "--speed '2' goes without --rate '3'"},
        {"--speed -1", "--speed '-1' is not a number above 0"},
        {"--buffer-size 1MiB", "--buffer-size needs --listen"},
        {"--listen lo --buffer-size 64", "--buffer-size '64' is not a size"},
    };
    for (const auto &[options, error] : mistakes) {
        const Outcome outcome = Run("--replay in " + std::string(options));
        EXPECT_EQ(outcome.status, 2) << options;
        EXPECT_THAT(outcome.err, testing::HasSubstr(error));
    }
    EXPECT_THAT(Run("--replay in --frames 99- --log log").err,
                testing::HasSubstr("--frames '99-': 'in' has 15 frames"));
}

TEST(OwnTimes, AreKeptAndNeverWaitedForBackward) {
    using kes_engine::OwnTimes;
    using std::chrono::milliseconds;
    OwnTimes times(2);
    const OwnTimes::Clock::time_point start(std::chrono::hours(1));
    const auto after = [&](int64_t ms, int64_t now) {
        const auto moment = times.Next(start + milliseconds(now), ms * 1'000'000);
        return std::chrono::duration_cast<milliseconds>(moment - start).count();
    };
    EXPECT_EQ(after(5000, 0), 0);
    EXPECT_EQ(after(5400, 1), 200);
    EXPECT_EQ(after(5300, 200), 200);  // a little backward
    EXPECT_EQ(after(5600, 900), 300);  // due long since
    EXPECT_EQ(after(1000, 950), 950);  // another capture
    EXPECT_EQ(after(1100, 950), 1000);
    times.Begin();
    EXPECT_EQ(after(9000, 2000), 2000);
}

}  // namespace
}  // namespace programs
