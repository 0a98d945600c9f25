#include "control/command_set.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "control/input_error.h"

namespace control {
namespace {

using Words = std::span<const std::string>;

constexpr size_t kWidth = 80;

size_t WordCount(const CommandText &command) {
    return 1 + static_cast<size_t>(std::ranges::count(command.name, ' '));
}

std::string_view FirstWord(const CommandText *command) {
    return command->name.substr(0, command->name.find(' '));
}

// Whether the words begin with those of the name.
bool Begins(Words words, std::string_view name) {
    for (const std::string &word : words) {
        if (!name.starts_with(word)) {
            return false;
        }
        name.remove_prefix(word.size());
        if (name.empty()) {
            return true;
        }
        if (!name.starts_with(' ')) {
            return false;
        }
        name.remove_prefix(1);
    }
    return false;
}

std::string FirstWords(Words words, size_t count) {
    return Join(words.first(std::min(count, words.size())));
}

std::string UsageOf(const CommandText &command) {
    return std::string(command.name) + (command.usage.empty() ? "" : " ") +
           std::string(command.usage);
}

// The words of a text in lines of the width, each behind the margin.
std::string Wrapped(std::string_view text, const std::string &margin) {
    std::string lines;
    std::string line = margin;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(word.size() + 1, text.size()));
        if (line.size() > margin.size() && line.size() + 1 + word.size() > kWidth) {
            lines += line + "\n";
            line = margin;
        }
        line += (line.size() > margin.size() ? " " : "") + std::string(word);
    }
    return lines + line + "\n";
}

std::string_view FirstSentence(std::string_view text) {
    return text.substr(0, std::min(text.find(". "), text.size() - 1) + 1);
}

}  // namespace

Arguments Fit(const CommandText &command, Words words) {
    try {
        return Arguments(command.usage, words.subspan(WordCount(command)));
    } catch (const InputError &error) {
        throw InputError(std::string(error.what()) + "; usage: " + UsageOf(command));
    }
}

CommandSet::CommandSet(std::string program, std::span<const CommandText *const> commands)
    : program_(std::move(program)) {
    for (const CommandText *command : commands) {
        const auto kin =
            std::ranges::find(commands_.rbegin(), commands_.rend(), FirstWord(command), FirstWord);
        commands_.insert(kin == commands_.rend() ? commands_.end() : kin.base(), command);
    }
}

const CommandText *CommandSet::FindBegun(Words words) const {
    const CommandText *found = nullptr;
    for (const CommandText *command : commands_) {
        if (Begins(words, command->name) &&
            (found == nullptr || WordCount(*command) > WordCount(*found))) {
            found = command;
        }
    }
    return found;
}

const CommandText &CommandSet::Find(Words words) const {
    const CommandText *found = FindBegun(words);
    if (found == nullptr) {
        throw InputError(Unknown(words));
    }
    return *found;
}

std::vector<std::string_view> CommandSet::Names() const {
    std::vector<std::string_view> names;
    std::ranges::transform(commands_, std::back_inserter(names), &CommandText::name);
    return names;
}

std::string CommandSet::Unknown(Words words) const {
    std::vector<std::string_view> choices;
    for (const CommandText *command : commands_) {
        if (FirstWord(command) == words.front()) {
            choices.push_back(command->name);
        }
    }
    const bool known = !choices.empty();
    if (!known) {
        for (const CommandText *command : commands_) {
            choices.push_back(FirstWord(command));
        }
        choices.erase(std::unique(choices.begin(), choices.end()), choices.end());
    }
    std::string text = known && words.size() == 1 ? "unfinished" : "unknown";
    text += " command '" + FirstWords(words, known ? 2 : 1) + "'; there are: ";
    for (const std::string_view choice : choices) {
        text += (choice == choices.front() ? "" : ", ") + std::string(choice);
    }
    return text;
}

std::string CommandSet::Overview() const {
    std::string text;
    for (const CommandText *command : commands_) {
        text += "  " + UsageOf(*command) + "\n" + Wrapped(FirstSentence(command->help), "      ");
    }
    return text;
}

std::string CommandSet::HelpOf(const CommandText &command, const std::string &margin) const {
    return margin + program_ + UsageOf(command) + "\n" + Wrapped(command.help, margin + "    ") +
           margin + "    e.g. " + program_ + std::string(command.name) +
           (command.example.empty() ? "" : " ") + std::string(command.example) + "\n";
}

std::string CommandSet::Help() const {
    std::string help;
    for (const CommandText *command : commands_) {
        help += HelpOf(*command, "  ");
    }
    return help;
}

std::string CommandSet::HelpOn(Words words) const {
    const std::string begin = Join(words) + " ";
    std::string help;
    for (const CommandText *command : commands_) {
        if ((std::string(command->name) + " ").starts_with(begin)) {
            help += (help.empty() ? "" : "\n") + HelpOf(*command, "");
        }
    }
    return help.empty() ? HelpOf(Find(words), "") : help;
}

std::string CommandSet::Lines() const {
    std::string lines;
    for (const CommandText *command : commands_) {
        lines += std::string(command->name) + "\t" + std::string(command->usage) + "\n";
    }
    return lines;
}

}  // namespace control
