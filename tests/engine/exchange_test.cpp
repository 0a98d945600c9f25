// What threads hand to each other: packets on channels, event bits.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "gate.h"
#include "kes/queue.h"
#include "kes/thread.h"
#include "standin/channels.h"
#include "standin/runtime.h"

namespace standin {
namespace {

TEST(Channels, HandPacketsOnInOrderUntilFullOrClosed) {
    HostMbuf packets[3] = {};
    const uint32_t id = OpenChannel("chn/a", 2);
    ASSERT_NE(id, TOV_CHANNEL_ID_NONE);
    EXPECT_EQ(OpenChannel("chn/a", 2), TOV_CHANNEL_ID_NONE);
    EXPECT_EQ(TOV_ChannelGetIdByName("chn/a"), id);
    EXPECT_EQ(TOV_ChannelGetIdByName("chn/b"), TOV_CHANNEL_ID_NONE);

    EXPECT_EQ(TOV_ChannelDcSend(id, &packets[0], 1000), 0u);
    EXPECT_EQ(TOV_ChannelDcSend(id, &packets[1], 1000), 0u);
    EXPECT_EQ(TOV_ChannelDcSend(id, &packets[2], 1000), 2u);
    EXPECT_EQ(ReceiveFromChannel(id), &packets[0]);
    EXPECT_EQ(TOV_ChannelDcSend(id, &packets[2], 1000), 0u) << "round the end of its ring";
    HostMbuf *burst[3] = {};
    EXPECT_EQ(ReceiveFromChannel(id, burst), 2u);
    EXPECT_TRUE(burst[0] == &packets[1] && burst[1] == &packets[2]);
    EXPECT_EQ(ReceiveFromChannel(id), nullptr);

    EXPECT_EQ(TOV_ChannelDcSend(id, &packets[0], 1000), 0u);
    CloseChannel(id);
    EXPECT_EQ(TOV_ChannelDcSend(id, &packets[1], 1000), 1u);
    EXPECT_EQ(ReceiveFromChannel(id), &packets[0]);
    EXPECT_EQ(TOV_ChannelGetIdByName("chn/a"), TOV_CHANNEL_ID_NONE);
    const uint32_t reopened = OpenChannel("chn/a", 0);
    EXPECT_NE(reopened, id);
    EXPECT_EQ(TOV_ChannelDcSend(reopened, &packets[0], 1000), 2u);
    CloseChannel(reopened);
}

struct Reader {
    Gate gate;
    std::atomic<uint32_t> read{0};
};

TEST(Events, AccumulateUntilTheirThreadReadsThem) {
    EXPECT_EQ(TOV_ThreadInfoGetByName("thd/reader"), nullptr);
    Reader reader;
    const auto run = [](void *argument) {
        auto *self = static_cast<Reader *>(argument);
        EXPECT_EQ(TOV_ThreadInfoRegByName("thd/reader"), 0u);
        EXPECT_EQ(TOV_ThreadInfoRegByName("thd/reader"), 0u) << "its own name";
        self->gate.Pass();
        for (int i = 0; i < 2; ++i) {
            uint32_t events = 0;
            EXPECT_EQ(TOV_EventRead(&events), 0u);
            self->read = events;
            self->read.notify_one();
        }
    };
    ASSERT_NE(TovThreadCreate("reader with a long name", run, &reader), nullptr);
    reader.gate.entered.wait();
    TovThreadInfo *thread = TOV_ThreadInfoGetByName("thd/reader");
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(TOV_ThreadInfoRegByName("thd/reader"), 1u) << "another thread's name";

    for (const uint32_t event : {1u, 4u, 1u}) {
        EXPECT_EQ(TOV_EventWrite(thread, event), 0u);
    }
    reader.gate.mayLeave.count_down();
    reader.read.wait(0);
    EXPECT_EQ(reader.read, 5u);
    ExpectWaitsFor([&] { EXPECT_EQ(TOV_EventWrite(thread, 2), 0u); }, JoinCreatedThreads);
    EXPECT_EQ(reader.read, 2u);

    EXPECT_EQ(TOV_EventWrite(thread, 1), 1u) << "the thread has ended";
    EXPECT_EQ(TOV_ThreadInfoGetByName("thd/reader"), nullptr);
}

TEST(Events, AreReadWithoutWaitingInAStrictEngine) {
    SetStrict(true);
    Reader reader;
    const auto run = [](void *argument) {
        auto *self = static_cast<Reader *>(argument);
        TOV_ThreadInfoRegByName("thd/strict");
        uint32_t events = 0;
        for (; (events & 1) == 0; self->read |= events) {
            EXPECT_EQ(TOV_EventRead(&events), 0u);
        }
        self->gate.Pass();
        EXPECT_EQ(TOV_EventRead(&events), 0u) << "at once";
        EXPECT_EQ(events, 0u);
    };
    ASSERT_NE(TovThreadCreate("strict", run, &reader), nullptr);
    WaitUntilCreatedThreadsIdle();  // it has looked for events
    TovThreadInfo *thread = TOV_ThreadInfoGetByName("thd/strict");
    EXPECT_EQ(TOV_EventWrite(thread, 4), 0u);
    WaitUntilCreatedThreadsIdle();
    EXPECT_EQ(reader.read, 4u) << "it has taken them";
    EXPECT_EQ(TOV_EventWrite(thread, 1), 0u);
    reader.gate.mayLeave.count_down();
    JoinCreatedThreads();
    SetStrict(false);
}

// A queue and an event are how two threads talk; nothing is lost or stranded between them.
TEST(Events, WakeTheReaderForEverythingQueued) {
    constexpr uint32_t kMessages = 20000;
    struct Stream {
        TovPipeQue *queue = TovCreatePipeQue("stream", 64);
        std::atomic<uint32_t> taken{0};
    } stream;
    const auto run = [](void *argument) {
        auto *self = static_cast<Stream *>(argument);
        TOV_ThreadInfoRegByName("thd/stream");
        for (uint32_t events = 0; self->taken < kMessages && TOV_EventRead(&events) == 0;) {
            for (void *message = nullptr; TovQueDeq(self->queue, &message) == 0;) {
                ++self->taken;
            }
        }
    };
    ASSERT_NE(TovThreadCreate("stream", run, &stream), nullptr);
    TovThreadInfo *thread = nullptr;
    while ((thread = TOV_ThreadInfoGetByName("thd/stream")) == nullptr) {
        std::this_thread::yield();
    }
    for (uint32_t sent = 0; sent < kMessages;) {
        if (TovQueEnq(stream.queue, &sent) == 0) {
            ++sent;
            TOV_EventWrite(thread, 1);
        }
    }
    JoinCreatedThreads();
    EXPECT_EQ(stream.taken, kMessages);
    TovQueDelete(stream.queue);
}

}  // namespace
}  // namespace standin
