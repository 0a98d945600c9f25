#include "capwap/message.h"

#include "capwap/wire.h"

namespace capwap {
namespace {

constexpr uint32_t kFragmentFlag = 0x80, kKeepaliveFlag = 0x08, kExtensionFlag = 0x04;
constexpr uint32_t kSessionIdElement = 35;

// Shows each element of a run to visit(type, value) until that answers false. False where the run
// breaks off within an element.
template <typename Visit>
bool VisitElements(std::span<const uint8_t> run, Visit visit) {
    Reader in(run);
    bool goOn = true;
    while (goOn && !in.Left().empty()) {
        const uint32_t type = in.U16();
        const auto value = in.Take(in.U16());
        goOn = !in.Failed() && visit(type, value);
    }
    return !in.Failed();
}

}  // namespace

std::optional<Unwrapped> ReadHeader(std::span<const uint8_t> payload) {
    Reader in(payload);
    const uint32_t preamble = in.U8();
    if (preamble == 1) {
        in.Take(3);
        return in.Failed() ? std::nullopt
                           : std::optional(Unwrapped{.dtls = true, .rest = in.Left()});
    }
    const uint32_t hlen = in.U8() >> 3;
    in.U8();
    const uint32_t flags = in.U8();
    in.U32();  // the fragment's id and offset
    if (preamble > 1 || hlen < 2 || in.Failed()) {
        return std::nullopt;
    }
    in.Take(4 * hlen - 8);
    if (in.Failed()) {
        return std::nullopt;
    }
    return Unwrapped{.fragment = (flags & kFragmentFlag) != 0,
                     .keepalive = (flags & kKeepaliveFlag) != 0,
                     .extension = (flags & kExtensionFlag) != 0,
                     .rest = in.Left()};
}

std::optional<Message> ReadMessage(std::span<const uint8_t> rest) {
    Reader in(rest);
    const uint32_t type = in.U32();
    const uint32_t sequence = in.U8();
    const uint32_t length = in.U16();  // counts itself and the flags
    in.U8();
    const bool whole = VisitElements(in.Left(), [](auto, auto) { return true; });
    if (in.Failed() || in.Left().size() + 3 != length || !whole) {
        return std::nullopt;
    }
    return Message{type, static_cast<uint8_t>(sequence), in.Left()};
}

std::optional<std::span<const uint8_t>> FindElement(std::span<const uint8_t> elements,
                                                    uint16_t type) {
    std::optional<std::span<const uint8_t>> found;
    VisitElements(elements, [&](uint32_t each, std::span<const uint8_t> value) {
        if (each == type) {
            found = value;
        }
        return !found;
    });
    return found;
}

std::optional<SessionId> ReadKeepalive(std::span<const uint8_t> rest) {
    Reader in(rest);
    SessionId session;
    constexpr uint32_t kLength = 22;  // counts itself
    if (in.U16() != kLength || in.U16() != kSessionIdElement || in.U16() != sizeof(session)) {
        return std::nullopt;
    }
    for (uint32_t &word : session) {
        word = in.U32();
    }
    return in.Failed() || !in.Left().empty() ? std::nullopt : std::optional(session);
}

}  // namespace capwap
