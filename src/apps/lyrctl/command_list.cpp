#include "command_list.h"

#include <algorithm>

#include "control/input_error.h"
#include "own_commands.h"

namespace lyrctl {
namespace {

using control::InputError;
using Words = std::span<const std::string>;

constexpr size_t kWidth = 80;

constexpr OwnCommand kOwnCommands[] = {
    {.name = "source show",
     .usage = "",
     .help = "List the eight positions of the controller's CAPWAP sources, the free ones too.",
     .example = "",
     .read = ReadSources,
     .render = RenderSources},
    {.name = "trace show",
     .usage = "",
     .help = "Tell whether the trace is on, at which level, and its filters.",
     .example = "",
     .read = ReadTrace,
     .render = RenderTrace},
    {.name = "trace follow",
     .usage = "[--level N] [--grep RE]",
     .help = "Show the engine's lines as they come, until interrupted: trace and log lines, which "
             "come while the trace is on, prints, log messages, alarms and failed assertions. "
             "Lines do not carry their level: --level sets the trace's own, 1 for failures, 2 for "
             "packets, 3 for both, as long as the lines are followed. Filters that are set stay; "
             "afterwards the level is again what it was, and a trace that was off is off. With "
             "--grep only lines that the regular expression finds something in. With --json, "
             "objects of \"time\", \"kind\", \"lost\" (lines before this one that came too fast) "
             "and \"text\".",
     .example = "--level 1 --grep 'source|lb key'",
     .run = FollowTrace},
    {.name = "wapi show",
     .usage = "",
     .help = "Tell which service instances serve stations.",
     .example = "",
     .read = ReadWapi,
     .render = RenderWapi},
    {.name = "channels show",
     .usage = "",
     .help = "List channel and thread of each service instance, by packet type, and whether the "
             "module has resolved them: it does so when the instance gets its first tunnel, or "
             "its stations.",
     .example = "",
     .read = ReadChannels,
     .render = RenderChannels},
    {.name = "inspect",
     .usage = "[NAME] [--slot N] [--hex]",
     .help = "Read an object that the module exports: in words where its layout is known, in "
             "hexadecimal otherwise or with --hex. With --slot, read what the object's N-th "
             "pointer, from 0, points at. Without a name, list the objects of known layouts.",
     .example = "g_lyrKesMsgDropStat",
     .read = ReadInspected,
     .render = RenderInspected},
    {.name = "explain",
     .usage = "--capture FILE [--frame N] [--rx-port N] [--vrf N] [--cause N]",
     .help = "Tell step by step what the module would do with the frames of a capture, or with "
             "the N-th of them, from 1, and why. Nothing is sent and nothing counted. --rx-port, "
             "--vrf and --cause, 0 if not given, are how the frames come in. With --json, an "
             "object a frame.",
     .example = "--capture session.pcap --frame 3 --rx-port 7",
     .run = ExplainCapture},
    {.name = "top",
     .usage = "[--once]",
     .help = "Show live what happens to packets, by fate and by class, how full the tables are, "
             "drops and the alarm, and what each service instance gets; q quits. With --once, "
             "print one second of it. With --json, an object a second.",
     .example = "--once",
     .run = ShowTop},
    {.name = "metrics",
     .usage = "",
     .help = "Print all counters in the text format of Prometheus.",
     .example = "> /var/lib/node_exporter/lyr_host.prom",
     .read = ReadMetrics,
     .render = RenderMetrics},
};

size_t WordCount(const Entry &entry) {
    return 1 + static_cast<size_t>(std::ranges::count(entry.name, ' '));
}

std::string_view FirstWord(const Entry &entry) {
    return entry.name.substr(0, entry.name.find(' '));
}

std::string FirstWords(Words words, size_t count) {
    return control::Join(words.first(std::min(count, words.size())));
}

std::vector<Entry> AllCommands() {
    std::vector<Entry> entries;
    for (const control::CommandSpec &spec : control::Commands()) {
        entries.push_back({spec.name, spec.usage, spec.help, spec.example, nullptr});
    }
    for (const OwnCommand &own : kOwnCommands) {
        const Entry entry = {own.name, own.usage, own.help, own.example, &own};
        const auto kin = std::find_if(entries.rbegin(), entries.rend(), [&](const Entry &other) {
            return FirstWord(other) == FirstWord(entry);
        });
        entries.insert(kin == entries.rend() ? entries.end() : kin.base(), entry);
    }
    return entries;
}

// In the order in which help lists them: those that begin with the same word stand together.
const std::vector<Entry> &Entries() {
    static const std::vector<Entry> entries = AllCommands();
    return entries;
}

const Entry *Longest(Words words) {
    const Entry *found = nullptr;
    for (const Entry &entry : Entries()) {
        if (FirstWords(words, WordCount(entry)) == entry.name &&
            (found == nullptr || WordCount(entry) > WordCount(*found))) {
            found = &entry;
        }
    }
    return found;
}

bool BeginsWith(const Entry &entry, const std::string &words) {
    return entry.name == words || entry.name.starts_with(words + " ");
}

InputError Unknown(Words words) {
    std::string first = words.front();
    std::vector<std::string_view> choices;
    for (const Entry &entry : Entries()) {
        if (FirstWord(entry) == first) {
            choices.push_back(entry.name);
        }
    }
    const bool known = !choices.empty();
    for (size_t i = 0; !known && i < Entries().size(); ++i) {
        if (choices.empty() || choices.back() != FirstWord(Entries()[i])) {
            choices.push_back(FirstWord(Entries()[i]));
        }
    }
    std::string text = std::string(known && words.size() == 1 ? "unfinished" : "unknown") +
                       " command '" + FirstWords(words, known ? 2 : 1) + "'; there are: ";
    for (const std::string_view choice : choices) {
        text += (choice == choices.front() ? "" : ", ") + std::string(choice);
    }
    return InputError(text);
}

std::string UsageOf(const Entry &entry) {
    return std::string(entry.name) + (entry.usage.empty() ? "" : " ") + std::string(entry.usage);
}

// The words of a text in lines of the program's width, each behind the margin.
std::string Wrapped(std::string_view text, const std::string &margin) {
    std::string lines;
    std::string line = margin;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(word.size() + 1, text.size()));
        if (line.size() > margin.size() && line.size() + 1 + word.size() > kWidth) {
            lines += line + "\n";
            line = margin;
        }
        line += (line.size() > margin.size() ? " " : "") + std::string(word);
    }
    return lines + line + "\n";
}

std::string_view FirstSentence(std::string_view text) {
    return text.substr(0, std::min(text.find(". "), text.size() - 1) + 1);
}

std::string HelpOf(const Entry &entry) {
    std::string help = "lyrctl " + UsageOf(entry) + "\n" + Wrapped(entry.help, "    ");
    help += "    e.g. lyrctl " + std::string(entry.name) + (entry.example.empty() ? "" : " ") +
            std::string(entry.example) + "\n";
    return help;
}

}  // namespace

const Entry &FindEntry(Words words) {
    const Entry *entry = Longest(words);
    if (entry == nullptr) {
        throw Unknown(words);
    }
    return *entry;
}

control::Arguments FitTo(const Entry &entry, Words words) {
    try {
        return control::Arguments(entry.usage, words.subspan(WordCount(entry)));
    } catch (const InputError &error) {
        throw InputError(std::string(error.what()) + "; usage: " + UsageOf(entry));
    }
}

std::string Overview() {
    std::string text;
    for (const Entry &entry : Entries()) {
        text += "  " + UsageOf(entry) + "\n" + Wrapped(FirstSentence(entry.help), "      ");
    }
    return text;
}

std::string HelpOn(Words words) {
    const std::string begin = control::Join(words);
    std::string help;
    for (const Entry &entry : Entries()) {
        if (BeginsWith(entry, begin)) {
            help += (help.empty() ? "" : "\n") + HelpOf(entry);
        }
    }
    return help.empty() ? HelpOf(FindEntry(words)) : help;
}

std::string CommandLines() {
    std::string lines;
    for (const Entry &entry : Entries()) {
        lines += std::string(entry.name) + "\t" + std::string(entry.usage) + "\n";
    }
    return lines;
}

}  // namespace lyrctl
