// Platform costs that every upgrade chunk pays on this machine, whatever the
// tool does (bench/run.sh sets them against the measured excess): how late a
// 10 ms pause ends, and the round trip of a chunk-sized write and an
// acknowledgement-sized answer through a pseudo-terminal after 10 ms of
// idleness (the kernel's pty layer and the wake-ups of both processes; no
// line pacing). Prints both means in seconds: "LATE TRIP".
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <termios.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

namespace {

double now_s() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

}  // namespace

int main() {
    const int n = 100;
    const timespec pause = {0, 10000000L};
    double late = 0, trip = 0;
    for (int i = 0; i < n; i++) {
        double t0 = now_s();
        nanosleep(&pause, nullptr);
        late += (now_s() - t0 - 0.010) / n;
    }
    int master = -1, slave = -1;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
        std::perror("openpty");
        return 1;
    }
    termios t;
    tcgetattr(slave, &t);
    cfmakeraw(&t);
    t.c_cc[VMIN] = 0;  // read as the tool does: up to 0.1 s for each byte
    t.c_cc[VTIME] = 1;
    tcsetattr(slave, TCSANOW, &t);
    pid_t echo = fork();
    if (echo == 0) {  // the answering side, as the vmcu does it: poll, read, write 10 bytes
        char buf[512], ack[10] = {};
        for (pollfd p = {master, POLLIN, 0}; poll(&p, 1, -1) > 0;)
            if (read(master, buf, sizeof buf) <= 0 || write(master, ack, sizeof ack) < 0)
                break;
        _exit(0);
    }
    char chunk[250] = {}, c;
    for (int i = 0; i < n; i++) {
        nanosleep(&pause, nullptr);
        double t0 = now_s();
        if (write(slave, chunk, sizeof chunk) < 0)
            break;
        for (int got = 0; got < 10;)
            got += read(slave, &c, 1) == 1;  // one byte per read, like the tool
        trip += (now_s() - t0) / n;
    }
    kill(echo, SIGKILL);
    waitpid(echo, nullptr, 0);
    std::printf("%.6f %.6f\n", late, trip);
    return 0;
}
