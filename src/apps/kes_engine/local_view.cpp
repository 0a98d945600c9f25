#include "local_view.h"

#include <string>

#include "control/message_bytes.h"
#include "module_caller.h"

namespace kes_engine {

control::Answer LocalView::Call(MundOperation operation, std::span<const uint8_t> request) {
    return CallModule(operation, request);
}

nlohmann::ordered_json LocalView::State() {
    return nlohmann::ordered_json::parse(Ask(MUND_WIRE_STATE, {}));
}

control::Bytes LocalView::Object(std::string_view name, std::optional<uint32_t> slot) {
    MundWireObjectReq request = {};
    if (name.size() >= sizeof request.name) {
        throw control::Refused(std::string(name) + ": the name is too long");
    }
    name.copy(request.name, name.size());
    request.slot = slot.value_or(MUND_WIRE_NO_SLOT);
    return Ask(MUND_WIRE_OBJECT, control::BytesOf(request));
}

control::Bytes LocalView::Entries(const MundWireEntriesReq &request) {
    return Ask(MUND_WIRE_ENTRIES, control::BytesOf(request));
}

control::Bytes LocalView::Ask(uint16_t code, std::span<const uint8_t> request) const {
    mund::WireReply reply = handlers_.at(code)(request);
    if (reply.status != MUND_WIRE_OK) {
        throw control::Refused(std::string(reply.payload.begin(), reply.payload.end()));
    }
    return std::move(reply.payload);
}

}  // namespace kes_engine
