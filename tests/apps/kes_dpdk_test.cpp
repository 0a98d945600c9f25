// The engine on DPDK's ports, with captures for ports: no rights and no huge pages are needed.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <numeric>

#include "capture.h"
#include "program.h"

namespace programs {
namespace {

using nlohmann::json;
using AllBytes = std::vector<capwap::Bytes>;

const std::string kSession = TEST_DATA "/ap-session.pcap";

bool IsArp(const capwap::Bytes &frame) {
    return frame.at(12) == 0x08 && frame.at(13) == 0x06;
}

AllBytes FramesOf(const std::string &path) {
    AllBytes frames;
    for (const Frame &frame : ReadCapture(path)) {
        frames.push_back(frame.bytes);
    }
    return frames;
}

AllBytes Sorted(AllBytes frames) {
    std::ranges::sort(frames);
    return frames;
}

class KesDpdk : public testing::Test, protected Directory {
  protected:
    void SetUp() override {
        Write("commands",
              "source add 1 192.168.10.9 --if 7\n"
              "tunnel add 192.168.10.10 12380 192.168.10.9 5246 --node 3\n"
              "tunnel default --node 0\n");
    }
    // All lcores share a processor, which every machine has.
    std::string Command(const std::string &lcores) const {
        return KES_DPDK " --lcores " + lcores +
               " --no-huge -m 128 --no-pci --log-level=error --file-prefix=" +
               fs::path(Path()).parent_path().filename().string();
    }
    Outcome Run(const std::string &lcores, const std::string &arguments) const {
        return Shell("XDG_RUNTIME_DIR=$PWD timeout 60 " + Command(lcores) + " " + arguments);
    }
    // One that runs until it is stopped, for a Process.
    std::string Serving(const std::string &lcores, const std::string &arguments) const {
        return "env -C " + Path() + " XDG_RUNTIME_DIR=" + Path() + " " + Command(lcores) + " " +
               arguments + " --exec commands --control control --report json --log /dev/null";
    }
    static json ReportOf(Process &engine) {
        const Outcome outcome = engine.Stop(SIGINT);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        json report = json::parse(outcome.out, nullptr, false);
        EXPECT_EQ(report["conserved"], true) << outcome.out;
        EXPECT_EQ(report["buffers"]["inUse"], 0);
        return report;
    }
    // A port that brings a capture's frames over and over, as fast as they are taken.
    static std::string Repeated(const std::string &capture) {
        return "--vdev net_pcap0,infinite_rx=1,rx_pcap=" + capture;
    }
    std::string Ask(const std::string &words) const {
        return Shell(LYRCTL " --control control " + words).out;
    }
    // What top shows of a running engine; null while none answers.
    json Top() const {
        const Outcome top = Shell(LYRCTL " --control control top --once --json --interval 0.1");
        return top.status == 0 ? json::parse(top.out, nullptr, false) : json();
    }
    uint64_t Taken() const {
        const json top = Top();
        return top.is_object() ? top["fates"]["taken"]["total"].get<uint64_t>() : 0;
    }
    json RunToEnd(const std::string &lcores, const std::string &arguments) const {
        const Outcome outcome = Run(lcores, arguments + " --exec commands --idle-exit 1 " +
                                                "--control control --report json --log log");
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        const json report = json::parse(outcome.out, nullptr, false);
        EXPECT_EQ(report["conserved"], true) << outcome.out;
        EXPECT_EQ(report["buffers"]["inUse"], 0);
        return report;
    }
};

// The session's packets to the controller come from the network, and its own from instance 3.
TEST_F(KesDpdk, ARealSessionLeavesByThePortsThatItBelongsTo) {
    const AllBytes session = FramesOf(kSession);
    Frames answers = ReadCapture(kSession);
    const capwap::Bytes controller = {192, 168, 10, 9};
    std::erase_if(answers, [&](const Frame &frame) {
        return frame.bytes.size() < 30 ||
               !std::equal(controller.begin(), controller.end(), frame.bytes.begin() + 26);
    });
    WriteCapture(Path("answers.pcap"), answers);
    for (const char *lcores : {"0@0,1@0", "0@0,1@0,2@0"}) {
        SCOPED_TRACE(lcores);
        const json report = RunToEnd(
            lcores, "--vdev net_pcap0,rx_pcap=" + kSession +
                        ",tx_pcap=sent.pcap --vdev net_pcap1,rx_pcap=answers.pcap,tx_pcap=3.pcap "
                        "--vdev net_pcap2,tx_pcap=kernel.pcap -- --port net_pcap0=7 "
                        "--instance 3=net_pcap1 --kernel 2 --out out");
        EXPECT_EQ(report["received"], 422);
        EXPECT_EQ(report["returned"], 307);
        EXPECT_EQ(report["taken"], 115);
        EXPECT_EQ(report["transmitted"], answers.size());
        EXPECT_EQ(report["classes"][0]["sent"], 115);
        EXPECT_EQ(FramesOf(Path("out/instance-0-cwp.pcap")).size(), 4u);

        AllBytes sent;
        std::ranges::transform(answers, std::back_inserter(sent), &Frame::bytes);
        EXPECT_EQ(FramesOf(Path("sent.pcap")), sent);
        // What resolves addresses is everybody's.
        const AllBytes kernel = FramesOf(Path("kernel.pcap"));
        AllBytes instance = FramesOf(Path("3.pcap"));
        EXPECT_EQ(std::erase_if(instance, IsArp), std::ranges::count_if(kernel, IsArp));
        EXPECT_EQ(kernel.size(), 307u);
        EXPECT_EQ(instance.size(), 111u);
        AllBytes all = kernel;
        all.insert(all.end(), instance.begin(), instance.end());
        const AllBytes fallback = FramesOf(Path("out/instance-0-cwp.pcap"));
        all.insert(all.end(), fallback.begin(), fallback.end());
        EXPECT_EQ(Sorted(all), Sorted(session));
    }
}

TEST_F(KesDpdk, InstancesHearOnlyQuestionsAfterTheirAddress) {
    // An ARP request, or what else of ARP, for 192.168.10.`target` from 192.168.10.`sender`.
    const auto arp = [](uint8_t operation, uint8_t sender, uint8_t target) {
        capwap::Bytes payload = {0, 1, 8, 0, 6, 4, 0, operation};
        payload.insert(payload.end(), {2, 0, 0, 0, 0, sender, 192, 168, 10, sender});
        payload.insert(payload.end(), {0, 0, 0, 0, 0, 0, 192, 168, 10, target});
        return capwap::BuildFrame({.etherType = 0x0806, .payload = payload});
    };
    const AllBytes frames = {arp(1, 10, 9), arp(1, 10, 8), arp(1, 10, 10), arp(2, 10, 8)};
    Frames in;
    for (const capwap::Bytes &frame : frames) {
        in.push_back({0, static_cast<uint32_t>(frame.size()), frame});
    }
    WriteCapture(Path("in.pcap"), in);
    const std::string ports =
        "--vdev net_pcap0,rx_pcap=in.pcap --vdev net_pcap1,tx_pcap=3.pcap "
        "-- --port net_pcap0=7 --instance 3=net_pcap1 ";
    RunToEnd("0@0,1@0", ports);
    EXPECT_EQ(FramesOf(Path("3.pcap")), frames);
    RunToEnd("0@0,1@0", ports + "--address 2001:db8::9 --address 192.168.10.9");
    EXPECT_EQ(FramesOf(Path("3.pcap")), (AllBytes{frames[0], frames[2], frames[3]}));
}

TEST_F(KesDpdk, EveryLcoreHasItsShareOfTheQueues) {
    const Frames session = ReadCapture(kSession);
    Frames halves[2];
    for (size_t i = 0; i < session.size(); ++i) {
        halves[i % 2].push_back(session[i]);
    }
    WriteCapture(Path("0.pcap"), halves[0]);
    WriteCapture(Path("1.pcap"), halves[1]);
    const json report = RunToEnd("0@0,1@0,2@0,3@0",
                                 "--vdev net_pcap0,rx_pcap=0.pcap,rx_pcap=1.pcap "
                                 "--vdev net_pcap1,rx_pcap=0.pcap,rx_pcap=1.pcap "
                                 "-- --port net_pcap0=7 --port net_pcap1=7");
    EXPECT_EQ(report["received"], 2 * 422);
    EXPECT_EQ(report["returned"], 2 * 307);
    EXPECT_EQ(report["instances"][1]["cwp"], 2 * 111);
}

// A port whose other side is absent takes nothing: its instance's channel fills, and no other's.
TEST_F(KesDpdk, AnInstanceThatStandsStillHoldsUpNobodyElse) {
    const json report =
        RunToEnd("0@0,1@0,2@0",
                 "--vdev net_pcap0,rx_pcap=" + kSession +
                     " --vdev net_memif0,role=server,socket-abstract=no,socket=" + Path("memif") +
                     " -- --port net_pcap0=7 --instance 3=net_memif0 " + "--channel 8");
    EXPECT_EQ(report["returned"], 307);
    const json &still = report["instances"][1];
    EXPECT_EQ(report["instances"][0]["cwp"], 4);
    EXPECT_EQ(still["sent"], 0);
    EXPECT_EQ(still["refused"], still["cwp"]);
    EXPECT_GE(still["cwp"], 8);
    EXPECT_LE(still["cwp"], 8 + 32);
    EXPECT_EQ(report["undelivered"], 111 - still["cwp"].get<int>());
    EXPECT_EQ(report["classes"][0]["sendFailed"], report["undelivered"]);
}

// One lcore hears the network ports before it asks the instance's.
TEST_F(KesDpdk, WhatAnInstanceSendsLeavesByTheReceiversNetworkPort) {
    const auto frame = [](uint8_t from, uint8_t to) {
        return capwap::BuildFrame({.srcMac = {2, 0, 0, 0, 0, from},
                                   .dstMac = {2, 0, 0, 0, 0, to},
                                   .etherType = 0x88B5,
                                   .payload = capwap::Bytes(50, to)});
    };
    const auto write = [this](const std::string &name, const AllBytes &bytes) {
        Frames frames;
        for (const capwap::Bytes &one : bytes) {
            frames.push_back({0, static_cast<uint32_t>(one.size()), one});
        }
        WriteCapture(Path(name), frames);
    };
    constexpr uint8_t kController = 1, kFirst = 2, kSecond = 3, kMoved = 4, kStranger = 5;
    capwap::Bytes broadcast = frame(kController, kStranger);
    std::fill_n(broadcast.begin(), 6, uint8_t{0xFF});
    write("first.pcap", {frame(kFirst, kController), frame(kMoved, kController)});
    write("second.pcap", {frame(kSecond, kController), frame(kMoved, kController)});
    write("instance.pcap", {frame(kController, kFirst), frame(kController, kSecond),
                            frame(kController, kMoved), frame(kController, kStranger), broadcast});
    const json report =
        RunToEnd("0@0,1@0",
                 "--vdev net_pcap0,rx_pcap=first.pcap,tx_pcap=to-first.pcap "
                 "--vdev net_pcap1,rx_pcap=second.pcap,tx_pcap=to-second.pcap "
                 "--vdev net_pcap2,rx_pcap=instance.pcap -- --instance 3=net_pcap2");
    EXPECT_EQ(report["transmitted"], 5);
    const capwap::Bytes stranger = frame(kController, kStranger);
    EXPECT_EQ(FramesOf(Path("to-first.pcap")),
              (AllBytes{frame(kController, kFirst), stranger, broadcast}));
    EXPECT_EQ(
        FramesOf(Path("to-second.pcap")),
        (AllBytes{frame(kController, kSecond), frame(kController, kMoved), stranger, broadcast}));
}

TEST_F(KesDpdk, FramesLongerThanABufferAreDroppedAndCounted) {
    const Frames frames = {{0, 1522, capwap::Bytes(1522, 1)}, {1, 4000, capwap::Bytes(4000, 2)}};
    WriteCapture(Path("in.pcap"), frames);
    for (const auto &[longest, oversize] : {std::pair{"2048", 1}, std::pair{"4000", 0}}) {
        const json report = RunToEnd(
            "0@0,1@0", "--vdev net_pcap0,rx_pcap=in.pcap -- --max-frame " + std::string(longest));
        EXPECT_EQ(report["ports"][0]["oversize"], oversize);
        EXPECT_EQ(report["returned"], 2 - oversize);
    }
}

// A datagram of each family to an instance, with its fragments, the last one first.
struct Fragmented {
    AllBytes whole;
    Frames parts;
};

Fragmented FragmentedMessages() {
    Fragmented made;
    capwap::Bytes message = capwap::ControlMessage(13, 0, {});
    message.resize(1900, 7);
    for (const auto &[from, to] :
         {std::pair{"192.168.10.10", "192.168.10.9"}, std::pair{"2001:db8::10", "2001:db8::9"}}) {
        const capwap::FrameSpec spec = capwap::UdpFrame(from, 12380, to, 5246, message);
        made.whole.push_back(capwap::BuildFrame(spec));
        AllBytes parts = capwap::BuildFragments(spec, 800);
        std::ranges::reverse(parts);
        for (const capwap::Bytes &part : parts) {
            made.parts.push_back({0, static_cast<uint32_t>(part.size()), part});
        }
    }
    return made;
}

TEST_F(KesDpdk, FragmentsAreTakenAsWholeDatagramsOnRequest) {
    Write("commands", Read("commands") +
                          "source add 1 2001:db8::9 --if 7\n"
                          "tunnel add 2001:db8::10 12380 2001:db8::9 5246 --node 3\n");
    const Fragmented sent = FragmentedMessages();
    WriteCapture(Path("in.pcap"), sent.parts);
    for (const char *lcores : {"0@0,1@0", "0@0,1@0,2@0"}) {
        SCOPED_TRACE(lcores);
        const std::string arguments =
            "--vdev net_pcap0,rx_pcap=in.pcap --vdev net_pcap1,tx_pcap=3.pcap -- "
            "--port net_pcap0=7 --instance 3=net_pcap1 --max-frame 2304";
        const json apart = RunToEnd(lcores, arguments);
        EXPECT_EQ(apart["received"], 6);
        EXPECT_EQ(apart["taken"], 1) << "IPv6 fragments show no ports";
        EXPECT_FALSE(apart.contains("reassembly"));
        const json whole = RunToEnd(lcores, arguments + " --reassemble");
        EXPECT_EQ(whole["received"], 2);
        EXPECT_EQ(whole["taken"], 2);
        EXPECT_EQ(whole["reassembly"]["joined"], 6);
        EXPECT_EQ(whole["reassembly"]["datagrams"], 2);
        EXPECT_EQ(Sorted(FramesOf(Path("3.pcap"))), Sorted(sent.whole));
    }
}

TEST_F(KesDpdk, FragmentsThatNeverBecomeWholeExpire) {
    Fragmented sent = FragmentedMessages();
    sent.parts.pop_back();
    sent.parts.erase(sent.parts.begin());
    WriteCapture(Path("in.pcap"), sent.parts);
    const std::string arguments =
        "--vdev net_pcap0,rx_pcap=in.pcap -- --port net_pcap0=7 --max-frame 2304 --reassemble";
    Process engine(Serving("0@0,1@0", arguments));
    const auto expired = [&] {
        const json top = Top();
        return top.is_object() && top["reassembly"]["expired"] == 4;
    };
    EXPECT_TRUE(Becomes(expired)) << Top();
    const json report = ReportOf(engine);
    EXPECT_EQ(report["received"], 0);
    EXPECT_EQ(report["reassembly"]["held"], 0);
    // And those that the end of a run finds.
    EXPECT_EQ(RunToEnd("0@0,1@0,2@0", arguments)["reassembly"]["expired"], 4);
}

TEST_F(KesDpdk, ItsPortsAreShownWhileTrafficIsRunning) {
    Process engine(Serving("0@0,1@0",
                           "--vdev net_null0 --vdev net_null1 -- "
                           "--instance 3=net_null1 --port net_null0"));
    ASSERT_TRUE(Becomes([&] { return Top().is_object(); })) << engine.Errors();
    const json top = Top();
    EXPECT_GT(top["ports"][0]["receivedPackets"], 0);
    EXPECT_EQ(top["ports"][1]["instance"], 3);
    EXPECT_THAT(Ask("top --once"), testing::ContainsRegex("net_null1 +instance 3"));
    EXPECT_THAT(Ask("metrics"), testing::HasSubstr("\nlyr_engine_port_packets_total{port="
                                                   "\"net_null0\",role=\"network\""));
    ReportOf(engine);
}

TEST_F(KesDpdk, KeepsItsStateOverRestarts) {
    const std::string arguments = "--vdev net_null0,no-rx=1 -- --state state";
    RunToEnd("0@0,1@0", arguments);
    const std::string saved = Read("state");
    EXPECT_THAT(saved, testing::HasSubstr("\ntunnel add 192.168.10.10 12380 192.168.10.9 5246 "
                                          "--node 3\n"));
    // Without any command but the file's own, and with one that is saved at the end.
    Write("commands", "");
    RunToEnd("0@0,1@0", arguments);
    EXPECT_EQ(Read("state"), saved);
    Write("later", "tunnel default --node 5\n");
    RunToEnd("0@0,1@0", arguments + " --exec-after later");
    EXPECT_THAT(Read("state"), testing::HasSubstr("\ntunnel default --node 5\n"));
    Write("state", saved.substr(0, saved.size() / 2));
    const Outcome cut = Run("0@0,1@0", arguments + " --control control");
    EXPECT_EQ(cut.status, 2);
    EXPECT_THAT(cut.err, testing::HasSubstr("the file is cut short, or was changed"));
}

// Replaced as an installation does it: the old file stays whole for whoever has it open.
TEST_F(KesDpdk, TheModuleIsExchangedUnderTraffic) {
    const auto install = [this](const std::string &module) {
        fs::copy_file(module, Path("new"), fs::copy_options::overwrite_existing);
        fs::permissions(Path("new"), fs::perms(0644));
        fs::rename(Path("new"), Path("module.so"));
    };
    install(LYR_HOST_LIBRARY);
    Write("text.so", "no module");
    for (const char *lcores : {"0@0,1@0", "0@0,1@0,2@0"}) {
        SCOPED_TRACE(lcores);
        Process engine(Serving(lcores, Repeated(kSession) + " --vdev net_null1 -- " +
                                           "--port net_pcap0=7 --instance 3=net_null1 --module " +
                                           Path("module.so")));
        ASSERT_TRUE(Becomes([&] { return Taken() > 0; })) << engine.Errors();
        const std::string state = Ask("save");
        EXPECT_EQ(Count(state, "\ntunnel "), 2u);
        for (int round = 0; round < 5; ++round) {
            install(LYR_HOST_LIBRARY);
            EXPECT_THAT(Ask("module reload"), testing::ContainsRegex("^ok; .*with 3 commands"));
            const uint64_t taken = Taken();
            EXPECT_TRUE(Becomes([&] { return Taken() > taken; }));
        }
        install(SAMPLE_MODULE);
        const std::pair<const char *, const char *> cases[] = {
            {"", "instances up to 0, and this engine up to 27; the module runs again as it was"},
            {"text.so", "text.so': it is no shared library"},
            {"absent.so", "absent.so': No such file"},
        };
        for (const auto &[file, message] : cases) {
            const Outcome outcome =
                Shell(LYRCTL " --control control module reload " + std::string(file));
            EXPECT_EQ(outcome.status, 1);
            EXPECT_THAT(outcome.err, testing::HasSubstr(message));
            EXPECT_EQ(Ask("save"), state);
        }
        EXPECT_THAT(Ask("module reload " LYR_HOST_LIBRARY), testing::StartsWith("ok; "));
        const uint64_t taken = Taken();
        EXPECT_TRUE(Becomes([&] { return Taken() > taken; }));
        const json report = ReportOf(engine);
        EXPECT_EQ(report["leftovers"], json::array());
        EXPECT_EQ(report["contradictions"], json::array());
        EXPECT_EQ(report["classes"][0]["sent"], report["taken"]) << "by all modules";
        install(LYR_HOST_LIBRARY);
    }
}

TEST_F(KesDpdk, StartsAndStopsUnderTraffic) {
    for (int round = 0; round < 4; ++round) {
        Process engine(Serving(
            round % 2 == 0 ? "0@0,1@0" : "0@0,1@0,2@0",
            Repeated(kSession) + " --vdev net_null1 -- --port net_pcap0=7 --instance 3=net_null1"));
        ASSERT_TRUE(Becomes([&] { return Taken() > 0; })) << engine.Errors();
        const json report = ReportOf(engine);
        const json &instance = report["instances"][1];
        EXPECT_EQ(instance["cwp"],
                  instance["sent"].get<uint64_t>() + instance["refused"].get<uint64_t>());
    }
}

// A frame of an access point's control channel, from and to these ports.
capwap::Bytes ControlFrame(uint16_t from, uint16_t to) {
    Frames session = ReadCapture(kSession);
    const auto found = std::ranges::find_if(session, [](const Frame &frame) {
        return frame.bytes.size() > 38 && frame.bytes[33] == 9 && frame.bytes[34] == 12380 / 256 &&
               frame.bytes[35] == 12380 % 256 && frame.bytes[37] == 5246 % 256;
    });
    capwap::Bytes bytes = found->bytes;
    bytes[34] = static_cast<uint8_t>(from / 256), bytes[35] = static_cast<uint8_t>(from % 256);
    bytes[36] = static_cast<uint8_t>(to / 256), bytes[37] = static_cast<uint8_t>(to % 256);
    return bytes;
}

// One port brings nothing else, and the other the session, once; a third has both.
TEST_F(KesDpdk, AFloodStarvesNeitherControlPacketsNorClients) {
    Frames frames(100, {0, 0, ControlFrame(12380, 53)});
    WriteCapture(Path("flood.pcap"), frames);
    frames.push_back({0, 0, ControlFrame(12380, 5246)});
    WriteCapture(Path("mixed.pcap"), frames);
    for (const char *lcores : {"0@0,1@0", "0@0,1@0,2@0"}) {
        SCOPED_TRACE(lcores);
        Process engine(
            Serving(lcores, Repeated("flood.pcap") + " --vdev net_pcap1,rx_pcap=" + kSession +
                                " --vdev net_pcap2,tx_pcap=3.pcap -- " +
                                "--port net_pcap0 --port net_pcap1=7 " + "--instance 3=net_pcap2"));
        EXPECT_TRUE(Becomes([&] { return Taken() == 115; })) << Taken();
        const json report = ReportOf(engine);
        EXPECT_GT(report["returned"], 10000);
        AllBytes instance = FramesOf(Path("3.pcap"));
        std::erase_if(instance, IsArp);
        EXPECT_EQ(instance.size(), 111u);
    }
    Process engine(Serving("0@0,1@0", Repeated("mixed.pcap") + " --vdev net_null1 -- " +
                                          "--port net_pcap0=7 --instance 3=net_null1"));
    EXPECT_TRUE(Becomes([&] { return Taken() > 1000; })) << Taken();
    const json report = ReportOf(engine);
    EXPECT_EQ(report["undelivered"], 0);
    EXPECT_LE(report["returned"], 100 * (report["taken"].get<uint64_t>() + 1));
}

// Instance 3 takes nothing, 2 everything; both get as much.
TEST_F(KesDpdk, ASlowInstanceLosesItsOwnPacketsOnly) {
    WriteCapture(Path("both.pcap"),
                 {{0, 0, ControlFrame(12380, 5246)}, {0, 0, ControlFrame(12381, 5246)}});
    Write("commands",
          Read("commands") + "tunnel add 192.168.10.10 12381 192.168.10.9 5246 --node 2\n");
    Process engine(Serving(
        "0@0,1@0,2@0", Repeated("both.pcap") +
                           " --vdev net_null2 --vdev net_memif3,role=server,"
                           "socket-abstract=no,socket=" +
                           Path("memif") +
                           " -- --port net_pcap0=7 --instance 3=net_memif3 --instance 2=net_null2 "
                           "--channel 64"));
    EXPECT_TRUE(Becomes([&] { return Taken() > 100000; })) << Taken();
    const json report = ReportOf(engine);
    const json &fast = report["instances"][0];
    const json &slow = report["instances"][1];
    EXPECT_EQ(fast["instance"], 2);
    EXPECT_EQ(slow["sent"], 0);
    EXPECT_EQ(slow["refused"], slow["cwp"]);
    EXPECT_LE(slow["cwp"], 64 + 32);
    EXPECT_EQ(fast["sent"], fast["cwp"]);
    EXPECT_EQ(report["taken"], fast["cwp"].get<uint64_t>() + slow["cwp"].get<uint64_t>());
    EXPECT_EQ(report["undelivered"], report["classes"][0]["sendFailed"]);
}

TEST_F(KesDpdk, AMemifWaitsForItsOtherSideAndSaysSo) {
    Process engine(Serving("0@0,1@0",
                           "--vdev net_null0 --vdev net_memif0,role=client,"
                           "socket-abstract=no,socket=" +
                               Path("memif") + " -- --port net_null0 --instance 3=net_memif0"));
    EXPECT_TRUE(Becomes([&] {
        return Count(engine.Errors(),
                     "port 'net_memif0' (--instance 3): link down, waiting for "
                     "its other side") == 1;
    }));
    ReportOf(engine);
}

TEST_F(KesDpdk, WhatCannotBeHadIsNamed) {
    Write("text.pcap", "no capture");
    const std::string two = "--vdev net_null0 --vdev net_null1 -- --control control ";
    const struct {
        std::string lcores;
        std::string arguments;
        const char *message;
    } cases[] = {
        {"0@0,1@0", two + "--instance 3=net_tap9",
         "there is no port 'net_tap9'; there are: net_null0, net_null1"},
        {"0@0,1@0", two + "--instance 3=net_null1 --kernel 1",
         "port '1' is given twice: with --instance 3 and with --kernel"},
        {"0@0,1@0", two + "--instance 3=net_null1 --instance 3=net_null0",
         "--instance 3 has the ports 'net_null1' and 'net_null0'"},
        {"0@0,1@0", two + "--instance 28=net_null1", "the last instance of the module is 27"},
        {"0@0,1@0", two + "--kernel net_null0 --instance 1=net_null1",
         "no port to receive from: each has another role"},
        {"0@0,1@0", two + "--buffers 99", "--buffers '99': too few"},
        {"0@0,1@0", two + "--buffers 999999", "cannot make 999999 packet buffers"},
        {"0@0,1@0", two + "--reassemble", "--max-frame '2048' is too short for whole"},
        {"0@0,1@0", two + "--max-frame 70000", "--max-frame '70000'"},
        {"0@0,1@0", "--vdev net_pcap0,rx_pcap=text.pcap -- --control control",
         "cannot make the device 'net_pcap0'"},
        {"0@0,1@0", "-- --control control", "no port to receive from"},
        {"0@0,1@0", "--no-such-thing -- --control control", "cannot start DPDK's environment"},
        {"0@0", two, "there is no lcore that forwards"},
    };
    for (const auto &c : cases) {
        const Outcome outcome = Run(c.lcores, c.arguments);
        EXPECT_EQ(outcome.status, 2) << c.arguments;
        EXPECT_THAT(outcome.err, testing::HasSubstr(c.message)) << c.arguments;
    }
}

}  // namespace
}  // namespace programs
