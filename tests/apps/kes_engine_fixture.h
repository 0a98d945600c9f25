// What the tests of the runner share: traffic of every fate, and runs of the program.
#pragma once

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "capture.h"
#include "program.h"

namespace programs {

using capwap::BuildFrame;
using capwap::Bytes;
using capwap::FrameSpec;
using nlohmann::json;
using FramesByFile = std::map<std::string, Frames>;

const std::string kModules = fs::path(KES_ENGINE).parent_path() / "../lib/";
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

struct Fixture {
    const char *name;
    Bytes frame;
    const char *file;      // which of the captures it is to be found in
    uint32_t missing = 0;  // bytes on the wire that were not captured
};

inline std::vector<Fixture> Traffic() {
    constexpr uint32_t kJoinRequest = 3, kEchoRequest = 13;
    const Bytes join = capwap::ControlMessage(kJoinRequest, 1, {});
    const Bytes echo = capwap::ControlMessage(kEchoRequest, 2, {});
    const Bytes handshake = capwap::DtlsRecord(22, Bytes(40, 1));
    const Bytes keepalive = capwap::Keepalive(kSession);
    const Bytes stranger = capwap::Keepalive({1, 2, 3, 4});
    const Bytes data = capwap::DataFrame(Bytes(200, 7));
    const char *const ap = "10.0.0.1", *const ac = "10.0.0.254";
    const char *const ap6 = "2001:db8::1", *const ac6 = "2001:db8::fe";
    const auto from = [](const char *source, const char *destination, uint16_t port,
                         const Bytes &payload) {
        return BuildFrame(capwap::UdpFrame(source, 12380, destination, port, payload));
    };
    FrameSpec tagged = capwap::UdpFrame(ap, 12380, ac, 5246, echo);
    tagged.vlans = {100, 7};
    FrameSpec tcp = capwap::UdpFrame(ap, 12380, ac, 5246, {0x30, 0x5C, 0x14, 0x7E});
    tcp.ipProtocol = 6;
    return {
        {"registered", from(ap, ac, 5246, join), "instance-3-cwp"},
        {"tagged", BuildFrame(tagged), "instance-3-cwp"},
        {"registered, IPv6", from(ap6, ac6, 5246, join), "instance-4-cwp"},
        {"data handshake", from(ap, ac, 5247, handshake), "instance-6-cwp"},
        {"unregistered", from("10.0.0.2", ac, 5246, echo), "instance-0-cwp"},
        {"broadcast", from("0.0.0.0", "255.255.255.255", 5246, echo), "instance-0-cwp"},
        {"keepalive", from(ap, ac, 5247, keepalive), "instance-6-cwp"},
        {"station", BuildFrame({.etherType = 0x88B4, .payload = Bytes(60)}), "instance-1-wapi"},
        {"another controller's", from(ap, "10.0.0.253", 5246, join), "returned"},
        {"data", from(ap, ac, 5247, data), "returned"},
        {"padded TCP", BuildFrame(tcp), "returned"},
        {"ARP", BuildFrame({.etherType = 0x0806, .payload = Bytes(28)}), "returned"},
        {"cut short", Bytes(9, 0xFF), "returned", 51},
        {"unknown session", from(ap, ac, 5247, stranger), "undelivered"},
        {"unregistered, IPv6", from("2001:db8::2", ac6, 5246, join), "undelivered"},
    };
}

// `rounds` times the traffic, at times that need nanoseconds.
inline Frames TrafficFrames(int rounds = 1) {
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

inline FramesByFile ExpectedCaptures(const Frames &frames) {
    const std::vector<Fixture> traffic = Traffic();
    FramesByFile captures;
    for (size_t i = 0; i < frames.size(); ++i) {
        captures[traffic[i % traffic.size()].file + std::string(".pcap")].push_back(frames[i]);
    }
    return captures;
}

// The report's counters of a class.
inline json Counters(const char *words, size_t received, size_t sent, size_t sendFailed,
                     size_t mismatch) {
    return {
        {"class", words},           {"received", received},         {"sent", sent},
        {"sendFailed", sendFailed}, {"processingFailed", mismatch}, {"sourceMismatch", mismatch},
        {"notDistributed", 0},      {"sessionIdFailed", 0}};
}

// Has the commands above in "commands" and one round of the traffic in "in".
class KesEngine : public testing::Test, protected Directory {
  protected:
    void SetUp() override {
        Write("commands", kCommands);
        WriteCapture(Path("in"), TrafficFrames());
    }

    // Runs the program in the test's directory.
    Outcome Run(const std::string &arguments) const {
        return Shell(KES_ENGINE " " + arguments);
    }
    // Runs it to its success; the report.
    json Replay(const std::string &arguments) const {
        const Outcome outcome = Run(arguments + " --report json --log log");
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return json::parse(outcome.out, nullptr, false);
    }

    // The captures in "out" by name, each in the order of time.
    FramesByFile ReadOut() const {
        FramesByFile captures;
        for (const auto &entry : fs::directory_iterator(Path("out"))) {
            Frames &frames = captures[entry.path().filename()];
            frames = ReadCapture(entry.path());
            std::ranges::stable_sort(frames, {}, &Frame::timeNs);
        }
        return captures;
    }
};

}  // namespace programs
