// top: a live view, or one frame of it.
#include <unistd.h>

#include <iostream>
#include <thread>

#include "control/input_error.h"
#include "control/json_line.h"
#include "control/reading.h"
#include "own_commands.h"
#include "terminal.h"
#include "top_view.h"

namespace lyrctl {
namespace {

using control::Reading;
using control::TakeReading;
using std::chrono::steady_clock;

constexpr auto kPeriod = std::chrono::seconds(1);

// The reading a period after an earlier one.
Reading NextReading(Client &client, const Reading &earlier) {
    std::this_thread::sleep_until(earlier.when + kPeriod);
    return TakeReading(client.Engine());
}

// Plain text, as wide and as long as it is.
ExitStatus PrintOnce(Client &client) {
    const Reading earlier = TakeReading(client.Engine());
    const Reading later = NextReading(client, earlier);
    for (const Line &line : TopLines(earlier, later, kUnlimited, kUnlimited)) {
        std::cout << line.text << '\n';
    }
    return kOk;
}

ExitStatus PrintJson(Client &client, bool once) {
    Reading earlier = TakeReading(client.Engine());
    do {
        Reading later = NextReading(client, earlier);
        std::cout << control::JsonLine(TopJson(earlier, later)) << std::endl;
        earlier = std::move(later);
    } while (!once && std::cout);
    return kOk;
}

// Waits until a moment, and redraws meanwhile as it is asked to. False to quit.
bool WaitUntil(Terminal &terminal, steady_clock::time_point moment,
               const std::function<void()> &draw) {
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(moment - steady_clock::now()).count();
        switch (terminal.Wait(static_cast<int>(std::max<int64_t>(left, 0)))) {
            case Terminal::Key::kQuit:
                return false;
            case Terminal::Key::kRedraw:
                draw();
                break;
            case Terminal::Key::kNone:
                break;
        }
        if (left <= 0) {
            return true;
        }
    }
}

ExitStatus ShowLive(Client &client) {
    Reading earlier = TakeReading(client.Engine());
    Reading later = earlier;
    Terminal terminal;
    const auto draw = [&] {
        const Terminal::Size size = Terminal::CurrentSize();
        terminal.Show(TopLines(earlier, later, size.width, size.height), size);
    };
    for (;;) {
        draw();
        if (!WaitUntil(terminal, later.when + kPeriod, draw)) {
            return kOk;
        }
        Reading next = TakeReading(client.Engine());
        earlier = std::move(later);
        later = std::move(next);
    }
}

}  // namespace

ExitStatus ShowTop(Client &client, const control::Arguments &arguments) {
    const bool once = arguments.Find("--once") != nullptr;
    if (client.Json()) {
        return PrintJson(client, once);
    }
    if (once) {
        return PrintOnce(client);
    }
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        throw control::InputError(
            "top needs a terminal; --once prints one frame of it, --json an object a second");
    }
    return ShowLive(client);
}

}  // namespace lyrctl
