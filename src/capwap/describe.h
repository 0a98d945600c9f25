// What a frame carries, in words, for reports: independent of the module's own parser.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace capwap {

// "Discovery Request", "message type 8323150", "DTLS handshake" ("alert", "change cipher spec",
// "application data", "content type 25"), "Data keepalive", "Data", "WAPI", "CAPWAP fragment" and
// "IP fragment" (the first and later ones), "not CAPWAP"; "damaged" when the lengths that a frame
// states contradict each other or the frame. Total on any bytes.
std::string Describe(std::span<const uint8_t> frame);

}  // namespace capwap
