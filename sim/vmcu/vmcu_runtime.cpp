#include "vmcu_runtime.h"

#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace vmcu {

namespace {

volatile sig_atomic_t g_stop = 0;
int g_wake_fd = -1;

void on_stop_signal(int) {
    g_stop = 1;
    if (g_wake_fd >= 0) {
        const int saved = errno;
        const char c = 's';
        (void)!write(g_wake_fd, &c, 1);
        errno = saved;
    }
}

}  // namespace

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

void Logger::close() {
    for (FILE** f : {&log_, &raw_}) {
        if (*f != nullptr)
            std::fclose(*f);
        *f = nullptr;
    }
}

Runtime::Runtime(const Options& opt) : start_(now_ms()) {
    exit_at_ = opt.exit_after_ms > 0 ? start_ + opt.exit_after_ms : -1;
    for (const Emit& e : opt.emits) {
        if (e.count != 0) {
            slots_.push_back(Slot{&e, start_ + opt.emit_start_ms, e.count});
        }
    }
}

Runtime::~Runtime() {
    g_wake_fd = -1;
    for (int fd : pipe_) {
        if (fd >= 0)
            close(fd);
    }
}

bool Runtime::init() {
    if (pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    g_wake_fd = pipe_[1];
    struct sigaction sa {};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    if (sigaction(SIGTERM, &sa, nullptr) != 0 || sigaction(SIGINT, &sa, nullptr) != 0)
        return false;
    signal(SIGPIPE, SIG_IGN);
    return true;
}

bool Runtime::stop_requested() const {
    return g_stop != 0;
}

std::vector<const Emit*> Runtime::due_emits(int64_t now) {
    std::vector<const Emit*> out;
    for (Slot& s : slots_) {
        if (s.left == 0 || now < s.next)
            continue;
        out.push_back(s.emit);
        if (s.left > 0)
            --s.left;
        s.next += s.emit->period_ms;
        if (s.next <= now) {
            s.next = now + s.emit->period_ms;  // do not burst after a stall
        }
    }
    return out;
}

int Runtime::poll_timeout(int64_t now, int64_t other_deadline) const {
    int64_t until = exit_at_;
    auto consider = [&](int64_t t) {
        if (t >= 0 && (until < 0 || t < until))
            until = t;
    };
    consider(other_deadline);
    for (const Slot& s : slots_) {
        if (s.left != 0)
            consider(s.next);
    }
    if (until < 0)
        return -1;
    return static_cast<int>(std::clamp<int64_t>(until - now, 0, INT_MAX));
}

}  // namespace vmcu
