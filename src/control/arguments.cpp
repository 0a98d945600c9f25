#include "control/arguments.h"

#include <algorithm>

#include "control/input_error.h"

namespace control {
namespace {

std::vector<std::string_view> SplitUsage(std::string_view usage) {
    std::vector<std::string_view> tokens;
    while (!usage.empty()) {
        const size_t end = std::min(usage.find(' '), usage.size());
        tokens.push_back(usage.substr(0, end));
        usage.remove_prefix(std::min(end + 1, usage.size()));
    }
    return tokens;
}

const UsageSlot &OptionSlot(std::span<const UsageSlot> slots, std::string_view name) {
    const auto slot = std::ranges::find_if(slots, [&](const UsageSlot &candidate) {
        return candidate.option && candidate.name == name;
    });
    if (slot == slots.end()) {
        throw InputError("unknown option '" + std::string(name) + "'");
    }
    return *slot;
}

// The value of the option at words[i]; moves on to the last word that it takes.
std::string TakeValue(const UsageSlot &slot, std::span<const std::string> words, size_t &i) {
    const std::string name(slot.name);
    const size_t equals = words[i].find('=');
    if (equals != std::string::npos) {
        if (slot.value.empty()) {
            throw InputError(name + " takes no value");
        }
        return words[i].substr(equals + 1);
    }
    if (!slot.value.empty() && ++i == words.size()) {
        throw InputError(name + " has no value");
    }
    return !slot.value.empty() ? words[i] : "";
}

}  // namespace

std::vector<UsageSlot> ReadUsage(std::string_view usage) {
    std::vector<UsageSlot> slots;
    const std::vector<std::string_view> tokens = SplitUsage(usage);
    for (size_t i = 0; i < tokens.size(); ++i) {
        std::string_view token = tokens[i];
        if (token == "...") {
            slots.back().repeats = true;
            continue;
        }
        UsageSlot slot;
        slot.optional = token.starts_with('[');
        const bool alone = slot.optional && token.ends_with(']');
        token.remove_prefix(slot.optional ? 1 : 0);
        token.remove_suffix(alone ? 1 : 0);
        slot.name = token;
        slot.option = token.starts_with("--");
        if (slot.option && !alone) {
            slot.value = tokens[++i];
            slot.value.remove_suffix(slot.optional ? 1 : 0);
        }
        slots.push_back(slot);
    }
    return slots;
}

const UsageSlot *NextWord(std::span<const UsageSlot> slots, std::span<const std::string> words) {
    size_t given = 0;
    for (size_t i = 0; i < words.size(); ++i) {
        if (!words[i].starts_with("--")) {
            ++given;
            continue;
        }
        const auto slot = std::ranges::find(slots, words[i], &UsageSlot::name);
        i += slot != slots.end() && !slot->value.empty() ? 1 : 0;
    }
    for (const UsageSlot &slot : slots) {
        if (!slot.option && (slot.repeats || given-- == 0)) {
            return &slot;
        }
    }
    return nullptr;
}

std::string Join(std::span<const std::string> words) {
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

Arguments::Arguments(std::string_view usage, std::span<const std::string> words) {
    const std::vector<UsageSlot> slots = ReadUsage(usage);
    auto next = std::ranges::find(slots, false, &UsageSlot::option);
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &word = words[i];
        if (word.starts_with("--")) {
            const UsageSlot &slot =
                OptionSlot(slots, std::string_view(word).substr(0, word.find('=')));
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
            next =
                std::find_if(next + 1, slots.end(), [](const UsageSlot &s) { return !s.option; });
        }
    }
    for (const UsageSlot &slot : slots) {
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
