#include "control/command.h"

#include "client/result_text.h"
#include "control/command_lines.h"
#include "control/json_line.h"
#include "control/reply_format.h"
#include "mund/messages.h"

namespace control {
namespace {

std::string_view OperationName(MundOperation operation) {
#define MUND_OPERATION_NAME(name, requestSize, replySize) #name,
    static constexpr std::string_view kNames[] = {MUND_OPERATIONS(MUND_OPERATION_NAME)};
#undef MUND_OPERATION_NAME
    return kNames[operation];
}

// What is wrong with the size of a reply; empty when nothing is.
std::string CheckReply(const CommandSpec &spec, const Answer &answer) {
    const size_t size = answer.reply.size();
    const size_t wanted = spec.reply != nullptr ? spec.reply->size : 0;
    const bool mayLack = answer.result != MUND_RESULT_OK;
    if (size == wanted || (size == 0 && mayLack)) {
        return "";
    }
    return "the reply has " + std::to_string(size) + " bytes, not " + std::to_string(wanted);
}

Ask AskThrough(const Caller &caller, const Command &command, Outcome &outcome) {
    return [&](std::span<const uint8_t> request) {
        Answer answer = caller(command.spec->operation, request);
        if (answer.failure.empty()) {
            answer.failure = CheckReply(*command.spec, answer);
        }
        if (!answer.failure.empty()) {
            throw ReplyError(answer.failure);
        }
        outcome.result = answer.result;
        return answer;
    };
}

LineUser AppendTo(std::vector<Command> &commands, const std::string &name) {
    return [&commands, &name](uint32_t line, std::span<const std::string> words) {
        Command &command = commands.emplace_back(ParseWords(words));
        command.file = name;
        command.line = line;
    };
}

}  // namespace

std::string Command::Where() const {
    return file.empty() ? "" : file + ":" + std::to_string(line) + ": ";
}

std::string BeyondInstances(const Request &request, std::optional<uint32_t> lastInstance) {
    if (!request.instance || !lastInstance || *request.instance <= *lastInstance) {
        return "";
    }
    return "instance " + std::to_string(*request.instance) +
           " is beyond the service instances, 0 to " + std::to_string(*lastInstance);
}

Command ParseWords(std::span<const std::string> words) {
    Command command;
    command.text = Join(words);
    command.spec = FindSpec(Operations().Find(words));
    command.request = command.spec->encode(Fit(command.spec->text, words));
    return command;
}

std::vector<Command> ParseCommands(std::istream &text, const std::string &name) {
    std::vector<Command> commands;
    ForEachLine(text, name, AppendTo(commands, name));
    return commands;
}

std::vector<Command> ParseFile(const std::string &path) {
    std::vector<Command> commands;
    ForEachLine(path, AppendTo(commands, path));
    return commands;
}

bool Outcome::Ok() const {
    return failure.empty() && result == MUND_RESULT_OK;
}

std::string Outcome::Meaning() const {
    if (!failure.empty()) {
        return failure;
    }
    const std::string_view why = reason.empty() ? spec->failure : reason;
    std::string meaning = client::ResultText(result);
    if (result == MUND_RESULT_FAILED && !why.empty()) {
        meaning.append(": ").append(why);
    }
    return meaning;
}

std::string Outcome::Summary() const {
    if (!tally || !Ok()) {
        return Meaning();
    }
    return Meaning() + "; records sent: " + std::to_string(tally->records) +
           ", entries of other instances left out: " + std::to_string(tally->leftOut);
}

std::string Outcome::ReplyText() const {
    const bool laidOut = !reply.is_null() && spec->reply->render != nullptr;
    return laidOut ? spec->reply->render(reply) : "";
}

std::string Outcome::ToText() const {
    const std::string body = ReplyText();
    return text + ": " + Summary() + (body.empty() ? "" : "\n") + body;
}

std::string Outcome::ToJson() const {
    return JsonLine(Json());
}

nlohmann::ordered_json Outcome::Json() const {
    nlohmann::ordered_json json = {{"command", text},
                                   {"operation", OperationName(spec->operation)},
                                   {"ok", Ok()},
                                   {"result", nullptr},
                                   {"meaning", Meaning()}};
    if (failure.empty()) {
        json["result"] = result;
    }
    if (tally) {
        json["batch"] = {{"records", tally->records}, {"leftOut", tally->leftOut}};
    }
    if (!reply.is_null()) {
        json["reply"] = reply;
    }
    return json;
}

Outcome Execute(const Command &command, const Caller &caller,
                std::optional<uint32_t> lastInstance) {
    Outcome outcome;
    outcome.text = command.text;
    outcome.spec = command.spec;
    outcome.tally = command.request.tally;
    outcome.failure = BeyondInstances(command.request, lastInstance);
    if (!outcome.failure.empty()) {
        return outcome;
    }
    const Ask ask = AskThrough(caller, command, outcome);
    try {
        if (command.spec->reply != nullptr) {
            outcome.reply = command.spec->reply->read(command.request.bytes, ask);
        } else {
            ask(command.request.bytes);
        }
    } catch (const OperationFailed &failed) {
        outcome.result = failed.result;
        outcome.reason = failed.reason;
    } catch (const ReplyError &error) {
        outcome.failure = error.what();
    }
    return outcome;
}

}  // namespace control
