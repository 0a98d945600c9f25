#include "terminal.h"

#include "rate_history.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>
#include <string_view>

namespace lyrctl {
namespace {

// What signal handlers need to give the terminal back.
termios g_modes;
volatile sig_atomic_t g_redraw = 0;

constexpr std::string_view kEnter = "\033[?1049h\033[?25l";
constexpr std::string_view kLeave = "\033[0m\033[?25h\033[?1049l";

constexpr int kEnding[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// Safe in a signal handler. What cannot be written is lost with the terminal.
void Send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (sent < 0 && errno != EINTR && errno != EAGAIN) {
            return;
        }
        bytes.remove_prefix(sent > 0 ? static_cast<size_t>(sent) : 0);
    }
}

void Enter() {
    termios modes = g_modes;
    // Keys come at once and unseen; interrupts still interrupt.
    modes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    modes.c_cc[VMIN] = 1;
    modes.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSANOW, &modes);
    Send(kEnter);
}

void Leave() {
    Send(kLeave);
    tcsetattr(STDIN_FILENO, TCSANOW, &g_modes);
}

// The engine may not answer, so the end does not wait for anyone who waits for it.
void End(int) {
    Leave();
    _exit(0);
}

void Suspend(int) {
    const int error = errno;
    Leave();
    raise(SIGSTOP);
    Enter();
    g_redraw = 1;
    errno = error;
}

void Resize(int) {
    g_redraw = 1;
}

void Handle(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigfillset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

void HandleAll(void (*end)(int), void (*suspend)(int), void (*resize)(int)) {
    for (const int signal : kEnding) {
        Handle(signal, end);
    }
    Handle(SIGTSTP, suspend);
    Handle(SIGWINCH, resize);
}

std::string_view StyleOf(Emphasis emphasis) {
    switch (emphasis) {
        case Emphasis::kTitle:
            return "\033[1m";
        case Emphasis::kHeading:
            return "\033[7m";
        case Emphasis::kAlarm:
            return "\033[1;31m";
        case Emphasis::kNone:
            break;
    }
    return "";
}

}  // namespace

Terminal::Terminal() {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0 ||
        tcgetattr(STDIN_FILENO, &g_modes) != 0) {
        throw std::runtime_error("standard input and output are no terminal");
    }
    HandleAll(End, Suspend, Resize);
    Enter();
}

Terminal::~Terminal() {
    HandleAll(SIG_DFL, SIG_DFL, SIG_DFL);
    Leave();
}

Terminal::Size Terminal::CurrentSize() {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return {80, 24};
    }
    return {size.ws_col, size.ws_row};
}

void Terminal::Show(const std::vector<Line> &lines, Size size) {
    std::string frame;
    if (g_redraw != 0 || size != size_) {
        g_redraw = 0;
        shown_.clear();
        frame = "\033[0m\033[2J";
    }
    for (size_t i = 0; i < std::max(lines.size(), shown_.size()); ++i) {
        const Line line = i < lines.size() ? lines[i] : Line{};
        if (line == (i < shown_.size() ? shown_[i] : Line{})) {
            continue;
        }
        const std::string_view style = StyleOf(line.emphasis);
        frame += "\033[" + std::to_string(i + 1) + ";1H" + std::string(style) + line.text +
                 (style.empty() ? "" : "\033[0m");
        // Behind a full line the cursor still stands on its last column.
        frame += CharactersOf(line.text) < size.width ? "\033[K" : "";
    }
    shown_ = lines;
    size_ = size;
    Send(frame);
}

Terminal::Key Terminal::Wait(int milliseconds) {
    pollfd keys = {STDIN_FILENO, POLLIN, 0};
    const int ready = g_redraw != 0 ? 0 : poll(&keys, 1, milliseconds);
    if (g_redraw != 0) {
        return Key::kRedraw;
    }
    char key = 0;
    if (ready <= 0) {
        return Key::kNone;
    }
    if (read(STDIN_FILENO, &key, 1) <= 0) {
        return Key::kQuit;
    }
    return key == 'q' || key == 'Q' ? Key::kQuit : Key::kNone;
}

}  // namespace lyrctl
