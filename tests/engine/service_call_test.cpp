// The service by calls within the engine.
#include <thread>

#include "kes/memory.h"
#include "mund/call.h"
#include "service_fixture.h"
#include "standin/runtime.h"

namespace {

struct Result {
    MundStatus status;
    uint32_t result;
    Bytes reply;
};

Result Call(uint32_t operation, const Bytes &request, uint32_t capacity) {
    Bytes odd(1 + request.size());  // an odd address on the caller's side
    std::ranges::copy(request, odd.begin() + 1);
    Result call = {MUND_STATUS_COUNT, 0, Bytes(capacity)};
    uint32_t size = 99;
    call.status = MundCall(operation, odd.data() + 1, static_cast<uint32_t>(request.size()),
                           call.reply.data(), capacity, &size, &call.result);
    EXPECT_LE(size, capacity);
    call.reply.resize(size);
    return call;
}

TEST_F(Service, DeliversRequestsAndReleasesReplies) {
    for (uint32_t operation = 0; operation < MUND_OPERATION_COUNT; ++operation) {
        SCOPED_TRACE(MundOperationName(operation));
        const Bytes request = RequestOf(operation, 77);
        const uint32_t size = MundReplySize(operation);
        released = 0;
        const Result fits = Call(operation, request, size);
        EXPECT_EQ(fits.status, MUND_STATUS_OK);
        ExpectAnswer(operation, request, fits.result, fits.reply);
        if (size == 0) {
            EXPECT_EQ(released, 0u);
            continue;
        }
        const Result tooLong = Call(operation, request, size - 1);
        EXPECT_EQ(tooLong.status, MUND_STATUS_REPLY_TOO_LONG);
        EXPECT_TRUE(tooLong.reply.empty());
        EXPECT_EQ(released, 2u);
        standin::FailCall("RPC_IdlMsgCreate");
        const Result none = Call(operation, request, size);
        standin::ClearFaults();
        EXPECT_EQ(none.status, MUND_STATUS_OK);
        EXPECT_TRUE(none.reply.empty());
        EXPECT_EQ(released, 2u);
    }
}

TEST_F(Service, BoundsWhatBatchesLeaveBehind) {
    constexpr uint32_t kMost = 64u << 20;
    const auto batchOf = [](uint32_t count) {
        constexpr uint32_t kBatch = MUND_OP_BatchReconciliation;
        return Call(kBatch, RequestOf(kBatch, count), 0).status;
    };
    void *others = TovMemAllocInner(1, 0, kMost, 0, "others", 1);
    leaves = kMost - 168 - 8;
    EXPECT_EQ(batchOf(2), MUND_STATUS_OK);
    leaves = 0;
    EXPECT_EQ(batchOf(2), MUND_STATUS_OK);
    EXPECT_EQ(batchOf(3), MUND_STATUS_BUSY);
    EXPECT_EQ(Call(MUND_OP_CwpTunnel, Bytes(64), 0).status, MUND_STATUS_OK);
    TovMemFreeInner(left);
    EXPECT_EQ(batchOf(3), MUND_STATUS_OK);
    TovMemFreeInner(others);
}

// In a strict engine, closing does not wait for calls.
TEST_F(Service, ClosingWaitsForRunningCallsUnlessStrict) {
    for (const bool strict : {false, true}) {
        SCOPED_TRACE(strict);
        standin::SetStrict(strict);
        Gate gate;
        gateOfOperation = &gate;
        released = 0;
        std::thread caller([] {
            const Bytes request = RequestOf(MUND_OP_VerifyRcdGet, 1);
            const Result call =
                Call(MUND_OP_VerifyRcdGet, request, MundReplySize(MUND_OP_VerifyRcdGet));
            ExpectAnswer(MUND_OP_VerifyRcdGet, request, call.result, call.reply);
        });
        gate.entered.wait();
        const auto release = [&] {
            while (Call(MUND_OP_VerifyRcdReset, {}, 0).status == MUND_STATUS_OK) {
            }
            EXPECT_EQ(Call(MUND_OP_VerifyRcdReset, {}, 0).status, MUND_STATUS_NO_SERVICE);
            gate.mayLeave.count_down();
        };
        if (strict) {
            EXPECT_EQ(RavelRpcServerUnReg(MUND_SERVICE_NAME), 0u);
            release();
        } else {
            ExpectWaitsFor(release, [] {
                EXPECT_EQ(RavelRpcServerUnReg(MUND_SERVICE_NAME), 0u);
                EXPECT_EQ(released, 1u) << "the release of the reply included";
            });
            Service::SetUp();
        }
        caller.join();
    }
    standin::SetStrict(false);
}

}  // namespace
