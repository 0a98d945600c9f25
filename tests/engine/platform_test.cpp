// What surrounds a module: memory, output, and faults on demand.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "engine_under_test.h"
#include "kes/board.h"
#include "kes/bounded.h"
#include "kes/capability.h"
#include "kes/diag.h"
#include "kes/im.h"
#include "kes/memory.h"
#include "kes/thread.h"
#include "standin/channels.h"
#include "standin/runtime.h"

namespace standin {
namespace {

using Texts = std::vector<std::string>;

TEST(Memory, IsAccountedByModuleAndPlace) {
    constexpr uint32_t kModule = 4711;
    void *a = TovMemAllocInner(kModule, 0, 100, 0, "Tables", 10);
    void *b = TovMemAllocInner(kModule, 0, 28, 0, "Tables", 10);
    void *c = TovMemAllocInner(kModule, 0, 0, 0, "Flags", 7);
    void *other = TovMemAllocInner(kModule + 1, 0, 1, 0, "Tables", 10);
    for (void *block : {a, b, c, other}) {
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0u);
    }
    std::memset(a, 0, 100);
    EXPECT_EQ(BlockSize(b), 28u);
    EXPECT_EQ(ModuleMemory(kModule).blocks, 3u);
    EXPECT_EQ(ModuleMemory(kModule).bytes, 128u);
    EXPECT_EQ(ModuleMemoryByTag(kModule), (Texts{"Flags:7 1 0", "Tables:10 2 128"}));
    TovMemFreeInner(b);
    TovMemFreeInner(nullptr);
    EXPECT_EQ(ModuleMemoryByTag(kModule), (Texts{"Flags:7 1 0", "Tables:10 1 100"}));
    for (void *block : {c, a, other}) {
        TovMemFreeInner(block);
    }
    EXPECT_EQ(ModuleMemory(kModule).blocks, 0u);
    EXPECT_EQ(ModuleMemory(kModule).bytes, 0u);
    EXPECT_TRUE(ModuleMemoryByTag(kModule).empty());
}

// Blocks of all sizes come and go on several threads: none reaches into another or into a cache
// line that it need not.
TEST(Memory, BlocksKeepToThemselves) {
    constexpr uint32_t kModule = 4713;
    const auto work = [](uint32_t seed) {
        std::mt19937 random(seed);
        std::vector<std::span<uint8_t>> blocks;
        for (int step = 0; step < 6000; ++step) {
            const uint32_t longest = 16u << random() % 12 << (random() % 500 == 0 ? 7 : 0);
            const uint32_t size = static_cast<uint32_t>(random()) % longest + 1;
            auto *block = static_cast<uint8_t *>(TovMemAllocInner(kModule, 0, size, 0, "x", 1));
            const uintptr_t start = reinterpret_cast<uintptr_t>(block) % 64;
            EXPECT_TRUE(start == 0 || start + size <= 64) << size << " bytes at " << start;
            std::ranges::fill_n(block, size, static_cast<uint8_t>(seed + size));
            blocks.emplace_back(block, size);
            while (blocks.size() > (step < 3000 ? 1000 : 300) ||
                   (step == 5999 && !blocks.empty())) {
                std::swap(blocks[random() % blocks.size()], blocks.back());
                for (const uint8_t byte : blocks.back()) {
                    ASSERT_EQ(byte, static_cast<uint8_t>(seed + blocks.back().size()));
                }
                TovMemFreeInner(blocks.back().data());
                blocks.pop_back();
            }
        }
    };
    std::thread other(work, 1);
    work(2);
    other.join();
    EXPECT_EQ(ModuleMemory(kModule).blocks, 0u);
}

TEST(Memory, IsGivenBack) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "checkers keep what is freed";
#endif
    constexpr size_t kTotal = 64 << 20;
    const size_t before = OccupiedBytes();
    for (const uint32_t size : {1000u, 100000u, uint32_t{kTotal}}) {
        std::vector<void *> blocks(kTotal / size);
        std::ranges::generate(blocks, [&] { return TovMemAllocInner(1, 0, size, 0, "test", 1); });
        EXPECT_GT(OccupiedBytes(), before + kTotal / 2) << "they are filled";
        std::ranges::for_each(blocks, TovMemFreeInner);
        EXPECT_LT(OccupiedBytes(), before + kTotal / 8) << size;
    }
}

TEST(PlatformDeathTest, WhatNoEngineHasToBear) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    alignas(16) static char foreign[256];
    EXPECT_DEATH(TovMemFreeInner(foreign + 128), "is no block of the allocator");
    const auto freeTwice = [] {
        void *block = TovMemAllocInner(1, 0, 100, 0, "test", 1);
        TovMemFreeInner(block);
        TovMemFreeInner(block);
    };
    EXPECT_DEATH(freeTwice(), "is no block of the allocator");
    const auto strictly = [](auto call) {
        SetStrict(true);
        call();
    };
    EXPECT_DEATH(strictly([] { TovMemFreeInner(nullptr); }), "TovMemFreeInner\\(null\\)");
    EXPECT_DEATH(strictly([] { TOV_EventWrite(nullptr, 1); }), "TOV_EventWrite\\(null\\)");
    EXPECT_EQ(TOV_EventWrite(nullptr, 1), 1u);
}

class Output : public testing::Test {
  protected:
    void SetUp() override {
        SetLineSink([this](LineKind kind, std::string_view line) {
            lines_.push_back(std::string(LineKindName(kind)) + ": " + std::string(line));
        });
    }
    void TearDown() override {
        SetLineSink({});
        EXPECT_EQ(CurrentHoldings().imMessages, 0u);
    }
    Texts lines_;
};

TEST_F(Output, ShowsAlarmsAndLogMessagesInFull) {
    ImSysTime time{2024, 2, 29, 23, 5, 9, 4, 7, 0, 9007};
    const AlarmCounts before = SentAlarms();
    for (const uint32_t type : {IM_ALARM_RAISE, IM_ALARM_RESTORE, IM_ALARM_RAISE}) {
        const ImAlarmComAttr attributes{type, 0, 4, 0, &time, 1, {}};
        ImAgentMsg *alarm = TOV_ImAgentMsgCreate(IM_MSG_ALARM, 0x0F2C2004);
        time.milliseconds = 7;
        EXPECT_EQ(TOV_ImAgentSetAlarmComAttr(alarm, &attributes), 0u);
        time.milliseconds = 8;  // the time is copied
        EXPECT_EQ(TOV_ImAgentSend(alarm), 0u);
    }
    ImAgentMsg *log = TOV_ImAgentMsgCreate(IM_MSG_LOG, 0x0F2C1008);
    EXPECT_EQ(TOV_ImAgentAddPara(log, IM_PARA_TEXT, 3, "a\nb"), 0u);
    EXPECT_EQ(CurrentHoldings().imMessages, 1u);
    EXPECT_EQ(TOV_ImAgentSend(log), 0u);
    ImAgentMsg *incomplete = TOV_ImAgentMsgCreate(IM_MSG_ALARM, 1);
    EXPECT_EQ(TOV_ImAgentSend(incomplete), 1u) << "no attributes";

    const std::string time7 = "time=2024-02-29T23:05:09.007Z weekday=4 minute-ms=9007 time-kind=1";
    const std::string raise = "alarm: raise id=0x0F2C2004 type=1 severity=4 clear-type=0 " + time7;
    EXPECT_EQ(lines_,
              (Texts{raise, "alarm: restore id=0x0F2C2004 type=2 severity=4 clear-type=0 " + time7,
                     raise, "agent-log: log id=0x0F2C1008 para-type=25 length=3 \"a\\x0Ab\""}));
    EXPECT_EQ(SentAlarms().raised - before.raised, 2u);
    EXPECT_EQ(SentAlarms().restored - before.restored, 1u);
}

// --- faults ---

bool Allocate() {
    void *block = TovMemAllocInner(1, 0, 1, 0, "test", 1);
    TovMemFreeInner(block);
    return block != nullptr;
}

class Faults : public testing::Test {
  protected:
    void TearDown() override {
        ClearFaults();
        EXPECT_EQ(CurrentHoldings(), Holdings{});
    }
};

// Operations whose failure no test of the module shows.
TEST_F(Faults, OperationsFailWhenTold) {
    const uint32_t channel = OpenChannel("chn/faults", 1);
    SetCapability("WCWP_SPEC_SVC_NUM", 1);
    TovThreadInfo *thread = nullptr;
    uint32_t value = 0;
    char text[8] = "";
    const std::pair<std::string_view, std::function<bool()>> operations[] = {
        {"TOV_ChannelGetIdByName", [&] { return TOV_ChannelGetIdByName("chn/faults") == channel; }},
        {"TOV_ThreadInfoGetByName",
         [&] { return TOV_ThreadInfoGetByName("thd/faults") == thread; }},
        {"TOV_EventWrite", [&] { return TOV_EventWrite(thread, 1) == 0; }},
        {"TovCapabilityQueryItem",
         [&] { return TovCapabilityQueryItem("WCWP_SPEC_SVC_NUM", &value, 4) == 0; }},
        {"strcat_s", [&] { return strcat_s(text, sizeof text, "") == 0; }},
    };
    // A thread of its own, so that its registration ends with it.
    std::thread([&] {
        TOV_ThreadInfoRegByName("thd/faults");
        thread = TOV_ThreadInfoGetByName("thd/faults");
        EXPECT_NE(thread, nullptr);
        for (const auto &[name, operation] : operations) {
            SCOPED_TRACE(name);
            EXPECT_TRUE(operation());
            FailCall(name);
            EXPECT_FALSE(operation());
            ClearFaults();
            EXPECT_TRUE(operation());
        }
    }).join();
    CloseChannel(channel);
    ClearCapabilities();
}

TEST_F(Faults, StrikeTheCallsTheyWereSetFor) {
    const auto outcomes = [](int calls) {
        std::string text;
        for (int i = 0; i < calls; ++i) {
            text += Allocate() ? '+' : '-';
        }
        return text;
    };
    EXPECT_EQ(outcomes(2), "++");
    FailCall("TovMemAllocInner", 3);
    EXPECT_EQ(outcomes(2), "++");
    FailCall("TovMemAllocInner", 2);
    EXPECT_EQ(outcomes(4), "--++");
    EXPECT_EQ(CallCount("TovMemAllocInner"), 4u);
    FailEveryCall("TovMemAllocInner");
    EXPECT_EQ(outcomes(3), "---");
    ClearFaults();
    EXPECT_EQ(outcomes(2), "++");
    EXPECT_EQ(CallCount("TovMemAllocInner"), 0u);
}

TEST_F(Faults, AreNotSetForWhatCannotFail) {
    EXPECT_THROW(FailCall("TovMemFreeInner"), std::invalid_argument);
    EXPECT_THROW(FailEveryCall("TovMemAlloc"), std::invalid_argument);
    EXPECT_THROW(CallCount(""), std::invalid_argument);
    EXPECT_THROW(FailCall("TovMemAllocInner", 0), std::invalid_argument);
}

}  // namespace
}  // namespace standin
