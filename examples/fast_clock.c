/*
 * Loaded in front of a program (LD_PRELOAD), lets its wall clock run faster, so that a
 * demonstration need not wait for the minutes of the module's drop watch: gettimeofday, which the
 * module asks, counts LYR_CLOCK_RATE seconds (61 unless told otherwise) for each that passes.
 * Timers, sleeps and the other clocks stay as they are.
 */
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

static double start;
static double rate = 61;

static double Now(void) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

__attribute__((constructor)) static void Begin(void) {
    const char *text = getenv("LYR_CLOCK_RATE");
    if (text != NULL && strtod(text, NULL) >= 1) {
        rate = strtod(text, NULL);
    }
    start = Now();
}

int gettimeofday(struct timeval *restrict now, void *restrict zone) {
    const double time = start + (Now() - start) * rate;
    (void)zone;
    now->tv_sec = (time_t)time;
    now->tv_usec = (suseconds_t)((time - (double)now->tv_sec) * 1e6);
    return 0;
}
