// top: a live view, or one frame of it.
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
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

const std::string kOtherForms = "--once prints one frame of it, --json an object each interval";

struct TopOptions {
    std::chrono::milliseconds interval{1000};
    InstanceView view;
};

std::chrono::milliseconds ParseInterval(const std::string &text) {
    constexpr double kShortest = 0.1, kLongest = 3600;
    double seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size() || !(seconds >= kShortest) ||
        !(seconds <= kLongest)) {
        throw control::InputError("--interval '" + text +
                                  "' is not a number of seconds from 0.1 to 3600");
    }
    return std::chrono::milliseconds(std::lround(seconds * 1000));
}

TopOptions OptionsOf(const control::Arguments &arguments) {
    TopOptions options;
    if (const std::string *interval = arguments.Find("--interval")) {
        options.interval = ParseInterval(*interval);
    }
    if (const std::string *sort = arguments.Find("--sort")) {
        options.view.sort = SortKeyOf(*sort);
        if (!options.view.sort) {
            throw control::InputError("--sort '" + *sort +
                                      "' is none of rate, instance, cwp, wapi and total");
        }
    }
    return options;
}

// The reading an interval after an earlier one.
Reading NextReading(Client &client, const Reading &earlier, const TopOptions &options) {
    std::this_thread::sleep_until(earlier.when + options.interval);
    return TakeReading(client.Engine());
}

// Plain text, as wide and as long as it is.
ExitStatus PrintOnce(Client &client, const TopOptions &options) {
    const Reading earlier = TakeReading(client.Engine());
    const Reading later = NextReading(client, earlier, options);
    for (const Line &line : TopLines(earlier, later, kUnlimited, kUnlimited, options.view)) {
        std::cout << line.text << '\n';
    }
    return kOk;
}

ExitStatus PrintJson(Client &client, const TopOptions &options, bool once) {
    Reading earlier = TakeReading(client.Engine());
    do {
        Reading later = NextReading(client, earlier, options);
        std::cout << control::JsonLine(TopJson(earlier, later, options.view)) << std::endl;
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

ExitStatus ShowLive(Client &client, TopOptions options) {
    Reading earlier = TakeReading(client.Engine());
    Reading later = earlier;
    RateHistory history;
    options.view.history = &history;
    options.view.blocks = LocaleHasUtf8();
    Terminal terminal;
    const auto draw = [&] {
        const Terminal::Size size = Terminal::CurrentSize();
        terminal.Show(TopLines(earlier, later, size.width, size.height, options.view), size);
    };
    for (;;) {
        draw();
        if (!WaitUntil(terminal, later.when + options.interval, draw)) {
            return kOk;
        }
        Reading next = TakeReading(client.Engine());
        earlier = std::move(later);
        later = std::move(next);
        history.Add(RatesOf(earlier, later));
    }
}

}  // namespace

ExitStatus ShowTop(Client &client, const control::Arguments &arguments) {
    const bool once = arguments.Find("--once") != nullptr;
    const TopOptions options = OptionsOf(arguments);
    if (client.Json()) {
        return PrintJson(client, options, once);
    }
    if (once) {
        return PrintOnce(client, options);
    }
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        throw control::InputError("top needs a terminal; " + kOtherForms);
    }
    const char *type = std::getenv("TERM");  // NOLINT(concurrency-mt-unsafe)
    if (type != nullptr && std::string_view(type) == "dumb") {
        throw control::InputError(
            "top needs a terminal that can be drawn on, and TERM is 'dumb'; " + kOtherForms);
    }
    return ShowLive(client, options);
}

}  // namespace lyrctl
