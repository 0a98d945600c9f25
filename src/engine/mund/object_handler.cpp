#include <cstring>
#include <optional>
#include <utility>

#include "mund/server.h"
#include "standin/exported_objects.h"

namespace mund {

WireHandler ObjectHandler(const standin::Module &module) {
    return [&module](std::span<const uint8_t> bytes) {
        MundWireObjectReq request;
        std::memcpy(&request, bytes.data(), sizeof request);
        const size_t length = strnlen(request.name, sizeof request.name);
        if (length == sizeof request.name) {
            return Refusal("the name of the object has no end");
        }
        standin::ObjectBytes object = standin::ReadObject(
            module, std::string(request.name, length),
            request.slot == MUND_WIRE_NO_SLOT ? std::nullopt : std::optional(request.slot));
        return object.error.empty() ? WireReply{MUND_WIRE_OK, std::move(object.bytes)}
                                    : Refusal(object.error);
    };
}

}  // namespace mund
