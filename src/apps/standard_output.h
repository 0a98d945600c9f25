// Where a program's answer goes.
#pragma once

#include <poll.h>
#include <unistd.h>

// Whether the standard output is a pipe that is closed at its other end, as by head, which has read
// enough.
inline bool OutputReaderIsGone() {
    pollfd output = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
    return poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
}
