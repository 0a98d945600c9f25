#include "command_list.h"

#include <algorithm>
#include <iterator>

#include "control/command_table.h"
#include "control/metrics.h"
#include "control/tunnel_rows.h"
#include "own_commands.h"

namespace lyrctl {
namespace {

constexpr OwnCommand kOwnCommands[] = {
    {.text = {.name = "tunnel count",
              .usage = "[--port N] [--ipv6] [--ipv4] [--node N] [--src IP] [--dst IP]",
              .help = "Count tunnels, chosen as for 'tunnel list'. The module's own count, by "
                      "--port alone, "
                      "is modulo 65536.",
              .example = "--node 3"},
     .read = ReadTunnelCount,
     .render = RenderTunnelCount,
     .isOperation = AsksTheModule},
    {.text =
         {.name = "tunnel list",
          .usage = "[--port N] [--ipv6] [--ipv4] [--node N] [--src IP] [--dst IP]",
          .help =
              "List the tunnels of both address families, or of one, sorted: all, or those of an "
              "instance, from or to an address, with a port at either end. A tunnel that comes or "
              "goes meanwhile may be missing. With --port alone, or with --ipv6 only, it is the "
              "module that lists, IPv4 or IPv6 tunnels, in the order of its table, and its count "
              "is compared; buckets of a table beyond the first 65534 may be out of reach then.",
          .example = "--node 3"},
     .read = ReadTunnelList,
     .render = control::RenderTunnelList,
     .isOperation = AsksTheModule},
    {.text = {.name = "session list",
              .usage = "[--node N]",
              .help = "List the keepalive sessions, or those of an instance, sorted.",
              .example = "--node 3"},
     .read = ReadSessionList,
     .render = RenderSessionList},
    {.text = {.name = "session count",
              .usage = "[--node N]",
              .help = "Count the keepalive sessions, or those of an instance.",
              .example = ""},
     .read = ReadSessionCount,
     .render = RenderSessionCount},
    {.text =
         {.name = "node show",
          .usage = "[N]",
          .help =
              "Tell of each service instance, or of one, how many tunnels and sessions it has, "
              "whether it serves stations, whether the module has resolved its channels, and how "
              "many packets it has been handed.",
          .example = "3"},
     .read = ReadNodes,
     .render = RenderNodes},
    {.text =
         {.name = "save",
          .usage = "[FILE]",
          .help =
              "Write the commands that make the module's state again: sources, stations, tunnels, "
              "sessions, trace and selections, sorted, to a file or (none, or -) the standard "
              "output. A file is "
              "replaced whole or not at all, keeps its permissions, and is what --state of "
              "kes_engine takes. What no command makes is a comment in it, and noted.",
          .example = "site.commands"},
     .read = ReadSaved,
     .render = RenderSaved},
    {.text =
         {.name = "diff",
          .usage = "FILE",
          .help =
              "Compare what the commands of a file make of a module with what the module has: what "
              "the file ('-': the standard input) has more, less or otherwise. Exit status: 0 no "
              "differences, 1 some, 2 the "
              "file makes no sense or the module cannot be read.",
          .example = "site.commands"},
     .read = ReadDifferences,
     .render = RenderDifferences,
     .isSame = IsSame},
    {.text =
         {.name = "recon diff",
          .usage = "N FILE",
          .help =
              "Tell what 'recon run' would come to, and change nothing: what would be removed, "
              "what the file gives to the instance and would still be missing, as an audit adds "
              "nothing, and what is elsewhere, with another instance. Exit status: 0 nothing of "
              "this, 1 something. '-' is the standard input.",
          .example = "3 site.commands"},
     .read = ReadAudit,
     .render = RenderAudit,
     .isSame = IsSame},
    {.text =
         {.name = "recon run",
          .usage = "N FILE [--empty] [--no-wait] [--verbose]",
          .help =
              "Audit instance N against a command file, in one batch: what its 'tunnel add', "
              "'tunnel default' and 'session add' lines give to N is confirmed, all else that N "
              "has is gone. Lines for other instances are left out, other commands ignored. A file "
              "that gives N nothing needs --empty: then N loses all that it has. The command waits "
              "for the end, 60 seconds at most, and tells how many tunnels and sessions are gone, "
              "and with --verbose which; with --no-wait it is done once the audit is queued. '-' "
              "is "
              "the standard input.",
          .example = "3 site.commands --verbose"},
     .run = RunAudit},
    {.text =
         {.name = "module reload",
          .usage = "[FILE]",
          .help =
              "Exchange the module of a running kes_dpdk: load FILE instead, or what lies at the "
              "place of its file now, and give it the state that it had, but for counters and "
              "records. Packets that come in meanwhile are given back unserved, and counted. What "
              "is no module, or does not start, is refused, and the one before runs again.",
          .example = "/usr/lib/lyr_host/liblyr_host.so"},
     .read = LoadModule,
     .render = RenderLoaded},
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
          .usage = "[--level N] [--grep RE] [--decode]",
          .help =
              "Show the engine's lines as they come, until interrupted: trace and log lines, which "
              "come while the trace is on, prints, log messages, alarms and failed assertions. "
              "Lines do not carry their level: --level sets the trace's own, 1 for failures, 2 for "
              "packets, 3 for both, as long as the lines are followed. Filters that are set stay; "
              "afterwards the level is again what it was, and a trace that was off is off. One at "
              "a time sets it. With "
              "--grep only lines that the regular expression finds something in. --decode writes "
              "addresses, message types and times in words, and the line as it came behind that. "
              "With --json, "
              "objects of \"time\", \"kind\", \"lost\" (lines before this one that came too fast), "
              "\"text\" and, with --decode, \"decoded\".",
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
          .usage = "[--once] [--interval SECONDS] [--sort KEY]",
          .help =
              "Show live what happens to packets, by fate and by class, how full the tables are, "
              "drops and the alarm, and what each service instance gets, now and in the last sixty "
              "intervals, on one scale; ports, too, of an engine that has some. q quits. An "
              "interval "
              "is a second, or SECONDS. --sort says which instances come first: those with the "
              "highest rate, cwp, wapi or total, or in the order of instance. With --once, "
              "print one interval of it. With --json, an object each interval.",
          .example = "--interval 5 --sort total"},
     .run = ShowTop},
    {.text = {.name = "metrics",
              .usage = "",
              .help = "Print all counters in the text format of Prometheus.",
              .example = "> /var/lib/node_exporter/lyr_host.prom"},
     .read = [](Client &client,
                const control::Arguments &) { return control::ReadMetrics(client.Engine()); },
     .render = control::RenderMetrics},
    {.text =
         {.name = "exec",
          .usage = "FILE ... [--keep-going]",
          .help =
              "Run the commands of files, a line each, in their order over one connection; '-' is "
              "the standard input. All are read before the first one is run: a line that makes no "
              "sense keeps every other from being run. It ends at the first command that fails, "
              "unless --keep-going is given. Answers that say no more than \"ok\" are left out; "
              "how "
              "many commands are done comes last. Words with spaces stand between ' or \". With "
              "--json, an object a command that begins with its \"file\" and \"line\".",
          .example = "tunnels.txt sources.txt"},
     .run = ExecFiles},
};

std::vector<const control::CommandText *> AllTexts() {
    std::vector<const control::CommandText *> texts;
    const auto place = [&texts](const control::CommandText &text) {
        const auto same = std::ranges::find(texts, text.name, &control::CommandText::name);
        if (same == texts.end()) {
            texts.push_back(&text);
        } else {
            *same = &text;
        }
    };
    std::ranges::for_each(control::Commands(), place, &control::CommandSpec::text);
    std::ranges::for_each(kOwnCommands, place, &OwnCommand::text);
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
