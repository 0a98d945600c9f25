// Audits that can be trusted: what one would do, and what one has done.
#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <set>

#include "control/command.h"
#include "control/json_line.h"
#include "control/recon_batch.h"
#include "control/record_table.h"
#include "control/settings.h"
#include "control/state_model.h"
#include "control/values.h"
#include "instance.h"
#include "own_commands.h"
#include "state_difference.h"

namespace lyrctl {
namespace {

using control::Arguments;
using control::Setting;

// How long an audit may take.
constexpr std::chrono::seconds kPatience{60};

Setting SettingOf(const LyrKesReconRecord &record) {
    if (record.reconType == LYR_KES_RECON_SESSION) {
        return control::SettingOf(control::SessionOf(record));
    }
    return record.srcAddr.ipVer == 0 ? control::SettingOf(control::Ipv4TunnelOf(record))
                                     : control::SettingOf(control::Ipv6TunnelOf(record));
}

// All tunnels and sessions of the module, sorted.
std::vector<Setting> Registered(Client &client) {
    control::Connection &engine = client.Engine();
    std::vector<Setting> settings;
    const auto add = [&settings](const auto &entries) {
        for (const auto &entry : entries) {
            settings.push_back(control::SettingOf(entry));
        }
    };
    add(control::ReadIpv4Tunnels(engine));
    add(control::ReadIpv6Tunnels(engine));
    add(control::ReadSessions(engine));
    std::ranges::sort(settings, std::less<>());
    return settings;
}

// Those that a file registers, as an audit reads it: for the instance where it does, each thing
// once.
std::vector<Setting> Confirmed(const std::string &path, uint32_t instance) {
    std::map<std::pair<control::Section, std::string>, Setting> byThing;
    for (const LyrKesReconRecord &record : control::ConfirmationsOf(path)) {
        Setting setting = SettingOf(record);
        Setting &known = byThing.try_emplace({setting.section, setting.key}, setting).first->second;
        if (setting.instance == instance) {
            known = std::move(setting);
        }
    }
    std::vector<Setting> settings;
    settings.reserve(byThing.size());
    for (auto &[thing, setting] : byThing) {
        settings.push_back(std::move(setting));
    }
    return settings;
}

bool IsOf(const Setting *setting, uint32_t instance) {
    return setting != nullptr && setting->instance == instance;
}

// What an audit would do about a difference; null if it is no matter of the instance.
const char *KindOf(const control::Difference &difference, uint32_t instance) {
    const auto &[file, module] = difference;
    if (IsOf(module, instance)) {
        return "removed";
    }
    if (!IsOf(file, instance)) {
        return nullptr;
    }
    return module == nullptr ? "missing" : "elsewhere";
}

// What is gone of what an instance had.
std::vector<Setting> Gone(const std::vector<Setting> &before, const std::vector<Setting> &after,
                          uint32_t instance) {
    std::vector<Setting> gone;
    for (const control::Difference &difference : control::Compare(before, after)) {
        if (difference.right == nullptr && IsOf(difference.left, instance)) {
            gone.push_back(*difference.left);
        }
    }
    return gone;
}

bool WaitForEnd(Client &client) {
    const auto begin = std::chrono::steady_clock::now();
    while (!client.Engine().Settle()) {
        if (std::chrono::steady_clock::now() - begin > kPatience) {
            return false;
        }
    }
    return true;
}

struct Removal {
    std::vector<Setting> gone;

    size_t Sessions() const {
        return static_cast<size_t>(
            std::ranges::count(gone, control::Section::kSessions, &Setting::section));
    }
    size_t Tunnels() const {
        return gone.size() - Sessions();
    }
    ordered_json Commands() const {
        ordered_json commands = ordered_json::array();
        for (const Setting &setting : gone) {
            commands.push_back(setting.command);
        }
        return commands;
    }
};

void Print(const Client &client, const control::Outcome &outcome,
           const std::optional<Removal> &removal, bool verbose) {
    if (client.Json()) {
        ordered_json json = ordered_json::parse(outcome.ToJson());
        if (removal) {
            json["reply"] = {{"removedTunnels", removal->Tunnels()},
                             {"removedSessions", removal->Sessions()}};
            if (verbose) {
                json["reply"]["removed"] = removal->Commands();
            }
        }
        std::cout << control::JsonLine(json) << '\n';
        return;
    }
    if (!outcome.Ok()) {
        return;
    }
    std::cout << outcome.Summary();
    if (removal) {
        std::cout << "; removed: " << removal->Tunnels() << " tunnels, " << removal->Sessions()
                  << " sessions";
        for (size_t i = 0; verbose && i < removal->gone.size(); ++i) {
            std::cout << "\nremoved " << removal->gone[i].command;
        }
    }
    std::cout << '\n';
}

}  // namespace

ordered_json ReadAudit(Client &client, const Arguments &arguments) {
    const std::vector<Setting> file =
        Confirmed(arguments["FILE"], control::ParseNumber("N", arguments["N"]));
    const uint32_t instance = ParseInstance(client, "N", arguments["N"]);
    const std::vector<Setting> module = Registered(client);
    ordered_json differences = ordered_json::array();
    for (const control::Difference &difference : control::Compare(file, module)) {
        if (const char *kind = KindOf(difference, instance)) {
            differences.push_back(DifferenceToJson(kind, difference.left, difference.right));
        }
    }
    const bool same = differences.empty();
    return {{"same", same}, {"differences", std::move(differences)}};
}

std::string RenderAudit(const ordered_json &reply) {
    constexpr std::string_view kHeadings[] = {"after an audit", "in the file", "in the module"};
    return reply["same"].get<bool>() ? "no differences"
                                     : control::RecordTable(kHeadings, reply["differences"]);
}

namespace {

// False, too, where nobody knows.
bool IsBeyond(Client &client, uint32_t instance) {
    try {
        return instance > LastInstanceOf(client);
    } catch (const control::NoEngine &) {
        return false;
    }
}

// The operation of these words. Where there is no such instance, that is what the engine is left
// to say, and not what the file lacks for it.
control::Command ParseAudit(Client &client, const std::vector<std::string> &words) {
    try {
        return control::ParseWords(words);
    } catch (const control::InputError &) {
        if (!IsBeyond(client, control::ParseNumber("N", words[2]))) {
            throw;
        }
    }
    std::vector<std::string> meant = words;
    meant.emplace_back("--empty");
    control::Command command = control::ParseWords(meant);
    command.text = control::Join(words);
    return command;
}

}  // namespace

ExitStatus RunAudit(Client &client, const Arguments &arguments) {
    std::vector<std::string> words = {"recon", "run", arguments["N"], arguments["FILE"]};
    if (arguments.Find("--empty") != nullptr) {
        words.emplace_back("--empty");
    }
    const control::Command command = ParseAudit(client, words);
    const uint32_t last = LastInstanceOf(client);
    const uint32_t instance = control::ParseNumber("N", arguments["N"]);
    const bool waits = arguments.Find("--no-wait") == nullptr && instance <= last;
    const std::vector<Setting> before = waits ? Registered(client) : std::vector<Setting>();
    control::Outcome outcome = control::Execute(command, client.Caller(), last);
    for (const char *own : {"--no-wait", "--verbose"}) {
        outcome.text += arguments.Find(own) != nullptr ? std::string(" ") + own : "";
    }
    std::optional<Removal> removal;
    if (waits && outcome.Ok()) {
        if (WaitForEnd(client)) {
            removal = {Gone(before, Registered(client), instance)};
        } else {
            outcome.failure = "the audit is queued, and has not ended within " +
                              std::to_string(kPatience.count()) + " seconds";
        }
    }
    Print(client, outcome, removal, arguments.Find("--verbose") != nullptr);
    if (!outcome.Ok()) {
        Complain(outcome.text + ": " + outcome.Meaning());
        return kRefused;
    }
    return kOk;
}

}  // namespace lyrctl
