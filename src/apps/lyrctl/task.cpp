#include "task.h"

#include <iostream>

#include "control/json_line.h"

namespace lyrctl {
namespace {

ordered_json Answer(const std::string &command, const std::string &failure) {
    return {{"command", command},
            {"ok", failure.empty()},
            {"meaning", failure.empty() ? "ok" : failure}};
}

// What is wrong with a command is told before the engine is asked, so it is run up to there.
void CheckValues(const OwnCommand &own, const control::Arguments &arguments) {
    Client nobody;
    try {
        own.read(nobody, arguments);
    } catch (const NobodyToAsk &) {
    }
}

}  // namespace

Task::Task(std::span<const std::string> words)
    : words_(words.begin(), words.end()), own_(FindOwn(Commands().Find(words))) {
    if (own_ == nullptr) {
        operation_ = control::ParseWords(words);
        return;
    }
    arguments_ = control::Fit(own_->text, words);
    if (own_->isOperation != nullptr && own_->isOperation(*arguments_)) {
        own_ = nullptr;
        operation_ = control::ParseWords(words);
    }
}

Task::Task(std::span<const std::string> words, const std::string &file, uint32_t line)
    : Task(words) {
    file_ = file;
    line_ = line;
    if (own_ != nullptr && own_->read != nullptr) {
        CheckValues(*own_, *arguments_);
    }
}

std::string Task::Where() const {
    return file_.empty() ? "" : file_ + ":" + std::to_string(line_) + ": ";
}

ExitStatus Task::Run(Client &client) const {
    return own_ != nullptr ? RunOwn(client) : RunOperation(client);
}

ExitStatus Task::RunOperation(Client &client) const {
    const auto last = operation_.request.instance ? client.LastInstance() : std::nullopt;
    const control::Outcome outcome = control::Execute(operation_, client.Caller(), last);
    if (client.Json()) {
        PrintJson(outcome.Json());
    }
    if (!outcome.Ok()) {
        Complain(Where() + outcome.text + ": " + outcome.Meaning());
        return kRefused;
    }
    if (!client.Json()) {
        std::string text = outcome.ReplyText();
        text = text.empty() ? outcome.Summary() : text;
        if (file_.empty() || text != "ok") {
            std::cout << text << '\n';
        }
    }
    return kOk;
}

ExitStatus Task::RunOwn(Client &client) const {
    const std::string command = control::Join(words_);
    try {
        if (own_->run != nullptr) {
            return own_->run(client, *arguments_);
        }
        const ordered_json reply = own_->read(client, *arguments_);
        if (client.Json()) {
            ordered_json answer = Answer(command, "");
            answer["reply"] = reply;
            PrintJson(answer);
        } else {
            std::cout << own_->render(reply) << '\n';
        }
        return own_->isSame == nullptr || own_->isSame(reply) ? kOk : kRefused;
    } catch (const control::Refused &refusal) {
        if (client.Json() && own_->run == nullptr) {
            PrintJson(Answer(command, refusal.what()));
        }
        if (own_->isSame != nullptr) {
            // 1 says that something differs.
            Complain(Where() + command + ": " + refusal.what());
            return kUsage;
        }
        throw control::Refused(command + ": " + refusal.what());
    }
}

void Task::TellFailure(const Client &client, const std::string &why) const {
    if (client.Json()) {
        PrintJson(Answer(control::Join(words_), why));
    }
    Complain(Where() + why);
}

void Task::PrintJson(const ordered_json &answer) const {
    ordered_json line;
    if (!file_.empty()) {
        line = {{"file", file_}, {"line", line_}};
    }
    line.update(answer);
    std::cout << control::JsonLine(line) << '\n';
}

}  // namespace lyrctl
