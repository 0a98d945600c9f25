// Keeps records whole for readers that take no lock: they learn when a writer was at work.
#pragma once

#include <atomic>
#include <cstdint>

#include "module/shared_word.h"

namespace lyr {

// The records are read with LoadWords and written with StoreWords, so that a word of a write brings
// its odd sequence along.
class SequenceLock {
  public:
    // Runs read(). False if the records were being written: what it has read is then a mixture.
    template <class Read>
    bool TryRead(Read read) const {
        const uint32_t before = sequence_.load(std::memory_order_acquire);
        if (before % 2 != 0) {
            return false;
        }
        read();
        return sequence_.load(std::memory_order_relaxed) == before;
    }

    // Runs write() with readers kept off. One writer at a time, which the caller sees to.
    template <class Write>
    void Apply(Write write) {
        const uint32_t before = sequence_.load(std::memory_order_relaxed);
        sequence_.store(before + 1, std::memory_order_relaxed);
        write();
        sequence_.store(before + 2, std::memory_order_release);
    }

  private:
    std::atomic<uint32_t> sequence_{0};
};

}  // namespace lyr
