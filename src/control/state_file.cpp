#include "control/state_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>
#include <system_error>

#include "control/input_error.h"

namespace control {
namespace {

using std::to_string;

constexpr std::string_view kFirstLine =
    "# The state of the module: commands that make it again. Written by a program.";
constexpr std::string_view kSourceCommand = "source set";

std::string SizeLine(const ModuleSize &size) {
    return "# buckets: IPv4 " + to_string(size.buckets[MUND_TABLE_IPV4_TUNNELS]) + ", IPv6 " +
           to_string(size.buckets[MUND_TABLE_IPV6_TUNNELS]) + ", session " +
           to_string(size.buckets[MUND_TABLE_SESSIONS]);
}

std::string EndLine(size_t commands) {
    return "# end: " + to_string(commands) + (commands == 1 ? " command" : " commands");
}

using Settings = std::span<const Setting>;

std::string TitleOf(Section section, size_t count) {
    switch (section) {
        case Section::kSources:
            return "CAPWAP sources, by position";
        case Section::kStations:
            return "Stations";
        case Section::kDefaults:
            return "Tunnels that are not registered";
        case Section::kIpv4Tunnels:
            return "IPv4 tunnels: " + to_string(count);
        case Section::kIpv6Tunnels:
            return "IPv6 tunnels: " + to_string(count);
        case Section::kSessions:
            return "Sessions: " + to_string(count);
        case Section::kTrace:
            return "Trace";
        case Section::kSelections:
            return "Message type and ping peer that are counted";
    }
    return "";
}

// Appends the lines of a section; returns the number of its commands. All sources are one command,
// which replaces those that there are.
size_t AppendSection(std::string &text, Settings settings) {
    const Section section = settings.front().section;
    text += "\n# " + TitleOf(section, settings.size()) + "\n";
    size_t commands = 0;
    std::string sources;
    for (const Setting &setting : settings) {
        if (!setting.hasCommand) {
            text += "# " + setting.command + "\n";
        } else if (section == Section::kSources) {
            sources += setting.command.substr(kSourceCommand.size());
        } else {
            text += setting.command + "\n";
            ++commands;
        }
    }
    if (!sources.empty()) {
        text += std::string(kSourceCommand) + sources + "\n";
        ++commands;
    }
    return commands;
}

std::string ReadText(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::string text;
    for (std::array<char, size_t{64} * 1024> part; file.good();) {
        file.read(part.data(), part.size());
        text.append(part.data(), static_cast<size_t>(file.gcount()));
    }
    if (!file.eof()) {
        throw InputError("cannot read '" + path + "': " + std::generic_category().message(errno));
    }
    return text;
}

// The lines of a text; the last one is empty if the text ends with a line break.
std::vector<std::string_view> LinesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

std::string Quoted(std::string_view line) {
    constexpr size_t kLongest = 100;
    return "'" + std::string(line.substr(0, kLongest)) + (line.size() > kLongest ? "...'" : "'");
}

size_t CountCommands(const std::vector<std::string_view> &lines) {
    return static_cast<size_t>(std::ranges::count_if(
        lines, [](std::string_view line) { return !line.empty() && line.front() != '#'; }));
}

void CheckFrame(const std::string &path, const std::vector<std::string_view> &lines,
                size_t commands) {
    if (lines.size() < 2 || !lines.back().empty() || lines[lines.size() - 2] != EndLine(commands)) {
        const size_t last =
            lines.back().empty() && lines.size() > 1 ? lines.size() - 1 : lines.size();
        throw InputError(path + ":" + to_string(last) +
                         ": the file is cut short, or was changed: " + "it has " +
                         to_string(commands) + " commands, and ends with " +
                         Quoted(lines[last - 1]) + " instead of '" + EndLine(commands) + "'");
    }
}

void CheckHead(const std::string &path, const std::vector<std::string_view> &lines,
               const ModuleSize &size) {
    if (lines[0] != kFirstLine) {
        throw InputError(path + ":1: " + Quoted(lines[0]) +
                         " does not begin a saved state; --exec takes other files of commands");
    }
    const std::string_view second = lines.size() > 1 ? lines[1] : std::string_view();
    if (second != SizeLine(size)) {
        throw InputError(path + ":2: the state is that of tables of another size, " +
                         Quoted(second) + ", and these have '" + SizeLine(size) +
                         "'; to take it over, give it to --exec, and another file to --state");
    }
}

}  // namespace

StateText ToStateText(const std::vector<Setting> &settings, const ModuleSize &size) {
    std::string text = std::string(kFirstLine) + "\n" + SizeLine(size) + "\n";
    size_t commands = 0;
    for (Settings rest = settings; !rest.empty();) {
        const Section section = rest.front().section;
        const auto end = std::ranges::find_if(
            rest, [section](const Setting &setting) { return setting.section != section; });
        const Settings part = rest.first(static_cast<size_t>(end - rest.begin()));
        commands += AppendSection(text, part);
        rest = rest.subspan(part.size());
    }
    text += "\n" + EndLine(commands) + "\n";
    return {std::move(text), commands};
}

std::vector<Command> ReadStateFile(const std::string &path, const ModuleSize &size) {
    const std::string text = ReadText(path);
    const std::vector<std::string_view> lines = LinesOf(text);
    CheckHead(path, lines, size);
    std::istringstream stream(text);
    std::vector<Command> commands;
    try {
        commands = ParseCommands(stream, path);
    } catch (const InputError &) {
        // Where a line is cut in the middle, it is the cut that matters.
        CheckFrame(path, lines, CountCommands(lines));
        throw;
    }
    CheckFrame(path, lines, commands.size());
    for (const Command &command : commands) {
        if (const std::string beyond = BeyondInstances(command.request, size.lastInstance);
            !beyond.empty()) {
            throw InputError(command.Where() + beyond);
        }
    }
    return commands;
}

}  // namespace control
