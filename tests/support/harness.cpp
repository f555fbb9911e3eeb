#include "harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <utility>

extern char** environ;

namespace harness {
namespace {

double now_s() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Lines split(const std::string& text, char sep) {
    Lines words;
    std::istringstream ss(text);
    for (std::string w; std::getline(ss, w, sep);)
        if (!w.empty())
            words.push_back(w);
    return words;
}

// Starts `program` with `args`, behind the cross build's emulator when there
// is one (which then gets LD_PRELOAD for the emulated program only) and after
// `prefix` (a wrapper); its stdout (and stderr, with `err`) on pipes.
pid_t spawn(Lines cmd, const std::string& program, const Lines& args, Lines env, int* out,
            int* err) {
    for (const std::string& w : split(MCU_EMULATOR, '|'))
        cmd.push_back(w);
    for (auto it = env.begin(); std::string(MCU_EMULATOR) != "" && it != env.end();) {
        if (it->rfind("LD_PRELOAD=", 0) == 0) {
            cmd.insert(cmd.end(), {"-E", *it});
            it = env.erase(it);
        } else {
            ++it;
        }
    }
    cmd.push_back(program);
    cmd.insert(cmd.end(), args.begin(), args.end());
    auto name_of = [](const std::string& e) { return e.substr(0, e.find('=') + 1); };
    for (char** e = environ; *e != nullptr; e++)
        if (std::none_of(env.begin(), env.end(),
                         [&](auto& s) { return name_of(s) == name_of(*e); }))
            env.emplace_back(*e);
    std::vector<char*> argv, envp;
    for (std::string& a : cmd)
        argv.push_back(&a[0]);
    for (std::string& e : env)
        envp.push_back(&e[0]);
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    int outp[2], errp[2] = {-1, -1};
    if (pipe(outp) != 0 || (err != nullptr && pipe(errp) != 0))
        return -1;
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

}  // namespace

RunResult run_tool(const Lines& args, const Lines& env, int sig, double sig_at) {
    RunResult r;
    const Lines wrapper = split(getenv("MCU_TOOL_WRAPPER") ? getenv("MCU_TOOL_WRAPPER") : "", ' ');
    const double start = now_s(), limit_s = 120;
    struct pollfd fds[2] = {{-1, POLLIN, 0}, {-1, POLLIN, 0}};
    pid_t pid = spawn(wrapper, MCU_TOOL_PATH, args, env, &fds[0].fd, &fds[1].fd);
    std::string* sinks[2] = {&r.out, &r.err};
    bool killed = false;
    while (pid > 0 && (fds[0].fd >= 0 || fds[1].fd >= 0)) {
        const double t = now_s() - start;
        if (t >= limit_s && !killed)
            killed = kill(pid, SIGKILL) == 0;
        if (sig != 0 && t >= sig_at) {
            r.out_at_signal = r.out;
            kill(pid, sig);
            sig = 0;
        }
        double wait = sig != 0 ? std::min(limit_s, sig_at) - t : limit_s - t;
        if (poll(fds, 2, killed ? 1000 : static_cast<int>(wait * 1000) + 1) < 0)
            break;
        for (int i = 0; i < 2; i++) {
            char buf[65536];
            ssize_t n = 0;
            if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) &&
                (n = read(fds[i].fd, buf, sizeof buf)) > 0)
                sinks[i]->append(buf, static_cast<size_t>(n));
            else if (fds[i].fd >= 0 && fds[i].revents != 0)
                close(std::exchange(fds[i].fd, -1));
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    r.seconds = now_s() - start;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    // The wrapper's own lines start with "==<pid>=="; it exits 99 on a finding.
    static const std::regex report_line(R"(^==[0-9]+==.*\n?)", std::regex::multiline);
    std::string report;
    for (std::sregex_iterator it(r.err.begin(), r.err.end(), report_line), end; it != end; ++it)
        report += it->str();
    if (!wrapper.empty() && (!report.empty() || r.status == 99))
        ADD_FAILURE() << "report from " << wrapper[0] << " (status " << r.status << "):\n"
                      << report;
    r.err = std::regex_replace(r.err, report_line, "");
    if (r.err.find("Sanitizer") != std::string::npos || r.err.find("runtime error:") != r.err.npos)
        ADD_FAILURE() << "sanitizer report from the tool:\n" << r.err;
    if (killed)
        ADD_FAILURE() << "the tool did not end within " << limit_s << " s";
    return r;
}

double tool_slack_s() {
    const char* slack = getenv("MCU_TOOL_WRAPPER_SLACK_S");
    if (getenv("MCU_TOOL_WRAPPER") == nullptr || !*getenv("MCU_TOOL_WRAPPER"))
        return 0;
    return slack != nullptr && *slack ? atof(slack) : 3.0;
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

std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

TempDir::TempDir() {
    char tmpl[] = "/tmp/mcu_test_XXXXXX";
    path = mkdtemp(tmpl) != nullptr ? tmpl : "/tmp/mcu_test_failed";
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

std::string TempDir::write(const std::string& name, const std::string& bytes) const {
    std::ofstream(file(name), std::ios::binary) << bytes;
    return file(name);
}

Vmcu::Vmcu(Link link, const Lines& args) : link_(link) {
    Lines argv = {link == kTty ? "--pty" : "--spi"};
    if (link == kSpi)
        argv.push_back(dir_.file("spi.sock"));
    argv.insert(argv.end(), {"--log", dir_.file("vmcu.log")});
    argv.insert(argv.end(), args.begin(), args.end());
    pid_ = spawn({}, MCU_VMCU_PATH, argv, {}, &out_fd_, nullptr);
    // The first line names the device: "pty: /dev/pts/N" or "spi: PATH".
    std::string line;
    for (char c; line.find('\n') == line.npos && read(out_fd_, &c, 1) == 1;)
        line += c;
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

Lines Vmcu::env() const {
    if (link_ == kTty)
        return {};
    // A preloaded library comes before a sanitized tool's runtime.
    const char* asan = getenv("ASAN_OPTIONS");
    return {
        std::string("LD_PRELOAD=") + MCU_VMCU_SPIDEV_PATH,
        "VMCU_SPI_SOCKET=" + dir_.file("spi.sock"),
        "ASAN_OPTIONS=" + std::string(asan != nullptr ? asan : "") + ":verify_asan_link_order=0"};
}

Lines Vmcu::log(const std::string& prefix) const {
    Lines out;
    for (const std::string& l : split(read_file(dir_.file("vmcu.log")), '\n'))
        if (l.rfind(prefix, 0) == 0)
            out.push_back(l.substr(prefix.size()));
    return out;
}

}  // namespace harness
