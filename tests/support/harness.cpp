#include "harness.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
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

// The emulator that runs target programs in a cross build, if any.
std::vector<std::string> emulator() {
    std::vector<std::string> words;
    std::string words_text = MCU_EMULATOR;
    size_t start = 0;
    while (!words_text.empty() && start <= words_text.size()) {
        size_t bar = words_text.find('|', start);
        if (bar == std::string::npos)
            bar = words_text.size();
        words.push_back(words_text.substr(start, bar - start));
        start = bar + 1;
    }
    return words;
}

// The command line that runs a target program: behind the emulator when
// there is one, which gets LD_PRELOAD for the emulated program only (the
// emulator itself is a host program).
std::vector<std::string> target_command(const std::string& program,
                                        const std::vector<std::string>& args,
                                        std::vector<std::string>* env) {
    std::vector<std::string> cmd = emulator();
    if (!cmd.empty()) {
        for (auto it = env->begin(); it != env->end();) {
            if (it->rfind("LD_PRELOAD=", 0) == 0) {
                cmd.push_back("-E");
                cmd.push_back(*it);
                it = env->erase(it);
            } else {
                ++it;
            }
        }
    }
    cmd.push_back(program);
    cmd.insert(cmd.end(), args.begin(), args.end());
    return cmd;
}

}  // namespace

RunResult run(const std::string& program, const std::vector<std::string>& args,
              const std::vector<std::string>& env, double limit_s, Signal sig) {
    RunResult r;
    int outp[2], errp[2];
    if (pipe(outp) != 0 || pipe(errp) != 0)
        return r;
    // The given entries replace inherited ones of the same name.
    std::vector<std::string> envs;
    auto name_of = [](const std::string& e) { return e.substr(0, e.find('=') + 1); };
    for (char** e = environ; *e != nullptr; e++) {
        bool replaced = false;
        for (const std::string& mine : env)
            replaced = replaced || name_of(mine) == name_of(*e);
        if (!replaced)
            envs.emplace_back(*e);
    }
    for (const std::string& e : env)
        envs.push_back(e);
    std::vector<char*> argv, envp;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (std::string& e : envs)
        envp.push_back(&e[0]);
    envp.push_back(nullptr);

    double start = now_s();
    pid_t pid = fork();
    if (pid == 0) {
        dup2(outp[1], 1);
        dup2(errp[1], 2);
        int devnull = open("/dev/null", O_RDONLY);
        dup2(devnull, 0);
        close(outp[0]);
        close(errp[0]);
        execvpe(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    close(outp[1]);
    close(errp[1]);
    struct pollfd fds[2] = {{outp[0], POLLIN, 0}, {errp[0], POLLIN, 0}};
    std::string* sinks[2] = {&r.out, &r.err};
    int open_fds = 2;
    bool killed = false;
    bool signalled = sig.sig == 0;
    while (open_fds > 0) {
        double left = limit_s - (now_s() - start);
        if (left <= 0 && !killed) {
            kill(pid, SIGKILL);
            killed = true;
        }
        double to_signal = sig.after_s - (now_s() - start);
        if (!signalled && to_signal <= 0) {
            r.out_at_signal = r.out;
            kill(pid, sig.sig);
            signalled = true;
        }
        if (!signalled)
            left = std::min(left, to_signal);
        int ret = poll(fds, 2, killed ? 1000 : static_cast<int>(left * 1000) + 1);
        if (ret < 0)
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
                open_fds--;
            }
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    r.seconds = now_s() - start;
    if (WIFEXITED(status))
        r.status = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        r.status = 128 + WTERMSIG(status);
    return r;
}

std::string preload_asan_options() {
    // A preloaded library comes before a sanitized tool's runtime.
    const char* inherited = getenv("ASAN_OPTIONS");
    std::string opts = inherited != nullptr ? inherited : "";
    if (!opts.empty())
        opts += ":";
    return "ASAN_OPTIONS=" + opts + "verify_asan_link_order=0";
}

bool under_emulator() {
    return !emulator().empty();
}

namespace {

std::vector<std::string> wrapper_words() {
    std::vector<std::string> words;
    const char* text = getenv("MCU_TOOL_WRAPPER");
    std::istringstream ss(text != nullptr ? text : "");
    std::string w;
    while (ss >> w)
        words.push_back(w);
    return words;
}

// Exit status that the wrapper reports its findings with.
constexpr int kWrapperErrorStatus = 99;

}  // namespace

bool tool_wrapped() {
    return !wrapper_words().empty();
}

double tool_slack_s() {
    if (!tool_wrapped())
        return 0;
    const char* slack = getenv("MCU_TOOL_WRAPPER_SLACK_S");
    return slack != nullptr && *slack ? atof(slack) : 3.0;
}

std::string after_tool_start_ms(int ms) {
    return std::to_string(ms + static_cast<int>(tool_slack_s() * 1000));
}

const std::string& tool_path() {
    static const std::string path = MCU_TOOL_PATH;
    return path;
}

RunResult run_tool(const std::vector<std::string>& args, const std::vector<std::string>& env,
                   double limit_s, Signal sig) {
    std::vector<std::string> host_env = env;
    std::vector<std::string> cmd = target_command(tool_path(), args, &host_env);
    const std::vector<std::string> wrapper = wrapper_words();
    cmd.insert(cmd.begin(), wrapper.begin(), wrapper.end());
    RunResult r =
        run(cmd[0], std::vector<std::string>(cmd.begin() + 1, cmd.end()), host_env, limit_s, sig);
    if (!wrapper.empty()) {
        // The wrapper's own lines start with "==<pid>==".
        static const std::regex report_line(R"(^==[0-9]+==)");
        std::string report, rest;
        size_t start = 0;
        while (start < r.err.size()) {
            size_t end = r.err.find('\n', start);
            end = end == std::string::npos ? r.err.size() : end + 1;
            std::string line = r.err.substr(start, end - start);
            (std::regex_search(line, report_line) ? report : rest) += line;
            start = end;
        }
        if (!report.empty() || r.status == kWrapperErrorStatus)
            ADD_FAILURE() << "report from " << wrapper[0] << " (exit status " << r.status << "):\n"
                          << report;
        r.err = rest;
    }
    // In the sanitizer build every finding in the tool fails the test that
    // ran it, whatever that test looks at.
    if (r.err.find("Sanitizer") != std::string::npos ||
        r.err.find("runtime error:") != std::string::npos)
        ADD_FAILURE() << "sanitizer report from the tool:\n" << r.err;
    if (r.status == 137)
        ADD_FAILURE() << "the tool did not end within " << limit_s << " s";
    return r;
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

std::string version_line() {
    return "V1.3.01 Build <stamp>\n";
}

std::string usage_text() {
    static const char* const lines[] = {
        "   Reset component: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --reset [type]\n",
        "     Query version: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --version\n",
        "  Firmware upgrade: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --upgrade | --upgrade-fw "
        "[filename]\n",
        "  Send raw message: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --sendraw [hex_string]\n",
        "    Write raw data: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --writeraw "
        "[hex_string]\n",
        "Message statistics: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --get-stts | "
        "--clear-stts\n",
        "  Message loopback: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --loopback 0 | 1\n",
        "Message flood test: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --flood-test [count] "
        "[length] [interval] [pattern]\n",
        " Monitor component: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --monitor [msgid] "
        "[seconds]\n",
        " Specify extra crc: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --extra-crc [hex_char]\n",
        "   Calc file crc32: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --calc-crc32 "
        "[filename]\n",
        "Calc message crc16: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --calc-crc16 "
        "[hex_string]\n",
        "   hex dump string: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --hex-dump "
        "[char_string]\n",
    };
    std::string text = "usage: \n";
    for (const char* line : lines) {
        std::string l = line;
        l.replace(l.find("%s"), 2, tool_path());
        text += l;
    }
    return text;
}

std::string id_row(unsigned id, unsigned count) {
    if (count == 0)
        return "";  // ids never seen have no row
    char buf[64];
    snprintf(buf, sizeof buf, "   [0x%02x]    %8u\n", id, count);
    return buf;
}

std::string stats_block(const Stats& s) {
    char buf[64];
    auto line = [&buf](const char* label, unsigned v) {
        snprintf(buf, sizeof buf, "%s%8u\n", label, v);
        return std::string(buf);
    };
    std::string t = "=============================\n";
    t += "Fenlink statistics: elapse #.### s\n";
    t += line("TX Bytes:    ", s.tx_bytes);
    t += line("TX Packets:  ", s.tx_pkts);
    t += line("TX Fail:     ", s.tx_fail);
    t += "TX messages:\n" + s.tx_rows;
    t += line("RX Bytes:    ", s.rx_bytes);
    t += line("RX Packets:  ", s.rx_pkts);
    t += line("RX CRC Fail: ", s.crc);
    t += line("RX Len Fail: ", s.len);
    t += line("RX Sum Fail: ", s.sum);
    if (!s.monitor && !s.no_seq && !s.flood)
        t += line("RX Seq Fail: ", s.seq);
    if (!s.monitor && !s.flood) {
        t += line("RX Sys Fail: ", s.sys);
        t += line("RX Dst Fail: ", s.dst);
    }
    if (!s.monitor)
        t += line("RX Cmd Fail: ", s.cmd);
    t += "RX messages:\n" + s.rx_rows;
    t += "=============================\n";
    return t;
}

TempDir::TempDir() {
    char tmpl[] = "/tmp/mcu_test_XXXXXX";
    const char* p = mkdtemp(tmpl);
    path_ = p != nullptr ? p : "/tmp";
}

TempDir::~TempDir() {
    std::string cmd = "rm -rf '" + path_ + "'";
    if (path_ != "/tmp" && system(cmd.c_str()) != 0) {
    }
}

std::string TempDir::write(const std::string& name, const std::string& bytes) const {
    std::string p = file(name);
    std::ofstream f(p, std::ios::binary);
    f << bytes;
    return p;
}

std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

Vmcu::Vmcu(Link link, const std::vector<std::string>& args) : link_(link) {
    std::vector<std::string> argv;
    if (link == kTty) {
        argv.push_back("--pty");
    } else {
        socket_ = dir_.file("spi.sock");
        argv.push_back("--spi");
        argv.push_back(socket_);
    }
    argv.push_back("--log");
    argv.push_back(dir_.file("vmcu.log"));
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> no_env;
    argv = target_command(MCU_VMCU_PATH, argv, &no_env);
    int outp[2];
    if (pipe(outp) != 0)
        return;
    std::vector<char*> cargv;
    for (std::string& a : argv)
        cargv.push_back(&a[0]);
    cargv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(outp[1], 1);
        close(outp[0]);
        close(outp[1]);
        execvp(cargv[0], cargv.data());
        _exit(127);
    }
    close(outp[1]);
    pid_ = pid;
    out_fd_ = outp[0];
    // The first line names the device: "pty: /dev/pts/N" or "spi: PATH".
    std::string line;
    double start = now_s();
    while (line.find('\n') == std::string::npos && now_s() - start < 10) {
        struct pollfd pfd = {out_fd_, POLLIN, 0};
        if (poll(&pfd, 1, 200) <= 0)
            continue;
        char c;
        if (read(out_fd_, &c, 1) != 1)
            break;
        line += c;
    }
    if (line.rfind("pty: ", 0) == 0)
        dev_ = line.substr(5, line.size() - 6);
    if (line.rfind("spi: ", 0) == 0)
        dev_ = "/dev/spidev0.0";
}

Vmcu::~Vmcu() {
    stop();
}

void Vmcu::stop() {
    if (pid_ <= 0)
        return;
    kill(pid_, SIGTERM);
    int status;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    if (out_fd_ >= 0)
        close(out_fd_);
    out_fd_ = -1;
}

std::vector<std::string> Vmcu::env() const {
    if (link_ == kTty)
        return {};
    return {std::string("LD_PRELOAD=") + MCU_VMCU_SPIDEV_PATH, "VMCU_SPI_SOCKET=" + socket_,
            preload_asan_options()};
}

RunResult Vmcu::run_tool(const std::vector<std::string>& args, const std::string& id,
                         double limit_s) const {
    std::vector<std::string> all = {"-id", id, "-dev", dev_};
    all.insert(all.end(), args.begin(), args.end());
    return harness::run_tool(all, env(), limit_s);
}

std::vector<std::string> Vmcu::log_lines() const {
    std::vector<std::string> lines;
    std::stringstream ss(read_file(dir_.file("vmcu.log")));
    std::string line;
    while (std::getline(ss, line))
        lines.push_back(line);
    return lines;
}

std::vector<std::string> Vmcu::log(const std::string& prefix) const {
    std::vector<std::string> out;
    for (const std::string& l : log_lines())
        if (l.rfind(prefix, 0) == 0)
            out.push_back(l.substr(prefix.size()));
    return out;
}

std::string link_name(const testing::TestParamInfo<Vmcu::Link>& info) {
    return info.param == Vmcu::kTty ? "Tty" : "Spi";
}

std::string open_lines(const Vmcu& mcu) {
    if (mcu.link() == Vmcu::kTty)
        return "open " + mcu.dev() + " @ 115200\n";
    return "open /dev/spidev0.0 @ 115200\n"
           "mcu_open #, invalid spi speed: 115200, using default\n\n"
           "========open_spi_serial: /dev/spidev0.0 success\n";
}

}  // namespace harness
