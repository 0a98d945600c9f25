// Reading the CAPWAP source table while operations may change it.
#pragma once

#include <atomic>

#include "module/shared_word.h"
#include "packet/cwp_source.h"

namespace lyr {

// Odd while the table is being written.
extern std::atomic<uint32_t> cwpSourceSequence;

// One record; only within ReadCwpSources is it known to be whole, since a word of a later write
// brings that write's odd sequence with it.
inline CwpSrcRcd LoadCwpSource(size_t position) {
    return LoadWords(g_LyrHostCwpSrcRcd[position]);
}

// The result of read(), which looks at records through LoadCwpSource, on an unchanged table: it
// runs again when an operation changed the table meanwhile.
template <class Read>
auto ReadCwpSources(Read read) {
    for (;;) {
        const uint32_t before = cwpSourceSequence.load(std::memory_order_acquire);
        if (before % 2 != 0) {
            continue;
        }
        const auto result = read();
        if (cwpSourceSequence.load(std::memory_order_relaxed) == before) {
            return result;
        }
    }
}

}  // namespace lyr
