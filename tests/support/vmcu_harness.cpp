#include "vmcu_harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

extern char** environ;

namespace vmcu_test {

namespace {

int64_t mono_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::vector<std::string> merged_env(const std::vector<std::string>& extra) {
    std::vector<std::string> env;
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
        const std::string item = *e;
        const std::string name = item.substr(0, item.find('='));
        bool replaced = false;
        for (const std::string& x : extra) {
            if (x.substr(0, x.find('=')) == name) {
                replaced = true;
                break;
            }
        }
        if (!replaced) {
            env.push_back(item);
        }
    }
    env.insert(env.end(), extra.begin(), extra.end());
    return env;
}

// fork + exec with stdout/stderr to a pipe; returns the child pid or -1.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env,
            int* out_fd) {
    int p[2];
    if (argv.empty() || pipe2(p, O_CLOEXEC) != 0) {
        return -1;
    }
    std::vector<char*> av;
    for (const std::string& a : argv) {
        av.push_back(const_cast<char*>(a.c_str()));
    }
    av.push_back(nullptr);
    std::vector<char*> ev;
    for (const std::string& e : env) {
        ev.push_back(const_cast<char*>(e.c_str()));
    }
    ev.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(p[1], 1);
        dup2(p[1], 2);
        const int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0) {
            dup2(devnull, 0);
        }
        execve(av[0], av.data(), ev.data());
        _exit(127);
    }
    close(p[1]);
    if (pid < 0) {
        close(p[0]);
        return -1;
    }
    *out_fd = p[0];
    return pid;
}

}  // namespace

VmcuProcess::~VmcuProcess() {
    stop();
}

bool VmcuProcess::start(const std::string& vmcu_path, const std::vector<std::string>& args,
                        std::string* err, int ready_ms) {
    std::vector<std::string> argv{vmcu_path};
    argv.insert(argv.end(), args.begin(), args.end());
    pid_ = spawn(argv, merged_env({}), &out_fd_);
    if (pid_ < 0) {
        *err = std::string("cannot start vmcu: ") + std::strerror(errno);
        return false;
    }
    std::string line;
    const int64_t end = mono_ms() + ready_ms;
    while (line.find('\n') == std::string::npos) {
        const int64_t left = end - mono_ms();
        struct pollfd p = {out_fd_, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0) {
            *err = "vmcu did not announce its endpoint; output so far: " + line;
            stop();
            return false;
        }
        char c = 0;
        if (read(out_fd_, &c, 1) != 1) {
            *err = "vmcu exited early; output: " + line;
            stop();
            return false;
        }
        line.push_back(c);
    }
    line.pop_back();
    for (const char* prefix : {"pty: ", "spi: "}) {
        if (line.rfind(prefix, 0) == 0) {
            endpoint_ = line.substr(std::strlen(prefix));
            return true;
        }
    }
    *err = "unexpected first line from vmcu: " + line;
    stop();
    return false;
}

int VmcuProcess::stop() {
    if (pid_ < 0) {
        return -1;
    }
    kill(pid_, SIGTERM);
    int status = -1;
    const int64_t end = mono_ms() + 3000;
    for (;;) {
        const pid_t r = waitpid(pid_, &status, WNOHANG);
        if (r == pid_ || (r < 0 && errno != EINTR)) {
            break;
        }
        if (mono_ms() >= end) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            break;
        }
        struct timespec ts = {0, 10 * 1000000L};
        nanosleep(&ts, nullptr);
    }
    pid_ = -1;
    if (out_fd_ >= 0) {
        close(out_fd_);
        out_fd_ = -1;
    }
    return status;
}

RunResult run_program(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                      int timeout_ms) {
    RunResult res;
    int out = -1;
    const pid_t pid = spawn(argv, merged_env(env), &out);
    if (pid < 0) {
        res.output = std::string("cannot start: ") + std::strerror(errno);
        return res;
    }
    const int64_t end = mono_ms() + timeout_ms;
    char buf[4096];
    for (;;) {
        const int64_t left = end - mono_ms();
        if (left <= 0) {
            res.timed_out = true;
            kill(pid, SIGKILL);
            break;
        }
        struct pollfd p = {out, POLLIN, 0};
        const int rc = poll(&p, 1, static_cast<int>(left));
        if (rc < 0 && errno == EINTR) {
            continue;
        }
        if (rc <= 0) {
            continue;  // the deadline check above ends the loop
        }
        const ssize_t n = read(out, buf, sizeof buf);
        if (n <= 0) {
            break;  // every writer is gone: the program has ended
        }
        res.output.append(buf, static_cast<size_t>(n));
    }
    close(out);
    waitpid(pid, &res.status, 0);
    return res;
}

std::vector<std::string> spidev_env(const std::string& shim_path, const std::string& socket) {
    std::string asan = "verify_asan_link_order=0";
    if (const char* cur = std::getenv("ASAN_OPTIONS")) {
        if (*cur != '\0') {
            asan = std::string(cur) + ":" + asan;
        }
    }
    return {"LD_PRELOAD=" + shim_path, "VMCU_SPI_SOCKET=" + socket, "ASAN_OPTIONS=" + asan};
}

std::string make_temp_dir() {
    const char* base = std::getenv("TMPDIR");
    std::string tmpl =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/vmcu.XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
        return std::string();
    }
    return std::string(buf.data());
}

void remove_tree(const std::string& dir) {
    if (dir.empty()) {
        return;
    }
    // The temp directories made by make_temp_dir() are flat.
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") {
                unlink((dir + "/" + name).c_str());
            }
        }
        closedir(d);
    }
    rmdir(dir.c_str());
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> read_lines(const std::string& path) {
    std::vector<std::string> lines;
    std::istringstream in(read_file(path));
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<uint8_t> from_hex(const std::string& hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return out;
}

std::string to_hex(const std::vector<uint8_t>& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string s;
    for (uint8_t b : bytes) {
        s.push_back(digits[b >> 4]);
        s.push_back(digits[b & 15]);
    }
    return s;
}

int open_raw_tty(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    struct termios t;
    if (tcgetattr(fd, &t) == 0) {
        cfmakeraw(&t);
        t.c_cc[VMIN] = 0;
        t.c_cc[VTIME] = 0;
        tcsetattr(fd, TCSANOW, &t);
    }
    return fd;
}

std::vector<uint8_t> read_bytes(int fd, size_t want, int timeout_ms) {
    std::vector<uint8_t> out;
    const int64_t end = mono_ms() + timeout_ms;
    while (out.size() < want) {
        const int64_t left = end - mono_ms();
        if (left <= 0) {
            break;
        }
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0) {
            continue;
        }
        uint8_t buf[1024];
        const ssize_t n = read(fd, buf, std::min(sizeof buf, want - out.size()));
        if (n > 0) {
            out.insert(out.end(), buf, buf + n);
        }
    }
    return out;
}

}  // namespace vmcu_test
