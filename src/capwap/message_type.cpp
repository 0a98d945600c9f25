#include "capwap/message_type.h"

#include <algorithm>
#include <iterator>

namespace capwap {
namespace {

struct Entry {
    uint32_t type;
    std::string_view name;
};

// RFC 5415, section 4.5.1.1; the binding messages of RFC 5416, section 3, whose types are formed
// from the enterprise number 13277; the controller vendor's own.
constexpr uint32_t kIeee80211 = 13277 * 256;
constexpr Entry kTypes[] = {
    {1, "Discovery Request"},
    {2, "Discovery Response"},
    {3, "Join Request"},
    {4, "Join Response"},
    {5, "Configuration Status Request"},
    {6, "Configuration Status Response"},
    {7, "Configuration Update Request"},
    {8, "Configuration Update Response"},
    {9, "WTP Event Request"},
    {10, "WTP Event Response"},
    {11, "Change State Event Request"},
    {12, "Change State Event Response"},
    {13, "Echo Request"},
    {14, "Echo Response"},
    {15, "Image Data Request"},
    {16, "Image Data Response"},
    {17, "Reset Request"},
    {18, "Reset Response"},
    {19, "Primary Discovery Request"},
    {20, "Primary Discovery Response"},
    {21, "Data Transfer Request"},
    {22, "Data Transfer Response"},
    {23, "Clear Configuration Request"},
    {24, "Clear Configuration Response"},
    {25, "Station Configuration Request"},
    {26, "Station Configuration Response"},
    {kIeee80211 + 1, "IEEE 802.11 WLAN Configuration Request"},
    {kIeee80211 + 2, "IEEE 802.11 WLAN Configuration Response"},
    {kVendorProbeRequest, "Vendor Probe Request"},
    {kVendorProbeResponse, "Vendor Probe Response"},
    {kVendorPingRequest, "Vendor Ping Request"},
    {kVendorPingResponse, "Vendor Ping Response"},
};

char Folded(char c) {
    if (c >= 'A' && c <= 'Z') {
        return static_cast<char>(c - 'A' + 'a');
    }
    return c == '-' || c == '_' ? ' ' : c;
}

bool SameName(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b, {}, Folded, Folded);
}

}  // namespace

std::string_view MessageTypeName(uint32_t type) {
    const auto *entry = std::ranges::find(kTypes, type, &Entry::type);
    return entry == std::end(kTypes) ? std::string_view() : entry->name;
}

std::vector<std::string_view> MessageTypeNames() {
    std::vector<std::string_view> names;
    std::ranges::transform(kTypes, std::back_inserter(names), &Entry::name);
    return names;
}

std::optional<uint32_t> MessageTypeByName(std::string_view name) {
    const auto *entry =
        std::ranges::find_if(kTypes, [&](const Entry &e) { return SameName(e.name, name); });
    return entry == std::end(kTypes) ? std::nullopt : std::optional(entry->type);
}

}  // namespace capwap
