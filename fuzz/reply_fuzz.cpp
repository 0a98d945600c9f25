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

namespace {

// A reply that succeeds.
template <class Message>
void AppendReply(fuzz::Bytes &input, const Message &reply) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(&reply);
    fuzz::Bytes patches;
    uint8_t count = 0;
    for (size_t at = 0; at < sizeof reply;) {
        size_t length = 0;
        while (length < 255 && at + length < sizeof reply && bytes[at + length] != 0) {
            ++length;
        }
        if (length != 0) {
            ++count;
            fuzz::Append(patches, Patch{static_cast<uint8_t>(at >> 8), static_cast<uint8_t>(at),
                                        static_cast<uint8_t>(length)});
            patches.insert(patches.end(), bytes + at, bytes + at + length);
        }
        at += std::max<size_t>(length, 1);
    }
    fuzz::Append(input, Head{count, 0, 0});
    input.insert(input.end(), patches.begin(), patches.end());
}

LyrKesLbDfxRsp TunnelPage(uint16_t port, bool last) {
    LyrKesLbDfxRsp page = {};
    page.entries[0] = {0, 1, 2, {}, {}, port, 1, 0, 1};
    page.entries[1] = {1, 0, 0, {0x2001}, {1, 2, 3}, 2, port, 7, 0};
    page.nextIndex = last ? LYR_KES_LB_END : 9;
    return page;
}

LyrKesCwpTraceRecordRsp ProbePage(bool last) {
    LyrKesCwpTraceRecordRsp page = {};
    page.result = last ? LYR_KES_PROBE_LAST : LYR_KES_PROBE_MORE;
    page.entryNum = 2;
    page.entries[0] = {{1, 2}, "ServerReq", {}, 0x07E80511, 0x00091E00, 1, {0, 1, {}}, 0};
    page.entries[1] = {{1, 2}, "ServerResp", {}, 0x07E80511, 0x00091E00, 1, {1, 0, {9}}, 3};
    return page;
}

// The replies that a command is for.
void AppendReplies(fuzz::Bytes &input, const control::Command &command) {
    switch (command.spec->operation) {
        case MUND_OP_LoadBalanceDfx: {
            LyrKesLbDfxReq request;
            std::memcpy(&request, command.request.bytes.data(), sizeof request);
            LyrKesLbDfxRsp count = {};
            count.entryNum = 4;
            if (request.msgType == LYR_KES_LB_LIST) {
                AppendReply(input, TunnelPage(request.tunnelPort, false));
                AppendReply(input, TunnelPage(request.tunnelPort, true));
            }
            AppendReply(input, count);
            return;
        }
        case MUND_OP_VerifyRcdGet: {
            LyrKesVerifyRcdGetRsp reply = {};
            reply.records[0] = {{0, 1, 2, {}, {}, 3, 4}, 5, 1, {}};
            reply.records[1] = {{1, 0, 0, {1}, {2}, 3, 4}, 5, 9, {}};
            reply.rcdNum = 2;
            AppendReply(input, reply);
            return;
        }
        case MUND_OP_CwpTraceRecord:
            AppendReply(input, ProbePage(false));
            AppendReply(input, ProbePage(true));
            return;
        case MUND_OP_CwpMsgTypeStat:
            AppendReply(input, LyrKesCwpMsgTypeStatRsp{0, 3, {1}, {0, 2}, {}, {0, 0, 4}});
            return;
        case MUND_OP_GetPktStatistics: {
            LyrKesGetPktStatisticsRsp reply = {};
            reply.rowNum = LYR_KES_PKT_STAT_ROW_NUM;
            reply.counterNum = LYR_KES_PKT_STAT_COUNTER_NUM;
            AppendReply(input, reply);
            return;
        }
        default:
            fuzz::Append(input, Head{0, 0, 0});
    }
}

}  // namespace

std::vector<fuzz::Bytes> fuzz::Seeds() {
    std::vector<Bytes> inputs;
    for (const control::Command &command : Examples()) {
        const auto number = static_cast<uint8_t>(inputs.size() / 2);
        inputs.push_back({number, 0, 1, 1});  // failed without a reply
        AppendReplies(inputs.emplace_back(Bytes{number}), command);
    }
    return inputs;
}
