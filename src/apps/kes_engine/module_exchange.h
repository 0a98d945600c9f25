// A module that is exchanged while the engine runs: asked for by clients, done by the engine.
#pragma once

#include <functional>
#include <future>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "control/command.h"
#include "mund/control_socket.h"
#include "mund/gate.h"
#include "standin/module_loader.h"

namespace kes_engine {

class ModuleExchange {
  public:
    using Json = nlohmann::ordered_json;
    // Loads a file, or for an empty path the one that was loaded last. Throws Failure.
    using Work = std::function<Json(const std::string &path)>;

    // Waits until the engine has done it, and hands out what that told. Throws Failure, also where
    // the engine does not attend. Callable from any thread.
    Json Ask(const std::string &path);

    // Does what is asked for, if anything is, on the calling thread: the engine's own.
    void Attend(const Work &work);
    // Requests are taken as long as this exists.
    class Attendance {
      public:
        explicit Attendance(ModuleExchange &exchange);
        // Refuses those that wait.
        ~Attendance();
        Attendance(const Attendance &) = delete;
        Attendance &operator=(const Attendance &) = delete;

      private:
        ModuleExchange &exchange_;
    };

    // Whoever asks the module is inside; whoever exchanges it has closed it.
    mund::Gate gate;

  private:
    struct Request {
        std::string path;
        std::promise<Json> done;
    };

    std::mutex mutex_;
    bool attended_ = false;
    std::optional<Request> waiting_;
};

// The commands that make a started module's state again. Audits that are queued have ended. Throws
// std::runtime_error.
std::vector<control::Command> StateOf(const standin::Module &module);

// A library's file, open: the same one whatever becomes of its name. It belongs to the engine's
// user or to root, and nobody else may write to it. Throws Failure.
mund::Descriptor OpenLibrary(const std::string &path);
// Under which an open file can be loaded.
std::string PathOf(const mund::Descriptor &file);

}  // namespace kes_engine
