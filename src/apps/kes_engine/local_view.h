// The engine as its clients see it, from inside.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string_view>

#include "control/engine_view.h"
#include "mund/server.h"

namespace kes_engine {

// Callable from one thread at a time.
class LocalView : public control::EngineView {
  public:
    // Answers with the handlers of the control socket.
    explicit LocalView(std::map<uint16_t, mund::WireHandler> handlers)
        : handlers_(std::move(handlers)) {}

    control::Answer Call(MundOperation operation, std::span<const uint8_t> request) override;
    nlohmann::ordered_json State() override;
    control::Bytes Object(std::string_view name, std::optional<uint32_t> slot) override;
    control::Bytes Entries(const MundWireEntriesReq &request) override;

  private:
    control::Bytes Ask(uint16_t code, std::span<const uint8_t> request) const;

    std::map<uint16_t, mund::WireHandler> handlers_;
};

}  // namespace kes_engine
