#include "module_exchange.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <sstream>
#include <system_error>
#include <utility>

#include "control/settings.h"
#include "control/state_file.h"
#include "control_service.h"
#include "failure.h"
#include "local_view.h"
#include "standin/runtime.h"

namespace kes_engine {

ModuleExchange::Json ModuleExchange::Ask(const std::string &path) {
    std::future<Json> done;
    {
        const std::lock_guard lock(mutex_);
        if (!attended_ || waiting_) {
            throw Failure(waiting_ ? "another request to load the module waits"
                                   : "the engine forwards no packets at this time");
        }
        done = waiting_.emplace(Request{path, {}}).done.get_future();
    }
    return done.get();
}

void ModuleExchange::Attend(const Work &work) {
    std::optional<Request> request;
    {
        const std::lock_guard lock(mutex_);
        request.swap(waiting_);
    }
    if (!request) {
        return;
    }
    try {
        request->done.set_value(work(request->path));
    } catch (...) {
        request->done.set_exception(std::current_exception());
    }
}

ModuleExchange::Attendance::Attendance(ModuleExchange &exchange) : exchange_(exchange) {
    const std::lock_guard lock(exchange_.mutex_);
    exchange_.attended_ = true;
}

ModuleExchange::Attendance::~Attendance() {
    {
        const std::lock_guard lock(exchange_.mutex_);
        exchange_.attended_ = false;
    }
    exchange_.Attend([](const std::string &) -> Json { throw Failure("the engine ends"); });
}

std::vector<control::Command> StateOf(const standin::Module &module) {
    standin::WaitUntilCreatedThreadsIdle();
    LocalView view(HandlersOf(module, {}));
    const control::ModuleSize size = control::ReadSize(view);
    std::istringstream text(
        control::ToStateText(control::SettingsOf(control::ReadState(view), size.lastInstance), size)
            .text);
    return control::ParseCommands(text, "the state of the module");
}

mund::Descriptor OpenLibrary(const std::string &path) {
    const auto refuse = [&path](const std::string &why) {
        throw Failure("module '" + path + "': " + why);
    };
    mund::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status = {};
    if (!file.Open() || fstat(file.Number(), &status) != 0) {
        refuse(std::generic_category().message(errno));
    }
    char magic[SELFMAG] = {};
    if (!S_ISREG(status.st_mode) || pread(file.Number(), magic, SELFMAG, 0) != SELFMAG ||
        std::memcmp(magic, ELFMAG, SELFMAG) != 0) {
        refuse("it is no shared library");
    }
    const bool isOurs = status.st_uid == 0 || status.st_uid == geteuid();
    if (!isOurs || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        refuse("others than root and the engine's user may write to it");
    }
    return file;
}

std::string PathOf(const mund::Descriptor &file) {
    return "/proc/self/fd/" + std::to_string(file.Number());
}

}  // namespace kes_engine
