#include "kes/bounded.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "standin/runtime.h"

using standin::CallFails;

namespace {

constexpr int kFormatFailed = -1;

// A failed text operation leaves an empty text where there is room for its NUL.
int FailText(char *destination, size_t destinationSize, int error) {
    if (destination != nullptr && destinationSize != 0) {
        *destination = '\0';
    }
    return error;
}

// Appends to a text of `used` characters; one without its NUL has no room.
int Append(char *destination, size_t destinationSize, size_t used, const char *source) {
    const size_t length = std::strlen(source);
    if (length >= destinationSize - used) {
        return FailText(destination, destinationSize, ERANGE);
    }
    std::memcpy(destination + used, source, length + 1);
    return 0;
}

// Formats a text of at most destinationSize - 1 characters.
int Format(char *destination, size_t destinationSize, const char *format, va_list arguments) {
    const int length = std::vsnprintf(destination, destinationSize, format, arguments);
    if (length < 0 || static_cast<size_t>(length) >= destinationSize) {
        return FailText(destination, destinationSize, kFormatFailed);
    }
    return length;
}

bool Unusable(const void *destination, size_t destinationSize, const void *source) {
    return destination == nullptr || destinationSize == 0 || source == nullptr;
}

}  // namespace

int memcpy_s(void *destination, size_t destinationSize, const void *source, size_t count) {
    if (Unusable(destination, destinationSize, source)) {
        return EINVAL;
    }
    if (CallFails("memcpy_s") || count > destinationSize) {
        return ERANGE;
    }
    std::memcpy(destination, source, count);
    return 0;
}

int memset_s(void *destination, size_t destinationSize, int value, size_t count) {
    if (destination == nullptr || destinationSize == 0) {
        return EINVAL;
    }
    if (CallFails("memset_s") || count > destinationSize) {
        return ERANGE;
    }
    std::memset(destination, value, count);
    return 0;
}

int strcpy_s(char *destination, size_t destinationSize, const char *source) {
    if (Unusable(destination, destinationSize, source)) {
        return FailText(destination, destinationSize, EINVAL);
    }
    if (CallFails("strcpy_s")) {
        return FailText(destination, destinationSize, ERANGE);
    }
    return Append(destination, destinationSize, 0, source);
}

int strcat_s(char *destination, size_t destinationSize, const char *source) {
    if (Unusable(destination, destinationSize, source)) {
        return FailText(destination, destinationSize, EINVAL);
    }
    if (CallFails("strcat_s")) {
        return FailText(destination, destinationSize, ERANGE);
    }
    const size_t used = strnlen(destination, destinationSize);
    return Append(destination, destinationSize, used, source);
}

int sprintf_s(char *destination, size_t destinationSize, const char *format, ...) {
    if (CallFails("sprintf_s") || Unusable(destination, destinationSize, format)) {
        return FailText(destination, destinationSize, kFormatFailed);
    }
    va_list arguments;
    va_start(arguments, format);
    const int length = Format(destination, destinationSize, format, arguments);
    va_end(arguments);
    return length;
}

int vsnprintf_s(char *destination, size_t destinationSize, size_t count, const char *format,
                va_list arguments) {
    if (CallFails("vsnprintf_s") || Unusable(destination, destinationSize, format)) {
        return FailText(destination, destinationSize, kFormatFailed);
    }
    return Format(destination, std::min(destinationSize - 1, count) + 1, format, arguments);
}

int vsnprintf_truncated_s(char *destination, size_t destinationSize, const char *format,
                          va_list arguments) {
    if (CallFails("vsnprintf_truncated_s") || Unusable(destination, destinationSize, format)) {
        return FailText(destination, destinationSize, kFormatFailed);
    }
    const int length = std::vsnprintf(destination, destinationSize, format, arguments);
    if (length < 0) {
        return FailText(destination, destinationSize, kFormatFailed);
    }
    return static_cast<int>(std::min(static_cast<size_t>(length), destinationSize - 1));
}
