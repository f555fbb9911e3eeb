// Virtual clock of the fuzz targets: this process's own gettimeofday and
// nanosleep, which take the place of the C library's. Off, they read and
// sleep on the real clock; on, the tool's pauses cost no real time and the
// time-outs of an exchange run their full course in microseconds, the same
// way in every run of an input.
#include <errno.h>
#include <sys/time.h>
#include <time.h>

#include "fuzz_support.h"

namespace {

bool g_on = false;
int64_t g_now_us = 0;
int g_idle_fd = -1;
void (*g_service)(void) = nullptr;
bool g_in_service = false;

void run_service(void) {
    // The service may itself read the clock; it runs once per event.
    if (g_service == nullptr || g_in_service)
        return;
    g_in_service = true;
    g_service();
    g_in_service = false;
}

}  // namespace

void vclock_on(int idle_fd, void (*service)(void)) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    g_now_us = static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
    g_idle_fd = idle_fd;
    g_service = service;
    g_on = true;
}

void vclock_off(void) {
    g_on = false;
    g_idle_fd = -1;
    g_service = nullptr;
}

extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict tz) noexcept {
    (void)tz;
    if (!g_on) {
        struct timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        tv->tv_sec = ts.tv_sec;
        tv->tv_usec = ts.tv_nsec / 1000;
        return 0;
    }
    run_service();
    if (g_idle_fd >= 0 && pending_bytes(g_idle_fd) == 0)
        g_now_us += 1000;
    tv->tv_sec = static_cast<time_t>(g_now_us / 1000000);
    tv->tv_usec = static_cast<suseconds_t>(g_now_us % 1000000);
    return 0;
}

extern "C" int nanosleep(const struct timespec* req, struct timespec* rem) {
    if (!g_on) {
        int r = clock_nanosleep(CLOCK_REALTIME, 0, req, rem);
        if (r != 0) {
            errno = r;
            return -1;
        }
        return 0;
    }
    g_now_us += static_cast<int64_t>(req->tv_sec) * 1000000 + req->tv_nsec / 1000;
    run_service();
    if (rem != nullptr) {
        rem->tv_sec = 0;
        rem->tv_nsec = 0;
    }
    return 0;
}
