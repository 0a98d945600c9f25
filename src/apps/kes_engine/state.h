// A run as it stands.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fates.h"
#include "port_count.h"
#include "service_instances.h"
#include "standin/runtime.h"

namespace kes_engine {

struct State {
    std::string capture;
    uint32_t workers = 0;
    uint64_t received = 0;
    Fates fates;
    std::vector<InstanceCount> instances;
    std::vector<standin::MemoryOfPlace> memory;  // that the module holds
    std::optional<Traffic> traffic = {};         // of an engine that has ports
};

}  // namespace kes_engine
