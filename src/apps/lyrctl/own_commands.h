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

ExitStatus FollowTrace(Client &client, const control::Arguments &arguments);
ExitStatus ExplainCapture(Client &client, const control::Arguments &arguments);
ExitStatus ShowTop(Client &client, const control::Arguments &arguments);

}  // namespace lyrctl
