// Table-driven end-to-end cases: each case in e2e/cases/*.cases runs the real
// binary, against the virtual MCU on every link it names, and compares the
// whole transcript, the exit status, the frames the MCU received, the gaps
// between them and the image it stored.
//
// A case starts with "=== title", then fields, then sections:
//   links: tty spi       links to run on (a file may set a default above its
//                        first case); none: no device
//   mcu: ARGS            the virtual MCU's options ($START+MS: emission start
//                        after the tool's start-up)
//   args: ARGS           the tool's options, after "-id 0xA -dev $DEV" unless
//                        they name $DEV ('a b' is one word, '' an empty one;
//                        $S+N: N seconds after the tool's start-up)
//   file: NAME HEX | NAME random N | NAME dir   (file2:, ... for more)
//   env:, status:, secs: MIN MAX, signal: INT|TERM SECONDS, mcu-stop: SECONDS,
//   holder: ARGS (a first tool on the same device), received: FILE | none,
//   each: K=V K2=V2 | K=V ...   one case per alternative, $K replaced by V
//   gaps: A>B>=MS | #N>=MS   (TTY: the MCU's receive times), raw: HEX (all
//   the bytes the MCU received), emulator: WHY (skipped under qemu, and why)
//   out: / err: / frames: / log: / holder-out:   a section, or one line after
//                        the colon. Lines "tty|..." and "spi|..." count on
//                        that link only; "@open", "@stats ...", "@empty" and
//                        the "=== @name" pieces stand for their lines.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

#include "harness.h"

using harness::Vmcu;

namespace {

using Lines = std::vector<std::string>;

struct Case {
    std::string name, link;  // link: "tty", "spi" or "" (no device)
    std::map<std::string, std::string> field;
    std::map<std::string, Lines> section;
};

bool is_section(const std::string& key) {
    return key == "out" || key == "err" || key == "frames" || key == "log" || key == "holder-out";
}

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

Lines blocks_of_files(std::map<std::string, Lines>* pieces) {
    Lines files;
    if (DIR* d = opendir(MCU_CASES_DIR)) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name).find(".cases") != std::string::npos)
                files.push_back(std::string(MCU_CASES_DIR) + "/" + e->d_name);
        closedir(d);
    }
    std::sort(files.begin(), files.end());
    std::vector<Lines> blocks;
    for (const std::string& f : files) {
        std::istringstream in(harness::read_file(f));
        std::string file_links;  // the default, above the file's first case
        size_t first = blocks.size();
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("=== ", 0) == 0)
                blocks.push_back({line.substr(4), line[4] == '@' ? "" : file_links});
            else if (blocks.size() == first && line.rfind("links: ", 0) == 0)
                file_links = line;
            else if (blocks.size() > first && line.rfind("#", 0) != 0)
                blocks.back().push_back(line);
        }
    }
    Lines titles;
    for (const Lines& b : blocks)
        (b[0][0] == '@' ? (*pieces)[b[0]] : (*pieces)["=== " + b[0]]) =
            Lines(b.begin() + 1, b.end());
    for (const Lines& b : blocks)
        if (b[0][0] != '@')
            titles.push_back(b[0]);
    return titles;
}

// Every case once per link, pieces spliced in, other links' lines left out.
std::vector<Case> load_cases() {
    std::map<std::string, Lines> pieces;
    std::vector<Case> cases;
    std::vector<std::pair<std::string, Lines>> variants;
    for (const std::string& title : blocks_of_files(&pieces)) {
        const Lines& b = pieces["=== " + title];
        auto each = std::find_if(b.begin(), b.end(),
                                 [](const std::string& l) { return l.rfind("each: ", 0) == 0; });
        std::istringstream alts(each == b.end() ? "" : each->substr(6) + " |");
        for (std::string alt, w; each != b.end() && alts >> w;) {
            if (w != "|") {
                alt += (alt.empty() ? "" : " ") + w;
                continue;
            }
            Lines v = b;
            for (std::string& l : v)
                for (const std::string& kv : words(alt))
                    replace_all(&l, "$" + kv.substr(0, kv.find('=')), kv.substr(kv.find('=') + 1));
            variants.emplace_back(title + " (" + alt + ")", v);
            alt.clear();
        }
        if (each == b.end())
            variants.emplace_back(title, b);
    }
    for (auto& [title, b] : variants) {
        for (size_t i = 0; i < b.size(); i++) {
            std::string prefix = link_of(b[i]);
            auto piece = pieces.find(b[i].substr(prefix.empty() ? 0 : 4));
            if (b[i].empty() || b[i][0] == '=' || piece == pieces.end())
                continue;
            Lines lines;
            for (const std::string& l : piece->second)
                if (!l.empty())
                    lines.push_back(prefix.empty() || !link_of(l).empty() ? l : prefix + "|" + l);
            b.erase(b.begin() + static_cast<long>(i));
            b.insert(b.begin() + static_cast<long>(i), lines.begin(), lines.end());
            i--;  // pieces may hold pieces
        }
        std::string links = "none";
        for (const std::string& l : b)
            if (l.rfind("links: ", 0) == 0)
                links = l.substr(7);
        std::istringstream ls(links);
        for (std::string link; ls >> link;) {
            Case c;
            c.link = link == "none" ? "" : link;
            c.name = title + (c.link.empty() ? "" : " [" + c.link + "]");
            std::string current;
            for (std::string l : b) {
                if (!link_of(l).empty() && link_of(l) != c.link)
                    continue;
                l = l.substr(link_of(l).empty() ? 0 : 4);
                size_t colon = l.find(": ");
                std::string key = l.substr(0, colon);
                if (!l.empty() && l.back() == ':' && is_section(l.substr(0, l.size() - 1))) {
                    current = l.substr(0, l.size() - 1);
                    c.section[current];
                } else if (colon != std::string::npos && is_section(key)) {
                    c.section[key] = {l.substr(colon + 2)};
                    current.clear();
                } else if (current.empty() && colon != std::string::npos && islower(key[0])) {
                    c.field[key] = l.substr(colon + 2);
                } else if (!current.empty()) {
                    c.section[current].push_back(l == "@empty" ? "" : l);
                }
            }
            for (auto& sec : c.section)  // blank lines only separate cases
                while (!sec.second.empty() && sec.second.back().empty())
                    sec.second.pop_back();
            cases.push_back(c);
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
    auto nums = [&kv](const std::string& key) {
        std::vector<unsigned> n(7, 0);
        std::istringstream ss(kv[key]);
        std::string v;
        for (size_t i = 0; std::getline(ss, v, '/'); i++)
            n[i] = static_cast<unsigned>(std::stoul(v));
        return n;
    };
    char buf[64];
    auto rows = [&](const std::string& key) {
        std::string r;
        std::istringstream ss(kv[key]);
        for (std::string item; std::getline(ss, item, ',');) {
            snprintf(buf, sizeof buf, "   [0x%s]    %8lu\n", item.substr(0, 2).c_str(),
                     std::stoul(item.substr(3)));
            r += buf;
        }
        return r;
    };
    auto line = [&buf](const char* label, unsigned v) {
        snprintf(buf, sizeof buf, "%s%8u\n", label, v);
        return std::string(buf);
    };
    const std::string mode = kv["mode"];
    std::vector<unsigned> tx = nums("tx"), rx = nums("rx"), f = nums("fail");
    std::string t = "=============================\nFenlink statistics: elapse #.### s\n";
    t += line("TX Bytes:    ", tx[0]) + line("TX Packets:  ", tx[1]) + line("TX Fail:     ", tx[2]);
    t += "TX messages:\n" + rows("txid");
    t += line("RX Bytes:    ", rx[0]) + line("RX Packets:  ", rx[1]);
    t += line("RX CRC Fail: ", f[0]) + line("RX Len Fail: ", f[1]) + line("RX Sum Fail: ", f[2]);
    if (mode.empty())
        t += line("RX Seq Fail: ", f[3]);
    if (mode.empty() || mode == "noseq")
        t += line("RX Sys Fail: ", f[4]) + line("RX Dst Fail: ", f[5]);
    if (mode != "monitor")
        t += line("RX Cmd Fail: ", f[6]);
    return t + "RX messages:\n" + rows("rxid") + "=============================\n";
}

struct Run {
    const Case& c;
    harness::TempDir dir;
    std::unique_ptr<Vmcu> mcu;

    std::string field(const std::string& k) const {
        auto it = c.field.find(k);
        return it == c.field.end() ? "" : it->second;
    }
    std::string expand(std::string s) const {
        replace_all(&s, "$TMP", dir.path());
        replace_all(&s, "$TOOL", harness::tool_path());
        replace_all(&s, "$CLOCK", MCU_FIXED_CLOCK_PATH);
        replace_all(&s, "$DEV", mcu ? mcu->dev() : "");
        return s;
    }
    std::string transcript(const std::string& section) const {
        std::string t;
        auto it = c.section.find(section);
        for (const std::string& l : it == c.section.end() ? Lines() : it->second)
            t += l == "@open"                ? mcu->open_lines()
                 : l.rfind("@stats", 0) == 0 ? stats(l.substr(6))
                                             : expand(l) + "\n";
        replace_all(&t, "\\b", "\b");  // the progress figure's backspaces
        return t;
    }
    Lines command(const std::string& args) const {
        Lines a = words(expand(args));
        for (std::string& w : a)  // "$S+N": N seconds after the tool's start-up
            if (w.rfind("$S+", 0) == 0)
                w = std::to_string(std::stoi(w.substr(3)) +
                                   static_cast<int>(harness::tool_slack_s()));
        if (mcu && args.find("$DEV") == std::string::npos)
            a.insert(a.begin(), {"-id", "0xA", "-dev", mcu->dev()});
        return a;
    }
    // "NAME HEX", "NAME random N" (deterministic bytes), "NAME dir".
    void make_file(const std::string& item) const {
        Lines w = words(expand(item));
        std::string bytes;
        if (w.size() > 1 && w[1] == "dir")
            mkdir(dir.file(w[0]).c_str(), 0700);
        unsigned n = w.size() > 2 ? static_cast<unsigned>(std::stoul(w[2])) : 0, seed = n;
        for (unsigned i = 0; i < n; i++) {
            seed = seed * 1103515245u + 12345u;
            bytes += static_cast<char>(seed >> 16);
        }
        for (size_t i = 0; w.size() == 2 && i + 1 < w[1].size(); i += 2)
            bytes += static_cast<char>(std::stoul(w[1].substr(i, 2), nullptr, 16));
        if (w.size() == 1 || w[1] != "dir")
            dir.write(w[0], bytes);
    }
};

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
        bool prefix = pat.back() == '*';
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

useconds_t after(double s) {
    return static_cast<useconds_t>((s + harness::tool_slack_s()) * 1e6);
}

void run_case(const Case& c) {
    Run run{c, {}, {}};
    if (!run.field("emulator").empty() && std::string(MCU_EMULATOR) != "")
        GTEST_SKIP() << run.field("emulator");
    Lines mcu_args = words(run.field("mcu"));
    for (std::string& a : mcu_args)
        if (a.rfind("$START+", 0) == 0)
            a = std::to_string(after(std::stoi(a.substr(7)) / 1000.0) / 1000);
    mcu_args.insert(mcu_args.end(),
                    {"--image", run.dir.file("received.bin"), "--raw", run.dir.file("raw.bin")});
    if (!run.field("gaps").empty())
        mcu_args.insert(mcu_args.end(), {"--baud", "100000000"});  // stamps its receive times
    if (!c.link.empty()) {
        run.mcu.reset(new Vmcu(c.link == "spi" ? Vmcu::kSpi : Vmcu::kTty, mcu_args));
        ASSERT_TRUE(run.mcu->ok());
    }
    for (const auto& kv : c.field)
        if (kv.first.rfind("file", 0) == 0)
            run.make_file(kv.second);
    Lines env = run.mcu ? run.mcu->env() : Lines();
    for (const std::string& e : words(run.expand(run.field("env"))))
        env.push_back(e);
    harness::RunResult held, r;
    std::thread holder, stopper;
    if (!run.field("holder").empty()) {
        holder =
            std::thread([&] { held = harness::run_tool(run.command(run.field("holder")), env); });
        usleep(after(0.5));
    }
    if (!run.field("mcu-stop").empty())
        stopper = std::thread([&] {
            usleep(after(std::stod(run.field("mcu-stop"))));
            run.mcu->stop();
        });
    harness::Signal sig;
    if (!run.field("signal").empty()) {
        Lines s = words(run.field("signal"));
        sig = {s[0] == "INT" ? SIGINT : SIGTERM, std::stod(s[1]) + harness::tool_slack_s()};
    }
    r = harness::run_tool(run.command(run.field("args")), env, 120, sig);
    for (std::thread* t : {&holder, &stopper})
        if (t->joinable())
            t->join();
    if (run.mcu)
        run.mcu->stop();

    EXPECT_EQ(r.status, std::stoi(run.field("status").empty() ? "0" : run.field("status")));
    EXPECT_EQ(harness::normalize(r.out), run.transcript("out"));
    EXPECT_EQ(harness::normalize(r.err), run.transcript("err"));
    if (sig.sig != 0) {  // all printed before the signal had reached the pipe
        EXPECT_EQ(r.out_at_signal,
                  r.out.substr(0, r.out.find("=============================\nFen")));
    }
    if (!run.field("secs").empty()) {
        Lines s = words(run.field("secs"));
        EXPECT_GE(r.seconds, std::stod(s[0]));
        EXPECT_LE(r.seconds, std::stod(s[1]) + 2 * harness::tool_slack_s());
    }
    if (c.section.count("holder-out")) {
        EXPECT_EQ(harness::normalize(held.out), run.transcript("holder-out"));
    }
    if (!run.mcu)
        return;
    if (c.section.count("frames"))
        check_frames(c.section.at("frames"), run.mcu->log("RX "));
    Lines log = run.mcu->log_lines();  // "log:" lines appear in this order
    auto at = log.begin();
    for (const std::string& want : c.section.count("log") ? c.section.at("log") : Lines()) {
        at = std::find(at, log.end(), want);
        EXPECT_NE(at, log.end()) << "not in the MCU's log (in order): " << want;
    }
    if (!run.field("gaps").empty())
        check_gaps(run.field("gaps"), *run.mcu);
    if (!run.field("raw").empty()) {  // every byte the MCU's line received
        std::string hex;
        for (unsigned char b : harness::read_file(run.dir.file("raw.bin")))
            hex += "0123456789ABCDEF"[b >> 4] + std::string(1, "0123456789ABCDEF"[b & 15]);
        EXPECT_EQ(hex, run.field("raw"));
    }
    std::string stored = harness::read_file(run.dir.file("received.bin"));
    if (run.field("received") == "none") {
        EXPECT_EQ(stored.size(), 0u);
    } else if (!run.field("received").empty()) {
        EXPECT_TRUE(stored == harness::read_file(run.dir.file(run.field("received"))))
            << "the MCU does not hold " << run.field("received") << " byte for byte";
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

}  // namespace
