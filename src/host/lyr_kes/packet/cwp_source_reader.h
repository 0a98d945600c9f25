// Reading the CAPWAP source table while operations may change it.
#pragma once

#include <iterator>

#include "module/sequence_lock.h"
#include "packet/cwp_source.h"

namespace lyr {

extern SequenceLock cwpSourceLock;

// One record; only within ReadCwpSources is it known to be whole.
inline CwpSrcRcd LoadCwpSource(size_t position) {
    return LoadWords(g_LyrHostCwpSrcRcd[position]);
}

// Whether the record at a position is a source with this address; only within ReadCwpSources. The
// word that addresses differ in most is looked at first.
inline bool CwpSourceHas(size_t position, const HostIpAddr &address) {
    const CwpSrcRcd &record = g_LyrHostCwpSrcRcd[position];
    const auto same = [&](const auto &field, const auto &wanted) {
        return LoadAcquire(field) == wanted;
    };
    const size_t telling = address.ipVer == kIpVersion4 ? 0 : std::size(address.ip) - 1;
    if (!same(record.address.ip[telling], address.ip[telling]) ||
        !same(record.address.ipVer, address.ipVer)) {
        return false;
    }
    for (size_t i = 0; i < std::size(address.ip); ++i) {
        if (!same(record.address.ip[i], address.ip[i])) {
            return false;
        }
    }
    for (size_t i = 0; i < std::size(address.filler); ++i) {
        if (!same(record.address.filler[i], address.filler[i])) {
            return false;
        }
    }
    return LoadAcquire(record.srcType) != CWP_SRC_FREE;
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
