#include "fuzz_support.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

namespace {

size_t g_diag = 0;
int64_t g_now_us = 1700000000LL * 1000000;

int count_print(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    g_diag += n > 0 ? static_cast<size_t>(n) : 0;
    return n;
}

}  // namespace

void fuzz_fail(const char* file, int line, const char* cond) {
    fprintf(stderr, "%s:%d: property failed: %s\n", file, line, cond);
    abort();
}

void fuzz_quiet_init(void) {
    dup2(open("/dev/null", O_WRONLY), 1);
    pfn_print = count_print;
}

size_t fuzz_diag_bytes(void) {
    size_t n = g_diag;
    g_diag = 0;
    return n;
}

// Virtual clock: each reading advances it by 1 ms (so every time-out runs
// out), each pause by its length.
extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) noexcept {
    g_now_us += 1000;
    tv->tv_sec = static_cast<time_t>(g_now_us / 1000000);
    tv->tv_usec = static_cast<suseconds_t>(g_now_us % 1000000);
    return 0;
}

extern "C" int nanosleep(const struct timespec* req, struct timespec* rem) {
    g_now_us += static_cast<int64_t>(req->tv_sec) * 1000000 + req->tv_nsec / 1000;
    if (rem != nullptr)
        *rem = {0, 0};
    return 0;
}
