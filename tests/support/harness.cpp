#include "harness.h"

#include <fcntl.h>
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

// Starts `program` with `args` after `cmd` (a wrapper), behind the cross
// build's emulator when there is one (which then gets LD_PRELOAD for the
// emulated program only), with standard output and error on `out` and `err`.
pid_t spawn(Lines cmd, const std::string& program, const Lines& args, Lines env, int out, int err) {
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
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out, 1);
        dup2(err, 2);
        dup2(open("/dev/null", O_RDONLY), 0);
        execvpe(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    return pid;
}

}  // namespace

RunResult run_tool(const Lines& args, const Lines& env, int sig, double sig_at) {
    RunResult r;
    TempDir dir;
    const char* wrapper = getenv("MCU_TOOL_WRAPPER");
    Lines cmd = split(wrapper != nullptr ? wrapper : "", ' ');
    cmd.insert(cmd.begin(), {"timeout", "-s", "KILL", "120"});  // relays the signal
    const int out = open(dir.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int err = open(dir.file("err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const double start = now_s();
    const pid_t pid = spawn(cmd, MCU_TOOL_PATH, args, env, out, err);
    close(out);
    close(err);
    if (sig != 0) {
        usleep(static_cast<useconds_t>(sig_at * 1e6));
        r.out_at_signal = read_file(dir.file("out"));
        kill(pid, sig);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    r.seconds = now_s() - start;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = read_file(dir.file("out"));
    r.err = read_file(dir.file("err"));
    // The wrapper's own lines start with "==<pid>=="; it exits 99 on a finding.
    static const std::regex report_line(R"(^==[0-9]+==.*\n?)", std::regex::multiline);
    std::string report;
    for (std::sregex_iterator it(r.err.begin(), r.err.end(), report_line), end; it != end; ++it)
        report += it->str();
    if (cmd.size() > 4 && (!report.empty() || r.status == 99))
        ADD_FAILURE() << "report from " << cmd[4] << " (status " << r.status << "):\n" << report;
    r.err = std::regex_replace(r.err, report_line, "");
    if (r.err.find("Sanitizer") != std::string::npos || r.err.find("runtime error:") != r.err.npos)
        ADD_FAILURE() << "sanitizer report from the tool:\n" << r.err;
    if (r.status == 137)
        ADD_FAILURE() << "the tool did not end within 120 s";
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
    int p[2] = {-1, -1};
    if (pipe2(p, O_CLOEXEC) == 0)
        pid_ = spawn({}, MCU_VMCU_PATH, argv, {}, p[1], 2);
    close(p[1]);
    out_fd_ = p[0];
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
