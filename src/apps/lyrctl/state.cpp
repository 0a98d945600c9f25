// The module's state as a file: save and diff.
#include "control/record_table.h"
#include "control/settings.h"
#include "control/state_file.h"
#include "control/state_model.h"
#include "control/whole_file.h"
#include "instance.h"
#include "own_commands.h"
#include "state_difference.h"

namespace lyrctl {

using control::Arguments;
using control::Setting;

namespace {

constexpr const char *kStandardOutput = "-";

void WriteOrRefuse(const std::string &path, const std::string &text) {
    try {
        control::WriteWhole(path, text);
    } catch (const control::WriteError &error) {
        throw control::Refused(error.what());
    }
}

}  // namespace

ordered_json ReadSaved(Client &client, const Arguments &arguments) {
    control::Connection &engine = client.Engine();
    const control::ModuleSize size = control::ReadSize(engine);
    const std::vector<Setting> settings =
        control::SettingsOf(control::ReadState(engine), size.lastInstance);
    auto [text, commands] = control::ToStateText(settings, size);
    ordered_json notes = ordered_json::array();
    for (const Setting &setting : settings) {
        if (!setting.hasCommand) {
            notes.push_back(setting.command);
            Complain("note: " + setting.command);
        }
    }
    ordered_json reply;
    const std::string *path = arguments.Find("FILE");
    if (path != nullptr && *path != kStandardOutput) {
        WriteOrRefuse(*path, text);
        reply["file"] = *path;
    } else {
        text.pop_back();
        reply["text"] = std::move(text);
    }
    reply["commands"] = commands;
    reply["notes"] = std::move(notes);
    return reply;
}

std::string RenderSaved(const ordered_json &reply) {
    if (reply.contains("text")) {
        return reply["text"];
    }
    return "ok; commands saved: " + reply["commands"].dump();
}

ordered_json ReadDifferences(Client &client, const Arguments &arguments) {
    control::Connection &engine = client.Engine();
    const uint32_t last = LastInstanceOf(client);
    const std::vector<Setting> file =
        control::SettingsOf(control::StateOfFile(arguments["FILE"], last), last);
    const std::vector<Setting> module = control::SettingsOf(control::ReadState(engine), last);
    ordered_json differences = ordered_json::array();
    for (const control::Difference &difference : control::Compare(file, module)) {
        const char *kind = difference.right == nullptr  ? "more"
                           : difference.left == nullptr ? "less"
                                                        : "otherwise";
        differences.push_back(DifferenceToJson(kind, difference.left, difference.right));
    }
    const bool same = differences.empty();
    return {{"same", same}, {"differences", std::move(differences)}};
}

std::string RenderDifferences(const ordered_json &reply) {
    constexpr std::string_view kHeadings[] = {"the file has", "in the file", "in the module"};
    return reply["same"].get<bool>() ? "no differences"
                                     : control::RecordTable(kHeadings, reply["differences"]);
}

bool IsSame(const ordered_json &reply) {
    return reply["same"].get<bool>();
}

}  // namespace lyrctl
