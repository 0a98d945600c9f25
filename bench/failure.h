// A benchmark that does not do what it says ends the program: its figures would mean nothing.
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace bench {

[[noreturn, gnu::format(printf, 1, 2)]] inline void Fail(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::fprintf(stderr, "%s: ", program_invocation_short_name);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
    std::_Exit(EXIT_FAILURE);
}

}  // namespace bench
