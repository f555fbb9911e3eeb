// Process-level services shared by both links: the clock, the stop signals,
// the lifetime limit and the schedule of unsolicited frames.
#pragma once

#include <cstdint>
#include <vector>

#include "vmcu_options.h"

namespace vmcu {

int64_t now_ms();  // monotonic milliseconds

class Runtime {
public:
    explicit Runtime(const Options& opt);
    ~Runtime();
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    // Installs the SIGTERM/SIGINT handlers. False on failure.
    bool init();
    // Readable when a stop signal arrived; include it in every poll().
    int signal_fd() const { return pipe_[0]; }
    bool stop_requested() const;
    bool expired(int64_t now) const { return exit_at_ >= 0 && now >= exit_at_; }

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
    int pipe_[2] = {-1, -1};
    int64_t start_;
    int64_t exit_at_;
    std::vector<Slot> slots_;
};

}  // namespace vmcu
