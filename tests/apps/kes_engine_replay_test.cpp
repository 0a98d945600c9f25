// Where the runner's replays take packets: captures in, captures out.
#include <pcap/pcap.h>

#include <algorithm>
#include <array>
#include <bit>
#include <fstream>
#include <span>

#include "kes_engine/pace.h"
#include "kes_engine_fixture.h"

namespace programs {
namespace {

using KesEngineReplay = KesEngine;

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

TEST_F(KesEngineReplay, EveryPacketGoesWhereItBelongs) {
    const struct {
        const char *name;
        int rounds;
        const char *arguments;
    } cases[] = {
        {"one worker", 1, ""}, {"four workers", 2000, "--workers 4"}, {"marked", 1, "--diag"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const Frames frames = TrafficFrames(c.rounds);
        WriteCapture(Path("in"), frames);
        const json report =
            Replay("--exec commands --replay in --rx-port 7 --out out " + std::string(c.arguments));

        const FramesByFile expected = ExpectedCaptures(frames);
        EXPECT_EQ(ReadOut(), expected);
        // All that these get is of one flow.
        for (const char *capture : {"out/instance-3-cwp.pcap", "out/instance-6-cwp.pcap"}) {
            EXPECT_TRUE(std::ranges::is_sorted(ReadCapture(Path(capture)), {}, &Frame::timeNs))
                << capture;
        }
        EXPECT_EQ(report["received"], frames.size());
        EXPECT_EQ(report["cutShort"], c.rounds);
        EXPECT_EQ(report["returned"], expected.at("returned.pcap").size());
        EXPECT_EQ(report["undelivered"], expected.at("undelivered.pcap").size());
        EXPECT_EQ(report["taken"], 8 * c.rounds);
        EXPECT_EQ(report["instances"], ExpectedInstances(c.rounds));
        EXPECT_EQ(report["commands"], 8);
        if (c.rounds == 1) {  // counts may be lost where several workers count
            const json classes = {Counters("control", 7, 5, 1, 1),
                                  Counters("keepalive", 2, 1, 1, 0),
                                  Counters("DTLS handshake", 1, 1, 0, 0)};
            EXPECT_EQ(report["classes"], classes);
            EXPECT_EQ(report["drops"]["open"], true);
            EXPECT_EQ(report["drops"]["dropped"], 2);
            EXPECT_GT(report["drops"]["periodStart"], "2023");
        }
    }
}

TEST_F(KesEngineReplay, PcapngIsReadAsWell) {
    if (Shell("editcap -F pcapng in in.pcapng").status != 0) {
        GTEST_SKIP() << "editcap is not installed";
    }
    Replay("--exec commands --replay - --rx-port 7 --out out <in.pcapng");
    EXPECT_EQ(ReadOut(), ExpectedCaptures(TrafficFrames()));
}

// Ordinary files are read without libpcap, and all others with it.
TEST_F(KesEngineReplay, FramesAndErrorsAreThoseThatLibpcapFinds) {
    const auto file = [](uint32_t magic, bool swapped, uint32_t snapLength) {
        std::string text;
        const auto number = [&](auto value) {
            auto bytes = std::bit_cast<std::array<char, sizeof value>>(value);
            if (swapped) {
                std::ranges::reverse(bytes);
            }
            text.append(bytes.begin(), bytes.end());
        };
        const auto frame = [&](uint32_t seconds, uint32_t fraction, uint32_t size) {
            for (const uint32_t value : {seconds, fraction, size, 2000u}) {
                number(value);
            }
            text.append(size, static_cast<char>(size));
        };
        number(magic);
        number(uint16_t{2});
        number(uint16_t{4});
        for (const uint32_t value : {0u, 0u, snapLength, 1u}) {
            number(value);
        }
        frame(1, 999999, 60);
        frame(0x80000001, 5, 0);   // a time before 1970, or after 2038
        frame(2, 4000000000, 61);  // more than a second
        frame(3, 7, 1000);         // longer than the shorter snapshot length
        frame(4, 8, 64);
        return text;
    };
    const std::string path = Path("ordinary.pcap");
    const auto check = [&](const std::string &text) {
        std::ofstream(path, std::ios::binary) << text;
        char reason[PCAP_ERRBUF_SIZE] = "";
        pcap_t *pcap = pcap_open_offline_with_tstamp_precision(path.c_str(),
                                                               PCAP_TSTAMP_PRECISION_NANO, reason);
        ASSERT_NE(pcap, nullptr) << reason;
        capture::Reader reader(path);
        pcap_pkthdr *header = nullptr;
        const u_char *bytes = nullptr;
        int outcome = 0;
        while ((outcome = pcap_next_ex(pcap, &header, &bytes)) == 1) {
            const auto frame = reader.Next();
            ASSERT_TRUE(frame);
            EXPECT_EQ(frame->timeNs,
                      std::max<int64_t>(header->ts.tv_sec, 0) * 1000000000 + header->ts.tv_usec);
            EXPECT_EQ(frame->wireLength, header->len);
            EXPECT_TRUE(std::ranges::equal(frame->bytes, std::span(bytes, header->caplen)));
        }
        if (outcome == PCAP_ERROR_BREAK) {
            EXPECT_FALSE(reader.Next());
        } else {
            try {
                reader.Next();
                ADD_FAILURE() << "no complaint: " << pcap_geterr(pcap);
            } catch (const capture::Error &error) {
                EXPECT_THAT(error.what(), testing::HasSubstr(pcap_geterr(pcap)));
            }
        }
        pcap_close(pcap);
    };
    for (const uint32_t magic : {0xA1B2C3D4, 0xA1B23C4D}) {
        for (const bool swapped : {false, true}) {
            SCOPED_TRACE(std::to_string(magic) + (swapped ? " swapped" : ""));
            check(file(magic, swapped, 262144));
            check(file(magic, swapped, 100));
        }
    }
    const std::string whole = file(0xA1B2C3D4, false, 262144);
    for (size_t size = whole.size() - 90; size < whole.size(); ++size) {
        check(whole.substr(0, size));
    }
}

TEST_F(KesEngineReplay, AnEmptyCaptureIsNotRepeatedForEver) {
    WriteCapture(Path("in"), {});
    EXPECT_EQ(Replay("--loop 0 --replay in")["received"], 0);
}

TEST_F(KesEngineReplay, ALaterRunReplacesTheCapturesOfAnEarlierOne) {
    fs::create_directory(Path("out"));
    for (const char *name : {"returned.pcap", "instance-9-cwp.pcap", "notes.txt", "other.pcap"}) {
        Write(std::string("out/") + name, "old");
    }
    const Frames one = {TrafficFrames()[0]};
    WriteCapture(Path("in"), one);
    Replay("--replay in --out out");
    EXPECT_EQ(ReadCapture(Path("out/returned.pcap")), one);
    EXPECT_FALSE(fs::exists(Path("out/instance-9-cwp.pcap")));
    EXPECT_EQ(Read("out/notes.txt") + Read("out/other.pcap"), "oldold");

    const Outcome outcome = Run("--replay out/returned.pcap --out out");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, testing::HasSubstr("is being replayed and would be replaced"));
    EXPECT_EQ(ReadCapture(Path("out/returned.pcap")), one);
}

TEST_F(KesEngineReplay, ARealSessionReachesItsInstances) {
    const Frames session = ReadCapture(TEST_DATA "/ap-session.pcap");
    const std::string source = "source add 1 192.168.10.9 --if 7\n";
    const std::string fallback = "tunnel default --node 0\n";
    const std::string tunnel = "tunnel add 192.168.10.10 12380 192.168.10.9 5246 --node 3";
    const std::string all = source + tunnel + "\n" + fallback;
    // Unicast to the controller, and broadcasts.
    const json both = {{"3", 111}, {"0", 4}};
    const struct {
        std::string commands;
        std::string arguments;
        json instances;  // what each got
        size_t transmitted = 0;
    } cases[] = {
        {all, "--rx-port 7", both},
        {all, "--rx-port 8", {{"3", 111}}},
        {all, "--rx-port 8 --if-map 8=7", both},
        {all, "--rx-port 7 --vrf 9", {{"0", 115}}},
        {source + tunnel + " --vpn 9\n" + fallback, "--rx-port 7 --vrf 9", both},
        {source + fallback, "--rx-port 7", {{"0", 115}}},
        {fallback, "--rx-port 7", json::object()},
        {all, "--rx-port 7 --local 192.168.10.9", both, 110},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.commands + c.arguments);
        Write("commands", c.commands);
        const json report = Replay(
            "--exec commands --replay " TEST_DATA "/ap-session.pcap --out out " + c.arguments);

        Frames out;
        for (const auto &[file, frames] : ReadOut()) {
            out.insert(out.end(), frames.begin(), frames.end());
        }
        std::ranges::stable_sort(out, {}, &Frame::timeNs);
        EXPECT_EQ(out, session);
        json instances = json::object();
        size_t taken = 0;
        for (const json &entry : report["instances"]) {
            instances[entry["instance"].dump()] = entry["cwp"];
            taken += entry["cwp"].get<size_t>();
        }
        EXPECT_EQ(instances, c.instances);
        EXPECT_EQ(report["transmitted"], c.transmitted);
        EXPECT_EQ(report["returned"], session.size() - c.transmitted - taken);
        const size_t control = c.transmitted != 0 ? 115 : 222;
        EXPECT_EQ(report["classes"][0], Counters("control", control, taken, 0, control - taken));
    }
}

// --- pace ---

TEST(Pace, AReplayThatStalledCatchesUpWithoutARush) {
    using kes_engine::Pace;
    using std::chrono::milliseconds;
    Pace pace(100);
    const Pace::Clock::time_point start{std::chrono::hours(1)};
    Pace::Clock::time_point now = start;
    int atOnce = 0;
    for (int frame = 0; frame < 400; ++frame) {
        now += milliseconds(frame == 100 ? 1000 : 0);
        const Pace::Clock::time_point next = pace.Next(now);
        atOnce += frame > 0 && next <= now ? 1 : 0;
        EXPECT_TRUE(next <= now || next - now >= milliseconds(5)) << frame;
        now = std::max(now, next);
    }
    EXPECT_EQ(atOnce, 10);
    EXPECT_EQ(now - start, 399 * milliseconds(10));
}

}  // namespace
}  // namespace programs
