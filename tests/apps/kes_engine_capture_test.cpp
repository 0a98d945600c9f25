// Captures of any kind: the same traffic in each is judged alike.
#include <cstring>
#include <optional>

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

}  // namespace
}  // namespace programs
