// The engine's control socket: the module's operations, and what the engine offers besides them.
#pragma once

#include <string>

#include "mund/server.h"

namespace kes_engine {

class Engine;
class LineLog;

class ControlService {
  public:
    // Serves clients on a socket: operations, the engine's state, exported objects, explanations,
    // and the lines of the log. Engine and log outlive it, and the engine is started until then.
    // Throws std::runtime_error.
    ControlService(const std::string &path, const Engine &engine, LineLog &log);
    ~ControlService();
    ControlService(const ControlService &) = delete;
    ControlService &operator=(const ControlService &) = delete;

  private:
    LineLog &log_;
    mund::ControlServer server_;
};

}  // namespace kes_engine
