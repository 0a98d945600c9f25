#include "control/values.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <string>

#include "capwap/message_type.h"
#include "client/address_text.h"
#include "control/input_error.h"
#include "mund/module_objects.h"

namespace control {
namespace {

[[noreturn]] void Reject(std::string_view name, std::string_view text, const std::string &wanted) {
    throw InputError(std::string(name) + " '" + std::string(text) + "' is not " + wanted);
}

// The whole text as a number in the given base.
std::optional<uint32_t> WholeNumber(std::string_view text, int base) {
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::optional<uint32_t> DecimalOrHex(std::string_view text) {
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    return hex ? WholeNumber(text.substr(2), 16) : WholeNumber(text, 10);
}

}  // namespace

uint32_t ParseNumber(std::string_view name, std::string_view text, uint32_t max, uint32_t min) {
    const std::optional<uint32_t> value = DecimalOrHex(text);
    if (!value || *value < min || *value > max) {
        Reject(name, text, "a number from " + std::to_string(min) + " to " + std::to_string(max));
    }
    return *value;
}

LyrKesRpcIpAddr ParseAddress(std::string_view name, std::string_view text) {
    const std::optional<LyrKesRpcIpAddr> address = client::AddressFromText(std::string(text));
    if (!address) {
        Reject(name, text, "an IPv4 or IPv6 address");
    }
    return *address;
}

std::string AddressText(const uint32_t (&ipv6)[4]) {
    uint16_t groups[8];
    for (size_t i = 0; i < std::size(ipv6); ++i) {
        groups[2 * i] = static_cast<uint16_t>(ipv6[i] >> 16);
        groups[2 * i + 1] = static_cast<uint16_t>(ipv6[i]);
    }
    return AddressText(groups);
}

std::string MacText(const uint8_t (&mac)[6]) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return text;
}

std::string SessionText(const uint32_t (&words)[4]) {
    char text[33];
    std::snprintf(text, sizeof text, "%08x%08x%08x%08x", words[0], words[1], words[2], words[3]);
    return text;
}

std::string TimeText(int64_t seconds, std::optional<uint32_t> milliseconds) {
    const time_t time = seconds;
    tm local = {};
    localtime_r(&time, &local);
    char moment[32];
    char zone[8];
    std::strftime(moment, sizeof moment, "%FT%T", &local);
    std::strftime(zone, sizeof zone, "%z", &local);
    char fraction[8] = "";
    if (milliseconds) {
        std::snprintf(fraction, sizeof fraction, ".%03u", *milliseconds % 1000);
    }
    return std::string(moment) + fraction + std::string(zone).insert(3, ":");
}

std::string HexText(uint64_t value) {
    char text[20];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

std::string IdentifierOf(std::string_view words) {
    std::string identifier(words);
    std::ranges::transform(identifier, identifier.begin(), [](unsigned char c) {
        return c == ' ' ? '_' : static_cast<char>(std::tolower(c));
    });
    return identifier;
}

bool IsUnspecified(const LyrKesRpcIpAddr &address) {
    return address.ipv4Addr == 0 &&
           std::ranges::all_of(address.ipv6Addr, [](uint16_t group) { return group == 0; });
}

std::array<uint8_t, 6> ParseMac(std::string_view name, std::string_view text) {
    constexpr size_t kTextLength = 17;
    std::array<uint8_t, 6> mac = {};
    bool valid = text.size() == kTextLength && (text[2] == ':' || text[2] == '-');
    for (size_t i = 0; valid && i < mac.size(); ++i) {
        const std::optional<uint32_t> byte = WholeNumber(text.substr(3 * i, 2), 16);
        valid = byte.has_value() && (i == 0 || text[3 * i - 1] == text[2]);
        mac[i] = static_cast<uint8_t>(byte.value_or(0));
    }
    if (!valid) {
        Reject(name, text, "a MAC address such as 02:00:5e:10:00:01");
    }
    return mac;
}

std::array<uint32_t, 4> ParseSessionId(std::string_view name, std::string_view text) {
    constexpr size_t kDigitsPerWord = 8;
    std::array<uint32_t, 4> words = {};
    bool valid = text.size() == kDigitsPerWord * words.size();
    for (size_t i = 0; valid && i < words.size(); ++i) {
        const std::optional<uint32_t> word =
            WholeNumber(text.substr(kDigitsPerWord * i, kDigitsPerWord), 16);
        valid = word.has_value();
        words[i] = word.value_or(0);
    }
    if (!valid) {
        Reject(name, text, "a session id of 32 hexadecimal digits");
    }
    return words;
}

uint32_t ParseTraceLevel(std::string_view name, std::string_view text) {
    const std::optional<uint32_t> level = DecimalOrHex(text);
    if (!level || *level == 0 || *level > (MUND_TRACE_FAILURES | MUND_TRACE_PACKETS)) {
        Reject(name, text, "a level of the trace: 1 (failures), 2 (packets) or 3 (both)");
    }
    return *level;
}

uint32_t ParseSourceType(std::string_view name, std::string_view text) {
    const std::optional<uint32_t> type = DecimalOrHex(text);
    if (!type || *type < MUND_SOURCE_ADDRESS || *type > MUND_SOURCE_ANY_INTERFACE) {
        Reject(name, text,
               "a type of source: 1 (known by its address), 2 or 3 (by interface and IP version) "
               "or 4 (by its address, and broadcasts reach it on all interfaces)");
    }
    return *type;
}

uint32_t ParseMessageType(std::string_view name, std::string_view text) {
    std::optional<uint32_t> type = DecimalOrHex(text);
    if (!type) {
        type = capwap::MessageTypeByName(text);
    }
    if (!type) {
        Reject(name, text,
               "a CAPWAP message type: a number, or a name of RFC 5415, section 4.5.1.1, such as "
               "discovery-request");
    }
    return *type;
}

}  // namespace control
