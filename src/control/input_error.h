// What is wrong with something that a user wrote.
#pragma once

#include <stdexcept>

namespace control {

// The text names the thing and the value, as in "SRC-PORT '70000' is not a number from 0 to 65535".
class InputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace control
