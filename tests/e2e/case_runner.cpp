// End-to-end cases (cases/README.md), then the library's public calls in-process.
// From the environment, all optional: MCU_TOOL; MCU_TOOL_EMULATOR (words before the
// tool, which gets its LD_PRELOAD as "-E LD_PRELOAD=..."); MCU_TOOL_WRAPPER (e.g.
// valgrind) with MCU_TOOL_WRAPPER_SLACK_S; built against the tool's C library:
// MCU_VMCU_SPIDEV (spidev shim), MCU_FIXED_CLOCK (frozen clock), MCU_LIBC_WORDS (probe).
#include <gtest/gtest.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "mcu_tool2.h"

// mcu_get_softver opens the component's default device, /dev/ttyS2: in this
// process that path names g_ttys2 while it is set.
std::string g_ttys2;
extern "C" int open(const char* path, int flags, ...) {
    static const auto next =
        reinterpret_cast<int (*)(const char*, int, ...)>(dlsym(RTLD_NEXT, "open"));
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(ap, mode_t) : 0;
    va_end(ap);
    return next(!g_ttys2.empty() && strcmp(path, "/dev/ttyS2") == 0 ? g_ttys2.c_str() : path, flags,
                mode);
}

namespace {

using Lines = std::vector<std::string>;
using Params = std::map<std::string, std::string>;

std::string env_or(const char* name, const char* fallback) {
    const char* v = getenv(name);
    return v != nullptr && *v ? v : fallback;
}

Lines split(const std::string& text, char sep) {
    Lines words;
    std::istringstream ss(text);
    for (std::string w; std::getline(ss, w, sep);)
        if (!w.empty())
            words.push_back(w);
    return words;
}

const std::string kTool = env_or("MCU_TOOL", MCU_TOOL_PATH);
const Lines kEmulator = split(env_or("MCU_TOOL_EMULATOR", ""), ' ');
const Lines kWrapper = split(env_or("MCU_TOOL_WRAPPER", ""), ' ');
// Seconds an emulated or wrapped tool needs beyond a native one to start and end.
const double kSlack = getenv("MCU_TOOL_WRAPPER") == nullptr && kEmulator.empty()
                          ? 0
                          : std::stod(env_or("MCU_TOOL_WRAPPER_SLACK_S", "3"));

std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

// Words of a line: 'a  b' is one word with its blanks, '' an empty one.
Lines words(const std::string& text) {
    Lines w;
    bool quoted = false, in_word = false;
    for (char c : text) {
        if (!in_word && (c != ' ' || quoted))
            w.emplace_back();
        in_word = c != ' ' || quoted;
        quoted ^= c == '\'';
        if (c != '\'' && in_word)
            w.back() += c;
    }
    return w;
}

void replace_all(std::string* s, const std::string& from, const std::string& to) {
    for (size_t p = 0; (p = s->find(from, p)) != std::string::npos; p += to.size())
        s->replace(p, from.size(), to);
}

struct Case {
    std::string name, link;  // link: "tty", "spi" or "" (no device)
    Params field;
    std::map<std::string, Lines> section;
};

// Pieces by name: their parameters ("K" or "K=DEFAULT", in call order) and lines.
std::map<std::string, std::pair<Lines, Lines>> g_pieces;
using Blocks = std::vector<std::pair<std::string, Lines>>;

// The "=== title" blocks of a file without '#' lines and trailing blank lines, a section's first
// line put below its name; the lines above them returned. A field after a section is refused.
Lines read_blocks(const std::string& path, Blocks* blocks) {
    static const std::regex first("^(out|err|frames|log|holder-out):(?: (.*))?$"),
        field(
            "^((tty|spi)\\|)?(mcu|args|file|env|status|secs|signal|mcu-stop|holder|received|"
            "raw|gaps|emulator|each|links): .*");
    std::istringstream in(read_file(path));
    Lines top, *to = &top;
    std::smatch m;
    bool in_section = false;
    int n = 0;
    for (std::string l; std::getline(in, l);) {
        if (++n, l.rfind("=== ", 0) == 0) {
            to = &blocks->emplace_back(l.substr(4), Lines()).second;
            in_section = false;
        } else if (std::regex_match(l, m, first)) {
            to->push_back(m[1].str() + ":");
            if (m[2].matched)
                to->push_back(m[2].str());
            in_section = true;
        } else if (in_section && std::regex_match(l, field)) {
            fprintf(stderr, "%s:%d: a field after a section: %s\n", path.c_str(), n, l.c_str());
            exit(2);
        } else if (l[0] != '#' && (to != &top || !l.empty())) {
            to->push_back(l);
        }
    }
    for (auto& b : *blocks)
        while (!b.second.empty() && b.second.back().empty())
            b.second.pop_back();
    return top;
}

// {K} replaced by the parameter's value, {K:W} by it right-aligned in W columns.
std::string substitute(std::string s, const Params& params) {
    for (const auto& [k, v] : params) {
        replace_all(&s, "{" + k + "}", v);
        for (size_t p; (p = s.find("{" + k + ":")) != std::string::npos;) {
            const size_t w = std::stoul(s.substr(p + k.size() + 2)), e = s.find('}', p);
            s.replace(p, e + 1 - p, std::string(w > v.size() ? w - v.size() : 0, ' ') + v);
        }
    }
    return s;
}

// The lines on `link` ("tty|" and "spi|" lines of the other left out) with {K} filled in from
// `params` and each "@piece ARGS" line replaced by the piece's lines (a line naming no piece stays
// as it is). A piece sees its caller's parameters; a positional argument "a:b,c:d" calls it once
// per item; with a parameter unset it stands for nothing.
Lines expand(const Lines& lines, const Params& params, const std::string& link) {
    static const std::regex unset("\\{[A-Z]+\\}");
    Lines out;
    for (const std::string& line : lines) {
        const bool own = line.size() > 3 && line[3] == '|';
        if (own && line.substr(0, 3) != link)
            continue;
        const std::string l = substitute(line.substr(own ? 4 : 0), params);
        if (std::regex_match(l, unset))  // a line only some alternatives show
            continue;
        const Lines w = words(l);
        if (l == "@empty" || l.rfind('@', 0) != 0 || !g_pieces.count(w[0])) {
            out.push_back(l == "@empty" ? "" : l);
            continue;
        }
        const auto& [head, body] = g_pieces.at(w[0]);
        Params base = params;  // the caller's, else the defaults; then the named ones
        Lines names, items = {""};
        for (const std::string& h : head) {
            names.push_back(h.substr(0, h.find('=')));
            if (names.back() != h)
                base.emplace(names.back(), h.substr(names.back().size() + 1));
        }
        for (size_t i = 1; i < w.size(); i++) {
            const size_t eq = w[i].find('=');
            if (eq == std::string::npos)
                items = split(w[i], ',');
            else
                base[w[i].substr(0, eq)] = w[i].substr(eq + 1);
        }
        for (const std::string& item : items) {
            Params ps = base;
            const Lines values = split(item, ':');
            for (size_t i = 0; i < values.size() && i < names.size(); i++)
                ps[names[i]] = values[i];
            if (std::all_of(names.begin(), names.end(), [&](auto& n) { return ps.count(n); }))
                for (const std::string& e : expand(body, ps, link))
                    out.push_back(e);
        }
    }
    return out;
}

// Every case of the tables once per "each:" alternative and per link; a
// case's fields come before its sections.
std::vector<Case> read_cases() {
    static const std::regex section("(out|err|frames|log|holder-out):"), trim("^ +| +$");
    Blocks pieces;
    read_blocks(MCU_CASES_DIR "/pieces", &pieces);
    for (const auto& [title, body] : pieces) {
        const Lines w = words(title);
        g_pieces[w[0]] = {Lines(w.begin() + 1, w.end()), body};
    }
    std::set<std::filesystem::path> files;
    for (const auto& f : std::filesystem::directory_iterator(MCU_CASES_DIR))
        if (f.path().extension() == ".cases")
            files.insert(f.path());
    std::vector<Case> cases;
    for (const auto& f : files) {
        Blocks blocks;
        const Lines defaults = read_blocks(f, &blocks);
        for (const auto& [title, own] : blocks) {
            Lines lines = defaults;
            lines.insert(lines.end(), own.begin(), own.end());
            std::string each, links = "none";
            for (const std::string& l : lines) {
                each = l.rfind("each: ", 0) == 0 ? l.substr(6) : each;
                links = l.rfind("links: ", 0) == 0 ? l.substr(7) : links;
            }
            for (const std::string& alt : each.empty() ? Lines{""} : split(each, '|')) {
                Params params;
                for (const std::string& kv : words(alt))
                    params[kv.substr(0, kv.find('='))] = kv.substr(kv.find('=') + 1);
                for (const std::string& link : words(links)) {
                    Case c{title, link == "none" ? "" : link, {}, {}};
                    c.name += alt.empty() ? "" : " (" + std::regex_replace(alt, trim, "") + ")";
                    c.name += c.link.empty() ? "" : " [" + link + "]";
                    for (char& ch : c.name)  // as a test name
                        ch = isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
                    std::string current;  // the section being read
                    for (const std::string& l : expand(lines, params, c.link)) {
                        if (std::regex_match(l, section))
                            c.section[current = l.substr(0, l.size() - 1)];
                        else if (!current.empty())
                            c.section[current].push_back(l);
                        else if (l.find(": ") != std::string::npos)
                            c.field[l.substr(0, l.find(": "))] = l.substr(l.find(": ") + 2);
                    }
                    cases.push_back(c);
                }
            }
        }
    }
    return cases;
}

// A tool's output is bounded like its time: a larger file cannot be written.
constexpr rlim_t kMaxOutput = 4 << 20;

pid_t spawn(Lines argv, int out, int err, rlim_t max_output = RLIM_INFINITY) {
    std::vector<char*> a;
    for (std::string& s : argv)
        a.push_back(&s[0]);
    a.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out, 1);
        dup2(err, 2);
        dup2(open("/dev/null", O_RDONLY), 0);
        const rlimit limit = {max_output, max_output};
        setrlimit(RLIMIT_FSIZE, &limit);
        execvp(a[0], a.data());
        _exit(127);
    }
    return pid;
}

struct TempDir {  // a scratch directory, removed at destruction
    std::string path = mkdtemp(std::string("/tmp/mcu_test_XXXXXX").data());
    std::error_code ec;
    ~TempDir() { std::filesystem::remove_all(path, ec); }
    std::string file(const std::string& name) const { return path + "/" + name; }
};

struct Run {
    std::string out, err, out_at_signal;  // out_at_signal: written before the signal was sent
    int status = -1;                      // exit status, or 128 + signal
    double seconds = 0;
};

// Runs `argv` into `name`.out and .err in `dir`, sending `sig` (if not 0)
// `sig_at` seconds after the start.
Run run(const TempDir& dir, const std::string& name, const Lines& argv, int sig = 0,
        double sig_at = 0, rlim_t max_output = RLIM_INFINITY) {
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
              out = open(dir.file(name + ".out").c_str(), flags, 0600),
              err = open(dir.file(name + ".err").c_str(), flags, 0600);
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = spawn(argv, out, err, max_output);
    close(out);
    close(err);
    Run r;
    if (sig != 0) {
        std::this_thread::sleep_for(std::chrono::duration<double>(sig_at));
        r.out_at_signal = read_file(dir.file(name + ".out"));
        kill(pid, sig);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = read_file(dir.file(name + ".out"));
    r.err = read_file(dir.file(name + ".err"));
    return r;
}

// What varies from run to run made constant, as in docs/transcripts.md.
std::string normalize(const TempDir& dir, const std::string& text) {
    std::ofstream(dir.file("printed"), std::ios::binary) << text;
    return run(dir, "normal", {"sed", "-E", "-f", MCU_NORMALISE_SED, dir.file("printed")}).out;
}

// What the tool's C library says: the probe's output, run as the tool would be
// (natively bash's exec names it).
std::string libc_words(const std::string& request) {
    const std::string probe = env_or("MCU_LIBC_WORDS", MCU_LIBC_WORDS_PATH);
    Lines argv = kEmulator, w = words(request);
    if (argv.empty())
        argv = {"bash", "-c", "exec -a \"$0\" \"$@\"", kTool, probe};
    else
        argv.insert(argv.end(), {"-0", kTool, probe});
    argv.insert(argv.end(), w.begin(), w.end());
    const Run r = run(TempDir(), "said", argv);
    const std::string text = r.out + r.err;
    EXPECT_EQ(r.status, 0) << "libc_words " << request << ": " << text;
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

// The tool with `args` and `env` ("NAME=value"), killed after 120 s. A report
// of the wrapper or a sanitizer fails the test.
Run run_tool(const TempDir& dir, const std::string& name, const Lines& args, const Lines& env,
             int sig = 0, double sig_at = 0) {
    Lines cmd = {"env"}, preload;  // an emulator gets the tool's LD_PRELOAD as "-E"
    for (const std::string& e : env)
        (!kEmulator.empty() && e.rfind("LD_PRELOAD=", 0) == 0 ? preload : cmd).push_back(e);
    cmd.insert(cmd.end(), {"timeout", "--foreground", "-s", "KILL", "120"});  // relays signals
    cmd.insert(cmd.end(), kWrapper.begin(), kWrapper.end());
    cmd.insert(cmd.end(), kEmulator.begin(), kEmulator.end());
    for (const std::string& p : preload)
        cmd.insert(cmd.end(), {"-E", p});
    cmd.push_back(kTool);
    cmd.insert(cmd.end(), args.begin(), args.end());
    Run r = run(dir, name, cmd, sig, sig_at, kMaxOutput);
    if (r.out.size() >= kMaxOutput || r.err.size() >= kMaxOutput)
        ADD_FAILURE() << "the tool wrote more than " << kMaxOutput << " bytes";
    // The wrapper's own lines start with "==<pid>=="; it exits 99 on a finding.
    static const std::regex report_line(R"(^==[0-9]+==.*\n?)", std::regex::multiline);
    if (!kWrapper.empty() && (std::regex_search(r.err, report_line) || r.status == 99))
        ADD_FAILURE() << "report from " << kWrapper[0] << " (status " << r.status << "):\n"
                      << r.err;
    r.err = std::regex_replace(r.err, report_line, "");
    if (r.err.find("Sanitizer") != std::string::npos || r.err.find("runtime error:") != r.err.npos)
        ADD_FAILURE() << "sanitizer report from the tool:\n" << r.err;
    if (r.status == 137)
        ADD_FAILURE() << "the tool did not end within 120 s";
    return r;
}

// The virtual MCU on a pseudo-terminal or behind the emulated /dev/spidev0.0.
struct Vmcu {
    const TempDir& dir;
    std::string dev;
    pid_t pid = -1;
    int out = -1;
    Vmcu(const TempDir& dir, bool spi, const Lines& args) : dir(dir) {
        Lines argv = {MCU_VMCU_PATH,  spi ? "--spi" : "--pty",
                      "--log",        dir.file("vmcu.log"),
                      "--exit-after", "300000"};  // even if this process dies
        if (spi)
            argv.insert(argv.begin() + 2, dir.file("spi.sock"));
        argv.insert(argv.end(), args.begin(), args.end());
        int p[2] = {-1, -1};
        if (pipe2(p, O_CLOEXEC) == 0)
            pid = spawn(argv, p[1], 2);
        close(p[1]);
        out = p[0];
        // The first line names the device: "pty: /dev/pts/N" or "spi: PATH".
        std::string line;
        for (char c; line.find('\n') == line.npos && read(out, &c, 1) == 1;)
            line += c;
        if (line.rfind(spi ? "spi: " : "pty: ", 0) == 0)
            dev = spi ? "/dev/spidev0.0" : line.substr(5, line.size() - 6);
    }
    ~Vmcu() { stop(); }
    void stop() {  // the log is complete afterwards
        if (pid > 0 && kill(pid, SIGTERM) == 0 && waitpid(pid, nullptr, 0) > 0)
            close(out);
        pid = -1;
    }
    Lines log(const std::string& prefix = "") const {  // its lines that start so, without it
        Lines out;
        for (const std::string& l : split(read_file(dir.file("vmcu.log")), '\n'))
            if (l.rfind(prefix, 0) == 0)
                out.push_back(l.substr(prefix.size()));
        return out;
    }
};

// Frames: exact hex, "HEX*" a prefix, "HEX xN" N alike, "..." any up to the next match.
void check_frames(const Lines& want, const Lines& got) {
    size_t g = 0;
    for (size_t w = 0; w < want.size(); w++) {
        const std::string& item = want[w];
        if (item == "...")
            continue;
        size_t x = item.find(" x"), n = x == std::string::npos ? 1 : std::stoul(item.substr(x + 2));
        std::string pat = item.substr(0, x);
        const bool prefix = pat.back() == '*';
        pat.resize(pat.size() - prefix);
        auto match = [&](size_t i) {
            return i < got.size() && (prefix ? got[i].rfind(pat, 0) == 0 : got[i] == pat);
        };
        while (w > 0 && want[w - 1] == "..." && g < got.size() && !match(g))
            g++;
        for (size_t i = 0; i < n; i++, g++) {
            ASSERT_LT(g, got.size()) << "missing frame " << item;
            EXPECT_TRUE(match(g)) << "frame " << g + 1 << ": " << got[g] << "\nexpected: " << item;
        }
    }
    EXPECT_TRUE((!want.empty() && want.back() == "...") || g == got.size())
        << "unexpected frame " << (g < got.size() ? got[g] : "");
}

// The frame at position N ("#N>=MS") came at least MS after the one before it.
void check_gaps(const std::string& rules, const Vmcu& mcu) {
    const Lines at = mcu.log("RXTIME at ");  // one a frame, "MS span MS"
    ASSERT_EQ(at.size(), mcu.log("RX FD").size());
    for (const std::string& rule : words(rules)) {
        const size_t n = std::stoul(rule.substr(1));
        ASSERT_TRUE(n >= 2 && n <= at.size()) << rule;
        EXPECT_GE(std::stod(at[n - 1]) - std::stod(at[n - 2]),
                  std::stod(rule.substr(rule.find('=') + 1)))
            << rule;
    }
}

std::string unhex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoul(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

void run_case(Case c) {
    if (!c.field["emulator"].empty() && !kEmulator.empty())
        GTEST_SKIP() << c.field["emulator"];
    TempDir dir;
    std::optional<Vmcu> mcu;
    auto fill = [&](std::string s) {
        replace_all(&s, "$TMP", dir.path);
        replace_all(&s, "$TOOL", kTool);
        replace_all(&s, "$CLOCK", env_or("MCU_FIXED_CLOCK", MCU_FIXED_CLOCK_PATH));
        replace_all(&s, "$DEV", mcu ? mcu->dev : "");
        for (size_t p; (p = s.find("$(")) != std::string::npos;) {
            const size_t e = s.find(')', p);
            s.replace(p, e + 1 - p, libc_words(s.substr(p + 2, e - p - 2)));
        }
        for (size_t p; (p = s.find("$[")) != std::string::npos;) {  // "$[TEXT*N]": N times TEXT
            const size_t star = s.find('*', p);
            std::string text;
            for (long n = std::stol(s.substr(star + 1)); n > 0; n--)
                text += s.substr(p + 2, star - p - 2);
            s.replace(p, s.find(']', p) + 1 - p, text);
        }
        // "$START+MS" and "$S+N" (seconds): so long after the tool's start-up
        for (const auto& [mark, unit] : {std::pair{"$START+", 1000}, {"$S+", 1}})
            for (size_t p, n; (p = s.find(mark)) != std::string::npos;) {
                const long v =
                    std::stol(s.substr(p + strlen(mark)), &n) + static_cast<long>(kSlack * unit);
                s.replace(p, strlen(mark) + n, std::to_string(v));
            }
        return s;
    };
    auto transcript = [&](const std::string& section) {
        std::string t;
        for (const std::string& l : c.section[section])
            t += fill(l) + "\n";
        replace_all(&t, "\\b", "\b");  // the progress figure's backspaces
        return t;
    };
    if (!c.link.empty()) {
        Lines args = words(fill(c.field["mcu"]));
        args.insert(args.end(), {"--image", dir.file("received.bin"), "--raw", dir.file("raw")});
        mcu.emplace(dir, c.link == "spi", args);
        ASSERT_TRUE(mcu->pid > 0 && !mcu->dev.empty());
    }
    if (const Lines w = words(fill(c.field["file"])); w.size() == 2 && w[1] == "dir")
        std::filesystem::create_directory(dir.file(w[0]));
    else if (!w.empty()) {  // "NAME HEX", "NAME random N", "NAME"
        std::string bytes = w.size() == 2 ? unhex(w[1]) : "";
        for (unsigned i = 0, n = w.size() > 2 ? std::stoul(w[2]) : 0, seed = n; i < n; i++)
            bytes += static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
        std::ofstream(dir.file(w[0]), std::ios::binary) << bytes;
    }
    Lines env = words(fill(c.field["env"]));
    if (c.link == "spi")  // to reach the MCU; the emulation comes before ASan's runtime
        env.insert(env.begin(),
                   {"LD_PRELOAD=" + env_or("MCU_VMCU_SPIDEV", MCU_VMCU_SPIDEV_PATH),
                    "VMCU_SPI_SOCKET=" + dir.file("spi.sock"),
                    "ASAN_OPTIONS=" + env_or("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"});
    Run held;
    std::thread holder, stopper;  // reading only what is worked out before they start
    const Lines held_args = words(fill(c.field["holder"])), args = words(fill(c.field["args"]));
    const std::string stop_at = c.field["mcu-stop"];
    if (!held_args.empty()) {
        holder = std::thread([&] { held = run_tool(dir, "holder", held_args, env); });
        std::this_thread::sleep_for(std::chrono::duration<double>(0.5 + kSlack));
    }
    if (!stop_at.empty())
        stopper = std::thread([&] {
            std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(stop_at) + kSlack));
            mcu->stop();
        });
    const Lines sig = words(c.field["signal"]);
    const int signo = sig.empty() ? 0 : sig[0] == "INT" ? SIGINT : SIGTERM;
    const Run r = run_tool(dir, "tool", args, env, signo, signo ? std::stod(sig[1]) + kSlack : 0);
    for (std::thread* t : {&holder, &stopper})
        if (t->joinable())
            t->join();
    if (mcu)
        mcu->stop();

    EXPECT_EQ(r.status, std::stoi(c.field["status"].empty() ? "0" : c.field["status"]));
    EXPECT_EQ(normalize(dir, r.out), transcript("out"));
    EXPECT_EQ(normalize(dir, r.err), transcript("err"));
    const std::string before_stats =
        r.out.substr(0, r.out.find("=============================\nFen"));
    EXPECT_EQ(r.out_at_signal, signo ? before_stats : "");  // all out before the signal came
    if (const Lines s = words(c.field["secs"]); !s.empty()) {
        EXPECT_GE(r.seconds, std::stod(s[0]));
        EXPECT_LE(r.seconds, std::stod(s[1]) + 2 * kSlack);
    }
    EXPECT_EQ(normalize(dir, held.out), transcript("holder-out"));
    if (!mcu)
        return;
    if (c.section.count("frames"))
        check_frames(c.section.at("frames"), mcu->log("RX "));
    const Lines log = mcu->log();  // "log:" lines appear in this order
    auto at = log.begin();
    for (const std::string& want : c.section["log"]) {
        at = std::find(at, log.end(), want);
        EXPECT_NE(at, log.end()) << "not in the MCU's log (in order): " << want;
    }
    if (!c.field["gaps"].empty())
        check_gaps(c.field["gaps"], *mcu);
    const std::string raw = c.field["raw"], image = c.field["received"];  // bytes received, stored
    EXPECT_TRUE(raw.empty() || read_file(dir.file("raw")) == unhex(raw)) << "raw bytes";
    EXPECT_TRUE(image.empty() || read_file(dir.file("received.bin")) == read_file(dir.file(image)))
        << "the MCU does not hold " << image << " byte for byte";
}

class Cases : public testing::TestWithParam<Case> {};

TEST_P(Cases, Transcript) {
    run_case(GetParam());
}

INSTANTIATE_TEST_SUITE_P(E2e, Cases, testing::ValuesIn(read_cases()),
                         [](const testing::TestParamInfo<Case>& info) { return info.param.name; });

// After any public action, whatever its result, none of its descriptors (nor the lock) is left
// and the next action on the device works. In-process, the spidev emulation preloaded.
[[maybe_unused]] const bool kChildrenWithoutPreload = unsetenv("LD_PRELOAD") == 0;

std::multiset<std::string> open_descriptors() {
    std::multiset<std::string> fds;
    std::error_code ec;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd", ec))
        fds.insert(std::filesystem::read_symlink(fd.path(), ec).string());
    return fds;
}

// Points the library (which keeps the path by pointer) and the emulation at `mcu`.
void use(const Vmcu& mcu) {
    static std::set<std::string> paths;
    setenv("VMCU_SPI_SOCKET", mcu.dir.file("spi.sock").c_str(), 1);
    set_comp_id(0x0A);
    set_serial_dev(paths.insert(mcu.dev).first->c_str());
}

std::string g_image;  // a 1000-byte firmware image

// Every public device action (rows below name them by position).
const std::function<int()> kActions[] = {
    mcu_version,
    mcu_serial,
    [] { return mcu_reset(RESET_TYPE_DRYRUN); },
    [] { return mcu_upgrade(g_image.c_str()); },
    [] { return mcu_sendraw("D00102"); },
    [] { return mcu_writeraw("FD0000010A02DB00"); },
    [] { return mcu_monitor_message(0xFF, 1); },
    [] { return mcu_sendraw_then_monitor("D0", 0xFF, 1); },
    mcu_debug_get_stts,
    mcu_debug_clear_stts,
    [] { return mcu_debug_set_message_loopback(1); },
    [] { return mcu_debug_message_send_test(2, 8, 0, 0x55); },
};

struct Call {
    const char* name;
    const char* fault;  // the virtual MCU's rule
    std::function<int()> call;
    int tty, spi;  // its result on each link
};

const Call kCalls[] = {
    // A data reply without a record to take it; twice down: a link down closes nothing else.
    {"link_up_query_without_record_down", "",
     [] {
         const int r = mcu_init(), q = mcu_getMcuUpgradeParam(nullptr);
         return mcu_uninit(), mcu_uninit(), r + q;
     },
     -1, -1},
    {"failed_opens", "",  // every action refuses a device that cannot be set up
     [] {
         int wrong = 0;
         for (const char* path : {"/nonexistent/ttyS9", "/dev/null", "/tmp"})
             for (const auto& action : kActions)
                 wrong += set_serial_dev(path) + action() != -1;
         return wrong;
     },
     0, 0},
    {"stdin_closed", "",  // nothing may be left on descriptor 0
     [] {
         const int saved = dup(0), r = (close(0), mcu_version()), left = fcntl(0, F_GETFD);
         return dup2(saved, 0), close(saved), left == -1 ? r : -9;
     },
     0, 0},
    {"version_refused", "DB:nak", kActions[0], -2, -2},
    {"version_time_out", "DB:silent*3", kActions[0], -3, -3},
    {"version_failed_transfer", "DB:xferfail", kActions[0], 0, -1},
    {"softver", "",
     [] {
         char v[16] = {};
         const int r = mcu_get_softver(0x0A, v, sizeof v);
         return r != 0 || strcmp(v, "4.3.2.1") == 0 ? r : -9;
     },
     0, -1},
    {"serial_refused", "D5:nak", kActions[1], -2, -2},
    {"reset_refused", "D1:nak", kActions[2], -2, -2},
    {"upgrade", "", kActions[3], 0, 0},
    {"upgrade_refused", "DC:nak", kActions[3], -1, -1},
    {"sendraw", "", kActions[4], 0, -1},
    {"writeraw_failed", "DB:xferfail", kActions[5], 10, -1},
    {"writeraw_too_long", "", [] { return mcu_writeraw(std::string(1100, '0').c_str()); }, 552, -1},
    {"monitor", "", kActions[6], 0, 0},
    {"send_then_monitor", "", kActions[7], 0, -1},
    {"send_then_monitor_refused", "", [] { return mcu_sendraw_then_monitor("", 0xFF, 1); }, -1, -1},
    {"get_stts_time_out", "E6:silent*3", kActions[8], 0, 0},
    {"clear_stts_refused", "E6:nak", kActions[9], -2, -2},
    {"loopback_time_out", "E6:silent*3", kActions[10], -3, -3},
    {"flood_refused", "E6:nak", kActions[11], 0, 0},
};

class Library : public testing::TestWithParam<std::tuple<Call, bool>> {};

TEST_P(Library, ServesTheNextCallAndLeavesNothingOpen) {
    const auto& [call, spi] = GetParam();
    TempDir dir;
    std::ofstream(g_image = dir.file("app.bin")) << std::string(1000, '\x5a');
    Lines args = {"--versions", "0102030405060708090A0B0C0D0E0F10", "--rx-extra", "any"};
    if (*call.fault)
        args.insert(args.end(), {"--rule", call.fault});
    Vmcu mcu(dir, spi, args);
    ASSERT_FALSE(mcu.dev.empty());
    const auto before = open_descriptors();
    use(mcu);
    g_ttys2 = spi ? "" : mcu.dev;
    EXPECT_EQ(call.call(), spi ? call.spi : call.tty);
    g_ttys2.clear();
    EXPECT_EQ(open_descriptors(), before);
    use(mcu);
    EXPECT_EQ(mcu_version(), 0) << "the next call";
    EXPECT_EQ(open_descriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(Calls, Library,
                         testing::Combine(testing::ValuesIn(kCalls), testing::Bool()),
                         [](const auto& i) {
                             return std::string(std::get<0>(i.param).name) +
                                    (std::get<1>(i.param) ? "_Spi" : "_Tty");
                         });

}  // namespace

// A sanitized build accepts the preloaded emulation before its runtime.
extern "C" const char* __asan_default_options() {
    return "verify_asan_link_order=0";
}
