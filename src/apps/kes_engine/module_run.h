// A module through a run of the engine, whichever way its packets come.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "control/command.h"
#include "module_statistics.h"
#include "mund/control_socket.h"
#include "report.h"
#include "standin/module_loader.h"

namespace kes_engine {

class ModuleRun {
  public:
    // Loads the module. Throws UsageError.
    explicit ModuleRun(const std::string &path);

    // Starts it. Throws Failure.
    void Start();
    // Of a started module: service instances are numbered from 0 to this, inclusive.
    uint32_t LastInstance() const {
        return lastInstance_;
    }

    // Runs control commands, printing what came of each on standard error. What a command leaves to
    // the module's own threads is done before the next one runs, and before this returns. Throws
    // Failure for the first that does not succeed.
    void Execute(const std::vector<control::Command> &commands);
    // The same for those of a saved state, without a word on each.
    void Restore(const std::vector<control::Command> &commands);
    // Runs control commands once the traffic is over. The first that does not succeed ends them and
    // is told in the result.
    void ExecuteAfter(const std::vector<control::Command> &commands);

    // Loads a file instead of what is loaded (an empty path: the same file's successor, where there
    // is one), starts it and gives it the state that the module had. No packet reaches the module,
    // and nobody asks it. `leave` has the lcores leave it, if they have not, and `enter` has them
    // enter it. Where any of this fails, the module that was there before is loaded again, and runs
    // with the state that it had. Returns how many commands made the state. Throws Failure.
    size_t Exchange(const std::string &path, const std::function<void()> &leave,
                    const std::function<void()> &enter);
    const std::string &Path() const {
        return path_;
    }

    // Puts into the result what the module, and those before it, have counted since Start().
    void CompareCounters();
    // Waits for the module's own threads and reads what only a started module can tell.
    void Conclude();
    // Unloads it, and tells in the result what it left behind.
    void Unload();

    // Tells of failures in the result; empty texts are none.
    void Note(const std::vector<std::string> &failures);

    standin::Module &Module() {
        return module_;
    }
    const standin::Module &Module() const {
        return module_;
    }
    Result &Outcome() {
        return result_;
    }

  private:
    control::Outcome ExecuteOne(const control::Command &command);
    std::optional<PacketCounters> ReadCounters();
    void TakeDown(const std::function<void()> &leave);
    void BringUp(const mund::Descriptor &file, const std::string &path,
                 const std::function<void()> &enter, const std::vector<control::Command> &state);

    std::string path_;
    mund::Descriptor file_;                 // that is loaded
    PacketCounters countersOfOthers_ = {};  // of modules that have been exchanged
    Result result_;
    std::optional<PacketCounters> countersBefore_;  // any packet
    uint32_t lastInstance_ = 0;
    standin::Module module_;
};

}  // namespace kes_engine
