#include "host/line_sink.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>

#include "kes/diag.h"
#include "standin/lasting.h"

namespace standin {
namespace {

std::mutex mutex;
auto &sink = Lasting<LineSink>();
// Spares threads the formatting of lines that nobody reads.
std::atomic<bool> listening{false};

}  // namespace

std::string_view LineKindName(LineKind kind) {
    switch (kind) {
        case LineKind::kReport:
            return "report";
        case LineKind::kPrint:
            return "print";
        case LineKind::kAgentLog:
            return "agent-log";
        case LineKind::kAlarm:
            return "alarm";
        case LineKind::kAssertion:
            return "assertion";
    }
    return "unknown";
}

void SetLineSink(LineSink newSink) {
    const std::lock_guard lock(mutex);
    sink = std::move(newSink);
    listening = static_cast<bool>(sink);
}

void EmitLine(LineKind kind, std::string_view line) {
    if (!listening.load(std::memory_order_relaxed)) {
        return;
    }
    const std::lock_guard lock(mutex);
    if (sink) {
        sink(kind, line);
    }
}

}  // namespace standin

using namespace standin;

void HostDiagPrintf(const char *format, ...) {
    if (format == nullptr || !listening.load(std::memory_order_relaxed)) {
        return;
    }
    char *line = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&line, format, arguments);
    va_end(arguments);
    if (length >= 0) {
        EmitLine(LineKind::kPrint, {line, static_cast<size_t>(length)});
        std::free(line);
    }
}

uint32_t TovOndAssert(const char *source, uint32_t line, uint32_t code) {
    EmitLine(LineKind::kAssertion, std::string(source == nullptr ? "?" : source) + ":" +
                                       std::to_string(line) + " code " + std::to_string(code));
    return 0;
}
