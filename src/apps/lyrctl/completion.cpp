#include "completion.h"

#include <algorithm>
#include <string_view>

#include "capwap/message_type.h"
#include "command_list.h"
#include "control/command_set.h"
#include "control/values.h"
#include "object_format.h"

namespace lyrctl {
namespace {

using control::UsageSlot;
using Words = std::vector<std::string>;

void AddInstances(Client &client, Words &words) {
    try {
        for (uint32_t instance = 0; instance <= client.LastInstance().value_or(0); ++instance) {
            words.push_back(std::to_string(instance));
        }
    } catch (const control::NoEngine &) {
    }
}

void AddObjects(Client &, Words &words) {
    for (const KnownObject &object : KnownObjects()) {
        words.emplace_back(object.name);
    }
}

void AddMessageTypes(Client &, Words &words) {
    for (const std::string_view name : capwap::MessageTypeNames()) {
        std::string word = control::IdentifierOf(name);
        std::ranges::replace(word, '_', '-');
        words.push_back(std::move(word));
    }
}

void AddLevels(Client &, Words &words) {
    words.insert(words.end(), {"1", "2", "3"});
}

void AddLists(Client &, Words &words) {
    words.insert(words.end(), {"0", "1"});
}

// The values of a word that usages name so, or of an option.
struct Values {
    std::string_view name;
    void (*add)(Client &client, Words &words);
};

constexpr Values kValues[] = {
    {"--node", AddInstances},    {"--level", AddLevels},        {"--list", AddLists},
    {"--type", AddMessageTypes}, {"TYPE|off", AddMessageTypes}, {"N", AddInstances},
    {"START", AddInstances},     {"NAME", AddObjects},
};

bool NamesFiles(std::string_view value) {
    return value == "FILE" || value == "[FILE]";
}

// What stands between '|' in small letters is to be given as it is.
void AddLiterals(std::string_view value, Words &words) {
    while (!value.empty()) {
        const std::string_view word = value.substr(0, value.find('|'));
        value.remove_prefix(std::min(word.size() + 1, value.size()));
        if (std::ranges::all_of(word, [](char c) { return (c >= 'a' && c <= 'z') || c == '-'; })) {
            words.emplace_back(word);
        }
    }
}

void AddValues(Client &client, const UsageSlot &slot, Choices &choices) {
    const std::string_view value = slot.option ? slot.value : slot.name;
    choices.files |= NamesFiles(value);
    AddLiterals(value, choices.words);
    const auto *known = std::ranges::find(kValues, slot.name, &Values::name);
    if (known != std::end(kValues)) {
        known->add(client, choices.words);
    }
}

// The words that go on with the name of a command.
void AddNames(std::span<const std::string> words, Words &next) {
    const std::string begin = words.empty() ? "" : control::Join(words) + " ";
    for (const std::string_view name : Commands().Names()) {
        if (name.starts_with(begin)) {
            next.emplace_back(
                name.substr(begin.size(), name.find(' ', begin.size()) - begin.size()));
        }
    }
}

bool IsGiven(std::span<const std::string> words, std::string_view option) {
    return std::ranges::any_of(words, [&](const std::string &word) {
        return std::string_view(word).substr(0, word.find('=')) == option;
    });
}

// Of the words behind a command's name.
void AddArguments(Client &client, std::string_view usage, std::span<const std::string> words,
                  const std::string &begun, Choices &choices) {
    const std::vector<UsageSlot> slots = control::ReadUsage(usage);
    if (!words.empty()) {
        const auto option = std::ranges::find(slots, words.back(), &UsageSlot::name);
        if (option != slots.end() && option->option && !option->value.empty()) {
            AddValues(client, *option, choices);
            return;
        }
    }
    for (const UsageSlot &slot : slots) {
        if (slot.option && !IsGiven(words, slot.name) &&
            (begun.starts_with('-') || !slot.optional)) {
            choices.words.emplace_back(slot.name);
        }
    }
    if (const UsageSlot *slot = control::NextWord(slots, words)) {
        AddValues(client, *slot, choices);
    }
}

}  // namespace

Choices Complete(Client &client, std::span<const std::string> words, const std::string &begun) {
    Choices choices;
    AddNames(words, choices.words);
    if (const control::CommandText *command = Commands().FindBegun(words)) {
        const auto behind = static_cast<size_t>(1 + std::ranges::count(command->name, ' '));
        AddArguments(client, command->usage, words.subspan(behind), begun, choices);
    }
    if (begun.starts_with('-')) {
        choices.words.insert(choices.words.end(), {"--help", "--json"});
    }
    std::erase_if(choices.words, [&](const std::string &word) { return !word.starts_with(begun); });
    std::ranges::sort(choices.words);
    choices.words.erase(std::unique(choices.words.begin(), choices.words.end()),
                        choices.words.end());
    return choices;
}

}  // namespace lyrctl
