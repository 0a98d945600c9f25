// What can be read of an engine: through its control socket, or from inside.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "control/caller.h"
#include "mund/wire.h"

namespace control {

// The engine refuses a request, and says why.
class Refused : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What the engine tells lacks something, or has it otherwise than this program knows it.
inline Refused NotUnderstood(const nlohmann::json::exception &error) {
    return Refused(
        "the engine's state is not understood, as that of an engine of another version: " +
        std::string(error.what()));
}

class EngineView {
  public:
    virtual ~EngineView() = default;

    // Runs one operation of the module; what Execute calls.
    virtual Answer Call(MundOperation operation, std::span<const uint8_t> request) = 0;
    // The engine's state. These throw Refused.
    virtual nlohmann::ordered_json State() = 0;
    // The bytes of an exported object, or of the block that one of its pointers points at.
    virtual Bytes Object(std::string_view name, std::optional<uint32_t> slot = std::nullopt) = 0;
    // A page of a table of the module: MundWireEntriesRsp and the entries.
    virtual Bytes Entries(const MundWireEntriesReq &request) = 0;
};

}  // namespace control
