/* Test-only LD_PRELOAD library: a wall clock frozen at MCU_FIXED_TIME
 * ("seconds.microseconds"), so the clock action can be checked at a known
 * instant. Without the variable the clock reads as the epoch. */
#include <stdlib.h>
#include <sys/time.h>

int gettimeofday(struct timeval* tv, void* tz) {
    (void)tz;
    const char* s = getenv("MCU_FIXED_TIME");
    long sec = 0, usec = 0;
    if (s != NULL) {
        char* end = NULL;
        sec = strtol(s, &end, 10);
        if (end != NULL && *end == '.')
            usec = strtol(end + 1, NULL, 10);
    }
    tv->tv_sec = sec;
    tv->tv_usec = usec;
    return 0;
}
