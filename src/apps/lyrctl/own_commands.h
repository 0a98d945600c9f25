// What runs lyrctl's own commands.
#pragma once

#include <string>

#include "client.h"
#include "control/arguments.h"

namespace lyrctl {

ordered_json ReadSources(Client &client, const control::Arguments &arguments);
std::string RenderSources(const ordered_json &reply);
ordered_json ReadTrace(Client &client, const control::Arguments &arguments);
std::string RenderTrace(const ordered_json &reply);
ordered_json ReadWapi(Client &client, const control::Arguments &arguments);
std::string RenderWapi(const ordered_json &reply);
ordered_json ReadChannels(Client &client, const control::Arguments &arguments);
std::string RenderChannels(const ordered_json &reply);
ordered_json ReadInspected(Client &client, const control::Arguments &arguments);
std::string RenderInspected(const ordered_json &reply);

// Whether a tunnel query is the module's own: one by port alone.
bool AsksTheModule(const control::Arguments &arguments);
ordered_json ReadTunnelList(Client &client, const control::Arguments &arguments);
ordered_json ReadTunnelCount(Client &client, const control::Arguments &arguments);
std::string RenderTunnelCount(const ordered_json &reply);
ordered_json ReadSessionList(Client &client, const control::Arguments &arguments);
std::string RenderSessionList(const ordered_json &reply);
ordered_json ReadSessionCount(Client &client, const control::Arguments &arguments);
std::string RenderSessionCount(const ordered_json &reply);
ordered_json ReadNodes(Client &client, const control::Arguments &arguments);
std::string RenderNodes(const ordered_json &reply);
ordered_json ReadSaved(Client &client, const control::Arguments &arguments);
std::string RenderSaved(const ordered_json &reply);
ordered_json ReadDifferences(Client &client, const control::Arguments &arguments);
std::string RenderDifferences(const ordered_json &reply);
ordered_json ReadAudit(Client &client, const control::Arguments &arguments);
std::string RenderAudit(const ordered_json &reply);
bool IsSame(const ordered_json &reply);
ordered_json LoadModule(Client &client, const control::Arguments &arguments);
std::string RenderLoaded(const ordered_json &reply);

ExitStatus RunAudit(Client &client, const control::Arguments &arguments);
ExitStatus FollowTrace(Client &client, const control::Arguments &arguments);
ExitStatus ExplainCapture(Client &client, const control::Arguments &arguments);
ExitStatus ExecFiles(Client &client, const control::Arguments &arguments);
ExitStatus ShowTop(Client &client, const control::Arguments &arguments);

}  // namespace lyrctl
