// Where a program's answer goes.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <string>
#include <system_error>

// Whether the standard output is a pipe that is closed at its other end, as by head, which has read
// enough.
inline bool OutputReaderIsGone() {
    pollfd output = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
    return poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
}

// Writes out what is left of an answer: false if some of it could not be written. Says so, and why
// where that is known, unless nobody reads it any more.
inline bool EndOutput(const std::string &program, const std::string &answer) {
    errno = 0;
    if (std::cout.flush()) {
        return true;
    }
    if (OutputReaderIsGone()) {
        return false;
    }
    // Where it was refused earlier, a line break is refused as well.
    const bool known = errno != 0 || write(STDOUT_FILENO, "\n", 1) < 0;
    const int reason = known ? errno : 0;
    std::cerr << program << ": cannot write " << answer
              << (reason == 0 ? "" : ": " + std::generic_category().message(reason)) << '\n';
    return false;
}
