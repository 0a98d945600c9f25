// Lines of words, as command files hold them: '#' begins a comment. A byte order mark at the head,
// and carriage returns, mean nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace control {

// The words of a line. What stands between two ' or two " is a part of one word, spaces and '#'
// too. Throws InputError for a quote that is not closed.
std::vector<std::string> SplitWords(std::string_view line);

// What is done with a line that has words; lines are counted from 1.
using LineUser = std::function<void(uint32_t line, std::span<const std::string> words)>;

// Goes through a text; `name` stands for it in errors. An InputError that the user of a line throws
// goes on as "FILE:LINE: reason"; a text that cannot be read is one too. The path "-" is the
// standard input, "stdin" in errors, which gives its lines to the first who asks for them; the next
// one gets an InputError.
void ForEachLine(std::istream &text, const std::string &name, const LineUser &use);
void ForEachLine(const std::string &path, const LineUser &use);

}  // namespace control
