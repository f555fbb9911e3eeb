// TTY link: a pseudo-terminal whose slave side the tool opens as its serial
// port. The vmcu keeps its own descriptor of the slave open for its whole
// life, so the master never sees a hang-up between two runs of the tool, and
// so it can read back the line settings the tool applied.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "vmcu_link.h"
#include "vmcu_termios.h"

namespace vmcu {

namespace {

class PtyLink {
public:
    PtyLink(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt)
        : opt_(opt),
          mcu_(mcu),
          log_(log),
          rt_(rt),
          rx_(
              opt.rx_crc, [this](const Frame& f) { on_frame(f); },
              [this](const std::string& why) { log_.line("BAD " + why); }) {}

    ~PtyLink() {
        if (slave_ >= 0) {
            close(slave_);
        }
        if (master_ >= 0) {
            close(master_);
        }
    }

    bool open_pty(std::string* err);
    int serve();

private:
    void on_frame(const Frame& f);
    // Writes the bytes; with --baud only once their wire time, counted from
    // `start_ns` (CLOCK_MONOTONIC, -1: from now), has passed.
    void send(const Bytes& bytes, int64_t start_ns = -1);
    // Wire time of nbytes at --baud, in nanoseconds (0 without --baud).
    int64_t wire_ns(size_t nbytes) const;
    // Sleeps until the absolute CLOCK_MONOTONIC time deadline_ns.
    void sleep_until(int64_t deadline_ns) const;

    const Options& opt_;
    Mcu& mcu_;
    Logger& log_;
    Runtime& rt_;
    StreamReceiver rx_;
    int master_ = -1;
    int slave_ = -1;
    std::string last_termios_;
    int64_t last_rx_ms_ = 0;
    int64_t frame_first_ms_ = -1;  // arrival of the first byte of the frame being received
    int64_t frame_first_ns_ = -1;  // the same, in nanoseconds, for the pacing
};

int64_t now_ns() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

bool PtyLink::open_pty(std::string* err) {
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0) {
        *err = std::string("posix_openpt: ") + std::strerror(errno);
        return false;
    }
    const char* name = ptsname(master_);
    if (name == nullptr) {
        *err = std::string("ptsname: ") + std::strerror(errno);
        return false;
    }
    const std::string path = name;
    slave_ = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave_ < 0) {
        *err = "open " + path + ": " + std::strerror(errno);
        return false;
    }
    struct termios t;
    if (tcgetattr(slave_, &t) != 0) {
        *err = std::string("tcgetattr: ") + std::strerror(errno);
        return false;
    }
    cfmakeraw(&t);
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    if (tcsetattr(slave_, TCSANOW, &t) != 0) {
        *err = std::string("tcsetattr: ") + std::strerror(errno);
        return false;
    }
    // Never block on output: with nobody reading, bytes are dropped instead.
    const int fl = fcntl(master_, F_GETFL);
    if (fl < 0 || fcntl(master_, F_SETFL, fl | O_NONBLOCK) != 0) {
        *err = std::string("fcntl: ") + std::strerror(errno);
        return false;
    }
    // The line is emulated with absolute deadlines; the default timer slack
    // (50 us per sleep) would add up over the thousands of frames of an upgrade.
    if (opt_.baud > 0) {
        prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    }
    std::printf("pty: %s\n", path.c_str());
    std::fflush(stdout);
    return true;
}

int64_t PtyLink::wire_ns(size_t nbytes) const {
    if (opt_.baud <= 0) {
        return 0;
    }
    return static_cast<int64_t>(nbytes) * 10LL * 1000000000LL / opt_.baud;
}

void PtyLink::sleep_until(int64_t deadline_ns) const {
    if (deadline_ns <= now_ns()) {
        return;
    }
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(deadline_ns / 1000000000LL);
    ts.tv_nsec = static_cast<long>(deadline_ns % 1000000000LL);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR &&
           !rt_.stop_requested()) {
    }
}

void PtyLink::send(const Bytes& bytes, int64_t start_ns) {
    if (bytes.empty()) {
        return;
    }
    // With --baud the bytes reach the other side only after their wire time.
    if (opt_.baud > 0) {
        sleep_until((start_ns >= 0 ? start_ns : now_ns()) + wire_ns(bytes.size()));
    }
    log_.line("TX " + to_hex(bytes));
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(master_, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        log_.line("DROP " + std::to_string(bytes.size() - done) +
                  " bytes: " + (n < 0 ? std::strerror(errno) : "short write"));
        break;
    }
}

void PtyLink::on_frame(const Frame& f) {
    const std::string t = describe_termios(slave_);
    if (t != last_termios_) {
        log_.line(t);
        last_termios_ = t;
    }
    log_.line("RX " + to_hex(f.wire));
    // The instant the request's last byte could have arrived: the answer
    // starts on the line from there.
    int64_t done_ns = -1;
    if (opt_.baud > 0) {
        const int64_t first = frame_first_ms_ >= 0 ? frame_first_ms_ : last_rx_ms_;
        const long long wire_ms = static_cast<long long>(f.wire.size()) * 10000LL / opt_.baud;
        log_.line("RXTIME at " + std::to_string(first - rt_.start_ms()) + " span " +
                  std::to_string(last_rx_ms_ - first) + " bytes " + std::to_string(f.wire.size()) +
                  " wire " + std::to_string(wire_ms));
        // The request is complete only once its last byte could have arrived.
        done_ns = (frame_first_ns_ >= 0 ? frame_first_ns_ : now_ns()) + wire_ns(f.wire.size());
        sleep_until(done_ns);
    }
    frame_first_ms_ = -1;
    frame_first_ns_ = -1;
    const Reply r = mcu_.handle(f);
    send(r.bytes, done_ns);
}

int PtyLink::serve() {
    uint8_t buf[4096];
    for (;;) {
        const int64_t now = now_ms();
        if (rt_.stop_requested()) {
            // Bytes a tool wrote just before it ended may still be on their way through the
            // tty layer: they belong in the log.
            struct pollfd p = {master_, POLLIN, 0};
            for (ssize_t n; poll(&p, 1, 20) > 0 && (n = read(master_, buf, sizeof buf)) > 0;) {
                log_.raw(buf, static_cast<size_t>(n));
                rx_.feed(buf, static_cast<size_t>(n));
            }
            log_.line("EXIT signal");
            return 0;
        }
        if (rt_.expired(now)) {
            log_.line("EXIT time limit");
            return 0;
        }
        for (const Emit* e : rt_.due_emits(now)) {
            send(mcu_.emit_frame(*e));
        }
        const int64_t gap_deadline = rx_.partial() ? last_rx_ms_ + opt_.rx_gap_ms : -1;
        if (gap_deadline >= 0 && now >= gap_deadline) {
            rx_.abandon_partial();
            continue;
        }
        struct pollfd fds[2] = {{rt_.signal_fd(), POLLIN, 0}, {master_, POLLIN, 0}};
        const int rc = poll(fds, 2, rt_.poll_timeout(now, gap_deadline));
        if (rc < 0) {
            if (errno == EINTR) {
                continue;
            }
            log_.line(std::string("EXIT poll: ") + std::strerror(errno));
            return 1;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            const ssize_t n = read(master_, buf, sizeof buf);
            if (n > 0) {
                last_rx_ms_ = now_ms();
                if (frame_first_ms_ < 0) {
                    frame_first_ms_ = last_rx_ms_;
                    frame_first_ns_ = now_ns();
                }
                log_.raw(buf, static_cast<size_t>(n));
                rx_.feed(buf, static_cast<size_t>(n));
                if (!rx_.partial()) {
                    frame_first_ms_ = -1;
                    frame_first_ns_ = -1;
                }
            } else if (n < 0 && errno != EAGAIN && errno != EINTR && errno != EIO) {
                log_.line(std::string("EXIT read: ") + std::strerror(errno));
                return 1;
            }
        } else if ((fds[1].revents & (POLLHUP | POLLERR)) != 0) {
            // Cannot happen while the vmcu holds the slave open; avoid spinning if it does.
            struct timespec ts = {0, 20 * 1000000L};
            nanosleep(&ts, nullptr);
        }
    }
}

}  // namespace

int run_pty(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt) {
    PtyLink link(opt, mcu, log, rt);
    std::string err;
    if (!link.open_pty(&err)) {
        std::fprintf(stderr, "vmcu: %s\n", err.c_str());
        return 1;
    }
    return link.serve();
}

}  // namespace vmcu
