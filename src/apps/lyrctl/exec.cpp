// exec: the commands of files, one after the other.
#include <algorithm>
#include <iostream>
#include <vector>

#include "control/command_lines.h"
#include "control/input_error.h"
#include "own_commands.h"
#include "standard_output.h"
#include "task.h"

namespace lyrctl {
namespace {

std::vector<Task> ReadTasks(const std::vector<std::string> &paths) {
    std::vector<Task> tasks;
    for (const std::string &path : paths) {
        const std::string name = path == "-" ? "stdin" : path;
        control::ForEachLine(path, [&](uint32_t line, std::span<const std::string> words) {
            if (words.front() == "exec") {
                throw control::InputError("a file that is run runs no others");
            }
            tasks.emplace_back(words, name, line);
        });
    }
    return tasks;
}

// What a task throws is told with its place, and becomes the status.
ExitStatus RunTold(Client &client, const Task &task) {
    try {
        return task.Run(client);
    } catch (const control::NoEngine &error) {
        task.TellFailure(client, error.what());
        return kNoEngine;
    } catch (const control::InputError &error) {
        Complain(task.Where() + error.what());
        return kUsage;
    } catch (const std::exception &error) {
        Complain(task.Where() + error.what());
        return kRefused;
    }
}

std::string Number(size_t number, const char *words) {
    return number == 0 ? "" : ", " + std::to_string(number) + words;
}

}  // namespace

ExitStatus ExecFiles(Client &client, const control::Arguments &arguments) {
    const bool keepsGoing = arguments.Find("--keep-going") != nullptr;
    const std::vector<Task> tasks = ReadTasks(arguments.Repeated());
    ExitStatus worst = kOk;
    size_t failed = 0;
    size_t next = 0;
    for (bool goesOn = true; goesOn && next < tasks.size(); ++next) {
        const ExitStatus status = RunTold(client, tasks[next]);
        worst = std::max(worst, status);
        failed += status == kOk ? 0 : 1;
        // Without an engine, or anyone who reads the answers, there is no point in going on.
        goesOn = (status == kOk || (keepsGoing && status != kNoEngine)) && std::cout;
    }
    const size_t done = next - failed;
    const std::string summary = std::to_string(done) + (done == 1 ? " command" : " commands") +
                                " done" + Number(failed, " failed") +
                                Number(tasks.size() - next, " not run");
    if (worst != kOk || next < tasks.size()) {
        Complain(summary);
    } else if (!client.Json()) {
        std::cout << summary << '\n';
    }
    return worst;
}

}  // namespace lyrctl
