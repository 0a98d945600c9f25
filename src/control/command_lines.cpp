#include "control/command_lines.h"

#include <cctype>
#include <cerrno>
#include <fstream>
#include <iostream>
#include <system_error>
#include <utility>

#include "control/input_error.h"

namespace control {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

InputError Unreadable(const std::string &name) {
    return InputError("cannot read commands from '" + name +
                      "': " + std::generic_category().message(errno));
}

}  // namespace

std::vector<std::string> SplitWords(std::string_view line) {
    std::vector<std::string> words;
    bool inWord = false;
    const auto take = [&](std::string_view part) {
        if (!std::exchange(inWord, true)) {
            words.emplace_back();
        }
        words.back() += part;
    };
    for (size_t at = 0; at < line.size() && line[at] != '#'; ++at) {
        if (line[at] == '\'' || line[at] == '"') {
            const size_t end = line.find(line[at], at + 1);
            if (end == std::string_view::npos) {
                throw InputError(std::string("the quote ") + line[at] + " is not closed");
            }
            take(line.substr(at + 1, end - at - 1));
            at = end;
        } else if (std::isspace(static_cast<unsigned char>(line[at])) != 0) {
            inWord = false;
        } else {
            take(line.substr(at, 1));
        }
    }
    return words;
}

void ForEachLine(std::istream &text, const std::string &name, const LineUser &use) {
    uint32_t number = 0;
    for (std::string line; std::getline(text, line);) {
        if (++number == 1 && line.starts_with(kByteOrderMark)) {
            line.erase(0, kByteOrderMark.size());
        }
        try {
            if (const std::vector<std::string> words = SplitWords(line); !words.empty()) {
                use(number, words);
            }
        } catch (const InputError &error) {
            throw InputError(name + ":" + std::to_string(number) + ": " + error.what());
        }
    }
    if (text.bad()) {
        throw Unreadable(name);
    }
}

void ForEachLine(const std::string &path, const LineUser &use) {
    if (path == "-") {
        static bool taken = false;
        if (std::exchange(taken, true)) {
            throw InputError("the standard input ('-') can be read only once");
        }
        ForEachLine(std::cin, "stdin", use);
        return;
    }
    std::ifstream file(path);
    if (!file) {
        throw Unreadable(path);
    }
    ForEachLine(file, path, use);
}

}  // namespace control
