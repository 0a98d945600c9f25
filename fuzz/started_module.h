// A started module, with nobody but the fuzzer before it.
#pragma once

#include "fuzz_target.h"

namespace fuzz {

class StartedModule {
  public:
    // The links size the tables: 1.3 buckets for each.
    explicit StartedModule(uint32_t links = 10);
    ~StartedModule();
    StartedModule(const StartedModule &) = delete;
    StartedModule &operator=(const StartedModule &) = delete;

    static constexpr uint32_t kId = 42;
    static constexpr uint32_t kInstances = 5;

    // Makes the channel and the thread of an instance; the channel's id.
    static uint32_t OpenInstance(uint32_t number, uint32_t pktType);
};

}  // namespace fuzz
