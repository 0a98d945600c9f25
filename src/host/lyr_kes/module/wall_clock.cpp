#include "module/wall_clock.h"

#include <sys/time.h>

uint32_t LyrKes_GetCurTime() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<uint32_t>(now.tv_sec);
}
