#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <utility>

#include "command_list.h"
#include "control/input_error.h"
#include "mund/server.h"

namespace lyrctl {
namespace {

constexpr const char *kNotes = R"(Examples:
  lyrctl tunnel add 10.0.0.1 12380 10.0.0.254 5246 --node 3
      gives an access point's tunnel to service instance 3
  lyrctl --json source show | jq '.reply.sources[] | select(.type == 1)'
      picks the sources that are known by their addresses
  make-tunnels | lyrctl exec sources.txt -
      runs the commands of a file, and then those that a program writes
  lyrctl trace follow --level 1 --grep 'not match'
      watches packets that are not for the controller as they come

Without a command, on a terminal, lyrctl is a shell: the same commands, completion, 'help', 'quit'.
With --json a command answers with a line that holds one object, also where there is no engine:
"command" as given, "ok", "meaning" in words, and "reply", what there is to tell; the commands that stream have an object a line of their
own. lyrctl(1) lists all keys.
Exit status: 0 done, 1 the module or the engine refused or failed, 2 the command line makes no sense
or a file that it names cannot be read, 3 there is no engine at the socket, or it went away.

Commands; 'lyrctl COMMAND --help' tells more of one, or of all that begin with these words:
)";

}  // namespace

bool ParseOptions(std::vector<std::string> words, Options &options) {
    CLI::App app("Controls and watches the module in a running engine.", "lyrctl");
    app.footer(kNotes + Commands().Overview());
    app.set_help_flag();
    app.set_version_flag("--version", "lyrctl " LYRCTL_VERSION);
    app.allow_extras();
    if (options.control.empty()) {
        options.control = mund::ClientSocketPath();
    }
    app.add_option("--control", options.control, "the engine's control socket")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_flag("--json", options.json, "answer for programs");
    app.add_flag("--list-commands", options.listCommands,
                 "list the commands: name, tab, usage; for completion");
    app.add_option("--complete", options.complete,
                   "list what a word may become behind the words of a command, and FILE where it "
                   "may be a file's; for completion")
        ->type_name("=WORD");
    app.add_flag("-h,--help", options.help, "print this help, or that of a command");
    try {
        // It takes them from the end.
        std::ranges::reverse(words);
        app.parse(std::move(words));
    } catch (const CLI::Success &answer) {
        app.exit(answer);
        return false;
    } catch (const CLI::ParseError &error) {
        throw control::InputError(std::string(error.what()) + " (--help lists the options)");
    }
    options.words = app.remaining();
    options.overview = app.help();
    // CLI11 knows nothing of the words behind the options.
    constexpr std::string_view kUsage = "[OPTIONS]";
    if (const size_t at = options.overview.find(kUsage); at != std::string::npos) {
        options.overview.insert(at + kUsage.size(), " COMMAND");
    }
    return true;
}

}  // namespace lyrctl
