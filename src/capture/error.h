// What is wrong with a capture: the file and the cause, in one line.
#pragma once

#include <stdexcept>
#include <string>

namespace capture {

class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The path that stands for the standard input or output.
inline constexpr const char *kStandardStream = "-";

}  // namespace capture
