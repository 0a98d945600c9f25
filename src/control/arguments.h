// The words behind a command, found by the names that the command's usage line gives them.
#pragma once

#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace control {

// The words with one space between them.
std::string Join(std::span<const std::string> words);

// What a usage line has for a word, or for an option.
struct UsageSlot {
    std::string_view name;
    std::string_view value;  // of an option: what its value is called; empty for a flag
    bool option = false;
    bool optional = false;
    bool repeats = false;
};

std::vector<UsageSlot> ReadUsage(std::string_view usage);

// What the next word would be, behind those given; null where none fits.
const UsageSlot *NextWord(std::span<const UsageSlot> slots, std::span<const std::string> words);

// The usage line is the grammar: "SRC-IP --node N [--vpn N] [--ipv6]" asks for one word and an
// option with a value, and allows another option and a flag; "ENTRY ..." takes one word or more.
// The value of an option is the next word, or stands behind a '=' in the same one.
class Arguments {
  public:
    // Fits the words to the usage, which has to outlive the arguments. Throws InputError.
    Arguments(std::string_view usage, std::span<const std::string> words);

    // The word of a name, or the value of an option, that the usage demands.
    const std::string &operator[](std::string_view name) const;
    // The value of an option that may be absent; null then. A flag that is given has an empty one.
    const std::string *Find(std::string_view option) const;
    // The words of the name that repeats.
    const std::vector<std::string> &Repeated() const {
        return repeated_;
    }

  private:
    std::map<std::string_view, std::string> values_;
    std::vector<std::string> repeated_;
};

}  // namespace control
