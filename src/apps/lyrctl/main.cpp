// lyrctl: controls and watches the module in a running engine, over the engine's control socket.
#include <csignal>

#include "command_line.h"

int main(int argc, char **argv) {
    // A reader that goes away is no reason to leave the terminal or the trace as it is.
    std::signal(SIGPIPE, SIG_IGN);
    // A file that may grow no further is a failure like others.
    std::signal(SIGXFSZ, SIG_IGN);
    return lyrctl::RunCommandLine({argv + 1, argv + argc}, {});
}
