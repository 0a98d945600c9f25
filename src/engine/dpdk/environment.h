// DPDK's environment layer: its arguments, and the processors of threads that are no lcores.
#pragma once

#include <string>
#include <vector>

namespace dpdk {

class Environment {
  public:
    // Starts the environment. The calling thread is its main lcore by name only: it, and the
    // threads that it starts from now on, run on the processors that the program had before, except
    // those of the other lcores as long as any remain. To be made once in a program. Throws Error.
    Environment(const std::string &program, const std::vector<std::string> &arguments);
    // Gives everything back to the system.
    ~Environment();
    Environment(const Environment &) = delete;
    Environment &operator=(const Environment &) = delete;

    // The lcores for work, all but the main one.
    static std::vector<unsigned> Workers();
};

}  // namespace dpdk
