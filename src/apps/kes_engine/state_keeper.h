// The module's state in a file: loaded at start, saved after changes and at the end.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "control/command.h"
#include "control/module_state.h"
#include "local_view.h"
#include "mund/control_socket.h"

namespace kes_engine {

class StateKeeper {
  public:
    // How long a change may stay unsaved, but for the time that the disk takes.
    static constexpr std::chrono::seconds kLongestUnsaved{2};

    // Takes the file for itself. Throws UsageError for one that cannot be written, or that another
    // engine has. With an empty path there is nothing to load and nothing is ever saved.
    explicit StateKeeper(const std::string &path);
    ~StateKeeper();
    StateKeeper(const StateKeeper &) = delete;
    StateKeeper &operator=(const StateKeeper &) = delete;

    // The commands of the file, for the module of an engine, which has started; none if there is no
    // file. Throws control::InputError for a file that does not fit the module, whole.
    std::vector<control::Command> Load(LocalView engine);

    // Saves the state now, unless the file has it, and from now on whenever it has changed, on a
    // thread of its own that looks once a second. A save that fails is told on standard error and
    // tried again. Throws UsageError if the first one fails.
    void Begin();

    // Saves for the last time, while the module still runs. Returns why that failed, or nothing.
    std::string End();

  private:
    void SaveUntilEnd();
    void Save();
    std::string TrySave();
    void TakeFile();

    const std::string path_;
    mund::Descriptor taken_;  // the file as last written, locked
    std::optional<LocalView> engine_;
    control::ModuleSize size_;
    std::optional<control::ModuleState> saved_;  // what the file is known to have
    std::string text_;                           // of the file
    bool failing_ = false;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool ending_ = false;
    std::thread thread_;
};

}  // namespace kes_engine
