// Answers of any bytes before the readers of replies, which tell them as text and as JSON.
//
// An input is a command's number and the replies that it gets one by one: a Head each, then its
// patches, over zeros. Replies are long and mostly zero, and so an input stays short.
#include <string>

#include "control/command.h"
#include "control/reply_format.h"
#include "fuzz_target.h"
#include "mund/reconciliation_messages.h"
#include "mund/statistics_messages.h"

namespace {

using fuzz::Require;

struct Head {
    uint8_t patches;  // low six bits; the highest: the operation did not run
    uint8_t length;   // 0: the right one; 1: none; else bytes beyond it, and 128
    uint8_t result;   // 255: the one of all bits
};
constexpr uint8_t kPatches = 63;
constexpr uint8_t kNotRun = 0x80;

// What stands before the bytes of a patch.
struct Patch {
    uint8_t atHigh;
    uint8_t atLow;
    uint8_t length;
};

// Its commands are those that have something to read, as their own examples give them.
std::vector<control::Command> Examples() {
    std::vector<control::Command> commands;
    for (const control::CommandSpec &spec : control::Commands()) {
        if (spec.operation == MUND_OP_BatchReconciliation) {
            continue;  // reads a file
        }
        std::string line = std::string(spec.text.name) + " " + std::string(spec.text.example);
        std::vector<std::string> words;
        for (size_t begin = 0; begin < line.size();) {
            const size_t end = std::min(line.find(' ', begin), line.size());
            if (end > begin) {
                words.push_back(line.substr(begin, end - begin));
            }
            begin = end + 1;
        }
        commands.push_back(control::ParseWords(words));
    }
    return commands;
}

class Module {
  public:
    Module(const control::CommandSpec &spec, fuzz::Reader &input)
        : size_(spec.reply != nullptr ? spec.reply->size : 0), input_(input) {}

    control::Answer Call() {
        const auto head = input_.Take<Head>();
        control::Answer answer;
        if ((head.patches & kNotRun) != 0) {
            answer.failure = "did not run";
        }
        answer.result = head.result == 255 ? UINT32_MAX : head.result;
        answer.reply.resize(Length(head.length));
        for (int patches = head.patches & kPatches; patches > 0; --patches) {
            Apply(answer.reply);
        }
        wrong_ |= !answer.failure.empty() ||
                  (answer.reply.size() != size_ && (answer.result == 0 || !answer.reply.empty()));
        return answer;
    }

    // Whether there was an answer that no command may go on with.
    bool AnsweredWrong() const {
        return wrong_;
    }

  private:
    size_t Length(uint8_t code) const {
        if (code == 0) {
            return size_;
        }
        return code == 1 || size_ + code < 128 ? 0 : size_ + code - 128;
    }

    void Apply(control::Bytes &reply) {
        const auto patch = input_.Take<Patch>();
        const size_t at = static_cast<size_t>(patch.atHigh) << 8 | patch.atLow;
        const fuzz::ByteSpan bytes = input_.TakeBytes(patch.length);
        for (size_t i = 0; i < bytes.size() && at + i < reply.size(); ++i) {
            reply[at + i] = bytes[i];
        }
    }

    const size_t size_;
    fuzz::Reader &input_;
    bool wrong_ = false;
};

void CheckOutcome(const control::Outcome &outcome, bool answeredWrong) {
    Require(!answeredWrong || !outcome.failure.empty(), "a wrong answer is a failure");
    const std::string text = outcome.ToText();
    Require(text.starts_with(outcome.text + ": "), "the text begins with the command");
    const std::string json = outcome.ToJson();
    Require(json.find('\n') == std::string::npos, "JSON is a line");
    const auto parsed = nlohmann::json::parse(json, nullptr, false);
    Require(parsed.is_object() && parsed.at("command") == outcome.text &&
                parsed.at("ok") == outcome.Ok() &&
                parsed.at("result").is_null() == !outcome.failure.empty() &&
                !parsed.at("meaning").get<std::string>().empty(),
            "JSON says what came of the command");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::vector<control::Command> commands = Examples();
    fuzz::Reader input(data, size);
    const control::Command &command = commands[input.Take<uint8_t>() % commands.size()];
    Module module(*command.spec, input);
    const control::Outcome outcome = control::Execute(
        command, [&module](MundOperation, std::span<const uint8_t>) { return module.Call(); });
    CheckOutcome(outcome, module.AnsweredWrong());
    return 0;
}
