#include "module_run.h"

#include <algorithm>
#include <iostream>

#include "failure.h"
#include "module_caller.h"
#include "mund/module_objects.h"
#include "standin/runtime.h"

namespace kes_engine {

ModuleRun::ModuleRun(const std::string &path) : path_(path) {
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
        std::cerr << ExecuteOne(command).ToText() << '\n';
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
        result_.counters = Between(*countersBefore_, *counters);
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
    result_.leftovers = module_.Unload();
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
