// Lines of text before the parser of commands.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "control/command.h"
#include "control/values.h"
#include "fuzz_target.h"
#include "mund/call.h"
#include "mund/messages.h"

namespace {

using fuzz::Require;

constexpr const char *kSiteFile = "site";

// A directory to run in, with nothing but a file for the commands that read one.
class Directory {
  public:
    Directory() {
        Require(mkdtemp(name_) != nullptr && chdir(name_) == 0, "there is a directory");
        std::ofstream(kSiteFile) << "tunnel add 10.0.0.1 1 10.0.0.2 5246 --node 1\n"
                                    "session add 00112233445566778899aabbccddeeff --node 2 # two\n"
                                    "stats show\n";
    }
    ~Directory() {
        std::error_code ignored;
        std::filesystem::remove_all(name_, ignored);
    }
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;

  private:
    char name_[32] = "/tmp/command_fuzz-XXXXXX";
};

std::vector<control::Command> Parse(const std::string &text) {
    std::istringstream stream(text);
    return control::ParseCommands(stream, "text");
}

// A request as the plainest words that mean it; nothing for one that has none.
std::string Words(const LyrKesCwpTunnelReq &request) {
    const auto address = [](const LyrKesRpcIpAddr &of) {
        return of.ipVer == 0 ? control::AddressText(of.ipv4Addr)
                             : control::AddressText(of.ipv6Addr);
    };
    const bool remove = request.operation == LYR_KES_OPERATION_DELETE;
    return (remove ? "tunnel del " : "tunnel add ") + address(request.srcAddr) + " " +
           std::to_string(request.srcPort) + " " + address(request.dstAddr) + " " +
           std::to_string(request.dstPort) +
           (remove ? "" : " --node " + std::to_string(request.nodeId)) + " --vpn " +
           std::to_string(request.vpnId);
}

std::string Words(const LyrKesKaTunnelReq &request) {
    const bool remove = request.operation == LYR_KES_OPERATION_DELETE;
    char id[33];
    std::snprintf(id, sizeof id, "%08x%08x%08x%08x", request.sessionId[0], request.sessionId[1],
                  request.sessionId[2], request.sessionId[3]);
    return (remove ? std::string("session del ") : std::string("session add ")) + id +
           (remove ? "" : " --node " + std::to_string(request.nodeId));
}

template <class Message>
std::string WordsOf(const control::Bytes &request) {
    Message message;
    std::memcpy(&message, request.data(), sizeof message);
    return Words(message);
}

std::string CanonicalWords(const control::Command &command) {
    switch (command.spec->operation) {
        case MUND_OP_CwpTunnel:
            return WordsOf<LyrKesCwpTunnelReq>(command.request.bytes);
        case MUND_OP_KaTunnel:
            return WordsOf<LyrKesKaTunnelReq>(command.request.bytes);
        default:
            return {};
    }
}

void RequireSameRequest(const std::string &words, const control::Bytes &request) {
    const std::vector<control::Command> again = Parse(words);
    Require(again.size() == 1 && again.front().request.bytes == request,
            "words that mean a request make it");
}

void CheckCommand(const control::Command &command) {
    const uint32_t operation = command.spec->operation;
    const size_t size = command.request.bytes.size();
    if (operation == MUND_OP_BatchReconciliation) {
        Require(command.request.tally && size == 8 + command.request.tally->records * 80,
                "a batch has its records");
    } else {
        Require(size == MundRequestSize(operation), "a request has its operation's size");
    }
    RequireSameRequest(command.text, command.request.bytes);
    if (const std::string words = CanonicalWords(command); !words.empty()) {
        RequireSameRequest(words, command.request.bytes);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const Directory directory;
    const std::string text(reinterpret_cast<const char *>(data), size);
    try {
        const std::vector<control::Command> commands = Parse(text);
        Require(commands.size() <= 1 + static_cast<size_t>(std::ranges::count(text, '\n')),
                "a line is a command at most");
        std::ranges::for_each(commands, CheckCommand);
    } catch (const control::InputError &error) {
        const std::string_view what = error.what();
        Require(what.starts_with("text:") && what.size() > sizeof "text:1: ",
                "an error says where and why");
    }
    return 0;
}
