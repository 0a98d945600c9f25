// A service whose sixteen operations answer with a digest of what they are given.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <vector>

#include "gate.h"
#include "mund/rpc.h"

using Bytes = std::vector<uint8_t>;

// Of the operations; VerifyRcdGet's calls pass the gate, and batches leave so many bytes.
extern std::atomic<uint32_t> calls, released;
extern Gate *gateOfOperation;
extern uint32_t leaves;
extern void *left;

Bytes RequestOf(uint32_t operation, uint32_t seed);
void ExpectAnswer(uint32_t operation, const Bytes &request, uint32_t result, const Bytes &reply);

class Service : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};
