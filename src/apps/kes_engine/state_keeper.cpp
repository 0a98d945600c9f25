#include "state_keeper.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <iterator>
#include <system_error>
#include <utility>

#include "control/settings.h"
#include "control/state_file.h"
#include "control/whole_file.h"
#include "failure.h"
#include "standin/runtime.h"

namespace kes_engine {
namespace {

constexpr std::chrono::seconds kInterval{1};
static_assert(kInterval < StateKeeper::kLongestUnsaved);

std::string TextOf(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

StateKeeper::StateKeeper(const std::string &path) : path_(path) {
    if (path_.empty()) {
        return;
    }
    try {
        control::CheckWritable(path);
    } catch (const control::WriteError &error) {
        throw UsageError("--state: " + std::string(error.what()));
    }
    TakeFile();
}

StateKeeper::~StateKeeper() {
    End();
}

// Locks the file that has the name now; there may be none yet.
void StateKeeper::TakeFile() {
    const std::string name = "--state '" + path_ + "': ";
    mund::Descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status = {};
    if (!file.Open() && errno != ENOENT) {
        throw UsageError(name + std::generic_category().message(errno));
    }
    if (file.Open() && (fstat(file.Number(), &status) != 0 || !S_ISREG(status.st_mode))) {
        throw UsageError(name + "it is no file that could be replaced");
    }
    if (file.Open() && flock(file.Number(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        throw UsageError(name + "another engine keeps its state there");
    }
    taken_ = std::move(file);
}

std::vector<control::Command> StateKeeper::Load(LocalView engine) {
    if (path_.empty()) {
        return {};
    }
    engine_.emplace(std::move(engine));
    size_ = control::ReadSize(*engine_);
    if (!taken_.Open()) {
        return {};
    }
    std::vector<control::Command> commands = control::ReadStateFile(path_, size_);
    text_ = TextOf(path_);
    return commands;
}

void StateKeeper::Begin() {
    if (path_.empty()) {
        return;
    }
    if (const std::string failure = TrySave(); !failure.empty()) {
        throw UsageError("--state: " + failure);
    }
    thread_ = std::thread([this] { SaveUntilEnd(); });
}

std::string StateKeeper::End() {
    if (!thread_.joinable()) {
        return {};
    }
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake_.notify_one();
    thread_.join();
    // Audits that are queued come to their end first.
    standin::WaitUntilCreatedThreadsIdle();
    const std::string failure = TrySave();
    return failure.empty() ? "" : "state: " + failure;
}

void StateKeeper::SaveUntilEnd() {
    std::unique_lock lock(mutex_);
    while (!wake_.wait_for(lock, kInterval, [this] { return ending_; })) {
        Save();
    }
}

void StateKeeper::Save() {
    const std::string failure = TrySave();
    if (failure.empty() == failing_) {
        std::cerr << "kes_engine: state: "
                  << (failing_ ? "'" + path_ + "' is written again"
                               : failure + "; it is tried again every second")
                  << '\n';
        failing_ = !failing_;
    }
}

// Returns why it failed, or nothing. A state that is changed and changed back is not written; a
// file that somebody has removed is written again.
std::string StateKeeper::TrySave() {
    try {
        control::ModuleState state = control::ReadState(*engine_);
        const bool isThere = access(path_.c_str(), F_OK) == 0;
        if (isThere && state == saved_) {
            return {};
        }
        std::string text =
            control::ToStateText(control::SettingsOf(state, size_.lastInstance), size_).text;
        if (!isThere || text != text_) {
            control::WriteWhole(path_, text);
            TakeFile();
        }
        text_ = std::move(text);
        saved_ = std::move(state);
        return {};
    } catch (const std::exception &error) {
        return error.what();
    }
}

}  // namespace kes_engine
