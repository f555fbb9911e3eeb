/* Test-only LD_PRELOAD library: a wall clock frozen at MCU_FIXED_TIME
 * ("seconds.microseconds", else the epoch) for the clock action. */
#include <stdlib.h>
#include <sys/time.h>

#if defined(__BIONIC__) /* as each C library declares it */
int gettimeofday(struct timeval* tv, struct timezone* tz) {
#else
int gettimeofday(struct timeval* tv, void* tz) {
#endif
    (void)tz;
    const char* s = getenv("MCU_FIXED_TIME");
    char* end = NULL;
    tv->tv_sec = s != NULL ? strtol(s, &end, 10) : 0;
    tv->tv_usec = end != NULL && *end == '.' ? strtol(end + 1, NULL, 10) : 0;
    return 0;
}
