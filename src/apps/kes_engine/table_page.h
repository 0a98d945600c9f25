// The entries of the module's tables, a page at a time, as clients and the engine itself list them.
#pragma once

#include <cstdint>
#include <vector>

#include "module_view.h"
#include "mund/wire.h"

namespace kes_engine {

// A page as it travels: MundWireEntriesRsp and the entries, of whole buckets. The table's locker is
// held for a few buckets at a time. Throws Failure for what is no table or bucket, for a table that
// does not exist, and for a chain that is broken or too long. Callable from any thread while the
// module is started.
std::vector<uint8_t> ReadTablePage(const ModuleView &module, const MundWireEntriesReq &request);

}  // namespace kes_engine
