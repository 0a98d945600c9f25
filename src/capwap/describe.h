// What a frame carries, in words, for reports: independent of the module's own parser.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace capwap {

// "Discovery Request", "message type 8323150", "DTLS handshake" ("alert", "change cipher spec",
// "application data", "content type 25"), "Data keepalive", "Data", "WAPI", "CAPWAP fragment" and
// "IP fragment" (the first and later ones), "not CAPWAP"; "damaged" when the lengths that a frame
// states contradict each other or the frame. Total on any bytes.
std::string Describe(std::span<const uint8_t> frame);

// The same as it is found, for those who count many frames.
struct Content {
    std::string_view words;          // of no frame: they stay
    std::optional<uint32_t> number;  // that follows them

    bool operator==(const Content &) const = default;
    std::string ToText() const;
};
Content ContentOf(std::span<const uint8_t> frame);

}  // namespace capwap
