#include "command_list.h"

#include <algorithm>
#include <iterator>

#include "control/command_table.h"
#include "control/metrics.h"
#include "own_commands.h"

namespace lyrctl {
namespace {

constexpr OwnCommand kOwnCommands[] = {
    {.text = {.name = "source show",
              .usage = "",
              .help =
                  "List the eight positions of the controller's CAPWAP sources, the free ones too.",
              .example = ""},
     .read = ReadSources,
     .render = RenderSources},
    {.text = {.name = "trace show",
              .usage = "",
              .help = "Tell whether the trace is on, at which level, and its filters.",
              .example = ""},
     .read = ReadTrace,
     .render = RenderTrace},
    {.text =
         {.name = "trace follow",
          .usage = "[--level N] [--grep RE]",
          .help =
              "Show the engine's lines as they come, until interrupted: trace and log lines, which "
              "come while the trace is on, prints, log messages, alarms and failed assertions. "
              "Lines do not carry their level: --level sets the trace's own, 1 for failures, 2 for "
              "packets, 3 for both, as long as the lines are followed. Filters that are set stay; "
              "afterwards the level is again what it was, and a trace that was off is off. One at "
              "a time sets it. With "
              "--grep only lines that the regular expression finds something in. With --json, "
              "objects of \"time\", \"kind\", \"lost\" (lines before this one that came too fast) "
              "and \"text\".",
          .example = "--level 1 --grep 'source|lb key'"},
     .run = FollowTrace},
    {.text = {.name = "wapi show",
              .usage = "",
              .help = "Tell which service instances serve stations.",
              .example = ""},
     .read = ReadWapi,
     .render = RenderWapi},
    {.text =
         {.name = "channels show",
          .usage = "",
          .help =
              "List channel and thread of each service instance, by packet type, and whether the "
              "module has resolved them: it does so when the instance gets its first tunnel, or "
              "its stations.",
          .example = ""},
     .read = ReadChannels,
     .render = RenderChannels},
    {.text = {.name = "inspect",
              .usage = "[NAME] [--slot N] [--hex]",
              .help =
                  "Read an object that the module exports: in words where its layout is known, in "
                  "hexadecimal otherwise or with --hex. With --slot, read what the object's N-th "
                  "pointer, from 0, points at. Without a name, list the objects of known layouts.",
              .example = "g_lyrKesMsgDropStat"},
     .read = ReadInspected,
     .render = RenderInspected},
    {.text =
         {.name = "explain",
          .usage = "--capture FILE [--frame N] [--frames LIST] [--filter EXPR] [--rx-port N] "
                   "[--vrf N] [--cause N]",
          .help =
              "Tell step by step what the module would do with the frames of a capture, or with "
              "the N-th of them, from 1, and why. --frames has several: 7, 3-9, 100-, -20, with "
              "commas between; --filter those that match an expression of libpcap "
              "(pcap-filter(7)). "
              "Nothing is sent and nothing counted. --rx-port, "
              "--vrf and --cause, 0 if not given, are how the frames come in. With --json, an "
              "object a frame.",
          .example = "--capture session.pcap --frame 3 --rx-port 7"},
     .run = ExplainCapture},
    {.text =
         {.name = "top",
          .usage = "[--once]",
          .help =
              "Show live what happens to packets, by fate and by class, how full the tables are, "
              "drops and the alarm, and what each service instance gets; q quits. With --once, "
              "print one second of it. With --json, an object a second.",
          .example = "--once"},
     .run = ShowTop},
    {.text = {.name = "metrics",
              .usage = "",
              .help = "Print all counters in the text format of Prometheus.",
              .example = "> /var/lib/node_exporter/lyr_host.prom"},
     .read = [](Client &client,
                const control::Arguments &) { return control::ReadMetrics(client.Engine()); },
     .render = control::RenderMetrics},
};

std::vector<const control::CommandText *> AllTexts() {
    std::vector<const control::CommandText *> texts;
    const auto text = [](const auto &command) { return &command.text; };
    std::ranges::transform(control::Commands(), std::back_inserter(texts), text);
    std::ranges::transform(kOwnCommands, std::back_inserter(texts), text);
    return texts;
}

}  // namespace

const control::CommandSet &Commands() {
    static const control::CommandSet commands("lyrctl ", AllTexts());
    return commands;
}

const OwnCommand *FindOwn(const control::CommandText &text) {
    const auto *own = std::ranges::find(
        kOwnCommands, &text, [](const OwnCommand &candidate) { return &candidate.text; });
    return own == std::end(kOwnCommands) ? nullptr : own;
}

}  // namespace lyrctl
