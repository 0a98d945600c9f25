// Hand-offs counted by message type and instance.
#include "dfx/message_type_stat.h"

#include <dlfcn.h>

#include "channel/service_channel.h"
#include "dfx/diagnostics.h"
#include "dist_tables.h"
#include "kes/diag.h"
#include "module/capability.h"
#include "standin/packet_path.h"

namespace {
uint32_t assertionResult = 0;
}  // namespace

// Stands before the engine's own for the module as well.
uint32_t TovOndAssert(const char *source, uint32_t line, uint32_t code) {
    static const auto report =
        reinterpret_cast<decltype(&TovOndAssert)>(dlsym(RTLD_NEXT, "TovOndAssert"));
    return report(source, line, code) + assertionResult;
}

namespace {

using namespace host_test;

constexpr const char *kAssertion = "src/host/lyr_kes/dfx/lyr_kes_cwpstat:";

class MessageTypes : public HostTest {
  protected:
    static LyrKesCwpMsgTypeStatRsp Send(uint32_t msgType, uint32_t cwpMsgType = 0) {
        return Ask<LyrKesCwpMsgTypeStatRsp>(MUND_OP_CwpMsgTypeStat,
                                            LyrKesCwpMsgTypeStatReq{msgType, cwpMsgType});
    }
    // The counts that are not 0: "recv[3]=1 nextDrop[0]=2".
    static std::string Counts() {
        const LyrKesCwpMsgTypeStatRsp reply = Send(LYR_KES_MSG_TYPE_GET);
        EXPECT_EQ(reply.result, 0u);
        EXPECT_EQ(reply.entryNum, g_lyrHostsvcNum + 1);
        const std::pair<const char *, std::span<const uint32_t>> arrays[] = {
            {"recv", reply.recvCnt},
            {"drop", reply.dropCnt},
            {"nextRecv", reply.nextRecvCnt},
            {"nextDrop", reply.nextDropCnt},
        };
        std::string text;
        for (const auto &[name, counts] : arrays) {
            for (size_t i = 0; i < counts.size(); ++i) {
                if (counts[i] != 0) {
                    text += Text("%s%s[%zu]=%u", text.empty() ? "" : " ", name, i, counts[i]);
                }
            }
        }
        return text;
    }
};

TEST_F(MessageTypes, OnlyTheSelectedTypeAndItsSuccessorCount) {
    DeclareController();
    Instance instance(3, LYR_PKT_TYPE_CAPWAP, 2);
    ASSERT_EQ(Change<Ipv4Tunnels>(kAdd, 1, 3), 0u);
    const auto send = [](uint32_t messageType) {
        Packet packet = MakePacket(UdpFrame("172.16.0.1", 5246, kController, 5246,
                                            capwap::ControlMessage(messageType, 1, {})));
        if (standin::RunReceivePath(packet.get()) == standin::Fate::kTaken) {
            (void)packet.release();
        }
    };
    EXPECT_EQ(Counts(), "");
    send(13);
    EXPECT_EQ(Counts(), "") << "off until a type is selected";
    EXPECT_EQ(Send(LYR_KES_MSG_TYPE_SELECT, 13).result, 0u);
    send(13);
    for (const uint32_t messageType : {13u, 13u, 14u, 12u, 15u}) {
        send(messageType);  // the channel is full
    }
    EXPECT_EQ(Counts(), "recv[3]=1 drop[3]=2 nextDrop[3]=1");
    instance.Receive();
    send(14);
    EXPECT_EQ(Counts(), "recv[3]=1 drop[3]=2 nextRecv[3]=1 nextDrop[3]=1");
    EXPECT_EQ(Send(LYR_KES_MSG_TYPE_RESET).result, 0u);
    EXPECT_EQ(Counts(), "");
    send(13);
    EXPECT_EQ(Counts(), "drop[3]=1") << "a reset keeps the type";
    Send(LYR_KES_MSG_TYPE_SELECT, 12);
    EXPECT_EQ(Counts(), "") << "another type starts from zero";
    send(13);
    EXPECT_EQ(Counts(), "nextDrop[3]=1");
    Send(LYR_KES_MSG_TYPE_SELECT, LYR_KES_MSG_TYPE_OFF);
    send(12);
    EXPECT_EQ(Counts(), "");
    while (instance.Receive() != nullptr) {
    }

    EXPECT_EQ(Send(7, 13).result, 2u);
    EXPECT_FALSE(LyrKes_IsPktMsgTypeStatEnabled());
}

TEST_F(MessageTypes, NoKeyBeyondTheLastInstanceCounts) {
    Send(LYR_KES_MSG_TYPE_SELECT, 13);
    EXPECT_TRUE(LyrKes_IncrPktMsgTypeStatRecvCnt(13, 27));
    EXPECT_TRUE(LyrKes_IncrPktMsgTypeStatDropCnt(14, 0));
    EXPECT_FALSE(LyrKes_IncrPktMsgTypeStatRecvCnt(13, 28));
    EXPECT_FALSE(LyrKes_IncrPktMsgTypeStatDropCnt(13, 0xFFFFFFFF));
    EXPECT_FALSE(LyrKes_IncrPktMsgTypeStatRecvCnt(15, 3));
    EXPECT_EQ(Counts(), "recv[27]=1 nextDrop[0]=1");
}

TEST_F(MessageTypes, MoreInstancesThanAReplyHoldsAreRefused) {
    const struct { uint32_t svcNum, result; } cases[] = {{0, 0}, {31, 0}, {32, 1}, {0xFFFFFFFF, 0}};
    for (const auto &[svcNum, result] : cases) {
        SCOPED_TRACE(svcNum);
        standin::SetCapability("WCWP_SPEC_SVC_NUM", svcNum);
        Restart();
        Send(LYR_KES_MSG_TYPE_SELECT, 13);
        LyrKes_IncrPktMsgTypeStatRecvCnt(13, 0);
        const LyrKesCwpMsgTypeStatRsp reply = Send(LYR_KES_MSG_TYPE_GET);
        EXPECT_EQ(reply.result, result);
        EXPECT_EQ(reply.entryNum, svcNum + 1);
        EXPECT_EQ(reply.recvCnt[0], svcNum <= 31 ? 1u : 0u);
    }
}

TEST_F(MessageTypes, NothingCountsUnlessEveryArrayIsThere) {
    for (uint32_t n = 1; n <= 4; ++n) {
        LyrKes_DeinitCwpStatDfx();
        standin::FailCall("TovMemAllocInner", n);
        ForgetLines();
        assertionResult = 7;
        EXPECT_EQ(LyrKes_InitCwpStatDfx(), 7u) << "the assertion's result";
        assertionResult = 0;
        EXPECT_THAT(standin::ModuleMemoryByTag(kModuleId),
                    Each(::testing::Not(StartsWith("LyrKes_InitPktMsgTypeStat"))));
        EXPECT_THAT(TakeLines(LineKind::kAssertion), ElementsAre(StartsWith(kAssertion)));
    }
    EXPECT_EQ(Send(LYR_KES_MSG_TYPE_SELECT, 13).result, 0u);
    EXPECT_FALSE(LyrKes_IncrPktMsgTypeStatRecvCnt(13, 3));
    EXPECT_FALSE(LyrKes_IncrPktMsgTypeStatDropCnt(13, 3));
    EXPECT_EQ(Send(LYR_KES_MSG_TYPE_RESET).result, 0u);
    EXPECT_THAT(TakeLines(LineKind::kAssertion), AllOf(SizeIs(4), Each(StartsWith(kAssertion))));
    const LyrKesCwpMsgTypeStatRsp reply = Send(LYR_KES_MSG_TYPE_GET);
    EXPECT_EQ(reply.result, 1u);
    EXPECT_EQ(reply.entryNum, 0u);
    EXPECT_THAT(TakeLines(LineKind::kAssertion),
                ElementsAre(StartsWith("src/host/lyr_kes/lb/lyr_kes_mund:")));

    // An array that is there stays, with what it counts; a failure leaves it alone.
    uint32_t kept[28] = {};
    g_LyrHostPktMsgTypeStat.dropCnt = kept;
    standin::FailCall("TovMemAllocInner", 3);
    LyrKes_InitPktMsgTypeStat();
    EXPECT_EQ(g_LyrHostPktMsgTypeStat.recvCnt, nullptr);
    EXPECT_EQ(g_LyrHostPktMsgTypeStat.dropCnt, kept);
    g_LyrHostPktMsgTypeStat.dropCnt = nullptr;

    // One of two arrays is not enough.
    for (const auto array : {&LyrKesPktMsgTypeStat::dropCnt, &LyrKesPktMsgTypeStat::nextDropCnt}) {
        g_LyrHostPktMsgTypeStat.*array = kept;
        g_LyrHostPktMsgTypeStat.statMsgType = 13;
        EXPECT_FALSE(LyrKes_IncrPktMsgTypeStatDropCnt(13, 3));
        EXPECT_FALSE(LyrKes_IncrPktMsgTypeStatDropCnt(14, 3));
        EXPECT_EQ(Send(LYR_KES_MSG_TYPE_GET).result, 1u);
        g_LyrHostPktMsgTypeStat.*array = nullptr;
    }
    EXPECT_EQ(LyrKes_InitPktMsgTypeStat(), 0u);
}

}  // namespace
