// Threads that are measured at one time must not share a processor.
#pragma once

#include <cstddef>
#include <vector>

namespace bench {

// The processors that the program may use.
const std::vector<size_t> &Processors();

// Binds the calling thread to a processor for a scope: threads of different numbers to different
// ones, as long as there are as many. What the thread starts meanwhile is bound like it.
class OwnProcessor {
  public:
    explicit OwnProcessor(size_t thread);
    ~OwnProcessor();
    OwnProcessor(const OwnProcessor &) = delete;
    OwnProcessor &operator=(const OwnProcessor &) = delete;
};

}  // namespace bench
