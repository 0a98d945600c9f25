#include "progress.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>

namespace kes_engine {
namespace {

constexpr auto kInterval = std::chrono::milliseconds(200);
constexpr uint64_t kFramesPerLook = 256;  // reading the clock for each would be felt

}  // namespace

Progress::Progress() : terminal_(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    if (shown_) {
        std::fputs("\r\033[K", stderr);
    }
}

bool Progress::Due(uint64_t frames) {
    return terminal_ && frames % kFramesPerLook == 0 && Clock::now() >= next_;
}

void Progress::Show(uint64_t frames, std::optional<double> share) {
    const Clock::time_point now = Clock::now();
    const double seconds = std::chrono::duration<double>(now - start_).count();
    std::fprintf(stderr, "\r\033[K%" PRIu64 " packets, %.0f packets/s", frames,
                 static_cast<double>(frames) / seconds);
    if (share) {
        std::fprintf(stderr, ", %.0f %%", 100 * *share);
    }
    std::fflush(stderr);
    next_ = now + kInterval;
    shown_ = true;
}

}  // namespace kes_engine
