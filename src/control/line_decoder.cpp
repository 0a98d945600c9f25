#include "control/line_decoder.h"

#include <array>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <ctime>

#include "capwap/message_type.h"
#include "control/values.h"
#include "mund/statistics_messages.h"

namespace control {
namespace {

// Takes values off the front of a text; false, and nothing taken, where there is another one.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : text_(text) {}

    bool Word(std::string_view word) {
        const bool found = text_.substr(at_).starts_with(word);
        at_ += found ? word.size() : 0;
        return found;
    }
    template <class T>
    bool Number(T &value, int base) {
        const char *const begin = text_.data() + at_;
        const auto [end, error] = std::from_chars(begin, text_.data() + text_.size(), value, base);
        at_ += error == std::errc() ? static_cast<size_t>(end - begin) : 0;
        return error == std::errc();
    }
    // Numbers with a sign between each two.
    template <size_t N>
    bool Numbers(std::array<uint32_t, N> &values, std::string_view sign, int base) {
        for (size_t i = 0; i < N; ++i) {
            if ((i > 0 && !Word(sign)) || !Number(values[i], base)) {
                return false;
            }
        }
        return true;
    }
    // What has been taken, unless the value goes on behind it.
    std::optional<size_t> End() const {
        const bool goesOn =
            at_ < text_.size() && std::isalnum(static_cast<unsigned char>(text_[at_]));
        return goesOn ? std::nullopt : std::optional(at_);
    }

  private:
    const std::string_view text_;
    size_t at_ = 0;
};

// A value in words, and how many characters of the line it took.
struct Decoded {
    std::string words;
    size_t size;
};
// Decodes what a text begins with. `version` is the IP version that the line has named.
using Decoder = std::optional<Decoded> (*)(std::string_view text, uint32_t version);

std::optional<Decoded> Made(const Scanner &scanner, std::string words) {
    const std::optional<size_t> size = scanner.End();
    return size ? std::optional(Decoded{std::move(words), *size}) : std::nullopt;
}

std::string Ipv6Text(const std::array<uint32_t, 4> &words) {
    const uint32_t address[] = {words[0], words[1], words[2], words[3]};
    return AddressText(address);
}

// "0xa000001|a000001:0:0:0": the first word twice, and the other three, which an IPv4 address
// leaves zero.
std::optional<Decoded> Address(std::string_view text, uint32_t version) {
    Scanner scanner(text);
    uint32_t first = 0;
    std::array<uint32_t, 4> words = {};
    scanner.Word("0x");
    if (!scanner.Number(first, 16) || !scanner.Word("|") || !scanner.Numbers(words, ":", 16) ||
        first != words[0]) {
        return std::nullopt;
    }
    const bool onlyFirst = words[1] == 0 && words[2] == 0 && words[3] == 0;
    const bool isIpv6 = version == 6 || (version != 4 && !onlyFirst);
    return Made(scanner, isIpv6 ? Ipv6Text(words) : AddressText(first));
}

// The same of an address whose version the line does not name.
std::optional<Decoded> AnyAddress(std::string_view text, uint32_t /*version*/) {
    return Address(text, 0);
}

std::optional<Decoded> Ipv4(std::string_view text, uint32_t /*version*/) {
    Scanner scanner(text);
    uint32_t address = 0;
    return scanner.Word("0x") && scanner.Number(address, 16) ? Made(scanner, AddressText(address))
                                                             : std::nullopt;
}

std::optional<Decoded> Ipv6(std::string_view text, uint32_t /*version*/) {
    Scanner scanner(text);
    std::array<uint32_t, 4> words = {};
    return scanner.Numbers(words, ":", 16) ? Made(scanner, Ipv6Text(words)) : std::nullopt;
}

std::optional<Decoded> Session(std::string_view text, uint32_t /*version*/) {
    Scanner scanner(text);
    std::array<uint32_t, 4> words = {};
    if (!scanner.Numbers(words, "-", 16)) {
        return std::nullopt;
    }
    std::string id;
    for (const uint32_t word : words) {
        const std::string digits = HexText(word).substr(2);
        id += std::string(8 - digits.size(), '0') + digits;
    }
    return Made(scanner, id);
}

std::optional<Decoded> Mac(std::string_view text, uint32_t /*version*/) {
    constexpr size_t kSize = 14;
    Scanner scanner(text);
    std::array<uint32_t, 3> pairs = {};
    if (!scanner.Numbers(pairs, "-", 16) || scanner.End() != kSize) {
        return std::nullopt;
    }
    uint8_t mac[6];
    for (size_t i = 0; i < pairs.size(); ++i) {
        mac[2 * i] = static_cast<uint8_t>(pairs[i] >> 8);
        mac[2 * i + 1] = static_cast<uint8_t>(pairs[i]);
    }
    return Made(scanner, MacText(mac));
}

std::optional<Decoded> MessageType(std::string_view text, uint32_t /*version*/) {
    Scanner scanner(text);
    uint32_t type = 0;
    if (!scanner.Number(type, 10) || capwap::MessageTypeName(type).empty()) {
        return std::nullopt;
    }
    return Made(scanner,
                std::string(capwap::MessageTypeName(type)) + " (" + std::to_string(type) + ")");
}

// A load-balance key is an instance, or the one that means nobody.
std::optional<Decoded> Key(std::string_view text, uint32_t /*version*/) {
    Scanner scanner(text);
    uint32_t key = 0;
    return scanner.Number(key, 10) && key == UINT32_MAX ? Made(scanner, "none") : std::nullopt;
}

template <const std::string_view *kNames, size_t kCount>
std::optional<Decoded> Named(std::string_view text, uint32_t /*version*/) {
    Scanner scanner(text);
    uint32_t number = 0;
    if (!scanner.Number(number, 10) || number >= kCount) {
        return std::nullopt;
    }
    return Made(scanner, std::string(kNames[number]));
}

constexpr std::string_view kPacketTypes[] = {"cwp", "wapi"};
#define WORDS(name, words) words,
constexpr std::string_view kPoints[] = {LYR_KES_HOOK_KINDS(WORDS)};
#undef WORDS
constexpr auto PacketType = Named<kPacketTypes, std::size(kPacketTypes)>;
constexpr auto Point = Named<kPoints, std::size(kPoints)>;

std::optional<Decoded> EtherType(std::string_view text, uint32_t /*version*/) {
    Scanner scanner(text);
    uint16_t type = 0;
    if (!scanner.Number(type, 10)) {
        return std::nullopt;
    }
    const char *name = type == 0x0800   ? " (IPv4)"
                       : type == 0x86DD ? " (IPv6)"
                       : type == 0x88B4 ? " (WAPI)"
                                        : "";
    return Made(scanner, HexText(type) + name);
}

// "2026/11/23 01:38:53" and "2026-11-23T01:38:53", with a fraction that is taken.
bool ScanTime(Scanner &scanner, std::string_view dateSign, std::string_view between, tm &time) {
    std::array<uint32_t, 3> date = {}, clock = {};
    if (!scanner.Numbers(date, dateSign, 10) || !scanner.Word(between) ||
        !scanner.Numbers(clock, ":", 10) || date[0] < 1900 || date[0] > 9999 || date[1] - 1 > 11 ||
        date[2] - 1 > 30 || clock[0] > 23 || clock[1] > 59 || clock[2] > 60) {
        return false;
    }
    time.tm_year = static_cast<int>(date[0]) - 1900;
    time.tm_mon = static_cast<int>(date[1]) - 1;
    time.tm_mday = static_cast<int>(date[2]);
    time.tm_hour = static_cast<int>(clock[0]);
    time.tm_min = static_cast<int>(clock[1]);
    time.tm_sec = static_cast<int>(clock[2]);
    time.tm_isdst = -1;
    return true;
}

std::optional<Decoded> LocalTime(std::string_view text, uint32_t /*version*/) {
    Scanner scanner(text);
    tm time = {};
    return ScanTime(scanner, "/", " ", time) ? Made(scanner, TimeText(std::mktime(&time)))
                                             : std::nullopt;
}

std::optional<Decoded> UtcTime(std::string_view text, uint32_t /*version*/) {
    Scanner scanner(text);
    tm time = {};
    uint32_t milliseconds = 0;
    if (!ScanTime(scanner, "-", "T", time) || !scanner.Word(".") ||
        !scanner.Number(milliseconds, 10) || !scanner.Word("Z")) {
        return std::nullopt;
    }
    return Made(scanner, TimeText(timegm(&time), milliseconds));
}

// Which words of a line have a value behind them that is to be decoded.
struct Rule {
    std::string_view words;
    Decoder decode;
};
constexpr Rule kRules[] = {
    {"badIp [", Address},  // of a packet that is for no source
    {"firstSrcIp [", AnyAddress},
    {"src-ip: ", Address},  // of a probe
    {"dst-ip: ", Address},
    {"src Ip is ", AnyAddress},
    {"dst Ip is ", AnyAddress},
    {"ip ", Address},  // of a source that is listed
    {"ip:", Ipv4},
    {"SrcIp ", Ipv4},  // of a source that comes and goes
    {"SrcIpv6 ", Ipv6},
    {"srcip:", Ipv4},  // of tunnels and sessions that come and go
    {"dstip:", Ipv4},
    {"srcipv6:", Ipv6},
    {"dstipv6:", Ipv6},
    {"session: ", Session},
    {"session:", Session},
    {"CAPWAP-MSGTYPE=", MessageType},
    {"MAC=", Mac},
    {"mac:", Mac},
    {"lb key ", Key},
    {"lb key:", Key},
    {"key:", Key},
    {"key ", Key},
    {"pkt type ", PacketType},
    {"pktType ", PacketType},
    {"pktType:", PacketType},
    {"ethType:", EtherType},
    {"[dbgPkt][", Point},
    {"[time: ", LocalTime},
    {" time=", UtcTime},  // of an alarm
};
constexpr std::string_view kVersions[] = {"ipVer ", "ip-ver:"};

// The rule for a text, which begins a word if it does not begin with a sign: the one of most words.
const Rule *RuleFor(std::string_view text) {
    const Rule *best = nullptr;
    for (const Rule &rule : kRules) {
        if (text.starts_with(rule.words) &&
            (best == nullptr || rule.words.size() > best->words.size())) {
            best = &rule;
        }
    }
    return best;
}

bool IsInWord(std::string_view line, size_t at) {
    return at > 0 && std::isalnum(static_cast<unsigned char>(line[at])) != 0 &&
           std::isalnum(static_cast<unsigned char>(line[at - 1])) != 0;
}

}  // namespace

std::optional<std::string> DecodeLine(std::string_view line) {
    std::string decoded;
    size_t kept = 0;  // of the line, in what is decoded
    uint32_t version = 0;
    for (size_t at = 0; at < line.size(); ++at) {
        const std::string_view text = line.substr(at);
        if (IsInWord(line, at)) {
            continue;
        }
        for (const std::string_view words : kVersions) {
            Scanner scanner(text);
            if (scanner.Word(words)) {
                scanner.Number(version, 10);
            }
        }
        const Rule *rule = RuleFor(text);
        const std::optional<Decoded> value =
            rule == nullptr ? std::nullopt : rule->decode(text.substr(rule->words.size()), version);
        if (value) {
            const size_t begin = at + rule->words.size();
            decoded.append(line.substr(kept, begin - kept)).append(value->words);
            kept = begin + value->size;
            at = kept - 1;
        }
    }
    if (kept == 0) {
        return std::nullopt;
    }
    return decoded.append(line.substr(kept));
}

}  // namespace control
