// The dry run against what the module then does.
#include "kes_engine/explanation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "capture.h"
#include "capwap_gen/commands.h"
#include "capwap_gen/traffic.h"
#include "control/command.h"
#include "kes/thread.h"
#include "kes_engine/failure.h"
#include "kes_engine/module_caller.h"
#include "kes_engine/table_page.h"
#include "mund/module_objects.h"
#include "mund/table_entries.h"
#include "standin/channels.h"
#include "standin/exported_objects.h"
#include "standin/runtime.h"

namespace kes_engine {
namespace {

using capwap::Bytes;
using capwap::FrameSpec;
using standin::Fate;

// Port 3 is interface 7, as captures' commands have it; port 4 is interface 8.
constexpr uint32_t kPort = 3, kOtherPort = 4;

constexpr const char *kNoDefaults =
    "tunnel del 255.255.255.255 65535 255.255.255.255 5246 --vpn 65535\n"
    "tunnel del ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff 65535 "
    "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff 5246 --vpn 65535\n";

// A frame and how it comes in.
struct Received {
    Bytes bytes;
    standin::Arrival arrival = {.rxPort = kPort};
    uint16_t causeAction = 0;
};

class Explaining : public ::testing::Test {
  protected:
    // A module of instances 0 to 5, with `buckets` of every tunnel table (odd) for long chains. The
    // instances named have channels; their threads are all this one.
    void Start(uint32_t buckets, std::initializer_list<uint32_t> capwap,
               std::initializer_list<uint32_t> wapi) {
        standin::ClearInterfaceMap();
        standin::MapInterface(kPort, 7);
        standin::MapInterface(kOtherPort, 8);
        standin::SetTimersManual(true);
        standin::ClearCapabilities();
        ASSERT_TRUE(standin::SetCapability("WCWP_SPEC_SVC_NUM", 5));
        ASSERT_TRUE(standin::SetCapability("WCWP_SPEC_MAX_LINK_NUM", buckets * 10 / 13));
        ASSERT_TRUE(standin::SetCapability("WCWP_SPEC_MAX_DATA_LINK_NUM", 0));
        ASSERT_EQ(module_.Load(LYR_HOST_LIBRARY), "");
        ASSERT_EQ(module_.Start(), "");
        for (const auto &[what, instances] :
             {std::pair("kes2lyrcwp", capwap), std::pair("kes2lyrwapi", wapi)}) {
            for (const uint32_t instance : instances) {
                const std::string name = what + std::to_string(instance);
                const uint32_t channel = standin::OpenChannel("chn/" + name, 8);
                ASSERT_NE(channel, TOV_CHANNEL_ID_NONE);
                ASSERT_EQ(TOV_ThreadInfoRegByName(("thd/" + name).c_str()), 0u);
                channels_[channel] = instance;
            }
        }
    }

    Explanation Explain(const Received &frame) {
        return Explainer(module_).Explain(frame.bytes, frame.arrival, frame.causeAction);
    }

    void TearDown() override {
        module_.Stop();
        for (const auto &[channel, instance] : channels_) {
            standin::CloseChannel(channel);
        }
        channels_.clear();
        EXPECT_TRUE(module_.Unload().empty());
        EXPECT_EQ(pool_.InUse(), 0u);
    }

    static void Execute(const std::string &commands) {
        std::istringstream text(commands);
        for (const control::Command &command : control::ParseCommands(text, "commands")) {
            const control::Outcome outcome = control::Execute(command, CallModule);
            ASSERT_TRUE(outcome.Ok()) << outcome.ToText();
        }
    }

    struct Met {
        Fate fate;
        std::optional<uint32_t> instance;  // whose channel got it; where none did: its key
    };

    // What the module does with a frame.
    Met Deliver(const Received &frame) {
        HostMbuf *packet = pool_.Receive(frame.bytes, frame.arrival);
        standin::MetaOf(packet).causeAction = frame.causeAction;
        Met met = {standin::RunReceivePath(packet), std::nullopt};
        if (met.fate != Fate::kTaken) {
            if (met.fate == Fate::kUndelivered && HostMbufGetLbKey(packet) != HOST_LB_KEY_NONE) {
                met.instance = HostMbufGetLbKey(packet);
            }
            standin::MbufPool::Release(packet);
            return met;
        }
        for (const auto &[channel, instance] : channels_) {
            while (HostMbuf *received = standin::ReceiveFromChannel(channel)) {
                EXPECT_EQ(std::exchange(met.instance, instance), std::nullopt);
                standin::MbufPool::Release(received);
            }
        }
        return met;
    }

    // All that a hand-off would leave behind: counters, watches, records, locks, events.
    std::map<std::string, Bytes> Traces() {
        std::map<std::string, Bytes> traces;
        const auto add = [&](const std::string &name, std::optional<uint32_t> slot = {}) {
            const standin::ObjectBytes object = standin::ReadObject(module_, name, slot);
            EXPECT_EQ(object.error, "");
            traces[name + std::to_string(slot.value_or(0))] = object.bytes;
        };
        for (const char *name :
             {MUND_OBJECT_HANDED_OVER, MUND_OBJECT_HAND_OFF_FAILED, MUND_OBJECT_WAPI_FRAMES,
              MUND_OBJECT_WAPI_FAILED, MUND_OBJECT_PACKET_COUNTERS, MUND_OBJECT_DROP_WATCH,
              MUND_OBJECT_DROP_TIMER, MUND_OBJECT_PING, MUND_OBJECT_PROBES, MUND_OBJECT_IPV4_LOCK,
              MUND_OBJECT_IPV6_LOCK, MUND_OBJECT_KA_LOCK, MUND_OBJECT_SOURCES}) {
            add(name);
        }
        for (uint32_t slot = 1; slot <= 4; ++slot) {
            add(MUND_OBJECT_MSG_TYPE, slot);
        }
        // The event is this one's own and no one else's.
        constexpr uint32_t kOwn = 1u << 31;
        uint32_t events = 0;
        TOV_EventWrite(TOV_ThreadInfoGetByName("thd/kes2lyrcwp0"), kOwn);
        EXPECT_EQ(TOV_EventRead(&events), 0u);
        traces["events"] = {static_cast<uint8_t>(events), static_cast<uint8_t>(events >> 8)};
        for (const std::string &held : standin::ModuleMemoryByTag(module_.Id())) {
            traces["memory"].insert(traces["memory"].end(), held.begin(), held.end());
        }
        return traces;
    }

    standin::Module module_;
    standin::MbufPool pool_{64};
    std::map<uint32_t, uint32_t> channels_;  // instance by channel
};

// --- captures ---

// Most come in alike; some by another port, on another VRF, or for another cause.
void Arrive(std::vector<Received> &frames, const Bytes &bytes) {
    const size_t i = frames.size();
    const uint16_t causeAction = i % 13 == 0 ? 57 : i % 17 == 0 ? 8 : i % 7 == 0 ? 3 : 0;
    frames.push_back({bytes,
                      {.rxPort = i % 3 == 0 ? kOtherPort : kPort, .vrf = i % 5 == 0 ? 9u : 0u},
                      causeAction});
}

std::vector<Received> Generated(const capwap_gen::Traffic &traffic) {
    std::vector<Received> frames;
    traffic.Generate([&](const capwap_gen::Frame &frame) { Arrive(frames, frame.bytes); });
    return frames;
}

std::vector<Received> Session() {
    std::vector<Received> frames;
    for (const programs::Frame &frame : programs::ReadCapture(TEST_DATA "/ap-session.pcap")) {
        Arrive(frames, frame.bytes);
    }
    return frames;
}

// The step of the name, or an empty text.
std::string TextOf(const Explanation &explanation, const std::string &step) {
    const auto said = std::ranges::find(explanation.steps, step, &Explanation::Step::step);
    return said == explanation.steps.end() ? "" : said->text;
}

// The class's name, which goes up to the colon.
std::string ClassOf(const Explanation &explanation) {
    const std::string text = TextOf(explanation, "class");
    return text.empty() ? "excluded" : text.substr(0, text.find(':'));
}

capwap_gen::Traffic Mixed(uint64_t seed, const char *mix) {
    return capwap_gen::Traffic({.seed = seed,
                                .accessPoints = 30,
                                .instances = 6,
                                .rounds = 40,
                                .mix = capwap_gen::Mix::Parse(mix),
                                .ipv6Percent = 40,
                                .vlanPercent = 40,
                                .unregisteredPercent = 20});
}

std::string CommandsOf(const capwap_gen::Traffic &traffic) {
    std::ostringstream text;
    capwap_gen::WriteCommands(text, traffic);
    return text.str();
}

struct Capture {
    const char *name;
    std::vector<Received> frames;
    std::string commands;
};

std::vector<Capture> Captures() {
    const capwap_gen::Traffic everything = Mixed(21, "all,ping=5,probe=5");
    const capwap_gen::Traffic broken = Mixed(22, "discovery=1,keepalive=2,damaged=20,fragment=10");
    const std::vector<Received> mixed = Generated(everything);
    const std::string commands = CommandsOf(everything);
    return {
        {"everything", mixed, commands},
        {"no default", mixed, commands + kNoDefaults},
        {"nothing registered", mixed, ""},
        {"any interface", mixed, commands + "source add 4 10.9.9.9 --if 99\nwapi 2 0\n"},
        {"broken", Generated(broken), CommandsOf(broken)},
        {"session", Session(),
         "source add 1 192.168.10.9 --if 7\ntunnel default --node 3\n"
         "tunnel add 192.168.10.10 12380 192.168.10.9 5246 --node 4\n"},
    };
}

TEST_F(Explaining, ForeseesEveryPacketAndLeavesNoTrace) {
    std::map<std::string, std::set<Fate>> seen;  // by class
    for (const Capture &capture : Captures()) {
        SCOPED_TRACE(capture.name);
        Start(7, {0, 1, 2, 4}, {0, 1, 3});
        Execute(capture.commands + "msgtype select echo-request\nping set 10.64.0.1\n");
        const auto before = Traces();
        std::vector<Explanation> explanations;
        for (const Received &frame : capture.frames) {
            explanations.push_back(Explain(frame));
        }
        EXPECT_EQ(Traces(), before);

        for (size_t i = 0; i < explanations.size(); ++i) {
            SCOPED_TRACE("frame " + std::to_string(i + 1) + '\n' + explanations[i].ToText());
            const Met met = Deliver(capture.frames[i]);
            const std::string packetClass = ClassOf(explanations[i]);
            seen[packetClass].insert(met.fate);
            ASSERT_EQ(met.fate, explanations[i].fate);
            if (met.instance || packetClass != "WAPI") {
                ASSERT_EQ(met.instance, explanations[i].instance);
            }
        }
        EXPECT_NE(Traces(), before) << "the traces would not show a hand-off";
        TearDown();
    }
    const std::set<Fate> returned = {Fate::kReturned};
    const std::set<Fate> any = {Fate::kReturned, Fate::kTaken, Fate::kUndelivered};
    EXPECT_EQ(seen,
              (std::map<std::string, std::set<Fate>>{{"excluded", returned},
                                                     {"WAPI", {Fate::kTaken, Fate::kUndelivered}},
                                                     {"control", any},
                                                     {"keepalive", any},
                                                     {"DTLS handshake", any},
                                                     {"data", returned},
                                                     {"another UDP port", returned},
                                                     {"not UDP", returned}}));
}

// --- reasons ---

Received Frame(const FrameSpec &spec, uint32_t port = kPort, uint16_t causeAction = 0) {
    return {capwap::BuildFrame(spec), {.rxPort = port}, causeAction};
}

Received Echo(std::string_view src, std::string_view dst, uint32_t port = kPort) {
    return Frame(capwap::UdpFrame(src, 50000, dst, 5246, capwap::ControlMessage(13, 1, {})), port);
}

// A damaged one lies about the length of its elements.
Received Keepalive(bool damaged) {
    Bytes payload = capwap::Keepalive({0x11111111, 0x22222222, 0x33333333, 0x44444444});
    payload[9] = static_cast<uint8_t>(payload[9] + (damaged ? 1 : 0));
    return Frame(capwap::UdpFrame("10.64.0.1", 50001, "10.0.0.1", 5247, payload));
}

constexpr const char *kSite =
    "source add 1 10.0.0.1 --if 7\n"
    "source add 2 2001:db8::1 --if 7\n"
    "tunnel default --node 0 --ipv6\n"
    "tunnel add 10.64.0.1 50000 10.0.0.1 5246 --node 1\n"
    "tunnel add 10.64.0.2 50000 10.0.0.1 5246 --node 3\n"
    "tunnel add 10.64.0.4 50000 10.0.0.1 5246 --node 4\n"
    "wapi 1 2\n";

TEST_F(Explaining, GivesTheReason) {
    Start(0, {0, 1, 4}, {2});  // one bucket
    Execute(kSite);
    for (const auto &[channel, instance] : channels_) {
        if (instance == 4) {
            standin::CloseChannel(channel);
        }
    }
    const char *const notOurs =
        "returned to the engine: it is not for a CAPWAP source of the controller";
    const std::string sources =
        "there is source 0 (type 1, 10.0.0.1, interface 7), source 1 (type 2, 2001:db8::1, "
        "interface 7)";
    FrameSpec wapi = {.srcMac = {0, 0x11, 0x22, 0x33, 0x44, 0x55}, .etherType = 0x88B4};
    const struct {
        const char *what;
        Received frame;
        const char *step;
        std::string text;
        const char *result;
    } cases[] = {
        {"wrong destination", Echo("10.64.0.1", "10.0.0.9"), "source",
         "no source has the destination address 10.0.0.9; " + sources, notOurs},
        {"wrong interface", Echo("10.64.0.1", "255.255.255.255", kOtherPort), "source",
         "no source admits a broadcast from interface 8; " + sources, notOurs},
        {"right interface", Echo("fe80::1", "ff02::18c"), "source",
         "source 0 (type 1, 10.0.0.1, interface 7) is on the interface where the multicast comes "
         "in",
         "taken by instance 0"},
        {"default entry", Echo("2001:db8:1::1", "2001:db8::1"), "default",
         "the default entry in bucket 0 of 1 is for instance 0", "taken by instance 0"},
        {"no default entry", Echo("10.64.0.9", "10.0.0.1"), "default",
         "no default entry in bucket 0 of 1, a chain of 3 entries",
         "undelivered: there is no instance for it"},
        {"unknown session", Keepalive(false), "key", "session 11111111222222223333333344444444",
         "undelivered: there is no instance for it"},
        {"unreadable session", Keepalive(true), "key",
         "no session id: the CAPWAP header is not followed by a length of 22 and one whole Session "
         "ID element",
         "returned to the engine: its session id cannot be read"},
        {"no channel", Echo("10.64.0.2", "10.0.0.1"), "channel",
         "chn/kes2lyrcwp3 is not resolved: there is no such channel",
         "undelivered: instance 3 has no channel to send it on"},
        // 153496644 is even: instance 1 + 0.
        {"station", Frame(wapi), "key",
         "station 00:11:22:33:44:55, hash 153496644; 2 instances from 1 on serve stations",
         "undelivered: instance 1 has no channel to send it on"},
        {"DTLS application data",
         Frame(capwap::UdpFrame("10.64.0.1", 50001, "10.0.0.1", 5247,
                                capwap::DtlsRecord(23, Bytes(20)))),
         "class",
         "data: UDP ports 50001 -> 5247, CAPWAP preamble type 1, flags K 0 and F 0, DTLS content "
         "type 23, 37 bytes",
         "returned to the engine: it is of no class that the module takes"},
        {"excluded", Frame(wapi, kPort, 8), "cause",
         "cause action 8, which the module leaves to the engine",
         "returned to the engine: its cause action is excluded"},
    };
    for (const auto &c : cases) {
        const Explanation explanation = Explain(c.frame);
        EXPECT_EQ(TextOf(explanation, c.step), c.text) << c.what;
        EXPECT_EQ(explanation.text, c.result) << c.what;
    }
    const auto channelOf = [&](const char *peer) {
        return TextOf(Explain(Echo(peer, "10.0.0.1")), "channel");
    };
    EXPECT_THAT(channelOf("10.64.0.4"), testing::HasSubstr(", which is closed; "));

    // Instance 3 comes up after its tunnel has been registered.
    channels_[standin::OpenChannel("chn/kes2lyrcwp3", 8)] = 3;
    EXPECT_EQ(channelOf("10.64.0.2"),
              "chn/kes2lyrcwp3 is not resolved: there is no thread thd/kes2lyrcwp3");
    ASSERT_EQ(TOV_ThreadInfoRegByName("thd/kes2lyrcwp3"), 0u);
    EXPECT_EQ(channelOf("10.64.0.2"),
              "chn/kes2lyrcwp3 is not resolved: no tunnel has been registered for instance 3 since "
              "it and thread thd/kes2lyrcwp3 are there");
    Execute("tunnel add 10.64.0.3 50000 10.0.0.1 5246 --node 3\n");
    EXPECT_THAT(channelOf("10.64.0.2"), testing::HasSubstr("is resolved to channel"));
}

TEST_F(Explaining, IsTextAndJson) {
    Start(0, {1}, {});
    Execute(kSite);
    Received taken = Echo("10.64.0.1", "10.0.0.1");
    taken.causeAction = 5;
    EXPECT_EQ(Explain(taken).ToText(),
              "1. packet: Echo Request, 60 bytes from 10.64.0.1 to 10.0.0.1, in on port 3 "
              "(interface 7), VRF 0\n"
              "2. cause: cause action 5 is not excluded\n"
              "3. class: control: UDP ports 50000 -> 5246\n"
              "4. source: source 0 (type 1, 10.0.0.1, interface 7) has the packet's destination "
              "address\n"
              "5. key: tunnel 10.64.0.1:50000 -> 10.0.0.1:5246, VPN 0\n"
              "6. bucket: bucket 0 of 1, a chain of 3 entries\n"
              "7. entry: entry 3 of the chain has this key, for instance 1\n"
              "8. instance: 1 (there are 0 to 5)\n"
              "9. channel: chn/kes2lyrcwp1 is resolved to channel " +
                  std::to_string(channels_.begin()->first) +
                  "; thread thd/kes2lyrcwp1 is known\n"
                  "result: taken by instance 1 (0x1000000)");
    EXPECT_EQ(Explain(Frame({.etherType = 0x88B4}, kOtherPort, 57)).ToJson().dump(),
              R"({"steps":[{"step":"packet","text":"WAPI, 60 bytes from 02:00:00:00:00:01 to )"
              R"(02:00:00:00:00:02, in on port 4 (interface 8), VRF 0"},{"step":"cause","text":)"
              R"("cause action 57, which the module leaves to the engine"}],"meaning":)"
              R"("returned to the engine: its cause action is excluded","fate":"returned",)"
              R"("instance":null,"verdict":"0"})");
    EXPECT_TRUE(Explain(Echo("10.64.0.2", "10.0.0.1"))
                    .ToJson()
                    .dump()
                    .ends_with(R"("fate":"undelivered","instance":3,"verdict":"0x10000000"})"));
}

// --- what is not as it should be ---

TEST_F(Explaining, SurvivesBrokenChainsAndMissingTables) {
    Start(0, {1}, {});
    Execute(kSite);
    const Received frame = Echo("10.64.0.1", "10.0.0.1");
    struct Link {
        Link *prev, *next;
    };
    Link *&table = *static_cast<Link **>(module_.Symbol("g_LyrKes_DistIpv4Tbl"));

    Link *second = std::exchange(table->next->next, nullptr);
    const Explanation broken = Explain(frame);
    EXPECT_EQ(TextOf(broken, "bucket"), "bucket 0 of 1, a chain of 1 entry that is broken");
    EXPECT_EQ(broken.text, "returned to the engine: the table cannot be searched");
    EXPECT_EQ(Deliver(frame).fate, broken.fate);
    table->next->next = second;

    // A page of the table has all three entries, or says what it meets.
    const ModuleView view(module_);
    const auto page = [&](uint32_t which = MUND_TABLE_IPV4_TUNNELS, uint32_t bucket = 0) {
        try {
            return std::to_string(ReadTablePage(view, {which, bucket}).size());
        } catch (const Failure &failure) {
            return std::string(failure.what());
        }
    };
    const std::string chain = "the chain of bucket 0 of the IPv4 table is broken";
    EXPECT_EQ(page(), std::to_string(sizeof(MundWireEntriesRsp) + 3 * sizeof(MundIpv4Tunnel)));
    EXPECT_EQ(page(MUND_TABLE_SESSIONS, 2), "the session table has no bucket 2 of 1");
    EXPECT_EQ(page(3), "there is no table 3");
    for (Link *astray : {static_cast<Link *>(nullptr), table->next}) {
        second->next = astray;
        EXPECT_EQ(page(), chain);
    }
    second->next = table->prev;

    Link *buckets = std::exchange(table, nullptr);
    EXPECT_EQ(page(), "the IPv4 table does not exist: the module starts or stops");
    const Explanation missing = Explain(frame);
    EXPECT_EQ(TextOf(missing, "bucket"), "bucket 0 of 1, but the table does not exist");
    EXPECT_EQ(Deliver(frame).fate, missing.fate);
    table = buckets;

    EXPECT_THROW(Explain({Bytes(standin::MbufPool::kMaxFrame + 1)}), Failure);
}

TEST(ExplainingNothing, NamesWhatTheModuleLacks) {
    standin::Module module;
    ASSERT_EQ(module.Load(SAMPLE_MODULE), "");
    EXPECT_THAT([&] { Explainer explainer(module); },
                testing::ThrowsMessage<Failure>("the module has no LyrKes_IsLocalPkt"));
}

// --- beside traffic and changes ---

TEST_F(Explaining, IsConsistentWhileTablesChange) {
    Start(0, {0, 1}, {});
    Execute(kSite);
    Execute("tunnel default --node 0\n");
    const Explainer explainer(module_);
    const Received frame = Echo("10.64.0.1", "10.0.0.1");
    std::atomic<bool> stopping = false;
    std::atomic<uint32_t> explained = 0;
    const auto explain = [&] {
        while (!stopping) {
            const Explanation told = explainer.Explain(frame.bytes, frame.arrival, 0);
            ++explained;
            if (told.steps.back().step == "note") {
                continue;
            }
            const std::string entry = TextOf(told, "entry");
            if (entry.empty()) {
                EXPECT_TRUE(TextOf(told, "source").starts_with("no source")) << told.ToText();
                EXPECT_EQ(told.fate, Fate::kReturned) << told.ToText();
            } else {
                EXPECT_EQ(told.instance, entry.starts_with("entry ") ? 1u : 0u) << told.ToText();
            }
        }
    };
    std::jthread explaining[] = {std::jthread(explain), std::jthread(explain)};
    std::jthread receiving([&] {
        while (!stopping) {
            Deliver(frame);
        }
    });
    for (int i = 0; i < 2000 || explained < 2000; ++i) {
        Execute(
            "tunnel del 10.64.0.1 50000 10.0.0.1 5246\n"
            "source del 1 10.0.0.1 --if 7\n"
            "tunnel add 10.64.0.1 50000 10.0.0.1 5246 --node 1\n"
            "source add 1 10.0.0.1 --if 7\n");
    }
    stopping = true;
}

}  // namespace
}  // namespace kes_engine
