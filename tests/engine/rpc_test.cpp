// When the service opens and closes, and what is an operation of it.
#include "mund/rpc.h"

#include <gtest/gtest.h>

#include <cstring>

#include "mund/call.h"
#include "mund/messages.h"

extern "C" {
// It is none without the twin that releases its replies.
KES_API uint32_t LyrHost_Kes_KaTunnel(const void *, void **) {
    ADD_FAILURE();
    return 0;
}
KES_API uint32_t LyrHost_Kes_VerifyRcdReset(const void *, void **) {
    return 0;
}
KES_API uint32_t LyrHost_Kes_VerifyRcdReset_free(void *) {
    return 0;
}
}

namespace {

MundStatus Call(uint32_t operation) {
    const uint8_t request[64] = {};
    uint32_t size = 0, result = 0;
    return MundCall(operation, request, MundRequestSize(operation), nullptr, 0, &size, &result);
}

LyrKesRpcServerRegInfo Registration() {
    LyrKesRpcServerRegInfo info{};
    info.serviceNumber = MUND_SERVICE_NUMBER;
    std::strcpy(info.serviceName, MUND_SERVICE_NAME);
    return info;
}

TEST(Rpc, OpensOnceAndOnlyForAValidRecord) {
    LyrKesRpcServerRegInfo info = Registration();
    EXPECT_EQ(RegRavelRpcServerToKes(&info), 0u);
    EXPECT_EQ(RegRavelRpcServerToKes(&info), 2u);
    EXPECT_EQ(RavelRpcServerUnReg("OtherService"), 1u);
    EXPECT_EQ(Call(MUND_OP_VerifyRcdReset), MUND_STATUS_OK);
    for (const uint32_t lacking :
         {+MUND_OP_KaTunnel, +MUND_OP_CwpPingStat, +MUND_OPERATION_COUNT}) {
        EXPECT_EQ(Call(lacking), MUND_STATUS_NO_OPERATION) << lacking;
    }
    EXPECT_EQ(RavelRpcServerUnReg(MUND_SERVICE_NAME), 0u);
    EXPECT_EQ(RavelRpcServerUnReg(MUND_SERVICE_NAME), 1u);
    EXPECT_EQ(Call(MUND_OP_VerifyRcdReset), MUND_STATUS_NO_SERVICE);

    ++info.serviceNumber;
    EXPECT_EQ(RegRavelRpcServerToKes(&info), 1u);
    info = Registration();
    std::memset(info.serviceName, 'L', sizeof(info.serviceName));
    EXPECT_EQ(RegRavelRpcServerToKes(&info), 1u);
}

}  // namespace
