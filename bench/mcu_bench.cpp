// Benchmark driver: runs the built mcu_tool2 against the virtual MCU and
// prints, in one run,
//   1. the upgrade of a 256 KiB image at 115200 and 921600 baud against a vmcu
//      that paces its line (--baud), with the measured time, the bound (wire
//      time of every frame both ways at 10 bits per byte plus the fixed pauses
//      of the procedure) and their ratio;
//   2. the processor time of the tool (user + system from wait4) as a share
//      of the wall time, for a 10-second silent monitor and for the upgrades;
//   3. the system calls of one version query (strace), against the least the
//      protocol needs, with what the extra calls are.
//
// usage: mcu_bench --tool PATH --vmcu PATH [--strace PATH] [--workdir DIR]
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <termios.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int kImageBytes = 256 * 1024;
constexpr double kGoalRatio = 1.02;
constexpr double kGoalMonitorShare = 0.005;
constexpr int kMonitorSeconds = 10;
// Fixed pauses of the upgrade procedure (seconds): before step 1, after
// step 2, and after every CMD_DOWNLOADING chunk.
constexpr double kPauseBeforeStep1 = 0.100;
constexpr double kPauseAfterStep2 = 1.000;
constexpr double kPauseAfterChunk = 0.010;
constexpr uint8_t kCmdDownloading = 0xD9;

std::string g_tool;
std::string g_vmcu;
std::string g_strace;
std::string g_dir;

double now_s() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

[[noreturn]] void die(const std::string& why) {
    std::fprintf(stderr, "mcu_bench: %s\n", why.c_str());
    std::exit(1);
}

// fork + exec with stdout (and stderr) to out_path; the child's pid.
pid_t spawn(const std::vector<std::string>& argv, const std::string& out_path) {
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::fflush(stdout);
    pid_t pid = fork();
    if (pid < 0)
        die(std::string("fork: ") + std::strerror(errno));
    if (pid == 0) {
        int fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
            close(fd);
        }
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

struct RunResult {
    double wall = 0;  // seconds from fork to the end of wait4
    double user = 0;
    double sys = 0;
    int status = 0;
    std::string out;
};

// Runs a program to its end; wall and processor time of that child alone.
RunResult run(const std::vector<std::string>& argv, const std::string& out_path) {
    RunResult r;
    double t0 = now_s();
    pid_t pid = spawn(argv, out_path);
    struct rusage ru;
    std::memset(&ru, 0, sizeof ru);
    while (wait4(pid, &r.status, 0, &ru) < 0) {
        if (errno != EINTR)
            die(std::string("wait4: ") + std::strerror(errno));
    }
    r.wall = now_s() - t0;
    r.user = static_cast<double>(ru.ru_utime.tv_sec) + ru.ru_utime.tv_usec * 1e-6;
    r.sys = static_cast<double>(ru.ru_stime.tv_sec) + ru.ru_stime.tv_usec * 1e-6;
    r.out = read_file(out_path);
    return r;
}

// A running vmcu on a fresh pseudo-terminal.
struct Vmcu {
    pid_t pid = -1;
    std::string pty;
    std::string log;
};

Vmcu start_vmcu(const std::string& tag, const std::vector<std::string>& extra) {
    Vmcu v;
    v.log = g_dir + "/vmcu-" + tag + ".log";
    std::string out = g_dir + "/vmcu-" + tag + ".out";
    std::vector<std::string> argv = {g_vmcu, "--pty", "--exit-after", "0", "--log", v.log};
    argv.insert(argv.end(), extra.begin(), extra.end());
    v.pid = spawn(argv, out);
    for (int i = 0; i < 200 && v.pty.empty(); i++) {
        std::string text = read_file(out);
        size_t p = text.find("pty: ");
        size_t e = p == std::string::npos ? p : text.find('\n', p);
        if (e != std::string::npos)
            v.pty = text.substr(p + 5, e - p - 5);
        else
            usleep(20000);
    }
    if (v.pty.empty())
        die("vmcu did not report its pty");
    return v;
}

void stop_vmcu(Vmcu& v) {
    if (v.pid > 0) {
        kill(v.pid, SIGTERM);
        int st = 0;
        waitpid(v.pid, &st, 0);
        v.pid = -1;
    }
}

// Wire order of a frame: FD, len, len_h, seq, compid, sysid, msgid, csum,
// payload, CRC (2). Bytes of the frames in the vmcu log: "RX <hex>" (tool to MCU), "TX <hex>"
// (MCU to tool), and the number of CMD_DOWNLOADING frames received.
struct Traffic {
    long rx_bytes = 0;
    long tx_bytes = 0;
    int rx_frames = 0;
    int tx_frames = 0;
    int chunks = 0;
    int pksize = 0;
};

Traffic traffic(const std::string& log_path) {
    Traffic t;
    std::ifstream in(log_path);
    std::string line;
    while (std::getline(in, line)) {
        bool rx = line.rfind("RX ", 0) == 0;
        bool tx = line.rfind("TX ", 0) == 0;
        if (!rx && !tx)
            continue;
        std::string hex = line.substr(3);
        hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
        long n = static_cast<long>(hex.size() / 2);
        if (rx) {
            t.rx_bytes += n;
            t.rx_frames++;
            if (n > 7 && std::strtoul(hex.substr(12, 2).c_str(), nullptr, 16) == kCmdDownloading) {
                t.chunks++;
                if (n - 10 > t.pksize)
                    t.pksize = static_cast<int>(n - 10);
            }
        } else {
            t.tx_bytes += n;
            t.tx_frames++;
        }
    }
    return t;
}

struct UpgradeResult {
    long baud = 0;
    Traffic t;
    double wire = 0;
    double pauses = 0;
    double bound = 0;
    RunResult r;
    bool ok = false;
};

UpgradeResult upgrade(long baud, const std::string& image) {
    UpgradeResult u;
    u.baud = baud;
    std::string tag = "upgrade-" + std::to_string(baud);
    std::string received = g_dir + "/received-" + std::to_string(baud) + ".bin";
    Vmcu v = start_vmcu(tag, {"--baud", std::to_string(baud), "--image", received});
    u.r = run(
        {g_tool, "-id", "0xA", "-dev", v.pty, "-speed", std::to_string(baud), "--upgrade", image},
        g_dir + "/tool-" + tag + ".out");
    stop_vmcu(v);
    u.ok = u.r.out.find("successfully") != std::string::npos &&
           u.r.out.find("TIMEOUT") == std::string::npos && read_file(received) == read_file(image);
    u.t = traffic(v.log);
    u.wire = static_cast<double>(u.t.rx_bytes + u.t.tx_bytes) * 10.0 / static_cast<double>(baud);
    u.pauses = kPauseBeforeStep1 + kPauseAfterStep2 + u.t.chunks * kPauseAfterChunk;
    u.bound = u.wire + u.pauses;
    return u;
}

std::string first_line(const std::string& path, const std::string& key) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(key, 0) == 0) {
            size_t c = line.find(':');
            return c == std::string::npos ? line : line.substr(c + 2);
        }
    }
    return "?";
}

void print_machine() {
    struct utsname u;
    uname(&u);
    std::printf("machine: nproc %ld, CPU %s, kernel %s %s %s\n", sysconf(_SC_NPROCESSORS_ONLN),
                first_line("/proc/cpuinfo", "model name").c_str(), u.sysname, u.release, u.machine);
    // Other load on the machine shows in every figure below.
    std::printf("load average at start: %s", read_file("/proc/loadavg").c_str());
}

void print_upgrades(const std::vector<UpgradeResult>& ups) {
    std::printf("\n1. Upgrade of a %d-byte image (vmcu --baud N, default upgrade parameters)\n",
                kImageBytes);
    auto row = [&](const char* label, auto fn) {
        std::printf("  %-44s", label);
        for (const UpgradeResult& u : ups)
            std::printf(" %16s", fn(u).c_str());
        std::printf("\n");
    };
    auto fmt = [](const char* f, double v) {
        char b[64];
        std::snprintf(b, sizeof b, f, v);
        return std::string(b);
    };
    row("line rate (baud)", [](const UpgradeResult& u) { return std::to_string(u.baud); });
    row("chunks x pksize (last chunk shorter)", [](const UpgradeResult& u) {
        return std::to_string(u.t.chunks) + " x " + std::to_string(u.t.pksize);
    });
    row("frames / bytes tool -> MCU", [](const UpgradeResult& u) {
        return std::to_string(u.t.rx_frames) + " / " + std::to_string(u.t.rx_bytes);
    });
    row("frames / bytes MCU -> tool", [](const UpgradeResult& u) {
        return std::to_string(u.t.tx_frames) + " / " + std::to_string(u.t.tx_bytes);
    });
    row("wire time, 10 bits per byte (s)",
        [&](const UpgradeResult& u) { return fmt("%.3f", u.wire); });
    row("fixed pauses 0.1 + 1 + chunks x 0.01 (s)",
        [&](const UpgradeResult& u) { return fmt("%.3f", u.pauses); });
    row("bound (s)", [&](const UpgradeResult& u) { return fmt("%.3f", u.bound); });
    row("measured, tool start to exit (s)",
        [&](const UpgradeResult& u) { return fmt("%.3f", u.r.wall); });
    row("ratio measured / bound (goal <= 1.02)",
        [&](const UpgradeResult& u) { return fmt("%.4f", u.r.wall / u.bound); });
    row("excess per chunk (ms)", [&](const UpgradeResult& u) {
        return fmt("%.3f", (u.r.wall - u.bound) * 1000.0 / (u.t.chunks > 0 ? u.t.chunks : 1));
    });
    row("goal met", [](const UpgradeResult& u) {
        return std::string(u.r.wall / u.bound <= kGoalRatio ? "yes" : "NO");
    });
    row("upgrade succeeded, image received intact",
        [](const UpgradeResult& u) { return std::string(u.ok ? "yes" : "NO"); });
}

// Platform costs that every chunk pays on top of the bound, measured on
// this machine: how late a 10 ms pause of the tool ends, and the round trip
// of a chunk-sized write and an acknowledgement-sized answer through a
// pseudo-terminal after 10 ms of idleness (what the kernel's pty layer and
// the wake-ups of both processes add; no line pacing here).
struct Floor {
    double sleep_late = 0;  // seconds
    double pty_trip = 0;    // seconds
};

Floor measure_floor() {
    Floor f;
    const int n = 100;
    for (int i = 0; i < n; i++) {
        struct timespec ts = {0, 10000000L};
        double t0 = now_s();
        nanosleep(&ts, nullptr);
        f.sleep_late += now_s() - t0 - 0.010;
    }
    f.sleep_late /= n;

    int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
        return f;
    int slave = open(ptsname(master), O_RDWR | O_NOCTTY);
    struct termios t;
    tcgetattr(slave, &t);
    cfmakeraw(&t);
    t.c_cc[VMIN] = 0;
    t.c_cc[VTIME] = 1;
    tcsetattr(slave, TCSANOW, &t);
    std::fflush(stdout);
    pid_t echo = fork();
    if (echo == 0) {
        // The answering side, as the vmcu does it: poll, read, write 10 bytes.
        char buf[512];
        const char ack[10] = {};
        for (;;) {
            struct pollfd p = {master, POLLIN, 0};
            poll(&p, 1, -1);
            if (read(master, buf, sizeof buf) <= 0)
                _exit(0);
            if (write(master, ack, sizeof ack) < 0)
                _exit(0);
        }
    }
    const char chunk[250] = {};
    for (int i = 0; i < n; i++) {
        struct timespec ts = {0, 10000000L};
        nanosleep(&ts, nullptr);
        double t0 = now_s();
        if (write(slave, chunk, sizeof chunk) < 0)
            break;
        // One byte per read, like the tool.
        for (int got = 0; got < 10;) {
            char c;
            if (read(slave, &c, 1) == 1)
                got++;
        }
        f.pty_trip += now_s() - t0;
    }
    f.pty_trip /= n;
    kill(echo, SIGKILL);
    waitpid(echo, nullptr, 0);
    close(slave);
    close(master);
    return f;
}

void print_floor(const Floor& f, const std::vector<UpgradeResult>& ups) {
    std::printf("\n  Where the excess goes (measured on this machine, per chunk):\n");
    std::printf("    a 10 ms pause of the tool ends late by          %7.3f ms\n",
                f.sleep_late * 1000.0);
    std::printf("    pty round trip, 250 B out / 10 B back, unpaced  %7.3f ms\n",
                f.pty_trip * 1000.0);
    for (const UpgradeResult& u : ups) {
        double floor = u.bound + u.t.chunks * (f.sleep_late + f.pty_trip);
        std::printf(
            "    at %6ld: bound + chunks x (both) = %.3f s, ratio %.4f; measured leaves "
            "%+.3f ms per chunk unexplained\n",
            u.baud, floor, floor / u.bound,
            (u.r.wall - floor) * 1000.0 / (u.t.chunks > 0 ? u.t.chunks : 1));
    }
}

void print_cpu(const RunResult& mon, const std::vector<UpgradeResult>& ups) {
    std::printf("\n2. Processor time of the tool (user + system, wait4 rusage)\n");
    std::printf("  %-34s %9s %9s %9s %10s\n", "run", "wall s", "user s", "sys s", "share");
    auto line = [](const std::string& name, const RunResult& r) {
        std::printf("  %-34s %9.3f %9.3f %9.3f %9.3f%%\n", name.c_str(), r.wall, r.user, r.sys,
                    (r.user + r.sys) * 100.0 / r.wall);
    };
    line("silent monitor, --timeout " + std::to_string(kMonitorSeconds), mon);
    for (const UpgradeResult& u : ups)
        line("upgrade at " + std::to_string(u.baud), u.r);
    double share = (mon.user + mon.sys) / mon.wall;
    std::printf("  silent monitor goal < %.1f%%: %s\n", kGoalMonitorShare * 100.0,
                share < kGoalMonitorShare ? "met" : "NOT met");
}

// ---- system calls of one version query -----------------------------------

struct Call {
    std::string name;
    std::string args;
};

// The calls of an strace -f -o file, in order (one process, no threads).
std::vector<Call> parse_strace(const std::string& path) {
    std::vector<Call> calls;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        size_t p = 0;
        while (p < line.size() && (isdigit(static_cast<unsigned char>(line[p])) || line[p] == ' '))
            p++;
        std::string rest = line.substr(p);
        if (rest.empty() || rest[0] == '+' || rest[0] == '-' || rest[0] == '<')
            continue;  // exit notes, signals, resumed halves
        size_t paren = rest.find('(');
        if (paren == std::string::npos)
            continue;
        calls.push_back({rest.substr(0, paren), rest.substr(paren + 1)});
    }
    return calls;
}

void print_syscalls() {
    std::printf(
        "\n3. System calls of one version query (-id 0xA --version, vmcu without --baud)\n");
    if (g_strace.empty()) {
        std::printf("  strace not found: skipped (apt-get install strace)\n");
        return;
    }
    Vmcu v = start_vmcu("version", {});
    std::string trace = g_dir + "/version.strace";
    RunResult r =
        run({g_strace, "-f", "-o", trace, g_tool, "-id", "0xA", "-dev", v.pty, "--version"},
            g_dir + "/tool-version.out");
    stop_vmcu(v);
    if (r.out.find("Software: V") == std::string::npos)
        std::printf("  WARNING: the version query did not answer\n");
    std::vector<Call> calls = parse_strace(trace);

    // The device phase: from the open of the pty to its close.
    size_t open_at = calls.size();
    size_t close_at = calls.size();
    int dev_fd = -1;
    for (size_t i = 0; i < calls.size(); i++) {
        const Call& c = calls[i];
        if (open_at == calls.size() && (c.name == "openat" || c.name == "open") &&
            c.args.find(v.pty) != std::string::npos) {
            open_at = i;
            size_t eq = c.args.rfind("= ");
            dev_fd = eq == std::string::npos ? -1 : std::atoi(c.args.c_str() + eq + 2);
        } else if (open_at != calls.size() && c.name == "close" &&
                   std::atoi(c.args.c_str()) == dev_fd) {
            close_at = i;
            break;
        }
    }
    std::string fd = std::to_string(dev_fd);
    std::map<std::string, int> need_seen;
    int out_writes = 0;
    int startup = 0;
    int stdio_setup = 0;
    int exit_calls = 0;
    std::map<std::string, int> other;
    for (size_t i = 0; i < calls.size(); i++) {
        const Call& c = calls[i];
        bool on_dev = i >= open_at && i <= close_at && c.args.rfind(fd + ",", 0) == 0;
        if (c.name == "write" && c.args.rfind("1,", 0) == 0) {
            out_writes++;
        } else if (i == open_at) {
            need_seen["open"]++;
        } else if (c.name == "fcntl" && on_dev) {
            need_seen["fcntl"]++;
        } else if (c.name == "ioctl" && on_dev && c.args.find("TCGETS") != std::string::npos) {
            need_seen["ioctl TCGETS (tcgetattr)"]++;
        } else if (c.name == "ioctl" && on_dev && c.args.find("TCFLSH") != std::string::npos) {
            need_seen["ioctl TCFLSH (tcflush)"]++;
        } else if (c.name == "ioctl" && on_dev && c.args.find("TCSETS") != std::string::npos) {
            need_seen["ioctl TCSETS (tcsetattr)"]++;
        } else if (c.name == "write" && on_dev) {
            need_seen["write of the frame"]++;
        } else if (c.name == "read" && on_dev) {
            need_seen["read, one byte each"]++;
        } else if (i == close_at) {
            need_seen["close"]++;
        } else if (i < open_at && out_writes == 0 && c.name != "newfstatat" && c.name != "fstat") {
            startup++;
        } else if ((c.name == "newfstatat" || c.name == "fstat") && c.args.rfind("1,", 0) == 0) {
            stdio_setup++;
        } else if (c.name == "exit_group") {
            exit_calls++;
        } else if (i < open_at) {
            startup++;
        } else {
            other[c.name]++;
        }
    }
    const int reply_bytes = 10 + 16;
    struct Need {
        const char* name;
        int least;
    };
    const Need needs[] = {
        {"open", 1},
        {"fcntl", 1},
        {"ioctl TCGETS (tcgetattr)", 1},
        {"ioctl TCFLSH (tcflush)", 1},
        {"ioctl TCSETS (tcsetattr)", 1},
        {"write of the frame", 1},
        {"read, one byte each", reply_bytes},
        {"close", 1},
    };
    int least = 0;
    int seen_needed = 0;
    std::printf("  %-40s %7s %7s\n", "call", "least", "counted");
    for (const Need& n : needs) {
        std::printf("  %-40s %7d %7d\n", n.name, n.least, need_seen[n.name]);
        least += n.least;
        seen_needed += need_seen[n.name];
    }
    std::printf("  %-40s %7d %7d\n", "write to stdout (one per flushed output)", out_writes,
                out_writes);
    least += out_writes;
    seen_needed += out_writes;
    int total = static_cast<int>(calls.size());
    std::printf("  %-40s %7d %7d\n", "protocol and output, sum", least, seen_needed);
    std::printf("  %-40s %7s %7d\n", "all calls of the process (strace)", "", total);
    std::printf("  difference: %d calls beyond the least:\n", total - least);
    std::printf(
        "    %3d process start-up: execve, dynamic loader and C/C++ runtime (mmap, openat/read/"
        "close of libraries, mprotect, ...), malloc's set-up for the stdout buffer "
        "(getrandom, brk)\n",
        startup);
    std::printf("    %3d stdio's first look at stdout (newfstatat)\n", stdio_setup);
    std::printf("    %3d process exit (exit_group)\n", exit_calls);
    int tcgets_extra = need_seen["ioctl TCGETS (tcgetattr)"] - 1;
    if (tcgets_extra > 0)
        std::printf(
            "    %3d ioctl TCGETS inside the C library's tcsetattr (it reads the settings "
            "before and after TCSETS)\n",
            tcgets_extra);
    for (const auto& kv : other)
        std::printf("    %3d %s during the action\n", kv.second, kv.first.c_str());
    if (seen_needed - least != (tcgets_extra > 0 ? tcgets_extra : 0))
        std::printf("    (the protocol calls differ from the least by %d)\n", seen_needed - least);
    std::printf("  trace: %s\n", trace.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string k = argv[i];
        if (k == "--tool")
            g_tool = argv[i + 1];
        else if (k == "--vmcu")
            g_vmcu = argv[i + 1];
        else if (k == "--strace")
            g_strace = argv[i + 1];
        else if (k == "--workdir")
            g_dir = argv[i + 1];
        else
            die("unknown option " + k);
    }
    if (g_tool.empty() || g_vmcu.empty())
        die("usage: mcu_bench --tool PATH --vmcu PATH [--strace PATH] [--workdir DIR]");
    if (g_dir.empty()) {
        char tmpl[] = "/tmp/mcu_bench.XXXXXX";
        if (mkdtemp(tmpl) == nullptr)
            die("mkdtemp failed");
        g_dir = tmpl;
    }
    print_machine();
    std::printf("work files: %s\n", g_dir.c_str());

    // A fixed pseudo-random image, the same in every run.
    std::string image = g_dir + "/image.bin";
    {
        std::string bytes(kImageBytes, '\0');
        uint32_t x = 2463534242u;
        for (char& b : bytes) {
            x ^= x << 13;
            x ^= x >> 17;
            x ^= x << 5;
            b = static_cast<char>(x & 0xFF);
        }
        std::ofstream(image, std::ios::binary) << bytes;
    }

    std::vector<UpgradeResult> ups;
    for (long baud : {115200L, 921600L})
        ups.push_back(upgrade(baud, image));
    print_upgrades(ups);
    print_floor(measure_floor(), ups);

    Vmcu v = start_vmcu("monitor", {});
    RunResult mon = run({g_tool, "-id", "0xA", "-dev", v.pty, "--monitor", "ff", "--timeout",
                         std::to_string(kMonitorSeconds)},
                        g_dir + "/tool-monitor.out");
    stop_vmcu(v);
    print_cpu(mon, ups);

    print_syscalls();
    return 0;
}
