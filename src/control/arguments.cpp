#include "control/arguments.h"

#include <algorithm>

#include "control/input_error.h"

namespace control {
namespace {

struct Slot {
    std::string_view name;
    bool option = false;
    bool optional = false;
    bool hasValue = false;
    bool repeats = false;
};

std::vector<std::string_view> SplitUsage(std::string_view usage) {
    std::vector<std::string_view> tokens;
    while (!usage.empty()) {
        const size_t end = std::min(usage.find(' '), usage.size());
        tokens.push_back(usage.substr(0, end));
        usage.remove_prefix(std::min(end + 1, usage.size()));
    }
    return tokens;
}

std::vector<Slot> ReadUsage(std::string_view usage) {
    std::vector<Slot> slots;
    const std::vector<std::string_view> tokens = SplitUsage(usage);
    for (size_t i = 0; i < tokens.size(); ++i) {
        std::string_view token = tokens[i];
        if (token == "...") {
            slots.back().repeats = true;
            continue;
        }
        Slot slot;
        slot.optional = token.starts_with('[');
        const bool flag = slot.optional && token.ends_with(']');
        token.remove_prefix(slot.optional ? 1 : 0);
        token.remove_suffix(flag ? 1 : 0);
        slot.name = token;
        slot.option = token.starts_with("--");
        slot.hasValue = slot.option && !flag;
        slots.push_back(slot);
        i += slot.hasValue ? 1 : 0;
    }
    return slots;
}

const Slot &OptionSlot(const std::vector<Slot> &slots, std::string_view name) {
    const auto slot = std::ranges::find_if(
        slots, [&](const Slot &candidate) { return candidate.option && candidate.name == name; });
    if (slot == slots.end()) {
        throw InputError("unknown option '" + std::string(name) + "'");
    }
    return *slot;
}

// The value of the option at words[i]; moves on to the last word that it takes.
std::string TakeValue(const Slot &slot, std::span<const std::string> words, size_t &i) {
    const std::string name(slot.name);
    const size_t equals = words[i].find('=');
    if (equals != std::string::npos) {
        if (!slot.hasValue) {
            throw InputError(name + " takes no value");
        }
        return words[i].substr(equals + 1);
    }
    if (slot.hasValue && ++i == words.size()) {
        throw InputError(name + " has no value");
    }
    return slot.hasValue ? words[i] : "";
}

}  // namespace

std::string Join(std::span<const std::string> words) {
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

Arguments::Arguments(std::string_view usage, std::span<const std::string> words) {
    const std::vector<Slot> slots = ReadUsage(usage);
    auto next = std::ranges::find(slots, false, &Slot::option);
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &word = words[i];
        if (word.starts_with("--")) {
            const Slot &slot = OptionSlot(slots, std::string_view(word).substr(0, word.find('=')));
            if (!values_.emplace(slot.name, TakeValue(slot, words, i)).second) {
                throw InputError(std::string(slot.name) + " is given twice");
            }
            continue;
        }
        if (next == slots.end()) {
            throw InputError("unexpected word '" + word + "'");
        }
        if (next->repeats) {
            repeated_.push_back(word);
        } else {
            values_.emplace(next->name, word);
            next = std::find_if(next + 1, slots.end(), [](const Slot &s) { return !s.option; });
        }
    }
    for (const Slot &slot : slots) {
        if (!slot.optional && (slot.repeats ? repeated_.empty() : !values_.contains(slot.name))) {
            throw InputError(std::string(slot.name) + " is missing");
        }
    }
}

const std::string &Arguments::operator[](std::string_view name) const {
    return values_.at(name);
}

const std::string *Arguments::Find(std::string_view option) const {
    const auto found = values_.find(option);
    return found == values_.end() ? nullptr : &found->second;
}

}  // namespace control
