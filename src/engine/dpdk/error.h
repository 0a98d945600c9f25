// What DPDK or a port refuses, in one line that names the thing and the value.
#pragma once

#include <stdexcept>

namespace dpdk {

class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace dpdk
