#include "lb/rpc_operations.h"

#include "dist_tables.h"
#include "lb/rpc_server.h"
#include "mund/rpc.h"

namespace {

using namespace host_test;

// The operations that need a slot for a reply: what they say without one, and return then and when
// a message is missing. Null: they need none.
struct Operation {
    MundOperation code;
    uint32_t (*run)(const void *, void **);
    uint32_t (*release)(void *);
    const char *missing = nullptr;
    uint32_t result = 2;
    const char *noMemory = "%s rpc msg new fail.";
};

#define OPERATION(name) MUND_OP_##name, LyrHost_Kes_##name, LyrHost_Kes_##name##_free
const char *const kMissing = "%s inMsg or outMsg is NULL, proc fail.";
const Operation kOperations[] = {
    {OPERATION(CwpTunnel)},
    {OPERATION(KaTunnel)},
    {OPERATION(CwpSrc)},
    {OPERATION(CwpSrcReconciliation)},
    {OPERATION(DebugTraceSet)},
    {OPERATION(VerifyRcdReset)},
    {OPERATION(WapiTunnel), kMissing},
    {OPERATION(LoadBalanceDfx), kMissing},
    {OPERATION(CwpPingStat), kMissing, 1},
    {OPERATION(CwpMsgTypeStat), kMissing, 1},
    {OPERATION(CwpTraceRecord), "%s rpc inMsg or outMsg is NULL", 1},
    {OPERATION(VerifyRcdGet), "Cmp host verify recd get inMsg or outMsg is NULL.", 1,
     "Cmp host verify recd get fail."},
};

using RpcTest = TracedHostTest;

TEST_F(RpcTest, MissingMessageIsRefusedWithALine) {
    for (const Operation &operation : kOperations) {
        const std::string name = std::string("LyrHost_Kes_") + MundOperationName(operation.code);
        SCOPED_TRACE(name);
        int untouched = 0;
        void *slot = &untouched;
        TraceOn();
        EXPECT_EQ(operation.run(nullptr, &slot), operation.result);
        EXPECT_EQ(slot, &untouched);
        EXPECT_EQ(operation.release(nullptr), 0u);
        if (operation.missing == nullptr) {
            continue;
        }
        const std::vector<uint8_t> request(MundRequestSize(operation.code));
        EXPECT_EQ(operation.run(request.data(), nullptr), operation.result);
        const std::string missing = Text(operation.missing, name.c_str());
        EXPECT_THAT(TakeReports(), ElementsAre(missing, missing));
        standin::FailCall("RPC_IdlMsgCreate");
        EXPECT_EQ(operation.run(request.data(), &slot), 1u);
        EXPECT_EQ(slot, &untouched);
        EXPECT_THAT(TakeReports(), ElementsAre(Text(operation.noMemory, name.c_str())));
    }
    EXPECT_EQ(LyrHost_Kes_DebugTraceSet(nullptr, nullptr), 2u);
    EXPECT_THAT(TakeReports(), ElementsAre("LyrHost_Kes_DebugTraceSet rpc inmsg is NULL"));
}

TEST_F(RpcTest, FailedOperationStillReplies) {
    const LyrKesWapiTunnelReq tooMany = {0, 100};
    void *slot = nullptr;
    EXPECT_EQ(LyrHost_Kes_WapiTunnel(&tooMany, &slot), 1u);
    ASSERT_NE(slot, nullptr) << "the framework releases it";
    EXPECT_EQ(static_cast<LyrKesWapiTunnelRsp *>(slot)->result, 1u);
    LyrHost_Kes_WapiTunnel_free(slot);
}

}  // namespace
