// Objects that the module exports.
#include <algorithm>
#include <cstring>
#include <string_view>

#include "client.h"

namespace {

using client::BadReply;
using client::Failure;

std::span<const uint8_t> AskObject(LyrClient &client, std::string_view name, uint32_t slot) {
    MundWireObjectReq request = {};
    if (name.size() >= sizeof request.name) {
        throw Failure(LYR_CLIENT_INVALID, "the name '" + std::string(name) + "' has " +
                                              std::to_string(name.size()) +
                                              " bytes, and an object's at most " +
                                              std::to_string(sizeof request.name - 1));
    }
    name.copy(request.name, name.size());
    request.slot = slot;
    client::Send(client, MUND_WIRE_OBJECT,
                 {reinterpret_cast<const uint8_t *>(&request), sizeof request});
    return client.connection.Payload();
}

// The array that a pointer of an object points at.
template <typename Element>
LyrClientOutcome GetArray(LyrClient *client, const char *name, uint32_t slot, Element *elements,
                          size_t capacity, size_t *count) {
    *count = 0;
    return client::Run(*client, [&] {
        const std::span<const uint8_t> bytes = AskObject(*client, name, slot);
        *count = bytes.size() / sizeof(Element);
        std::memcpy(elements, bytes.data(), std::min(capacity, *count) * sizeof(Element));
    });
}

}  // namespace

LyrClientOutcome LyrClientObject(LyrClient *client, const char *name, uint32_t slot,
                                 const void **bytes, size_t *size) {
    *bytes = nullptr;
    *size = 0;
    return client::Run(*client, [&] {
        const std::span<const uint8_t> object = AskObject(*client, name, slot);
        *bytes = object.data();
        *size = object.size();
    });
}

LyrClientOutcome LyrClientReadObject(LyrClient *client, const char *name, void *layout,
                                     size_t size) {
    return client::Run(*client, [&] {
        const std::span<const uint8_t> object = AskObject(*client, name, MUND_WIRE_NO_SLOT);
        if (object.size() != size) {
            throw BadReply(std::string(name) + " has " + std::to_string(object.size()) +
                           " bytes, not " + std::to_string(size));
        }
        std::memcpy(layout, object.data(), size);
    });
}

// NOLINTBEGIN(bugprone-macro-parentheses): a type has none.
#define LYR_CLIENT_GET(what, object, layout, number)                                 \
    LyrClientOutcome LyrClientGet##what(LyrClient *client, layout *value) {          \
        return LyrClientReadObject(client, object, value, (number) * sizeof *value); \
    }
LYR_CLIENT_OBJECTS(LYR_CLIENT_GET)
#undef LYR_CLIENT_GET
// NOLINTEND(bugprone-macro-parentheses)

LyrClientOutcome LyrClientGetChannels(LyrClient *client, uint32_t packetType, uint32_t *ids,
                                      size_t capacity, size_t *count) {
    return GetArray(client, MUND_OBJECT_CHANNELS, packetType, ids, capacity, count);
}

LyrClientOutcome LyrClientGetThreads(LyrClient *client, uint32_t packetType, uint64_t *handles,
                                     size_t capacity, size_t *count) {
    return GetArray(client, MUND_OBJECT_THREADS, packetType, handles, capacity, count);
}
