// The module's statistics on generated traffic of every class, against what tshark counts by its
// display filters.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

namespace {

using nlohmann::json;

// What a command prints; the test fails with it.
std::string Output(const std::string &command) {
    FILE *pipe = popen(command.c_str(), "r");
    std::string output;
    std::array<char, 4096> part;
    for (size_t size; (size = fread(part.data(), 1, part.size(), pipe)) > 0;) {
        output.append(part.data(), size);
    }
    EXPECT_EQ(pclose(pipe), 0) << command;
    return output;
}

// The first bytes behind a CAPWAP header of eight bytes: a vendor message type.
std::string Type(unsigned number) {
    char text[48];
    std::snprintf(text, sizeof text, "udp.payload[8:4]==%02x:%02x:%02x:%02x",
                  LYR_KES_VENDOR_PEN >> 16 & 255, LYR_KES_VENDOR_PEN >> 8 & 255,
                  LYR_KES_VENDOR_PEN & 255, number);
    return text;
}

class Statistics : public testing::Test {
  protected:
    void SetUp() override {
        if (std::system("tshark --version >/dev/null 2>&1") != 0) {
            GTEST_SKIP() << "tshark is not installed";
        }
        directory_ = testing::TempDir() + "statistics.XXXXXX";
        ASSERT_NE(mkdtemp(directory_.data()), nullptr);
        Output(CAPWAP_GEN
               " --seed 7 --aps 40 --instances 4 --rounds 40 --unregistered 20 "
               "--mix all,damaged=0,ping=20,probe=10 --out " +
               directory_ + "/in.pcap --commands " + directory_ + "/commands");
    }
    void TearDown() override {
        std::filesystem::remove_all(directory_);
    }

    // Frames that a display filter shows. Fragments stay apart, as the module meets them.
    size_t Witnessed(const std::string &filter) const {
        const std::string shown =
            Output("tshark -r " + directory_ +
                   "/in.pcap -o ip.defragment:FALSE -o ipv6.defragment:FALSE "
                   "-o capwap.reassemble:FALSE -T fields -e frame.number -Y '" +
                   filter + "' 2>/dev/null");
        return static_cast<size_t>(std::ranges::count(shown, '\n'));
    }
    // The sum of a field over the frames that a filter shows.
    size_t Sum(const std::string &field, const std::string &filter) const {
        std::istringstream shown(Output("tshark -r " + directory_ +
                                        "/in.pcap -o ip.defragment:FALSE -T fields -e " + field +
                                        " -Y '" + filter + "' 2>/dev/null"));
        size_t sum = 0;
        for (size_t value; shown >> value;) {
            sum += value;
        }
        return sum;
    }

    // Replays with the controller's own frames on the transmit path; the report. What the commands
    // afterwards say is kept in `said`.
    json Replay(const std::string &before, const std::string &after, std::string *said) const {
        std::ofstream(directory_ + "/before") << before;
        std::ofstream(directory_ + "/after") << after;
        const std::string report =
            Output(KES_ENGINE " --exec " + directory_ + "/commands --exec " + directory_ +
                   "/before --exec-after " + directory_ + "/after --rx-port 7 --local 10.0.0.1 " +
                   "--local 2001:db8::1 --report json --log /dev/null --replay " + directory_ +
                   "/in.pcap 2>" + directory_ + "/said");
        std::ifstream file(directory_ + "/said");
        *said = {std::istreambuf_iterator<char>(file), {}};
        return json::parse(report);
    }

    std::string directory_;
};

const std::string kControl = "udp.port==5246 && !icmp && !icmpv6 && !ipv6.fraghdr";
const std::string kData =
    "udp.port==5247 && !(udp.port==5246) && !icmp && !icmpv6 && !ipv6.fraghdr";
const std::string kLocal = " && (ip.src==10.0.0.1 || ipv6.src==2001:db8::1)";
const std::string kReceived = " && !(ip.src==10.0.0.1 || ipv6.src==2001:db8::1)";
const std::string kForController =
    " && (ip.dst==10.0.0.1 || ip.dst==255.255.255.255 || ipv6.dst==2001:db8::1 || "
    "ipv6.dst==ff00::/8)";

TEST_F(Statistics, CountersOfEveryClass) {
    std::string said;
    const json report = Replay("", "", &said);
    const json control = report["counters"]["control"];
    EXPECT_EQ(control["received"], Witnessed(kControl + kReceived));
    EXPECT_EQ(control["sent"], Witnessed(kControl + kReceived + kForController));
    EXPECT_GT(control["source_mismatch"], 0);
    EXPECT_EQ(control["source_mismatch"],
              control["received"].get<size_t>() - control["sent"].get<size_t>());
    EXPECT_EQ(
        report["counters"]["keepalive"]["received"],
        Witnessed(kData + kReceived + " && capwap.header.flags.k==1 && capwap.header.flags.f==0"));
    EXPECT_EQ(report["counters"]["dtls_handshake"]["received"],
              Witnessed(kData + kReceived +
                        " && capwap.preamble.type==1 && dtls.record.content_type!=23"));
    EXPECT_EQ(report["transmitted"], Witnessed("frame" + kLocal));
    EXPECT_EQ(report["contradictions"], json::array());
}

TEST_F(Statistics, PingsOfAPeerAndProbes) {
    const std::string peer = "10.64.0.7";
    std::string said;
    Replay("ping set " + peer + "\n", "ping show\nprobe show\n", &said);
    const std::string ping = kControl + " && (" + Type(117) + " || " + Type(118) + ")";
    const std::string probe = kControl + " && (" + Type(77) + " || " + Type(78) + ")";
    const std::string to = " && ip.dst==" + peer, from = " && ip.src==" + peer;
    const std::string fragment = " && udp.payload[3:1]&80";
    const size_t sent = Witnessed(ping + to), got = Witnessed(ping + from);
    ASSERT_GT(sent, 0u);
    ASSERT_GT(got, 0u);
    const auto row = [&](const std::string &point, const std::string &end, size_t times) {
        // A UDP header, a CAPWAP header and the ping's own come before its payload.
        const size_t packets = Witnessed(ping + end);
        const size_t bytes = Sum("udp.length", ping + end) - packets * (8 + 8 + 36);
        std::ostringstream expected;
        for (const size_t value : {packets, Witnessed(ping + end + fragment), bytes}) {
            expected << " +" << times * value;
        }
        return point + expected.str();
    };
    for (const std::string &line : {row("tx in", to, 1), row("tx out", to, 1),
                                    row("rx in", from, 2),  // and once more as it leaves
                                    row("rx out", from, 1)}) {
        EXPECT_TRUE(std::regex_search(said, std::regex(line + "\n"))) << line << "\n" << said;
    }
    size_t sightings = 0;
    for (size_t at = 0; (at = said.find("Server", at)) != std::string::npos; ++at) {
        ++sightings;
    }
    EXPECT_GT(sightings, 256u) << "more than a page";
    EXPECT_EQ(sightings, 2 * (Witnessed(probe + kLocal) + Witnessed(probe + from)));
}

}  // namespace
