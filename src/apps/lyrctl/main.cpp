// lyrctl: controls and watches the module in a running engine, over the engine's control socket.
#include <csignal>
#include <iostream>

#include "client.h"
#include "command_list.h"
#include "control/command.h"
#include "control/json_line.h"
#include "control/module_object.h"
#include "mund/module_objects.h"
#include "options.h"
#include "standard_output.h"

namespace lyrctl {
namespace {

// Nothing where the engine does not tell.
std::optional<uint32_t> LastInstance(Client &client) {
    try {
        return ReadObject<uint32_t>(client.Engine(), MUND_OBJECT_LAST_INSTANCE);
    } catch (const control::Refused &) {
        return std::nullopt;
    }
}

ExitStatus RunOperation(Client &client, std::span<const std::string> words) {
    const control::Command command = control::ParseWords(words);
    const auto last = command.request.instance ? LastInstance(client) : std::nullopt;
    const control::Outcome outcome = control::Execute(command, client.Caller(), last);
    if (client.Json()) {
        std::cout << outcome.ToJson() << '\n';
    }
    if (!outcome.Ok()) {
        Complain(outcome.text + ": " + outcome.Meaning());
        return kRefused;
    }
    if (!client.Json()) {
        const std::string reply = outcome.ReplyText();
        std::cout << (reply.empty() ? outcome.Summary() : reply) << '\n';
    }
    return kOk;
}

void PrintAnswer(const std::string &command, const std::string &failure,
                 const ordered_json *reply) {
    ordered_json json = {{"command", command},
                         {"ok", failure.empty()},
                         {"meaning", failure.empty() ? "ok" : failure}};
    if (reply != nullptr) {
        json["reply"] = *reply;
    }
    std::cout << control::JsonLine(json) << '\n';
}

ExitStatus RunOwn(Client &client, const OwnCommand &own, std::span<const std::string> words) {
    const control::Arguments arguments = control::Fit(own.text, words);
    const std::string command = control::Join(words);
    try {
        if (own.run != nullptr) {
            return own.run(client, arguments);
        }
        const ordered_json reply = own.read(client, arguments);
        if (client.Json()) {
            PrintAnswer(command, "", &reply);
        } else {
            std::cout << own.render(reply) << '\n';
        }
        return own.isSame == nullptr || own.isSame(reply) ? kOk : kRefused;
    } catch (const control::Refused &refusal) {
        if (client.Json() && own.run == nullptr) {
            PrintAnswer(command, refusal.what(), nullptr);
        }
        if (own.isSame != nullptr) {
            // 1 says that something differs.
            Complain(command + ": " + refusal.what());
            return kUsage;
        }
        throw control::Refused(command + ": " + refusal.what());
    }
}

ExitStatus RunCommand(const Options &options) {
    if (options.words.empty()) {
        throw control::InputError("there is no command (--help lists them)");
    }
    const OwnCommand *own = FindOwn(Commands().Find(options.words));
    Client client(options.control, options.json);
    const bool isOwn =
        own != nullptr &&
        (own->isOperation == nullptr || !own->isOperation(control::Fit(own->text, options.words)));
    return isOwn ? RunOwn(client, *own, options.words) : RunOperation(client, options.words);
}

ExitStatus Run(int argc, char **argv) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        return kOk;
    }
    if (options.help) {
        std::cout << (options.words.empty() ? options.overview : Commands().HelpOn(options.words));
        return kOk;
    }
    if (options.listCommands) {
        std::cout << Commands().Lines();
        return kOk;
    }
    return RunCommand(options);
}

ExitStatus Main(int argc, char **argv) {
    // A reader that goes away is no reason to leave the terminal or the trace as it is.
    std::signal(SIGPIPE, SIG_IGN);
    // A file that may grow no further is a failure like others.
    std::signal(SIGXFSZ, SIG_IGN);
    ExitStatus status = kOk;
    try {
        status = Run(argc, argv);
    } catch (const control::InputError &error) {
        Complain(error.what());
        status = kUsage;
    } catch (const control::NoEngine &error) {
        Complain(error.what());
        status = kNoEngine;
    } catch (const std::exception &error) {
        Complain(error.what());
        status = kRefused;
    }
    if (!std::cout.flush() && status == kOk) {
        if (!OutputReaderIsGone()) {
            Complain("cannot write the answer");
        }
        status = kRefused;
    }
    return status;
}

}  // namespace
}  // namespace lyrctl

int main(int argc, char **argv) {
    return lyrctl::Main(argc, argv);
}
