#include "lb/rpc_operations.h"

#include <gmock/gmock.h>

#include "dist_tables.h"
#include "lb/rpc_server.h"
#include "mund/rpc.h"

namespace {

using namespace host_test;
using standin::LineKind;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::StartsWith;

struct Operation {
    MundOperation code;
    uint32_t (*run)(const void *, void **);
    uint32_t (*release)(void *);
    const char *complaint = nullptr;  // about a null request
};

#define OPERATION(name) MUND_OP_##name, LyrHost_Kes_##name, LyrHost_Kes_##name##_free
const Operation kOperations[] = {
    {OPERATION(CwpTunnel)},
    {OPERATION(KaTunnel)},
    {OPERATION(WapiTunnel), "LyrHost_Kes_WapiTunnel inMsg or outMsg is NULL, proc fail."},
    {OPERATION(CwpSrc)},
    {OPERATION(CwpSrcReconciliation)},
    {OPERATION(DebugTraceSet), "LyrHost_Kes_DebugTraceSet rpc inmsg is NULL"},
};

using RpcTest = TracedHostTest;

TEST_F(RpcTest, NullMessages) {
    for (const Operation &operation : kOperations) {
        SCOPED_TRACE(MundOperationName(operation.code));
        int untouched = 0;
        void *slot = &untouched;
        ForgetLines();
        EXPECT_EQ(operation.run(nullptr, &slot), 2u);
        const Texts complaints =
            operation.complaint != nullptr ? Texts{operation.complaint} : Texts{};
        EXPECT_EQ(TakeReports(), complaints);
        EXPECT_EQ(slot, &untouched);
        EXPECT_EQ(operation.release(nullptr), 0u);
    }
    const LyrKesWapiTunnelReq request = {0, 1};
    EXPECT_EQ(LyrHost_Kes_WapiTunnel(&request, nullptr), 2u);
    EXPECT_THAT(TakeReports(), ElementsAre(kOperations[2].complaint));
}

TEST_F(RpcTest, RepliesAndTheirRelease) {
    for (const Operation &operation : kOperations) {
        const char *name = MundOperationName(operation.code);
        SCOPED_TRACE(name);
        const std::vector<uint8_t> request(MundRequestSize(operation.code));
        const uint32_t replySize = MundReplySize(operation.code);
        int untouched = 0;
        void *slot = &untouched;
        EXPECT_EQ(operation.run(request.data(), &slot), 0u);
        EXPECT_EQ(slot == &untouched, replySize == 0);
        if (replySize == 0) {
            slot = RPC_IdlMsgCreate(8, LyrHost_GetMundModuleId(), "test");
        } else {
            EXPECT_EQ(standin::BlockSize(slot), replySize);
            EXPECT_THAT(standin::ModuleMemoryByTag(g_uiMundModuleId),
                        ElementsAre(StartsWith(std::string("LyrHost_Kes_") + name + ":")));
        }
        ASSERT_EQ(MundMessagesInUse(), 1u);
        EXPECT_EQ(operation.release(slot), 0u);
        EXPECT_EQ(MundMessagesInUse(), 0u);
    }
}

TEST_F(RpcTest, ReplyOfAFailedOperation) {
    const LyrKesWapiTunnelReq tooMany = {0, 100};
    void *slot = nullptr;
    standin::FailCall("RPC_IdlMsgCreate");
    ForgetLines();
    EXPECT_EQ(LyrHost_Kes_WapiTunnel(&tooMany, &slot), 1u);
    EXPECT_THAT(TakeReports(), ElementsAre("LyrHost_Kes_WapiTunnel rpc msg new fail."));
    EXPECT_EQ(slot, nullptr);

    EXPECT_EQ(LyrHost_Kes_WapiTunnel(&tooMany, &slot), 1u);
    ASSERT_NE(slot, nullptr) << "the framework releases it";
    EXPECT_EQ(static_cast<LyrKesWapiTunnelRsp *>(slot)->result, 1u);
    LyrHost_Kes_WapiTunnel_free(slot);
}

TEST_F(RpcTest, UnknownSubOperation) {
    EXPECT_EQ(Call(MUND_OP_CwpSrc, SourceRequest(2, 1, kController)), 2u);
    EXPECT_EQ(g_LyrHostCwpSrcRcd[0].srcType, CWP_SRC_FREE);
}

TEST_F(RpcTest, RegistrationAndRemovalThatFail) {
    EXPECT_EQ(LyrHost_GetMundModuleId(), g_uiMundModuleId);
    ForgetLines();
    EXPECT_EQ(LyrKes_RavelRpcServerCreate(), 1u) << "open already";
    EXPECT_THAT(Lines(LineKind::kReport), ElementsAre("create ravel rpc server failed, ret:2."));
    EXPECT_THAT(
        TakeLines(LineKind::kAssertion),
        ElementsAre(AllOf(StartsWith("src/host/lyr_kes/lb/lyr_kes_mund:"), EndsWith(" code 0"))));
    LyrKes_RavelRpcServerDestroy();
    EXPECT_THAT(Lines(LineKind::kReport), IsEmpty());
    LyrKes_RavelRpcServerDestroy();
    EXPECT_THAT(TakeReports(), ElementsAre("destroy ravel rpc server failed, ret:1."));
    standin::FailCall("strcpy_s");
    EXPECT_EQ(LyrKes_RavelRpcServerCreate(), 1u);
    EXPECT_THAT(TakeReports(), IsEmpty());
    EXPECT_EQ(LyrKes_RavelRpcServerCreate(), 0u);
}

}  // namespace
