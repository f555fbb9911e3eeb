// Table-driven end-to-end cases (e2e/cases/*.cases): each runs the real binary
// against the virtual MCU on every link it names and compares the whole
// transcript, the exit status, the frames the MCU received (and their gaps)
// and the image it stored. A case is "=== title", fields, then sections.
// Fields (fields above a file's first case are its defaults): links: tty spi|none;
// mcu: (the virtual MCU's options; $START+MS: after the tool's start-up);
// args: (after "-id 0xA -dev $DEV" unless they name $DEV; 'a b' is one word;
// $S+N: N seconds after start-up); file:, file2:... NAME HEX|random N|dir;
// env:; status:; secs: MIN MAX; signal: INT|TERM S; mcu-stop: S; holder: ARGS
// (a first tool on the device); received: FILE|none; each: K=V ... | K=V ...
// (one case per alternative); gaps: A>B>=MS|#N>=MS (TTY frame gaps); raw: HEX
// (every byte received); emulator: WHY (skipped under qemu).
// Sections: out: err: frames: log: holder-out:, first line after the colon or
// below. "tty|"/"spi|" lines count on that link only; "@stats ...", "@empty"
// and "=== @name" pieces stand for their lines.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "mcu_tool2.h"

namespace {

using Lines = std::vector<std::string>;

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
// emulated program only), with `env` ("NAME=value") in its environment and
// standard output and error on `out` and `err`.
pid_t spawn(const Lines& cmd, const std::string& program, const Lines& args, Lines env, int out,
            int err) {
    Lines emulator = split(MCU_EMULATOR, '|');
    for (auto it = env.begin(); !emulator.empty() && it != env.end();) {
        if (it->rfind("LD_PRELOAD=", 0) == 0) {
            emulator.insert(emulator.end(), {"-E", *it});
            it = env.erase(it);
        } else {
            ++it;
        }
    }
    Lines all = {"env"};
    for (const Lines& part : {env, cmd, emulator, {program}, args})
        all.insert(all.end(), part.begin(), part.end());
    std::vector<char*> argv;
    for (std::string& a : all)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out, 1);
        dup2(err, 2);
        dup2(open("/dev/null", O_RDONLY), 0);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

// Seconds a wrapped tool needs beyond a native one to start and to end
// (MCU_TOOL_WRAPPER_SLACK_S, else 3 with a wrapper, 0 without).
double tool_slack_s() {
    const char* slack = getenv("MCU_TOOL_WRAPPER_SLACK_S");
    if (getenv("MCU_TOOL_WRAPPER") == nullptr || !*getenv("MCU_TOOL_WRAPPER"))
        return 0;
    return slack != nullptr && *slack ? atof(slack) : 3.0;
}

// Source lines of diagnostics, trace stamps, the statistics' elapsed time and
// the build stamp replaced by "#", "<T>", "#.###" and "<stamp>".
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

// A scratch directory, removed at destruction.
struct TempDir {
    std::string path;
    TempDir() {
        char tmpl[] = "/tmp/mcu_test_XXXXXX";
        path = mkdtemp(tmpl) != nullptr ? tmpl : "/tmp/mcu_test_failed";
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    std::string file(const std::string& name) const { return path + "/" + name; }
};

struct RunResult {
    std::string out, err, out_at_signal;  // out_at_signal: written before the signal was sent
    int status = -1;                      // exit status, or 128 + signal
    double seconds = 0;
};

// Runs the tool with `args` (files `name`.out and `name`.err in `dir`); `env`
// entries ("NAME=value") replace inherited ones; `sig`, when not 0, is sent
// `sig_at` seconds after the start. A tool still running after 120 s is
// killed. A report of the wrapper or a sanitizer fails the test that ran it.
RunResult run_tool(const TempDir& dir, const std::string& name, const Lines& args, const Lines& env,
                   int sig = 0, double sig_at = 0) {
    RunResult r;
    const char* wrapper = getenv("MCU_TOOL_WRAPPER");
    Lines cmd = split(wrapper != nullptr ? wrapper : "", ' ');
    cmd.insert(cmd.begin(), {"timeout", "--foreground", "-s", "KILL", "120"});  // relays signals
    const int out = open(dir.file(name + ".out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int err = open(dir.file(name + ".err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const double start = now_s();
    const pid_t pid = spawn(cmd, MCU_TOOL_PATH, args, env, out, err);
    close(out);
    close(err);
    if (sig != 0) {
        usleep(static_cast<useconds_t>(sig_at * 1e6));
        r.out_at_signal = read_file(dir.file(name + ".out"));
        kill(pid, sig);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    r.seconds = now_s() - start;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = read_file(dir.file(name + ".out"));
    r.err = read_file(dir.file(name + ".err"));
    // The wrapper's own lines start with "==<pid>=="; it exits 99 on a finding.
    static const std::regex report_line(R"(^==[0-9]+==.*\n?)", std::regex::multiline);
    std::string report;
    for (std::sregex_iterator it(r.err.begin(), r.err.end(), report_line), end; it != end; ++it)
        report += it->str();
    if (cmd.size() > 5 && (!report.empty() || r.status == 99))
        ADD_FAILURE() << "report from " << cmd[5] << " (status " << r.status << "):\n" << report;
    r.err = std::regex_replace(r.err, report_line, "");
    if (r.err.find("Sanitizer") != std::string::npos || r.err.find("runtime error:") != r.err.npos)
        ADD_FAILURE() << "sanitizer report from the tool:\n" << r.err;
    if (r.status == 137)
        ADD_FAILURE() << "the tool did not end within 120 s";
    return r;
}

// The virtual MCU as a child process, on a pseudo-terminal or behind the
// emulated /dev/spidev0.0, logging into the case's scratch directory.
struct Vmcu {
    const TempDir& dir;
    const bool spi;
    std::string dev;
    pid_t pid = -1;
    int out = -1;
    Vmcu(const TempDir& dir, bool spi, const Lines& args) : dir(dir), spi(spi) {
        Lines argv = {spi ? "--spi" : "--pty"};
        if (spi)
            argv.push_back(dir.file("spi.sock"));
        argv.insert(argv.end(), {"--log", dir.file("vmcu.log")});
        argv.insert(argv.end(), args.begin(), args.end());
        int p[2] = {-1, -1};
        if (pipe2(p, O_CLOEXEC) == 0)
            pid = spawn({}, MCU_VMCU_PATH, argv, {}, p[1], 2);
        close(p[1]);
        out = p[0];
        // The first line names the device: "pty: /dev/pts/N" or "spi: PATH".
        std::string line;
        for (char c; line.find('\n') == line.npos && read(out, &c, 1) == 1;)
            line += c;
        if (line.rfind("pty: ", 0) == 0)
            dev = line.substr(5, line.size() - 6);
        if (line.rfind("spi: ", 0) == 0)
            dev = "/dev/spidev0.0";
    }
    ~Vmcu() { stop(); }
    void stop() {  // the log is complete afterwards
        if (pid > 0 && kill(pid, SIGTERM) == 0 && waitpid(pid, nullptr, 0) > 0)
            close(out);
        pid = -1;
    }
    // What the tool needs to reach it: the SPI emulation, which comes before
    // a sanitized tool's runtime.
    Lines env() const {
        const char* asan = getenv("ASAN_OPTIONS");
        if (!spi)
            return {};
        return {std::string("LD_PRELOAD=") + MCU_VMCU_SPIDEV_PATH,
                "VMCU_SPI_SOCKET=" + dir.file("spi.sock"),
                "ASAN_OPTIONS=" + std::string(asan != nullptr ? asan : "") +
                    ":verify_asan_link_order=0"};
    }
    Lines log(const std::string& prefix = "") const {  // its lines that start so, without it
        Lines out;
        for (const std::string& l : split(read_file(dir.file("vmcu.log")), '\n'))
            if (l.rfind(prefix, 0) == 0)
                out.push_back(l.substr(prefix.size()));
        return out;
    }
};

struct Case {
    std::string name, link;  // link: "tty", "spi" or "" (no device)
    std::map<std::string, std::string> field;
    std::map<std::string, Lines> section;
};

std::string link_of(const std::string& line) {
    return line.size() > 3 && line[3] == '|' ? line.substr(0, 3) : "";
}

Lines words(const std::string& text) {
    Lines w;
    std::istringstream ss(text);
    for (std::string s, more; ss >> s;) {
        // 'a b' and K='a b' are one word with the blank, '' an empty one.
        while (std::count(s.begin(), s.end(), '\'') % 2 == 1 && ss >> more)
            s += " " + more;
        s.erase(std::remove(s.begin(), s.end(), '\''), s.end());
        w.push_back(s);
    }
    return w;
}

void replace_all(std::string* s, const std::string& from, const std::string& to) {
    for (size_t p = 0; (p = s->find(from, p)) != std::string::npos; p += to.size())
        s->replace(p, from.size(), to);
}

// The lines with pieces spliced in, a piece's lines under the link of the line
// that names it (those of another link left out).
Lines splice(const Lines& lines, const std::map<std::string, Lines>& pieces,
             const std::string& link) {
    Lines out;
    for (const std::string& l : lines) {
        const std::string own = link_of(l);
        if (!own.empty() && !link.empty() && own != link)
            continue;
        auto piece = pieces.find(l.substr(own.empty() ? 0 : 4));
        if (piece != pieces.end()) {
            for (const std::string& p : splice(piece->second, pieces, own.empty() ? link : own))
                out.push_back(p);
        } else {
            out.push_back(link.empty() || !own.empty() ? l : link + "|" + l);
        }
    }
    return out;
}

// Every case once per alternative and per link.
std::vector<Case> load_cases() {
    static const std::regex first_line(R"(^((tty|spi)\|)?(out|err|frames|log|holder-out): (.*)$)"),
        header("(out|err|frames|log|holder-out):"), trim("^ +| +$");
    std::map<std::string, Lines> pieces;
    std::vector<std::pair<std::string, Lines>> variants;
    std::set<std::filesystem::path> files(std::filesystem::directory_iterator(MCU_CASES_DIR), {});
    for (const auto& f : files) {
        std::istringstream in(read_file(f));
        Lines defaults;  // fields above the file's first case
        Lines* block = nullptr;
        bool piece = false;  // blank lines only end a piece
        std::smatch m;
        for (std::string l; std::getline(in, l);) {
            if (l.rfind("=== ", 0) == 0 && (piece = l[4] == '@'))
                block = &pieces[l.substr(4)];
            else if (l.rfind("=== ", 0) == 0)
                block = &variants.emplace_back(l.substr(4), defaults).second;
            else if (block == nullptr && !l.empty() && l[0] != '#')
                defaults.push_back(l);
            else if (block != nullptr && std::regex_match(l, m, first_line))
                block->insert(block->end(),
                              {m[1].str() + m[3].str() + ":", m[1].str() + m[4].str()});
            else if (block != nullptr && l[0] != '#' && !(l.empty() && piece))
                block->push_back(l);
        }
    }
    std::vector<Case> cases;
    for (auto& [title, b] : variants) {
        std::vector<std::pair<std::string, Lines>> alternatives;
        auto each =
            std::find_if(b.begin(), b.end(), [](auto& l) { return l.rfind("each: ", 0) == 0; });
        std::istringstream alts(each == b.end() ? "" : each->substr(6));
        for (std::string alt; std::getline(alts, alt, '|');) {
            Lines v = splice(b, pieces, "");
            for (std::string& line : v)
                for (const std::string& kv : words(alt))
                    replace_all(&line, "$" + kv.substr(0, kv.find('=')),
                                kv.substr(kv.find('=') + 1));
            alternatives.emplace_back(title + " (" + std::regex_replace(alt, trim, "") + ")", v);
        }
        if (alternatives.empty())
            alternatives = {{title, splice(b, pieces, "")}};
        for (auto& [name, lines] : alternatives) {
            std::string links = "none";
            for (const std::string& l : lines)
                if (l.rfind("links: ", 0) == 0)
                    links = l.substr(7);
            for (const std::string& link : words(links)) {
                Case c{name, link == "none" ? "" : link, {}, {}};
                c.name += c.link.empty() ? "" : " [" + c.link + "]";
                std::string current;  // the section being read
                for (std::string l : lines) {
                    if (!link_of(l).empty() && link_of(l) != c.link)
                        continue;
                    l.erase(0, link_of(l).empty() ? 0 : 4);
                    const size_t colon = l.find(": ");
                    if (std::regex_match(l, header))
                        c.section[current = l.substr(0, l.size() - 1)];
                    else if (!current.empty())
                        c.section[current].push_back(l == "@empty" ? "" : l);
                    else if (colon != std::string::npos)
                        c.field[l.substr(0, colon)] = l.substr(colon + 2);
                }
                for (auto& sec : c.section)  // blank lines only separate cases
                    while (!sec.second.empty() && sec.second.back().empty())
                        sec.second.pop_back();
                cases.push_back(c);
            }
        }
    }
    return cases;
}

// "@stats tx=B/P/F txid=db:1,d5:2 rx=B/P fail=crc/len/sum/seq/sys/dst/cmd
// rxid=... mode=monitor|noseq|flood": the block the tool prints when the link
// goes down. The monitor drops the Seq, Sys, Dst and Cmd lines, the flood
// test Seq, Sys and Dst, --ignore-seq the Seq line.
std::string stats(const std::string& fields) {
    std::map<std::string, std::string> kv;
    for (const std::string& w : words(fields))
        kv[w.substr(0, w.find('='))] = w.substr(w.find('=') + 1);
    const std::string mode = kv["mode"];
    std::string t = "=============================\nFenlink statistics: elapse #.### s\n";
    char buf[64];
    auto counters = [&](const std::string& key, std::initializer_list<const char*> labels) {
        std::istringstream ss(kv[key]);
        for (const char* label : labels) {  // "": a line the mode leaves out
            std::string v;
            std::getline(ss, v, '/');
            snprintf(buf, sizeof buf, "%-13s%8lu\n", label, v.empty() ? 0 : std::stoul(v));
            t += *label ? buf : "";
        }
    };
    auto ids = [&](const char* title, const std::string& key) {
        std::istringstream ss(kv[key]);
        t += title;
        for (std::string item; std::getline(ss, item, ',');) {
            snprintf(buf, sizeof buf, "   [0x%s]    %8lu\n", item.substr(0, 2).c_str(),
                     std::stoul(item.substr(3)));
            t += buf;
        }
    };
    const bool checks = mode.empty() || mode == "noseq";
    counters("tx", {"TX Bytes:", "TX Packets:", "TX Fail:"});
    ids("TX messages:\n", "txid");
    counters("rx", {"RX Bytes:", "RX Packets:"});
    counters("fail", {"RX CRC Fail:", "RX Len Fail:", "RX Sum Fail:",
                      mode.empty() ? "RX Seq Fail:" : "", checks ? "RX Sys Fail:" : "",
                      checks ? "RX Dst Fail:" : "", mode != "monitor" ? "RX Cmd Fail:" : ""});
    ids("RX messages:\n", "rxid");
    return t + "=============================\n";
}

// Exact hex, a trailing '*' for a prefix, " xN" for N alike, "..." for any
// frames up to the next that matches.
void check_frames(const Lines& want, const Lines& got) {
    size_t g = 0;
    bool skip = false;
    for (const std::string& item : want) {
        if (item == "...") {
            skip = true;
            continue;
        }
        size_t x = item.find(" x"), n = x == std::string::npos ? 1 : std::stoul(item.substr(x + 2));
        std::string pat = item.substr(0, x);
        const bool prefix = pat.back() == '*';
        pat.resize(pat.size() - prefix);
        auto match = [&](size_t i) {
            return i < got.size() && (prefix ? got[i].rfind(pat, 0) == 0 : got[i] == pat);
        };
        while (skip && g < got.size() && !match(g))
            g++;
        for (size_t i = 0; i < n; i++, g++) {
            ASSERT_LT(g, got.size()) << "missing frame " << item;
            EXPECT_TRUE(match(g)) << "frame " << g + 1 << ": " << got[g] << "\nexpected: " << item;
        }
        skip = false;
    }
    if (!skip) {
        EXPECT_EQ(g, got.size()) << "unexpected frame " << (g < got.size() ? got[g] : "");
    }
}

// Every frame of id B that follows one of id A ("A>B>=MS"), or the frame at
// position N ("#N>=MS"), came at least MS after the frame before it.
void check_gaps(const std::string& item, const Vmcu& mcu) {
    Lines at = mcu.log("RXTIME at "), frames = mcu.log("RX FD");
    ASSERT_EQ(at.size(), frames.size());
    for (const std::string& rule : words(item)) {
        std::string sel = rule.substr(0, rule.find(">="));
        int checked = 0;
        for (size_t i = 1; i < at.size(); i++) {
            if (sel[0] == '#' ? std::stoul(sel.substr(1)) != i + 1
                              : sel != frames[i - 1].substr(10, 2) + ">" + frames[i].substr(10, 2))
                continue;
            checked++;
            EXPECT_GE(std::stod(at[i]) - std::stod(at[i - 1]),
                      std::stod(rule.substr(rule.find(">=") + 2)))
                << rule << " at frame " << i + 1;
        }
        EXPECT_GT(checked, 0) << "no frame matches " << rule;
    }
}

std::string unhex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoul(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

useconds_t after(double s) {
    return static_cast<useconds_t>((s + tool_slack_s()) * 1e6);
}

void run_case(const Case& c) {
    auto field = [&c](const std::string& k) {
        return c.field.count(k) ? c.field.at(k) : std::string();
    };
    if (!field("emulator").empty() && std::string(MCU_EMULATOR) != "")
        GTEST_SKIP() << field("emulator");
    TempDir dir;
    std::unique_ptr<Vmcu> mcu;
    auto expand = [&](std::string s) {
        replace_all(&s, "$TMP", dir.path);
        replace_all(&s, "$TOOL", MCU_TOOL_PATH);
        replace_all(&s, "$CLOCK", MCU_FIXED_CLOCK_PATH);
        replace_all(&s, "$DEV", mcu ? mcu->dev : "");
        return s;
    };
    auto transcript = [&](const std::string& section) {
        std::string t;
        for (const std::string& l : c.section.count(section) ? c.section.at(section) : Lines())
            t += l.rfind("@stats", 0) == 0 ? stats(l.substr(6)) : expand(l) + "\n";
        replace_all(&t, "\\b", "\b");  // the progress figure's backspaces
        return t;
    };
    auto command = [&](const std::string& args) {
        Lines a = words(expand(args));
        for (std::string& w : a)  // "$S+N": N seconds after the tool's start-up
            if (w.rfind("$S+", 0) == 0)
                w = std::to_string(std::stoi(w.substr(3)) + lround(tool_slack_s()));
        if (mcu && args.find("$DEV") == std::string::npos)
            a.insert(a.begin(), {"-id", "0xA", "-dev", mcu->dev});
        return a;
    };

    Lines mcu_args = words(field("mcu"));
    for (std::string& a : mcu_args)
        if (a.rfind("$START+", 0) == 0)
            a = std::to_string(after(std::stoi(a.substr(7)) / 1000.0) / 1000);
    mcu_args.insert(mcu_args.end(),
                    {"--image", dir.file("received.bin"), "--raw", dir.file("raw")});
    if (!field("gaps").empty())
        mcu_args.insert(mcu_args.end(), {"--baud", "100000000"});  // stamps its receive times
    if (!c.link.empty()) {
        mcu.reset(new Vmcu(dir, c.link == "spi", mcu_args));
        ASSERT_TRUE(mcu->pid > 0 && !mcu->dev.empty());
    }
    for (const auto& [key, item] : c.field) {  // "NAME HEX", "NAME random N", "NAME dir"
        const Lines w = words(expand(item));
        std::string bytes;
        if (key.rfind("file", 0) != 0)
            continue;
        if (w.size() == 2 && w[1] == "dir") {
            mkdir(dir.file(w[0]).c_str(), 0700);
            continue;
        }
        for (unsigned i = 0, n = w.size() > 2 ? std::stoul(w[2]) : 0, seed = n; i < n; i++)
            bytes += static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
        std::ofstream(dir.file(w[0]), std::ios::binary) << (w.size() == 2 ? unhex(w[1]) : bytes);
    }
    Lines env = mcu ? mcu->env() : Lines();
    for (const std::string& e : words(expand(field("env"))))
        env.push_back(e);
    RunResult held;
    std::thread holder, stopper;
    if (!field("holder").empty()) {
        holder =
            std::thread([&] { held = run_tool(dir, "holder", command(field("holder")), env); });
        usleep(after(0.5));
    }
    if (!field("mcu-stop").empty())
        stopper = std::thread([&] {
            usleep(after(std::stod(field("mcu-stop"))));
            mcu->stop();
        });
    const Lines sig = words(field("signal"));
    const int signo = sig.empty() ? 0 : sig[0] == "INT" ? SIGINT : SIGTERM;
    const RunResult r = run_tool(dir, "tool", command(field("args")), env, signo,
                                 signo ? std::stod(sig[1]) + tool_slack_s() : 0);
    for (std::thread* t : {&holder, &stopper})
        if (t->joinable())
            t->join();
    if (mcu)
        mcu->stop();

    EXPECT_EQ(r.status, std::stoi(field("status").empty() ? "0" : field("status")));
    EXPECT_EQ(normalize(r.out), transcript("out"));
    EXPECT_EQ(normalize(r.err), transcript("err"));
    if (!sig.empty()) {  // all printed before the signal had reached the pipe
        EXPECT_EQ(r.out_at_signal,
                  r.out.substr(0, r.out.find("=============================\nFen")));
    }
    if (!field("secs").empty()) {
        Lines s = words(field("secs"));
        EXPECT_GE(r.seconds, std::stod(s[0]));
        EXPECT_LE(r.seconds, std::stod(s[1]) + 2 * tool_slack_s());
    }
    EXPECT_EQ(normalize(held.out), transcript("holder-out"));
    if (!mcu)
        return;
    if (c.section.count("frames"))
        check_frames(c.section.at("frames"), mcu->log("RX "));
    Lines log = mcu->log();  // "log:" lines appear in this order
    auto at = log.begin();
    for (const std::string& want : c.section.count("log") ? c.section.at("log") : Lines()) {
        at = std::find(at, log.end(), want);
        EXPECT_NE(at, log.end()) << "not in the MCU's log (in order): " << want;
    }
    if (!field("gaps").empty())
        check_gaps(field("gaps"), *mcu);
    if (!field("raw").empty()) {  // every byte the MCU's line received
        EXPECT_TRUE(read_file(dir.file("raw")) == unhex(field("raw"))) << "raw bytes";
    }
    if (!field("received").empty()) {
        const std::string want = field("received");
        EXPECT_TRUE(read_file(dir.file("received.bin")) ==
                    (want == "none" ? "" : read_file(dir.file(want))))
            << "the MCU does not hold " << want << " byte for byte";
    }
}

class Cases : public testing::TestWithParam<Case> {};

TEST_P(Cases, Transcript) {
    run_case(GetParam());
}

INSTANTIATE_TEST_SUITE_P(E2e, Cases, testing::ValuesIn(load_cases()),
                         [](const testing::TestParamInfo<Case>& info) {
                             std::string n;
                             for (char ch : info.param.name)
                                 n += isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
                             return n;
                         });

// No descriptor outlives the link: the library's public calls, in this
// process, against the virtual MCU. The spidev emulation is preloaded into
// this process (its children get it only where a case asks), so
// /dev/spidev0.0 reaches the vmcu whose socket VMCU_SPI_SOCKET names.
struct ChildrenWithoutPreload {
    ChildrenWithoutPreload() {
        unsetenv("LD_PRELOAD");
        unsetenv("QEMU_SET_ENV");
    }
} children_without_preload;

// What the descriptors of this process refer to.
std::multiset<std::string> open_descriptors() {
    std::multiset<std::string> fds;
    std::error_code ec;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd", ec))
        fds.insert(std::filesystem::read_symlink(fd.path(), ec).string());
    return fds;
}

// Points the library (which keeps the path by pointer, so it lives as long as
// the process) and the emulation at `mcu`.
void use(const Vmcu& mcu) {
    static std::list<std::string> paths;
    setenv("VMCU_SPI_SOCKET", mcu.dir.file("spi.sock").c_str(), 1);
    set_comp_id(0x0A);
    set_serial_dev(paths.emplace_back(mcu.dev).c_str());
}

class Descriptors : public testing::TestWithParam<bool> {};

TEST_P(Descriptors, EveryPublicCallClosesWhatItOpened) {
    TempDir dir, faulty_dir;
    const std::string image = dir.file("app.bin");
    std::ofstream(image) << std::string(1000, '\x5a');
    Vmcu mcu(dir, GetParam(), {"--emit", "heartbeat@100*3"});
    use(mcu);
    const auto before = open_descriptors();
    ASSERT_EQ(mcu_init(), 0);
    EXPECT_GT(open_descriptors().size(), before.size());
    mcu_uninit();
    mcu_uninit();  // a link already down closes nothing else
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(mcu_version(), 0);
    EXPECT_EQ(mcu_serial(), 0);
    EXPECT_EQ(mcu_reset(RESET_TYPE_DRYRUN), 0);
    EXPECT_EQ(mcu_debug_clear_stts(), 0);
    EXPECT_EQ(mcu_monitor_message(0xFF, 1), 0);
    set_upgrade_type(UPGRADE_TYPE_FW_ONLY);
    EXPECT_EQ(mcu_upgrade(image.c_str()), 0);
    EXPECT_EQ(open_descriptors(), before);
    // Failures: a refused CRC check, a failed SPI transfer (TTY: no answer),
    // devices that cannot be set up, a vanished SPI peer or a closed pty.
    Vmcu faulty(faulty_dir, GetParam(), {"--rule", "DC:nak", "--rule", "DB:xferfail*0"});
    use(faulty);
    const auto with_faulty = open_descriptors();
    EXPECT_EQ(mcu_upgrade(image.c_str()), -1);
    EXPECT_LT(mcu_version(), 0);
    for (const char* path : {"/nonexistent/ttyS9", "/dev/null", "/tmp"}) {
        set_serial_dev(path);
        EXPECT_EQ(mcu_version(), -1) << path;
    }
    EXPECT_EQ(open_descriptors(), with_faulty);
    faulty.stop();
    use(faulty);
    const auto stopped = open_descriptors();
    EXPECT_EQ(mcu_version(), -1);
    EXPECT_EQ(open_descriptors(), stopped);
}

INSTANTIATE_TEST_SUITE_P(Links, Descriptors, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& i) {
                             return std::string(i.param ? "Spi" : "Tty");
                         });

}  // namespace

// A sanitized build accepts the preloaded emulation before its runtime.
extern "C" const char* __asan_default_options() {
    return "verify_asan_link_order=0";
}
