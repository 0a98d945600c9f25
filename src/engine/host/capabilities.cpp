#include "kes/capability.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <mutex>

#include "standin/lasting.h"
#include "standin/runtime.h"

namespace standin {
namespace {

constexpr std::array<std::string_view, 3> kKnown = {
    "WCWP_SPEC_SVC_NUM",            // service instances
    "WCWP_SPEC_MAX_LINK_NUM",       // CAPWAP tunnels
    "WCWP_SPEC_MAX_DATA_LINK_NUM",  // keepalive sessions
};

std::mutex mutex;
auto &configured = Lasting<std::map<std::string, uint32_t, std::less<>>>();

}  // namespace

std::span<const std::string_view> KnownCapabilities() {
    return kKnown;
}

bool SetCapability(std::string_view name, uint32_t value) {
    if (std::ranges::find(kKnown, name) == kKnown.end()) {
        return false;
    }
    const std::lock_guard lock(mutex);
    configured.insert_or_assign(std::string(name), value);
    return true;
}

void ClearCapabilities() {
    const std::lock_guard lock(mutex);
    configured.clear();
}

}  // namespace standin

using namespace standin;

uint32_t TovCapabilityQueryItem(const char *name, void *value, uint32_t size) {
    if (name == nullptr || value == nullptr || size != sizeof(uint32_t)) {
        return 1;
    }
    const std::lock_guard lock(mutex);
    const auto found = configured.find(std::string_view(name));
    if (CallFails("TovCapabilityQueryItem") || found == configured.end()) {
        return 2;
    }
    std::memcpy(value, &found->second, size);
    return 0;
}
