#include "vmcu_runtime.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

namespace vmcu {

int64_t now_ns() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

bool Logger::open(const std::string& log_path, const std::string& raw_path) {
    log_ = log_path.empty() ? nullptr : std::fopen(log_path.c_str(), "w");
    raw_ = raw_path.empty() ? nullptr : std::fopen(raw_path.c_str(), "wb");
    return (log_ != nullptr || log_path.empty()) && (raw_ != nullptr || raw_path.empty());
}

void Logger::write(FILE* f, const void* data, size_t len) {
    if (f != nullptr && len > 0) {
        std::fwrite(data, 1, len, f);
        std::fflush(f);
    }
}

Runtime::Runtime(const Options& opt) : start_(now_ms()) {
    exit_at_ = opt.exit_after_ms > 0 ? start_ + opt.exit_after_ms : -1;
    for (const Emit& e : opt.emits)
        slots_.push_back(Slot{&e, start_ + opt.emit_start_ms, e.count});
}

Runtime::~Runtime() {
    if (signal_fd_ >= 0)
        close(signal_fd_);
}

bool Runtime::init() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    signal(SIGPIPE, SIG_IGN);
    if (sigprocmask(SIG_BLOCK, &stop, nullptr) == 0)
        signal_fd_ = signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK);
    return signal_fd_ >= 0;
}

bool Runtime::stop_requested() const {
    struct pollfd p = {signal_fd_, POLLIN, 0};
    return poll(&p, 1, 0) > 0;
}

std::vector<const Emit*> Runtime::due_emits(int64_t now) {
    std::vector<const Emit*> out;
    for (Slot& s : slots_) {
        if (s.left == 0 || now < s.next)
            continue;
        out.push_back(s.emit);
        s.left -= s.left > 0 ? 1 : 0;
        s.next += s.emit->period_ms;
        if (s.next <= now)
            s.next = now + s.emit->period_ms;  // do not burst after a stall
    }
    return out;
}

int Runtime::poll_timeout(int64_t now, int64_t other_deadline) const {
    int64_t until = INT64_MAX;
    for (int64_t t : {exit_at_, other_deadline})
        until = t >= 0 ? std::min(until, t) : until;
    for (const Slot& s : slots_)
        until = s.left != 0 ? std::min(until, s.next) : until;
    return until == INT64_MAX ? -1 : static_cast<int>(std::clamp<int64_t>(until - now, 0, INT_MAX));
}

}  // namespace vmcu
