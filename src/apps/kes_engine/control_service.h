// The engine's control socket: the module's operations, and what the engine offers besides them.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "module_exchange.h"
#include "mund/server.h"
#include "standin/module_loader.h"
#include "state.h"

namespace kes_engine {

class LineLog;

// Answers to what clients ask besides the module's operations. The module outlives them, and is
// started while they are called; `stateNow` is called by them.
std::map<uint16_t, mund::WireHandler> HandlersOf(const standin::Module &module,
                                                 const std::function<State()> &stateNow);
// The same of a module that may be exchanged, and the request for that. They wait for an exchange
// that is under way, which outlives them.
std::map<uint16_t, mund::WireHandler> HandlersOf(const standin::Module &module,
                                                 const std::function<State()> &stateNow,
                                                 ModuleExchange &exchange);

class ControlService {
  public:
    // Serves clients on a socket: operations, the engine's state, exported objects, explanations,
    // and the lines of the log. Module and log outlive it, and the module is started until then.
    // With a group, its members are served, too; without `exchange` the module stays the same one.
    // `stateNow` is called from several threads. Throws std::runtime_error.
    ControlService(const std::string &path, const standin::Module &module,
                   const std::function<State()> &stateNow, LineLog &log,
                   std::optional<gid_t> group = std::nullopt, ModuleExchange *exchange = nullptr);
    ~ControlService();
    ControlService(const ControlService &) = delete;
    ControlService &operator=(const ControlService &) = delete;

  private:
    LineLog &log_;
    mund::ControlServer server_;
};

}  // namespace kes_engine
