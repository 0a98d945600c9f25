#include "control/command_lines.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "control/input_error.h"

namespace control {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::vector<std::string> Words(const std::string &line) {
    std::istringstream text(line.substr(0, line.find('#')));
    std::vector<std::string> words;
    for (std::string word; text >> word;) {
        words.push_back(word);
    }
    return words;
}

InputError Unreadable(const std::string &name) {
    return InputError("cannot read commands from '" + name +
                      "': " + std::generic_category().message(errno));
}

}  // namespace

void ForEachLine(std::istream &text, const std::string &name, const LineUser &use) {
    uint32_t number = 0;
    for (std::string line; std::getline(text, line);) {
        if (++number == 1 && line.starts_with(kByteOrderMark)) {
            line.erase(0, kByteOrderMark.size());
        }
        const std::vector<std::string> words = Words(line);
        if (words.empty()) {
            continue;
        }
        try {
            use(number, words);
        } catch (const InputError &error) {
            throw InputError(name + ":" + std::to_string(number) + ": " + error.what());
        }
    }
    if (text.bad()) {
        throw Unreadable(name);
    }
}

void ForEachLine(const std::string &path, const LineUser &use) {
    std::ifstream file(path);
    if (!file) {
        throw Unreadable(path);
    }
    ForEachLine(file, path, use);
}

}  // namespace control
