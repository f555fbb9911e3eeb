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

#include <cstring>

#include "vmcu_link.h"

namespace vmcu {

namespace {

constexpr int64_t kRxGapMs = 100;  // an unfinished frame is dropped after this silence

void sleep_until(int64_t deadline_ns) {
    const struct timespec ts = {static_cast<time_t>(deadline_ns / 1000000000),
                                static_cast<long>(deadline_ns % 1000000000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

class PtyLink {
public:
    PtyLink(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt)
        : opt_(opt), mcu_(mcu), log_(log), rt_(rt) {}
    ~PtyLink() {
        for (int fd : {slave_, master_})
            if (fd >= 0)
                close(fd);
    }

    // Creates the pty; prints its name. Empty string on success, else the error.
    std::string open_pty();
    int serve();

private:
    void on_frame(const Frame& f);
    void receive(const uint8_t* data, size_t len);
    // Writes the bytes; with --baud only once their wire time, counted from
    // `start_ns` (-1: from now), has passed.
    void send(const Bytes& bytes, int64_t start_ns = -1);
    // Wire time of nbytes at --baud, in nanoseconds.
    int64_t wire_ns(size_t nbytes) const {
        return static_cast<int64_t>(nbytes) * 10000000000 / opt_.baud;
    }

    const Options& opt_;
    Mcu& mcu_;
    Logger& log_;
    Runtime& rt_;
    StreamReceiver rx_{opt_.rx_crc, [this](const Frame& f) { on_frame(f); },
                       [this](const std::string& why) { log_.line("BAD " + why); }};
    int master_ = -1;
    int slave_ = -1;
    std::string last_termios_;
    int64_t last_rx_ns_ = 0;
    int64_t frame_first_ns_ = -1;  // arrival of the first byte of the frame being received
};

std::string PtyLink::open_pty() {
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0)
        return std::string("posix_openpt: ") + std::strerror(errno);
    const char* name = ptsname(master_);
    const std::string path = name != nullptr ? name : "";
    slave_ = name != nullptr ? open(name, O_RDWR | O_NOCTTY | O_CLOEXEC) : -1;
    struct termios t;
    if (slave_ < 0 || tcgetattr(slave_, &t) != 0)
        return "open " + path + ": " + std::strerror(errno);
    cfmakeraw(&t);
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    // Never block on output: with nobody reading, bytes are dropped instead.
    const int fl = fcntl(master_, F_GETFL);
    if (tcsetattr(slave_, TCSANOW, &t) != 0 || fl < 0 ||
        fcntl(master_, F_SETFL, fl | O_NONBLOCK) != 0)
        return "set up " + path + ": " + std::strerror(errno);
    // The line is emulated with absolute deadlines; the default timer slack
    // (50 us per sleep) would add up over the thousands of frames of an upgrade.
    if (opt_.baud > 0)
        prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    std::printf("pty: %s\n", path.c_str());
    std::fflush(stdout);
    return "";
}

void PtyLink::send(const Bytes& bytes, int64_t start_ns) {
    if (bytes.empty())
        return;
    if (opt_.baud > 0)
        sleep_until((start_ns >= 0 ? start_ns : now_ns()) + wire_ns(bytes.size()));
    log_.line("TX " + to_hex(bytes));
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = write(master_, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n == 0 || errno != EINTR) {
            log_.line("DROP " + std::to_string(bytes.size() - done) +
                      " bytes: " + (n < 0 ? std::strerror(errno) : "short write"));
            break;
        }
    }
}

void PtyLink::on_frame(const Frame& f) {
    const std::string t = describe_termios(slave_);
    if (t != last_termios_)
        log_.line(last_termios_ = t);
    log_.line("RX " + to_hex(f.wire));
    // With --baud the request is complete only once its last byte could have
    // arrived; the answer starts on the line from there.
    int64_t done_ns = -1;
    if (opt_.baud > 0) {
        const int64_t first = frame_first_ns_ >= 0 ? frame_first_ns_ : last_rx_ns_;
        log_.line("RXTIME at " + std::to_string(first / 1000000 - rt_.start_ms()) + " span " +
                  std::to_string(last_rx_ns_ / 1000000 - first / 1000000) + " bytes " +
                  std::to_string(f.wire.size()) + " wire " +
                  std::to_string(f.wire.size() * 10000 / opt_.baud));
        done_ns = (frame_first_ns_ >= 0 ? frame_first_ns_ : now_ns()) + wire_ns(f.wire.size());
        sleep_until(done_ns);
    }
    frame_first_ns_ = -1;
    send(mcu_.handle(f).bytes, done_ns);
}

void PtyLink::receive(const uint8_t* data, size_t len) {
    last_rx_ns_ = now_ns();
    if (frame_first_ns_ < 0)
        frame_first_ns_ = last_rx_ns_;
    log_.raw(data, len);
    rx_.feed(data, len);
    if (!rx_.partial())
        frame_first_ns_ = -1;
}

int PtyLink::serve() {
    uint8_t buf[4096];
    for (;;) {
        const int64_t now = now_ms();
        if (const char* why = rt_.exit_reason(now)) {
            // Bytes a tool wrote just before it was stopped may still be on their way
            // through the tty layer: they belong in the log.
            struct pollfd p = {master_, POLLIN, 0};
            for (ssize_t n; rt_.stop_requested() && poll(&p, 1, 20) > 0 &&
                            (n = read(master_, buf, sizeof buf)) > 0;)
                receive(buf, static_cast<size_t>(n));
            log_.line(std::string("EXIT ") + why);
            return 0;
        }
        for (const Emit* e : rt_.due_emits(now))
            send(mcu_.emit_frame(*e));
        const int64_t gap_deadline = rx_.partial() ? last_rx_ns_ / 1000000 + kRxGapMs : -1;
        if (gap_deadline >= 0 && now >= gap_deadline) {
            rx_.abandon_partial();
            continue;
        }
        struct pollfd fds[2] = {{rt_.signal_fd(), POLLIN, 0}, {master_, POLLIN, 0}};
        if (poll(fds, 2, rt_.poll_timeout(now, gap_deadline)) < 0 && errno != EINTR) {
            log_.line(std::string("EXIT poll: ") + std::strerror(errno));
            return 1;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            const ssize_t n = read(master_, buf, sizeof buf);
            if (n > 0) {
                receive(buf, static_cast<size_t>(n));
            } else if (n < 0 && errno != EAGAIN && errno != EINTR && errno != EIO) {
                log_.line(std::string("EXIT read: ") + std::strerror(errno));
                return 1;
            }
        } else if ((fds[1].revents & (POLLHUP | POLLERR)) != 0) {
            // Cannot happen while the vmcu holds the slave open; avoid spinning if it does.
            const struct timespec ts = {0, 20 * 1000000L};
            nanosleep(&ts, nullptr);
        }
    }
}

}  // namespace

int run_pty(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt) {
    PtyLink link(opt, mcu, log, rt);
    const std::string err = link.open_pty();
    if (!err.empty()) {
        std::fprintf(stderr, "vmcu: %s\n", err.c_str());
        return 1;
    }
    return link.serve();
}

}  // namespace vmcu
