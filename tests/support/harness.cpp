#include "harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>

extern char** environ;

namespace harness {
namespace {

double now_s() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> words;
    std::istringstream ss(text);
    for (std::string w; std::getline(ss, w, sep);)
        if (!w.empty())
            words.push_back(w);
    return words;
}

// The command that runs a target program: behind the cross build's emulator
// when there is one, which then gets LD_PRELOAD for the emulated program only.
std::vector<std::string> target_command(const std::string& program,
                                        const std::vector<std::string>& args,
                                        std::vector<std::string>* env) {
    std::vector<std::string> cmd = split(MCU_EMULATOR, '|');
    if (!cmd.empty()) {
        for (auto it = env->begin(); it != env->end();) {
            if (it->rfind("LD_PRELOAD=", 0) != 0) {
                ++it;
                continue;
            }
            cmd.insert(cmd.end(), {"-E", *it});
            it = env->erase(it);
        }
    }
    cmd.push_back(program);
    cmd.insert(cmd.end(), args.begin(), args.end());
    return cmd;
}

// Starts cmd with stdout (and stderr) on pipes; the child's pid.
pid_t spawn(const std::vector<std::string>& cmd, const std::vector<std::string>& env, int* out,
            int* err) {
    int outp[2], errp[2] = {-1, -1};
    if (pipe(outp) != 0 || (err != nullptr && pipe(errp) != 0))
        return -1;
    std::vector<std::string> envs;
    auto name_of = [](const std::string& e) { return e.substr(0, e.find('=') + 1); };
    for (char** e = environ; *e != nullptr; e++)
        if (std::none_of(env.begin(), env.end(),
                         [&](const std::string& mine) { return name_of(mine) == name_of(*e); }))
            envs.emplace_back(*e);
    envs.insert(envs.end(), env.begin(), env.end());
    std::vector<char*> argv, envp;
    for (const std::string& a : cmd)
        argv.push_back(const_cast<char*>(a.c_str()));
    for (std::string& e : envs)
        envp.push_back(&e[0]);
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(outp[1], 1);
        if (err != nullptr)  // else standard error stays the test's
            dup2(errp[1], 2);
        dup2(open("/dev/null", O_RDONLY), 0);
        for (int fd : {outp[0], outp[1], errp[0], errp[1]})
            if (fd >= 0)
                close(fd);
        execvpe(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(outp[1]);
    *out = outp[0];
    if (err != nullptr) {
        close(errp[1]);
        *err = errp[0];
    }
    return pid;
}

RunResult run(const std::vector<std::string>& cmd, const std::vector<std::string>& env,
              double limit_s, Signal sig) {
    RunResult r;
    const double start = now_s();
    struct pollfd fds[2] = {{-1, POLLIN, 0}, {-1, POLLIN, 0}};
    pid_t pid = spawn(cmd, env, &fds[0].fd, &fds[1].fd);
    if (pid < 0)
        return r;
    std::string* sinks[2] = {&r.out, &r.err};
    bool killed = false, signalled = sig.sig == 0;
    while (fds[0].fd >= 0 || fds[1].fd >= 0) {
        double left = limit_s - (now_s() - start);
        if (left <= 0 && !killed) {
            kill(pid, SIGKILL);
            killed = true;
        }
        if (!signalled && now_s() - start >= sig.after_s) {
            r.out_at_signal = r.out;
            kill(pid, sig.sig);
            signalled = true;
        }
        if (!signalled)
            left = std::min(left, sig.after_s - (now_s() - start));
        if (poll(fds, 2, killed ? 1000 : static_cast<int>(left * 1000) + 1) < 0)
            break;
        for (int i = 0; i < 2; i++) {
            if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0)
                continue;
            char buf[65536];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
            }
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    r.seconds = now_s() - start;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return r;
}

std::vector<std::string> wrapper_words() {
    const char* text = getenv("MCU_TOOL_WRAPPER");
    std::vector<std::string> words;
    std::istringstream ss(text != nullptr ? text : "");
    for (std::string w; ss >> w;)
        words.push_back(w);
    return words;
}

}  // namespace

RunResult run_tool(const std::vector<std::string>& args, const std::vector<std::string>& env,
                   double limit_s, Signal sig) {
    std::vector<std::string> host_env = env;
    std::vector<std::string> cmd = target_command(tool_path(), args, &host_env);
    const std::vector<std::string> wrapper = wrapper_words();
    cmd.insert(cmd.begin(), wrapper.begin(), wrapper.end());
    RunResult r = run(cmd, host_env, limit_s, sig);
    // The wrapper's own lines start with "==<pid>=="; it exits 99 on a finding.
    static const std::regex report_line(R"(^==[0-9]+==.*\n?)", std::regex::multiline);
    std::string report;
    for (std::sregex_iterator it(r.err.begin(), r.err.end(), report_line), end; it != end; ++it)
        report += it->str();
    if (!wrapper.empty() && (!report.empty() || r.status == 99))
        ADD_FAILURE() << "report from " << wrapper[0] << " (status " << r.status << "):\n"
                      << report;
    r.err = std::regex_replace(r.err, report_line, "");
    if (r.err.find("Sanitizer") != std::string::npos ||
        r.err.find("runtime error:") != std::string::npos)
        ADD_FAILURE() << "sanitizer report from the tool:\n" << r.err;
    if (r.status == 137)
        ADD_FAILURE() << "the tool did not end within " << limit_s << " s";
    return r;
}

double tool_slack_s() {
    const char* slack = getenv("MCU_TOOL_WRAPPER_SLACK_S");
    if (wrapper_words().empty())
        return 0;
    return slack != nullptr && *slack ? atof(slack) : 3.0;
}

const std::string& tool_path() {
    static const std::string path = MCU_TOOL_PATH;
    return path;
}

std::string normalize(const std::string& text) {
    static const std::regex diag(R"(([A-Za-z_][A-Za-z0-9_]*) [0-9]+, )");
    static const std::regex stamp(R"(<[0-9]+\.[0-9]{6}>)");
    static const std::regex elapse(R"(elapse -?[0-9]+\.-?[0-9]{3} s)");
    static const std::regex build(
        R"(Build [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2})");
    std::string s = std::regex_replace(text, diag, "$1 #, ");
    s = std::regex_replace(s, stamp, "<T>");
    s = std::regex_replace(s, elapse, "elapse #.### s");
    return std::regex_replace(s, build, "Build <stamp>");
}

TempDir::TempDir() {
    char tmpl[] = "/tmp/mcu_test_XXXXXX";
    const char* p = mkdtemp(tmpl);
    path_ = p != nullptr ? p : "/tmp/mcu_test_failed";
}

TempDir::~TempDir() {
    if (system(("rm -rf '" + path_ + "'").c_str()) != 0)
        ADD_FAILURE() << "cannot remove " << path_;
}

std::string TempDir::write(const std::string& name, const std::string& bytes) const {
    std::ofstream(file(name), std::ios::binary) << bytes;
    return file(name);
}

std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

Vmcu::Vmcu(Link link, const std::vector<std::string>& args) : link_(link) {
    socket_ = dir_.file("spi.sock");
    std::vector<std::string> argv = {link == kTty ? "--pty" : "--spi"};
    if (link == kSpi)
        argv.push_back(socket_);
    argv.insert(argv.end(), {"--log", dir_.file("vmcu.log")});
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> no_env;
    pid_ = spawn(target_command(MCU_VMCU_PATH, argv, &no_env), {}, &out_fd_, nullptr);
    // The first line names the device: "pty: /dev/pts/N" or "spi: PATH".
    std::string line;
    for (double start = now_s(); line.find('\n') == std::string::npos && now_s() - start < 10;) {
        struct pollfd pfd = {out_fd_, POLLIN, 0};
        char c;
        if (poll(&pfd, 1, 200) > 0 && read(out_fd_, &c, 1) != 1)
            break;
        if (pfd.revents & POLLIN)
            line += c;
    }
    if (line.rfind("pty: ", 0) == 0)
        dev_ = line.substr(5, line.size() - 6);
    if (line.rfind("spi: ", 0) == 0)
        dev_ = "/dev/spidev0.0";
}

void Vmcu::stop() {
    if (pid_ <= 0)
        return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    close(out_fd_);
    pid_ = -1;
}

std::vector<std::string> Vmcu::env() const {
    if (link_ == kTty)
        return {};
    // A preloaded library comes before a sanitized tool's runtime.
    const char* asan = getenv("ASAN_OPTIONS");
    return {std::string("LD_PRELOAD=") + MCU_VMCU_SPIDEV_PATH, "VMCU_SPI_SOCKET=" + socket_,
            "ASAN_OPTIONS=" + std::string(asan != nullptr ? std::string(asan) + ":" : "") +
                "verify_asan_link_order=0"};
}

std::vector<std::string> Vmcu::log_lines() const {
    return split(read_file(dir_.file("vmcu.log")), '\n');
}

std::vector<std::string> Vmcu::log(const std::string& prefix) const {
    std::vector<std::string> out;
    for (const std::string& l : log_lines())
        if (l.rfind(prefix, 0) == 0)
            out.push_back(l.substr(prefix.size()));
    return out;
}

std::string Vmcu::open_lines() const {
    if (link_ == kTty)
        return "open " + dev_ + " @ 115200\n";
    return "open /dev/spidev0.0 @ 115200\n"
           "mcu_open #, invalid spi speed: 115200, using default\n\n"
           "========open_spi_serial: /dev/spidev0.0 success\n";
}

}  // namespace harness
