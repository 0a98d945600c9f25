// The module's statistics on generated traffic of every class, against what tshark counts by its
// display filters.
#include <nlohmann/json.hpp>
#include <numeric>
#include <regex>

#include "program.h"

namespace programs {
namespace {

using nlohmann::json;

// The first bytes behind a CAPWAP header of eight bytes: one of two vendor message types.
std::string Types(unsigned one, unsigned other) {
    char text[120];
    const unsigned pen = LYR_KES_VENDOR_PEN;
    std::snprintf(text, sizeof text,
                  " && udp.payload[8:3]==%02x:%02x:%02x"
                  " && (udp.payload[11:1]==%02x || udp.payload[11:1]==%02x)",
                  pen >> 16 & 255, pen >> 8 & 255, pen & 255, one, other);
    return text;
}

class Statistics : public testing::Test, protected Directory {
  protected:
    void SetUp() override {
        if (Shell("tshark --version").status != 0) {
            GTEST_SKIP() << "tshark is not installed";
        }
        Output(CAPWAP_GEN
               " --seed 7 --aps 40 --instances 4 --rounds 40 --unregistered 20 "
               "--mix all,damaged=0,ping=20,probe=10 --out in.pcap --commands commands");
    }

    // What a command prints; the test fails with it.
    std::string Output(const std::string &command) const {
        const Outcome outcome = Shell(command);
        EXPECT_EQ(outcome.status, 0) << command << "\n" << outcome.err;
        return outcome.out;
    }

    // The numbers in a field of the frames that a display filter shows. Fragments stay apart, as
    // the module meets them.
    std::vector<size_t> Numbers(const std::string &field, const std::string &filter) const {
        std::istringstream shown(
            Output("tshark -r in.pcap -o ip.defragment:FALSE -o ipv6.defragment:FALSE "
                   "-o capwap.reassemble:FALSE -T fields -e " +
                   field + " -Y '" + filter + "'"));
        return {std::istream_iterator<size_t>(shown), {}};
    }
    size_t Witnessed(const std::string &filter) const {
        return Numbers("frame.number", filter).size();
    }

    // Replays with the controller's own frames on the transmit path: the report, and what the
    // commands say.
    Outcome Replay(const std::string &before, const std::string &after) const {
        Write("before", before);
        Write("after", after);
        const Outcome outcome =
            Shell(KES_ENGINE
                  " --exec commands --exec before --exec-after after --rx-port 7 "
                  "--local 10.0.0.1 --local 2001:db8::1 --report json --log /dev/null "
                  "--replay in.pcap");
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return outcome;
    }
};

const std::string kControl = "udp.port==5246 && !icmp && !icmpv6 && !ipv6.fraghdr";
const std::string kData =
    "udp.port==5247 && !(udp.port==5246) && !icmp && !icmpv6 && !ipv6.fraghdr";
const std::string kFromController = "(ip.src==10.0.0.1 || ipv6.src==2001:db8::1)";
const std::string kReceived = " && !" + kFromController;
const std::string kForController =
    " && (ip.dst==10.0.0.1 || ip.dst==255.255.255.255 || ipv6.dst==2001:db8::1 || "
    "ipv6.dst==ff00::/8)";

TEST_F(Statistics, CountersOfEveryClass) {
    const json report = json::parse(Replay("", "").out);
    const json counters = report["counters"];
    const size_t received = Witnessed(kControl + kReceived);
    const size_t sent = Witnessed(kControl + kReceived + kForController);
    EXPECT_GT(received, sent);
    EXPECT_EQ(counters["control"]["received"], received);
    EXPECT_EQ(counters["control"]["sent"], sent);
    EXPECT_EQ(counters["control"]["sourceMismatch"], received - sent);
    EXPECT_EQ(
        counters["keepalive"]["received"],
        Witnessed(kData + kReceived + " && capwap.header.flags.k==1 && capwap.header.flags.f==0"));
    EXPECT_EQ(counters["dtls_handshake"]["received"],
              Witnessed(kData + kReceived +
                        " && capwap.preamble.type==1 && dtls.record.content_type!=23"));
    EXPECT_EQ(report["transmitted"], Witnessed(kFromController));
    EXPECT_EQ(report["contradictions"], json::array());
}

TEST_F(Statistics, PingsOfAPeerAndProbes) {
    const std::string said = Replay("ping set 10.64.0.7\n", "ping show\nprobe show\n").err;
    const std::string ping = kControl + Types(117, 118), probe = kControl + Types(77, 78);
    const std::string to = " && ip.dst==10.64.0.7", from = " && ip.src==10.64.0.7";
    const struct {
        std::string point, end;
        size_t times;
    } rows[] = {{"tx in", to, 1},
                {"tx out", to, 1},
                {"rx in", from, 2},  // and once more as it leaves
                {"rx out", from, 1}};
    for (const auto &[point, end, times] : rows) {
        const std::vector<size_t> lengths = Numbers("udp.length", ping + end);
        ASSERT_FALSE(lengths.empty());
        // A UDP header, a CAPWAP header and the ping's own come before its payload.
        const size_t bytes = std::accumulate(lengths.begin(), lengths.end(), size_t{0}) -
                             lengths.size() * (8 + 8 + 36);
        std::string row = point;
        for (const size_t value :
             {lengths.size(), Witnessed(ping + end + " && udp.payload[3:1]&80"), bytes}) {
            row += " +" + std::to_string(times * value);
        }
        EXPECT_TRUE(std::regex_search(said, std::regex(row + "\n"))) << row << "\n" << said;
    }
    const size_t sightings = Count(said, "Server");
    EXPECT_GT(sightings, 256u) << "more than a page";
    EXPECT_EQ(sightings,
              2 * (Witnessed(probe + " && " + kFromController) + Witnessed(probe + from)));
}

}  // namespace
}  // namespace programs
