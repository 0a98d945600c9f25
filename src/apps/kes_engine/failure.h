// What ends a run, in one line that names the thing and the value.
#pragma once

#include <stdexcept>

namespace kes_engine {

class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A command line that makes no sense, or that names something that cannot be used.
class UsageError : public Failure {
  public:
    using Failure::Failure;
};

}  // namespace kes_engine
