// Process-level services shared by both links: the clock, the event log and
// raw capture, the stop signals, the lifetime limit and the schedule of
// unsolicited frames.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "vmcu_options.h"

namespace vmcu {

int64_t now_ns();  // monotonic nanoseconds
inline int64_t now_ms() {
    return now_ns() / 1000000;
}

// The event log, one line per event, and the raw capture, both flushed at once
// so that a test can read them while the vmcu is still running.
class Logger {
public:
    Logger() = default;
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    ~Logger() {
        for (FILE* f : {log_, raw_})
            if (f != nullptr)
                std::fclose(f);
    }
    // Empty paths disable the respective output. False (errno set) when a file
    // cannot be opened.
    bool open(const std::string& log_path, const std::string& raw_path);
    void line(const std::string& text) { write(log_, (text + "\n").data(), text.size() + 1); }
    void raw(const uint8_t* data, size_t len) { write(raw_, data, len); }

private:
    static void write(FILE* f, const void* data, size_t len);
    FILE* log_ = nullptr;
    FILE* raw_ = nullptr;
};

class Runtime {
public:
    explicit Runtime(const Options& opt);
    ~Runtime();
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    // Takes SIGTERM and SIGINT through a descriptor instead of handlers. False on failure.
    bool init();
    // Readable when a stop signal arrived; include it in every poll().
    int signal_fd() const { return signal_fd_; }
    bool stop_requested() const;
    // Why the vmcu ends at `now` ("signal", "time limit"), or nullptr.
    const char* exit_reason(int64_t now) const {
        return stop_requested()                   ? "signal"
               : exit_at_ >= 0 && now >= exit_at_ ? "time limit"
                                                  : nullptr;
    }

    // Emit entries due at `now`; their next time is advanced.
    std::vector<const Emit*> due_emits(int64_t now);
    // Milliseconds poll() may sleep until the next timed event, bounded by
    // `other_deadline` (an absolute time, or -1 for none).
    int poll_timeout(int64_t now, int64_t other_deadline) const;
    int64_t start_ms() const { return start_; }

private:
    struct Slot {
        const Emit* emit;
        int64_t next;
        int left;  // -1 unlimited
    };
    int signal_fd_ = -1;  // SIGTERM and SIGINT, blocked, arrive here
    int64_t start_;
    int64_t exit_at_;
    std::vector<Slot> slots_;
};

}  // namespace vmcu
