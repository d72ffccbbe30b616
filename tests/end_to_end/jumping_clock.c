/*
 * Put in front of the C library's: the system clock is set an hour or a day forth and back at every look at
 * it. Clocks that cannot be set go on as they are.
 */
#define _GNU_SOURCE
#include <stdatomic.h>
#include <stddef.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static time_t Jump(void) {
    static const time_t jumps[] = {0, 3600, -3600, 86400, -86400};
    static atomic_uint looks;
    return jumps[looks++ % (sizeof(jumps) / sizeof(jumps[0]))];
}

int clock_gettime(clockid_t clock, struct timespec* now) {
    const int result = (int)syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        now->tv_sec += Jump();
    }
    return result;
}

int gettimeofday(struct timeval* restrict now, void* restrict zone) {
    struct timespec precise;
    (void)zone;
    clock_gettime(CLOCK_REALTIME, &precise);
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return 0;
}

time_t time(time_t* now) {
    struct timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    if (now != NULL) {
        *now = precise.tv_sec;
    }
    return precise.tv_sec;
}
