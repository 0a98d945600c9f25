// Reading the CAPWAP source table while operations may change it.
#pragma once

#include "module/sequence_lock.h"
#include "packet/cwp_source.h"

namespace lyr {

extern SequenceLock cwpSourceLock;

// One record; only within ReadCwpSources is it known to be whole.
inline CwpSrcRcd LoadCwpSource(size_t position) {
    return LoadWords(g_LyrHostCwpSrcRcd[position]);
}

// The result of read(), which looks at records through LoadCwpSource, on an unchanged table: it
// runs again when an operation changed the table meanwhile.
template <class Read>
auto ReadCwpSources(Read read) {
    decltype(read()) result = {};
    while (!cwpSourceLock.TryRead([&] { result = read(); })) {
    }
    return result;
}

}  // namespace lyr
