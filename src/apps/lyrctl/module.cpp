// The module of a running engine, exchanged: module reload.
#include <cstdio>
#include <filesystem>

#include "mund/wire.h"
#include "own_commands.h"

namespace lyrctl {

// The engine has another working directory.
ordered_json LoadModule(Client &client, const control::Arguments &arguments) {
    const std::string *file = arguments.Find("FILE");
    const std::string path = file == nullptr ? "" : std::filesystem::absolute(*file).string();
    const control::Bytes reply = client.Engine().Ask(
        MUND_WIRE_RELOAD, {reinterpret_cast<const uint8_t *>(path.data()), path.size()});
    return ordered_json::parse(reply.begin(), reply.end());
}

std::string RenderLoaded(const ordered_json &reply) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.3f", reply["seconds"].get<double>());
    std::string text = "ok; " + reply["file"].get<std::string>() + " runs with " +
                       reply["commands"].dump() + " commands of state; " +
                       reply["unserved"].dump() + " packets unserved in " + seconds + " seconds";
    for (const ordered_json &leftover : reply["leftovers"]) {
        text += "\nleft behind by the one before: " + leftover.get<std::string>();
    }
    return text;
}

}  // namespace lyrctl
