#include "module_run.h"

#include <fcntl.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <utility>

#include "control/printable.h"
#include "failure.h"
#include "module_caller.h"
#include "module_exchange.h"
#include "mund/module_objects.h"
#include "standin/runtime.h"

namespace kes_engine {

ModuleRun::ModuleRun(const std::string &path)
    : path_(path), file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (const std::string wrong = module_.Load(path); !wrong.empty()) {
        throw UsageError("cannot load the module: " + wrong);
    }
}

void ModuleRun::Start() {
    if (const std::string wrong = module_.Start(); !wrong.empty()) {
        throw Failure("cannot start the module: " + wrong);
    }
    const auto *last = static_cast<const uint32_t *>(module_.Symbol(MUND_OBJECT_LAST_INSTANCE));
    if (last == nullptr) {
        throw Failure("module '" + path_ + "' has no object " + MUND_OBJECT_LAST_INSTANCE);
    }
    lastInstance_ = *last;
    countersBefore_ = ReadCounters();
}

void ModuleRun::Execute(const std::vector<control::Command> &commands) {
    for (const control::Command &command : commands) {
        std::cerr << control::Printable(ExecuteOne(command).ToText(), "\n") << '\n';
    }
}

void ModuleRun::Restore(const std::vector<control::Command> &commands) {
    std::ranges::for_each(commands, [this](const auto &command) { ExecuteOne(command); });
}

control::Outcome ModuleRun::ExecuteOne(const control::Command &command) {
    control::Outcome outcome = control::Execute(command, CallModule, lastInstance_);
    standin::WaitUntilCreatedThreadsIdle();
    if (!outcome.Ok()) {
        throw Failure(command.Where() + outcome.ToText());
    }
    ++result_.commands;
    return outcome;
}

void ModuleRun::ExecuteAfter(const std::vector<control::Command> &commands) {
    standin::WaitUntilCreatedThreadsIdle();
    try {
        Execute(commands);
    } catch (const Failure &failure) {
        Note({failure.what()});
    }
}

void ModuleRun::CompareCounters() {
    const std::optional<PacketCounters> counters = ReadCounters();
    if (countersBefore_ && counters) {
        result_.counters = Sum(countersOfOthers_, Between(*countersBefore_, *counters));
    }
}

void ModuleRun::Conclude() {
    standin::WaitUntilCreatedThreadsIdle();
    if (!result_.counters) {
        CompareCounters();
    }
    result_.dropWatch = ReadDropWatch(module_);
}

void ModuleRun::Unload() {
    result_.alarms = standin::SentAlarms();
    std::ranges::move(module_.Unload(), std::back_inserter(result_.leftovers));
}

size_t ModuleRun::Exchange(const std::string &path, const std::function<void()> &leave,
                           const std::function<void()> &enter) {
    if (!file_.Open()) {
        throw Failure("module '" + path_ + "' was loaded by a name that is none of a file");
    }
    const std::string &next = path.empty() ? path_ : path;
    mund::Descriptor file = OpenLibrary(next);
    const std::vector<control::Command> state = StateOf(module_);
    const uint64_t commands = result_.commands;
    TakeDown(leave);
    try {
        BringUp(file, next, enter, state);
        file_ = std::move(file);
        path_ = next;
    } catch (const std::runtime_error &failure) {
        TakeDown(leave);
        BringUp(file_, path_, enter, state);
        result_.commands = commands;
        throw Failure(std::string(failure.what()) + "; the module runs again as it was");
    }
    result_.commands = commands;
    return state.size();
}

void ModuleRun::TakeDown(const std::function<void()> &leave) {
    standin::WaitUntilCreatedThreadsIdle();
    if (countersBefore_) {
        if (const std::optional<PacketCounters> counters = ReadCounters()) {
            countersOfOthers_ = Sum(countersOfOthers_, Between(*countersBefore_, *counters));
        }
        countersBefore_.reset();
    }
    module_.Stop();
    leave();
    std::ranges::move(module_.Unload(), std::back_inserter(result_.leftovers));
}

void ModuleRun::BringUp(const mund::Descriptor &file, const std::string &path,
                        const std::function<void()> &enter,
                        const std::vector<control::Command> &state) {
    const uint32_t last = lastInstance_;
    if (const std::string wrong = module_.Load(PathOf(file)); !wrong.empty()) {
        throw Failure("cannot load the module '" + path + "': " + wrong);
    }
    enter();
    Start();
    if (lastInstance_ != last) {
        const uint32_t other = std::exchange(lastInstance_, last);
        throw Failure("module '" + path + "' has instances up to " + std::to_string(other) +
                      ", and this engine up to " + std::to_string(last));
    }
    Restore(state);
}

std::optional<PacketCounters> ModuleRun::ReadCounters() {
    try {
        return ReadPacketCounters();
    } catch (const Failure &failure) {
        Note({failure.what()});
        return std::nullopt;
    }
}

void ModuleRun::Note(const std::vector<std::string> &failures) {
    for (const std::string &failure : failures) {
        if (!failure.empty()) {
            result_.failures.push_back(failure);
        }
    }
}

}  // namespace kes_engine
