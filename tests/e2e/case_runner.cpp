// Table-driven end-to-end cases: every case in tests/e2e/cases/*.cases runs
// the real binary (against the virtual MCU on each link it names) and
// compares the whole transcript, the exit status, the frames the MCU received
// and the gaps between them. The case format is described in cases/README.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "harness.h"

using harness::RunResult;
using harness::Vmcu;

namespace {

struct Case {
    std::string name, link;  // link: "tty", "spi" or "" (no device)
    std::map<std::string, std::string> field;
    std::map<std::string, std::vector<std::string>> section;
};

const char* const kSections[] = {"out", "err", "frames", "log", "holder-out"};

bool is_section(const std::string& key) {
    return std::find(std::begin(kSections), std::end(kSections), key) != std::end(kSections);
}

// Reads every case file; a case naming links becomes one case per link, with
// the lines prefixed "tty|" or "spi|" kept only for that link.
std::vector<Case> load_cases() {
    std::vector<Case> cases;
    std::vector<std::string> files;
    if (DIR* d = opendir(MCU_CASES_DIR)) {
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n.size() > 6 && n.substr(n.size() - 6) == ".cases")
                files.push_back(std::string(MCU_CASES_DIR) + "/" + n);
        }
        closedir(d);
    }
    std::sort(files.begin(), files.end());
    std::vector<std::vector<std::string>> blocks;
    for (const std::string& f : files) {
        std::istringstream in(harness::read_file(f));
        std::string file_links;  // the file's default, above its first case
        bool head = true;
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("=== ", 0) == 0) {
                head = false;
                blocks.push_back({line.substr(4)});
                if (line[4] != '@')
                    blocks.back().push_back(file_links);
            } else if (head && line.rfind("links: ", 0) == 0) {
                file_links = line;
            } else if (!head && line.rfind("#", 0) != 0) {
                blocks.back().push_back(line);
            }
        }
    }
    // "=== @name" blocks are shared transcript pieces: a line "@name" in a
    // case stands for their lines.
    std::map<std::string, std::vector<std::string>> pieces;
    for (const auto& b : blocks)
        if (b[0][0] == '@')
            pieces[b[0]].assign(b.begin() + 1, b.end());
    for (auto b : blocks) {
        if (b[0][0] == '@')
            continue;
        for (size_t i = 1; i < b.size(); i++) {
            auto piece = pieces.find(b[i].substr(b[i].find('|') == 3 ? 4 : 0));
            if (piece == pieces.end())
                continue;
            std::string prefix = b[i].find('|') == 3 ? b[i].substr(0, 4) : "";
            std::vector<std::string> lines;
            for (const std::string& l : piece->second)
                if (!l.empty())
                    lines.push_back(l.find('|') == 3 || prefix.empty() ? l : prefix + l);
            b.erase(b.begin() + static_cast<long>(i));
            b.insert(b.begin() + static_cast<long>(i), lines.begin(), lines.end());
            i--;  // pieces may hold pieces
        }
        std::string links = "";
        for (const std::string& l : b)
            if (l.rfind("links: ", 0) == 0)
                links = l.substr(7);
        std::istringstream ls(links.empty() ? std::string("-") : links);
        for (std::string link; ls >> link;) {
            Case c;
            c.link = link == "-" ? "" : link;
            c.name = b[0] + (c.link.empty() ? "" : " [" + c.link + "]");
            std::string current;
            for (size_t i = 1; i < b.size(); i++) {
                std::string l = b[i];
                size_t bar = l.find('|');
                if (bar == 3 && (l.rfind("tty|", 0) == 0 || l.rfind("spi|", 0) == 0)) {
                    if (l.substr(0, 3) != c.link)
                        continue;
                    l = l.substr(4);
                }
                size_t colon = l.find(": ");
                std::string key = l.substr(0, colon);
                if (!l.empty() && l.back() == ':' && is_section(l.substr(0, l.size() - 1))) {
                    current = l.substr(0, l.size() - 1);
                    c.section[current];
                    continue;
                }
                if (colon != std::string::npos && is_section(key)) {  // a one-line section
                    c.section[key] = {l.substr(colon + 2)};
                    current.clear();
                    continue;
                }
                if (colon != std::string::npos && key.find(' ') == std::string::npos &&
                    !key.empty() && islower(key[0]) && current.empty()) {
                    c.field[key] = l.substr(colon + 2);
                } else if (!current.empty()) {
                    c.section[current].push_back(l);
                }
            }
            // Blank lines end a section; "@empty" stands for an empty line.
            for (auto& sec : c.section) {
                while (!sec.second.empty() && sec.second.back().empty())
                    sec.second.pop_back();
                for (std::string& l : sec.second)
                    if (l == "@empty")
                        l.clear();
            }
            cases.push_back(c);
        }
    }
    return cases;
}

std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> w;
    std::istringstream ss(text);
    for (std::string s; ss >> s;) {
        // 'a b' is one word with its blank, '' an empty one.
        if (s[0] == '\'') {
            for (std::string more; (s.size() < 2 || s.back() != '\'') && ss >> more;)
                s += " " + more;
            s = s.substr(1, s.size() - 2);
        }
        w.push_back(s);
    }
    return w;
}

void replace_all(std::string* s, const std::string& from, const std::string& to) {
    for (size_t p = 0; (p = s->find(from, p)) != std::string::npos; p += to.size())
        s->replace(p, from.size(), to);
}

// "@stats tx=B/P/F txid=db:1,d5:2 rx=B/P fail=crc/len/sum/seq/sys/dst/cmd
// rxid=... mode=monitor|noseq|flood" as the block the tool prints. The
// monitor drops the Seq, Sys, Dst and Cmd lines, the flood test Seq, Sys and
// Dst, --ignore-seq the Seq line.
std::string stats(const std::string& spec) {
    std::map<std::string, std::string> kv;
    for (const std::string& w : words(spec))
        kv[w.substr(0, w.find('='))] = w.substr(w.find('=') + 1);
    auto nums = [&kv](const std::string& key, size_t count) {
        std::vector<unsigned> n(count, 0);
        std::istringstream ss(kv[key]);
        std::string v;
        for (size_t i = 0; i < count && std::getline(ss, v, '/'); i++)
            n[i] = static_cast<unsigned>(std::stoul(v));
        return n;
    };
    auto rows = [&kv](const std::string& key) {
        std::string r;
        std::istringstream ss(kv[key]);
        char buf[64];
        for (std::string item; std::getline(ss, item, ',');) {
            snprintf(buf, sizeof buf, "   [0x%s]    %8lu\n", item.substr(0, 2).c_str(),
                     std::stoul(item.substr(3)));
            r += buf;
        }
        return r;
    };
    auto line = [](const char* label, unsigned v) {
        char buf[64];
        snprintf(buf, sizeof buf, "%s%8u\n", label, v);
        return std::string(buf);
    };
    const std::string mode = kv["mode"];
    std::vector<unsigned> tx = nums("tx", 3), rx = nums("rx", 2), f = nums("fail", 7);
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

struct Context {
    const Vmcu* mcu = nullptr;
    harness::TempDir* dir = nullptr;
};

std::string expand(std::string s, const Context& cx) {
    replace_all(&s, "$TMP", cx.dir->path());
    replace_all(&s, "$TOOL", harness::tool_path());
    replace_all(&s, "$CLOCK", MCU_FIXED_CLOCK_PATH);
    if (cx.mcu != nullptr)
        replace_all(&s, "$DEV", cx.mcu->dev());
    return s;
}

std::string transcript(const std::vector<std::string>& lines, const Context& cx) {
    std::string t;
    for (const std::string& l : lines) {
        if (l == "@open")
            t += cx.mcu->open_lines();
        else if (l.rfind("@stats", 0) == 0)
            t += stats(l.substr(6));
        else
            t += expand(l, cx) + "\n";
    }
    // "\b" in a case stands for the backspaces of the upgrade's progress.
    replace_all(&t, "\\b", "\b");
    return t;
}

// Deterministic bytes for test images.
std::string pattern_bytes(size_t n, unsigned seed) {
    std::string b(n, '\0');
    for (size_t i = 0; i < n; i++) {
        seed = seed * 1103515245u + 12345u;
        b[i] = static_cast<char>(seed >> 16);
    }
    return b;
}

// "file: NAME HEX", "file: NAME random N", "file: NAME dir".
void make_file(const std::string& spec, const harness::TempDir& dir) {
    std::vector<std::string> w = words(spec);
    std::string path = dir.file(w[0]);
    if (w.size() > 1 && w[1] == "dir") {
        mkdir(path.c_str(), 0700);
    } else if (w.size() > 2 && w[1] == "random") {
        dir.write(w[0], pattern_bytes(std::stoul(w[2]), std::stoul(w[2])));
    } else {
        std::string bytes;
        for (size_t i = 0; w.size() > 1 && i + 1 < w[1].size(); i += 2)
            bytes += static_cast<char>(std::stoul(w[1].substr(i, 2), nullptr, 16));
        dir.write(w[0], bytes);
    }
}

// Expected frames: exact hex, a trailing '*' for a prefix, " xN" for N alike,
// "..." for any frames up to the next one that matches.
void check_frames(const std::vector<std::string>& want, const std::vector<std::string>& got) {
    size_t g = 0;
    bool skip = false;
    for (const std::string& spec : want) {
        if (spec == "...") {
            skip = true;
            continue;
        }
        size_t x = spec.find(" x"),
               times = x == std::string::npos ? 1 : std::stoul(spec.substr(x + 2));
        std::string pat = spec.substr(0, x);
        bool prefix = !pat.empty() && pat.back() == '*';
        if (prefix)
            pat.pop_back();
        auto match = [&](size_t i) {
            return i < got.size() && (prefix ? got[i].rfind(pat, 0) == 0 : got[i] == pat);
        };
        while (skip && g < got.size() && !match(g))
            g++;
        skip = false;
        for (size_t i = 0; i < times; i++, g++) {
            ASSERT_LT(g, got.size()) << "missing frame " << spec;
            EXPECT_TRUE(match(g)) << "frame " << g + 1 << ": " << got[g] << "\nexpected: " << spec;
        }
    }
    if (!skip) {
        EXPECT_EQ(g, got.size()) << "more frames than expected, next: "
                                 << (g < got.size() ? got[g] : "");
    }
}

// "gaps: D9>D9>=10 #4>=1000": every frame of the second id that follows one
// of the first, or the frame of that position, came at least N ms after the
// frame before it (TTY, from the MCU's receive times).
void check_gaps(const std::string& spec, const Vmcu& mcu) {
    std::vector<std::pair<std::string, double>> rx;  // message id, time
    for (const std::string& l : mcu.log("RXTIME at "))
        rx.emplace_back("", std::stod(l));
    std::vector<std::string> frames = mcu.log("RX FD");
    ASSERT_EQ(rx.size(), frames.size());
    for (size_t i = 0; i < rx.size(); i++)
        rx[i].first = frames[i].substr(10, 2);
    for (const std::string& rule : words(spec)) {
        double min = std::stod(rule.substr(rule.find(">=") + 2));
        std::string sel = rule.substr(0, rule.find(">="));
        int checked = 0;
        for (size_t i = 1; i < rx.size(); i++) {
            bool hit = sel[0] == '#' ? std::stoul(sel.substr(1)) == i + 1
                                     : sel == rx[i - 1].first + ">" + rx[i].first;
            if (!hit)
                continue;
            checked++;
            EXPECT_GE(rx[i].second - rx[i - 1].second, min) << rule << " at frame " << i + 1;
        }
        EXPECT_GT(checked, 0) << "no frame matches " << rule;
    }
}

void run_case(const Case& c) {
    harness::TempDir dir;
    auto field = [&c](const std::string& k, const std::string& def = "") {
        auto it = c.field.find(k);
        return it == c.field.end() ? def : it->second;
    };
    std::vector<std::string> mcu_args = words(field("mcu"));
    for (std::string& a : mcu_args)
        if (a.rfind("$START+", 0) == 0)  // emission start, after the tool's start-up
            a = std::to_string(std::stoi(a.substr(7)) +
                               static_cast<int>(harness::tool_slack_s() * 1000));
    mcu_args.insert(mcu_args.end(), {"--image", dir.file("received.bin")});
    if (!field("gaps").empty())
        mcu_args.insert(mcu_args.end(), {"--baud", "100000000"});
    std::unique_ptr<Vmcu> mcu;
    if (!c.link.empty()) {
        mcu.reset(new Vmcu(c.link == "spi" ? Vmcu::kSpi : Vmcu::kTty, mcu_args));
        ASSERT_TRUE(mcu->ok());
    }
    Context cx{mcu.get(), &dir};
    for (const auto& kv : c.field)
        if (kv.first.rfind("file", 0) == 0)
            make_file(expand(kv.second, cx), dir);
    auto command = [&](const std::string& args) {
        std::vector<std::string> a = words(expand(args, cx));
        if (mcu && args.find("$DEV") == std::string::npos)
            a.insert(a.begin(), {"-id", "0xA", "-dev", mcu->dev()});
        return a;
    };
    std::vector<std::string> env = mcu ? mcu->env() : std::vector<std::string>{};
    for (const std::string& e : words(expand(field("env"), cx)))
        env.push_back(e);
    // A first tool that holds the device while the case's tool runs.
    RunResult held;
    std::thread holder;
    if (!field("holder").empty()) {
        holder = std::thread([&] { held = harness::run_tool(command(field("holder")), env); });
        usleep(static_cast<useconds_t>((0.5 + harness::tool_slack_s()) * 1e6));
    }
    harness::Signal sig;
    if (!field("signal").empty()) {
        std::vector<std::string> s = words(field("signal"));
        sig.sig = s[0] == "INT" ? SIGINT : SIGTERM;
        sig.after_s = std::stod(s[1]) + harness::tool_slack_s();
    }
    // An MCU that goes away while the tool runs ("mcu-stop: SECONDS").
    std::thread stopper;
    if (!field("mcu-stop").empty())
        stopper = std::thread([&] {
            usleep(static_cast<useconds_t>(
                (std::stod(field("mcu-stop")) + harness::tool_slack_s()) * 1e6));
            mcu->stop();
        });
    RunResult r = harness::run_tool(command(field("args")), env, 120, sig);
    for (std::thread* t : {&holder, &stopper})
        if (t->joinable())
            t->join();
    if (mcu)
        mcu->stop();

    EXPECT_EQ(r.status, std::stoi(field("status", "0")));
    EXPECT_EQ(
        harness::normalize(r.out),
        transcript(c.section.count("out") ? c.section.at("out") : std::vector<std::string>{}, cx));
    EXPECT_EQ(
        harness::normalize(r.err),
        transcript(c.section.count("err") ? c.section.at("err") : std::vector<std::string>{}, cx));
    if (sig.sig != 0) {
        // Everything printed before the signal reached the pipe before it:
        // all of the transcript up to the statistics block.
        EXPECT_EQ(r.out_at_signal,
                  r.out.substr(0, r.out.find("=============================\nFenlink")));
    }
    if (!field("secs").empty()) {
        std::vector<std::string> s = words(field("secs"));
        EXPECT_GE(r.seconds, std::stod(s[0]));
        EXPECT_LE(r.seconds, std::stod(s[1]) + 2 * harness::tool_slack_s());
    }
    if (c.section.count("holder-out")) {
        EXPECT_EQ(harness::normalize(held.out), transcript(c.section.at("holder-out"), cx));
    }
    if (!mcu)
        return;
    if (c.section.count("frames")) {
        std::vector<std::string> got;
        for (const std::string& l : mcu->log("RX "))
            got.push_back(l);
        check_frames(c.section.at("frames"), got);
    }
    if (c.section.count("log")) {
        // Lines that must appear in the MCU's log, in this order.
        std::vector<std::string> log = mcu->log_lines();
        auto at = log.begin();
        for (const std::string& want : c.section.at("log")) {
            at = std::find(at, log.end(), want);
            EXPECT_NE(at, log.end()) << "not in the MCU's log (in order): " << want;
        }
    }
    if (!field("gaps").empty())
        check_gaps(field("gaps"), *mcu);
    std::string received = field("received");
    if (received == "none") {
        EXPECT_EQ(harness::read_file(dir.file("received.bin")).size(), 0u);
    } else if (!received.empty()) {
        EXPECT_TRUE(harness::read_file(dir.file("received.bin")) ==
                    harness::read_file(dir.file(received)))
            << "the MCU does not hold " << received << " byte for byte";
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
