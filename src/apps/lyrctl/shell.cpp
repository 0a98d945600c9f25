#include "shell.h"

#include <editline/readline.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <system_error>

#include "command_line.h"
#include "command_list.h"
#include "completion.h"
#include "control/command_lines.h"
#include "control/input_error.h"
#include "history.h"

namespace lyrctl {
namespace {

// The shell's own words, beside the commands.
constexpr const char *kHelp = "help";
constexpr const char *kQuit = "quit";

// The line editor calls functions without a context: what they need of the shell.
const Options *g_options;
Choices g_choices;
size_t g_nextChoice;
sigset_t g_before;  // signals that were blocked when the shell began
volatile sig_atomic_t g_interrupted = 0;
volatile sig_atomic_t g_ended = 0;

void NoteInterrupt(int) {
    g_interrupted = 1;
}

// So that the terminal is given back first.
void NoteEnd(int) {
    g_ended = 1;
}

void Handle(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(signal, &action, nullptr);
}

sigset_t SetOf(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) {
        sigaddset(&set, signal);
    }
    return set;
}

// A key. An interrupt, and what ends the shell, end the line: they come while a key is waited for,
// and at no other time; keys that were typed after an interrupt wait for it.
int ReadKey(FILE *) {
    pollfd keys = {STDIN_FILENO, POLLIN, 0};
    const timespec now = {};
    while (g_interrupted == 0 && g_ended == 0) {
        // A wait that finds a key leaves a signal pending: the second one takes it.
        if (ppoll(&keys, 1, nullptr, &g_before) < 0 || ppoll(nullptr, 0, &now, &g_before) < 0) {
            continue;
        }
        unsigned char key = 0;
        return read(STDIN_FILENO, &key, 1) == 1 ? key : -1;
    }
    return -1;
}

char *NextChoice(const char *, int first) {
    g_nextChoice = first == 0 ? 0 : g_nextChoice;
    return g_nextChoice < g_choices.words.size() ? strdup(g_choices.words[g_nextChoice++].c_str())
                                                 : nullptr;
}

char **CompleteWord(const char *begun, int start, int) {
    rl_attempted_completion_over = 1;
    std::vector<std::string> words;
    try {
        std::string before(rl_line_buffer, static_cast<size_t>(start));
        // The value of an option may stand behind a '='.
        if (before.ends_with('=')) {
            before.back() = ' ';
        }
        words = control::SplitWords(before);
    } catch (const control::InputError &) {
        return nullptr;
    }
    const bool helps = !words.empty() && words.front() == kHelp;
    if (helps) {
        words.erase(words.begin());
    }
    Client client(g_options->control, false);
    g_choices = Complete(client, words, begun);
    for (const char *own : {kHelp, kQuit}) {
        if (words.empty() && !helps && std::string_view(own).starts_with(begun)) {
            g_choices.words.emplace_back(own);
        }
    }
    rl_completion_append_character = ' ';
    return rl_completion_matches(begun,
                                 g_choices.files ? rl_filename_completion_function : NextChoice);
}

class Shell {
  public:
    explicit Shell(const Options &options) : options_(options) {
        options_.inShell = true;
        g_options = &options_;
        // For characters of more than a byte.
        std::setlocale(LC_CTYPE, "");  // NOLINT(concurrency-mt-unsafe): there is one thread
        rl_readline_name = program_;
        rl_catch_signals = 0;
        rl_getc_function = ReadKey;
        rl_completer_word_break_characters = breaks_;
        rl_attempted_completion_function = CompleteWord;
        using_history();
        for (const std::string &line : history_.Lines()) {
            add_history(line.c_str());
        }
        if (!history_.Complaint().empty()) {
            Complain("note: lines are not kept: " + history_.Complaint());
        }
        Handle(SIGINT, NoteInterrupt);
        Handle(SIGTERM, NoteEnd);
        Handle(SIGHUP, NoteEnd);
        const sigset_t held = SetOf({SIGINT, SIGTERM, SIGHUP});
        pthread_sigmask(SIG_BLOCK, &held, &g_before);
    }

    void Run() {
        while (const std::unique_ptr<char, decltype(&std::free)> line{ReadLine(), std::free}) {
            if (!Obey(line.get())) {
                return;
            }
        }
        std::cout << std::endl;
    }

  private:
    // Null at the end of the input.
    static char *ReadLine() {
        while (g_ended == 0) {
            g_interrupted = 0;
            char *line = readline("lyrctl> ");
            if (line != nullptr || g_interrupted == 0) {
                return line;
            }
            std::cout << "^C" << std::endl;
        }
        return nullptr;
    }

    // False for the line that ends the shell.
    bool Obey(const std::string &line) {
        std::vector<std::string> words;
        try {
            words = control::SplitWords(line);
        } catch (const control::InputError &error) {
            Complain(error.what());
        }
        if (line.find_first_not_of(" \t") != std::string::npos && history_.Add(line)) {
            add_history(line.c_str());
        }
        if (words.empty()) {
            return true;
        }
        if (words.size() == 1 && words[0] == kQuit) {
            return false;
        }
        if (words[0] == kHelp) {
            words.erase(words.begin());
            words.emplace_back("--help");
        }
        RunApart(words);
        return true;
    }

    // In a process of its own: an interrupt ends the command and not the shell.
    void RunApart(const std::vector<std::string> &words) const {
        std::cout.flush();
        const pid_t child = fork();
        if (child == 0) {
            for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
                Handle(signal, SIG_DFL);
            }
            pthread_sigmask(SIG_SETMASK, &g_before, nullptr);
            _exit(RunCommandLine(words, options_));
        }
        if (child < 0) {
            Complain("cannot run a command: " + std::generic_category().message(errno));
            return;
        }
        while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
        }
        // One that the command has obeyed is not the line's, but has left a ^C on it.
        const sigset_t interrupt = SetOf({SIGINT});
        const timespec now = {};
        if (sigtimedwait(&interrupt, nullptr, &now) > 0) {
            std::cout << std::endl;
        }
    }

    Options options_;
    History history_;
    char program_[7] = "lyrctl";
    char breaks_[3] = " =";
};

}  // namespace

ExitStatus RunShell(const Options &options) {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        throw control::InputError(
            "there is no command (--help lists them); 'exec -' reads commands from standard input");
    }
    Shell(options).Run();
    return kOk;
}

}  // namespace lyrctl
