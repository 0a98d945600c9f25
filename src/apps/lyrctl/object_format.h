// What exported objects say.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "client.h"
#include "mund/module_objects.h"

namespace lyrctl {

// An exported object of known layout.
struct KnownObject {
    std::string_view name;
    size_t size;  // bytes
    std::string_view meaning;
    ordered_json (*decode)(std::span<const uint8_t> bytes);  // what it says, under names
};

std::span<const KnownObject> KnownObjects();
// Null for one that is not known.
const KnownObject *FindObject(std::string_view name);

ordered_json Decode(const MundSourceRecord &source);
ordered_json Decode(const MundTraceConfig &trace);
ordered_json DecodeStationService(uint64_t range);

// Lines of offset, 16 bytes and what is printable of them.
std::string HexDump(std::span<const uint8_t> bytes);
// Two digits a byte.
std::string HexText(std::span<const uint8_t> bytes);

}  // namespace lyrctl
