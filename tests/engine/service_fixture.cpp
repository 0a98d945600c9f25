#include "service_fixture.h"

#include <cstring>
#include <numeric>
#include <span>

#include "kes/memory.h"
#include "mund/call.h"
#include "standin/runtime.h"

std::atomic<uint32_t> calls{0}, released{0};
Gate *gateOfOperation = nullptr;
uint32_t leaves = 0;
void *left = nullptr;

namespace {

// Of an operation and its request as it travels: what the operations below return, and fill their
// replies with.
uint32_t Digest(uint32_t operation, std::span<const uint8_t> request) {
    uint32_t digest = 2166136261u + operation;
    for (const uint8_t byte : request) {
        digest = (digest ^ byte) * 16777619u;
    }
    return digest;
}

void FillReply(std::span<uint8_t> reply, uint32_t digest) {
    for (size_t i = 0; i < reply.size(); ++i) {
        reply[i] = static_cast<uint8_t>((digest >> i % 4 * 8) + i / 4);
    }
}

// A batch as it travels, from what the operation is given.
Bytes Marshal(const void *request) {
    struct {
        uint32_t count;
        uint32_t reserved;
        const uint8_t *records;
    } batch;
    std::memcpy(&batch, request, sizeof batch);
    const auto *header = reinterpret_cast<const uint8_t *>(&batch);
    Bytes wire(header, header + 8);
    wire.insert(wire.end(), batch.records, batch.records + batch.count * 80u);
    return wire;
}

uint32_t RunFake(uint32_t operation, const void *request, void **reply) {
    ++calls;
    EXPECT_TRUE(request != nullptr && reinterpret_cast<uintptr_t>(request) % 8 == 0);
    if (operation == MUND_OP_VerifyRcdGet && gateOfOperation != nullptr) {
        gateOfOperation->Pass();
    }
    if (operation == MUND_OP_BatchReconciliation && leaves != 0) {
        left = TovMemAllocInner(1, 0, leaves, 0, "RunFake", 1);
    }
    const auto *bytes = static_cast<const uint8_t *>(request);
    const uint32_t digest =
        Digest(operation, operation == MUND_OP_BatchReconciliation
                              ? Marshal(request)
                              : Bytes(bytes, bytes + MundRequestSize(operation)));
    if (const uint32_t size = MundReplySize(operation); size != 0) {
        *reply = RPC_IdlMsgCreate(size, g_uiMundModuleId, "RunFake");
        FillReply({static_cast<uint8_t *>(*reply), *reply != nullptr ? size : 0}, digest);
    }
    return digest;
}

uint32_t Release(void *reply) {
    ++released;
    return RPC_IdlMsgDestroy(reply, g_uiMundModuleId, "Release");
}

}  // namespace

extern "C" {
#define FAKE_OPERATION(name, requestSize, replySize)                         \
    KES_API uint32_t LyrHost_Kes_##name(const void *request, void **reply) { \
        return RunFake(MUND_OP_##name, request, reply);                      \
    }                                                                        \
    KES_API uint32_t LyrHost_Kes_##name##_free(void *reply) {                \
        return Release(reply);                                               \
    }
MUND_OPERATIONS(FAKE_OPERATION)
}

Bytes RequestOf(uint32_t operation, uint32_t seed) {
    const bool batch = operation == MUND_OP_BatchReconciliation;
    const uint32_t count = seed % 50;
    Bytes request(batch ? 8 + 80 * count : MundRequestSize(operation));
    std::iota(request.begin(), request.end(), static_cast<uint8_t>(seed));
    const auto *start = reinterpret_cast<const uint8_t *>(batch ? &count : &seed);
    std::copy_n(start, std::min<size_t>(request.size(), 4), request.begin());
    return request;
}

void ExpectAnswer(uint32_t operation, const Bytes &request, uint32_t result, const Bytes &reply) {
    Bytes expected(MundReplySize(operation));
    FillReply(expected, Digest(operation, request));
    EXPECT_EQ(result, Digest(operation, request)) << MundOperationName(operation);
    EXPECT_EQ(reply, expected) << MundOperationName(operation);
}

void Service::SetUp() {
    calls = 0;
    LyrKesRpcServerRegInfo info{};
    info.serviceNumber = MUND_SERVICE_NUMBER;
    std::strcpy(info.serviceName, MUND_SERVICE_NAME);
    ASSERT_EQ(RegRavelRpcServerToKes(&info), 0u);
}

void Service::TearDown() {
    gateOfOperation = nullptr;
    RavelRpcServerUnReg(MUND_SERVICE_NAME);
    EXPECT_EQ(MundMessagesInUse(), 0u);
    EXPECT_EQ(standin::ModuleMemory(g_uiMundModuleId).blocks, 0u);
}
