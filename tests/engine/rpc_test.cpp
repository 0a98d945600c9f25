// Calls of operations by name: what they are given, what comes back, and when the service closes.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <thread>
#include <vector>

#include "gate.h"
#include "kes/memory.h"
#include "mund/call.h"
#include "mund/messages.h"
#include "mund/rpc.h"
#include "standin/runtime.h"

namespace {

// What the operations saw and were told.
struct Seen {
    uint32_t calls = 0;
    bool aligned = true;
    std::vector<uint8_t> request;
    std::vector<const void *> freed;
} seen;

uint32_t replySize = 4;
uint32_t leaves = 0;  // what a batch leaves behind of itself
void *left = nullptr;
Gate *gate = nullptr;

// Every operation; some have a reply, and one waits.
uint32_t Run(uint32_t operation, const void *request, void **reply) {
    if (operation == MUND_OP_ResetPktStatistics) {
        gate->Pass();
    } else {
        ++seen.calls;
        if (operation == MUND_OP_BatchReconciliation && leaves != 0) {
            left = TovMemAllocInner(1, 0, leaves, 0, "Run", 1);
        }
        seen.aligned = request != nullptr && reinterpret_cast<uintptr_t>(request) % 8 == 0;
        const auto *bytes = static_cast<const uint8_t *>(request);
        seen.request.assign(bytes, bytes + MundRequestSize(operation));
    }
    if (MundReplySize(operation) != 0) {
        *reply = RPC_IdlMsgCreate(replySize, g_uiMundModuleId, "Run");
        if (*reply == nullptr) {
            return 1;
        }
        std::memset(*reply, 0x5A, replySize);
    }
    return operation == MUND_OP_CwpTunnel ? 7 : 0;
}

uint32_t SeeFree(void *reply) {
    seen.freed.push_back(reply);
    return reply == nullptr ? 0 : RPC_IdlMsgDestroy(reply, g_uiMundModuleId, "test_free");
}

}  // namespace

extern "C" {

#define WITHOUT_TWIN(name)                                                   \
    KES_API uint32_t LyrHost_Kes_##name(const void *request, void **reply) { \
        return Run(MUND_OP_##name, request, reply);                          \
    }
#define OPERATION(name)                                       \
    WITHOUT_TWIN(name)                                        \
    KES_API uint32_t LyrHost_Kes_##name##_free(void *reply) { \
        return SeeFree(reply);                                \
    }

OPERATION(CwpTunnel)
OPERATION(WapiTunnel)
OPERATION(BatchReconciliation)
OPERATION(VerifyRcdReset)
OPERATION(ResetPktStatistics)
WITHOUT_TWIN(KaTunnel)  // it is none

}  // extern "C"

namespace {

struct Outcome {
    MundStatus status;
    uint32_t result = 99;
    std::vector<uint8_t> reply;
};

Outcome Call(uint32_t operation, const std::vector<uint8_t> &request, uint32_t capacity = 64) {
    Outcome outcome{};
    outcome.reply.resize(capacity);
    uint32_t size = 99;
    outcome.status = MundCall(operation, request.data(), static_cast<uint32_t>(request.size()),
                              outcome.reply.data(), capacity, &size, &outcome.result);
    EXPECT_LE(size, capacity);
    outcome.reply.resize(size);
    return outcome;
}

// A call that runs until it may finish.
class WaitingCall {
  public:
    WaitingCall() {
        gate = &gate_;
        caller_ = std::thread([] {
            const Outcome outcome = Call(MUND_OP_ResetPktStatistics, {});
            EXPECT_EQ(outcome.status, MUND_STATUS_OK);
            EXPECT_EQ(outcome.reply.size(), 4u);
        });
        gate_.entered.wait();
    }
    void Finish() {
        gate_.mayLeave.count_down();
        caller_.join();
    }

  private:
    Gate gate_;
    std::thread caller_;
};

LyrKesRpcServerRegInfo Registration() {
    LyrKesRpcServerRegInfo info{};
    info.serviceNumber = MUND_SERVICE_NUMBER;
    std::strcpy(info.serviceName, MUND_SERVICE_NAME);
    return info;
}

class Rpc : public testing::Test {
  protected:
    void SetUp() override {
        seen = {};
        replySize = 4;
        const LyrKesRpcServerRegInfo info = Registration();
        ASSERT_EQ(RegRavelRpcServerToKes(&info), 0u);
    }
    void TearDown() override {
        RavelRpcServerUnReg(MUND_SERVICE_NAME);
        EXPECT_EQ(MundMessagesInUse(), 0u);
        EXPECT_EQ(standin::ModuleMemory(g_uiMundModuleId).blocks, 0u);
    }
};

std::vector<uint8_t> Numbers(size_t count) {
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7);
    }
    return bytes;
}

std::vector<uint8_t> BatchOf(uint8_t count) {
    std::vector<uint8_t> wire = Numbers(8 + count * 80u);
    std::ranges::copy(std::array<uint8_t, 4>{count}, wire.begin());
    return wire;
}

TEST_F(Rpc, DeliversRequestsAndResults) {
    // An odd address on the caller's side.
    const std::vector<uint8_t> buffer = Numbers(65);
    uint32_t size = 99;
    uint32_t result = 99;
    EXPECT_EQ(MundCall(MUND_OP_CwpTunnel, buffer.data() + 1, 64, nullptr, 0, &size, &result),
              MUND_STATUS_OK);
    EXPECT_EQ(result, 7u);
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(seen.aligned);
    EXPECT_TRUE(std::equal(seen.request.begin(), seen.request.end(), buffer.begin() + 1));
    EXPECT_TRUE(seen.freed.empty()) << "there was no reply";

    EXPECT_EQ(MundCall(MUND_OP_VerifyRcdReset, nullptr, 0, nullptr, 0, &size, &result),
              MUND_STATUS_OK);
    EXPECT_TRUE(seen.aligned) << "an empty request has an address";
}

TEST_F(Rpc, ReturnsRepliesAndReleasesThem) {
    EXPECT_EQ(Call(MUND_OP_WapiTunnel, Numbers(8), 4).reply, std::vector<uint8_t>(4, 0x5A));
    EXPECT_EQ(seen.freed.size(), 1u);

    replySize = 65;
    const Outcome tooLong = Call(MUND_OP_WapiTunnel, Numbers(8), 64);
    EXPECT_EQ(tooLong.status, MUND_STATUS_REPLY_TOO_LONG);
    EXPECT_TRUE(tooLong.reply.empty());
    EXPECT_EQ(seen.freed.size(), 2u);

    standin::FailCall("RPC_IdlMsgCreate");
    const Outcome none = Call(MUND_OP_WapiTunnel, Numbers(8));
    standin::ClearFaults();
    EXPECT_EQ(none.status, MUND_STATUS_OK);
    EXPECT_EQ(none.result, 1u);
    EXPECT_TRUE(none.reply.empty());
    EXPECT_EQ(seen.freed.size(), 2u);
}

TEST_F(Rpc, RefusesWhatTheModuleLacks) {
    const std::pair<uint32_t, size_t> cases[] = {
        {MUND_OP_KaTunnel, 24}, {MUND_OP_CwpPingStat, 28}, {MUND_OPERATION_COUNT, 0}};
    for (const auto &[operation, size] : cases) {
        EXPECT_EQ(Call(operation, Numbers(size)).status, MUND_STATUS_NO_OPERATION) << operation;
    }
    EXPECT_EQ(seen.calls, 0u);
}

TEST_F(Rpc, BoundsWhatBatchesLeaveBehind) {
    constexpr uint32_t kMost = 64u << 20;
    const auto call = [](uint32_t operation, const std::vector<uint8_t> &request) {
        return Call(operation, request).status;
    };
    void *others = TovMemAllocInner(1, 0, kMost, 0, "others", 1);
    leaves = kMost - 168 - 8;
    EXPECT_EQ(call(MUND_OP_BatchReconciliation, BatchOf(2)), MUND_STATUS_OK);
    leaves = 0;
    EXPECT_EQ(call(MUND_OP_BatchReconciliation, BatchOf(2)), MUND_STATUS_OK);
    EXPECT_EQ(call(MUND_OP_BatchReconciliation, BatchOf(3)), MUND_STATUS_BUSY);
    EXPECT_EQ(call(MUND_OP_CwpTunnel, Numbers(64)), MUND_STATUS_OK);
    TovMemFreeInner(left);
    EXPECT_EQ(call(MUND_OP_BatchReconciliation, BatchOf(3)), MUND_STATUS_OK);
    TovMemFreeInner(others);
}

TEST_F(Rpc, ClosingWaitsForRunningCalls) {
    WaitingCall call;
    const auto release = [&] {
        MundStatus late = MUND_STATUS_OK;
        do {
            late = Call(MUND_OP_VerifyRcdReset, {}).status;
        } while (late == MUND_STATUS_OK);
        EXPECT_EQ(late, MUND_STATUS_NO_SERVICE);
        call.Finish();
    };
    ExpectWaitsFor(release, [] {
        EXPECT_EQ(RavelRpcServerUnReg(MUND_SERVICE_NAME), 0u);
        EXPECT_EQ(seen.freed.size(), 1u) << "closing includes the release of the reply";
    });
}

TEST_F(Rpc, ClosingWaitsForNothingInAStrictEngine) {
    standin::SetStrict(true);
    WaitingCall call;
    EXPECT_EQ(RavelRpcServerUnReg(MUND_SERVICE_NAME), 0u);
    call.Finish();
    standin::SetStrict(false);
}

TEST_F(Rpc, OpensOnceAndOnlyForAValidRecord) {
    LyrKesRpcServerRegInfo info = Registration();
    EXPECT_EQ(RegRavelRpcServerToKes(&info), 2u);
    EXPECT_EQ(RavelRpcServerUnReg("OtherService"), 1u);
    EXPECT_EQ(RavelRpcServerUnReg(MUND_SERVICE_NAME), 0u);
    EXPECT_EQ(RavelRpcServerUnReg(MUND_SERVICE_NAME), 1u);
    EXPECT_EQ(Call(MUND_OP_VerifyRcdReset, {}).status, MUND_STATUS_NO_SERVICE);

    ++info.serviceNumber;
    EXPECT_EQ(RegRavelRpcServerToKes(&info), 1u);
    info = Registration();
    std::memset(info.serviceName, 'L', sizeof(info.serviceName));
    EXPECT_EQ(RegRavelRpcServerToKes(&info), 1u);
}

}  // namespace
