// The bounded memory and string operations at their edges.
#include "kes/bounded.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

// A destination of which `size` bytes may be written; what lies behind them must stay.
struct Destination {
    char bytes[24];

    explicit Destination(const char *text = "old") {
        std::memset(bytes, '#', sizeof(bytes));
        std::memcpy(bytes, text, std::strlen(text) + 1);
    }
    bool Untouched(size_t from) const {
        return std::string(bytes + from, sizeof(bytes) - from) ==
               std::string(sizeof(bytes) - from, '#');
    }
};

int FormatWith(int (*formatter)(char *, size_t, const char *, va_list), char *destination,
               size_t size, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = formatter(destination, size, format, arguments);
    va_end(arguments);
    return result;
}

int Truncating(char *destination, size_t size, const char *text) {
    return FormatWith(vsnprintf_truncated_s, destination, size, "%s", text);
}

template <size_t kCount>
int Counting(char *destination, size_t size, const char *text) {
    return FormatWith(
        [](char *to, size_t toSize, const char *format, va_list arguments) {
            return vsnprintf_s(to, toSize, kCount, format, arguments);
        },
        destination, size, "%s", text);
}

int Printing(char *destination, size_t size, const char *text) {
    return sprintf_s(destination, size, "%s", text);
}

struct TextCase {
    const char *name;
    int (*operation)(char *, size_t, const char *);
    size_t size;
    const char *source;
    int result;
    const char *text;  // afterwards; the destination starts as "old"
};

TEST(Bounded, TextOperationsFailRatherThanOverrun) {
    const TextCase cases[] = {
        {"copy that just fits", strcpy_s, 6, "hello", 0, "hello"},
        {"copy one too long", strcpy_s, 5, "hello", ERANGE, ""},
        {"copy of nothing", strcpy_s, 1, "", 0, ""},
        {"copy into no room", strcpy_s, 0, "hello", EINVAL, "old"},
        {"copy from null", strcpy_s, 6, nullptr, EINVAL, ""},
        {"append that just fits", strcat_s, 9, "hello", 0, "oldhello"},
        {"append one too long", strcat_s, 8, "hello", ERANGE, ""},
        {"append to an open text", strcat_s, 3, "", ERANGE, ""},
        {"append from null", strcat_s, 8, nullptr, EINVAL, ""},
        {"print that just fits", Printing, 6, "hello", 5, "hello"},
        {"print one too long", Printing, 5, "hello", -1, ""},
        {"print into no room", Printing, 0, "hello", -1, "old"},
        {"count that just fits", Counting<5>, 10, "hello", 5, "hello"},
        {"count one too long", Counting<4>, 10, "hello", -1, ""},
        {"count beyond the destination", Counting<SIZE_MAX>, 5, "hello", -1, ""},
        {"count to the destination's end", Counting<SIZE_MAX>, 6, "hello", 5, "hello"},
        {"cut that fits", Truncating, 6, "hello", 5, "hello"},
        {"cut by one", Truncating, 5, "hello", 4, "hell"},
        {"cut to nothing", Truncating, 1, "hello", 0, ""},
        {"cut into no room", Truncating, 0, "hello", -1, "old"},
    };
    for (const TextCase &expected : cases) {
        SCOPED_TRACE(expected.name);
        Destination destination;
        EXPECT_EQ(expected.operation(destination.bytes, expected.size, expected.source),
                  expected.result);
        EXPECT_STREQ(destination.bytes, expected.text);
        EXPECT_TRUE(destination.Untouched(std::max<size_t>(expected.size, 4)));
        EXPECT_NE(expected.operation(nullptr, 4, "x"), 0);
    }
}

TEST(Bounded, MemoryOperationsFailRatherThanOverrun) {
    Destination destination("abcdefg");
    const char source[] = "0123456789";
    EXPECT_EQ(memcpy_s(destination.bytes, 4, source, 5), ERANGE);
    EXPECT_EQ(memset_s(destination.bytes, 4, 'x', 5), ERANGE);
    EXPECT_EQ(memcpy_s(destination.bytes, 0, source, 0), EINVAL);
    EXPECT_EQ(memcpy_s(destination.bytes, 4, nullptr, 4), EINVAL);
    EXPECT_EQ(memcpy_s(nullptr, 4, source, 4), EINVAL);
    EXPECT_EQ(memset_s(nullptr, 4, 0, 4), EINVAL);
    EXPECT_STREQ(destination.bytes, "abcdefg");
    EXPECT_EQ(memcpy_s(destination.bytes, 4, source, 4), 0);
    EXPECT_STREQ(destination.bytes, "0123efg");
    EXPECT_EQ(memset_s(destination.bytes, 4, 'x', 4), 0);
    EXPECT_STREQ(destination.bytes, "xxxxefg");
}

}  // namespace
