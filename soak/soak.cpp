// Fault-injected upgrade soak: runs many firmware upgrades of the real tool
// against the virtual MCU, each with a random image, random upgrade
// parameters, a random link and random faults, and checks one rule on every
// run:
//
//   the tool prints "upgrade <file> successfully" only when the MCU holds a
//   byte-identical image and was told to start it (APP_GO), and no run lasts
//   longer than the worst case its parameters and faults allow.
//
// Every run is also replayed on a model of the exchange rules (how many
// transmissions each fault costs, which faults end a step, which parameters
// cannot work on the link), which says whether the upgrade must succeed or
// must fail; a tool that disagrees breaks the rule as well. Runs are seeded:
// the soak prints its seed, and each run's seed, parameters and faults, and
// keeps the transcript of every run that breaks the rule.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

// ---- message ids and limits -------------------------------------------------

constexpr int kSystemReset = 0xD1;
constexpr int kGetFlashSize = 0xD6;
constexpr int kRequestUpgrade = 0xD7;
constexpr int kEraseFlash = 0xD8;
constexpr int kDownloading = 0xD9;
constexpr int kCrcCheck = 0xDC;
constexpr int kAppGo = 0xDD;
constexpr int kGetTimeRetry = 0xDE;

constexpr int kMaxImage = 256 * 1024;
constexpr unsigned kFlashSize = 1024 * 1024;
// The largest chunk whose frame (chunk + 10 bytes) fits one write on each link.
constexpr unsigned kTtyChunkMax = 64990;
constexpr unsigned kSpiChunkMax = 518;

// Upgrade parameters in wire order, with their bounds.
enum Field { kProgMs, kProgRetry, kPkSize, kEraseS, kCrcS, kAppS, kBootS, kMsgMs, kFields };
constexpr unsigned kLow[kFields] = {1000, 2, 240, 20, 2, 2, 2, 500};
constexpr unsigned kHigh[kFields] = {3000, 6, 65000, 60, 6, 6, 6, 1500};

double now_s() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::string hex2(unsigned v) {
    char b[8];
    snprintf(b, sizeof b, "%02X", v & 0xFFu);
    return b;
}

uint64_t splitmix64(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// ---- what one run does ------------------------------------------------------

// How an answer changed by a fault rule ends the transmission it answers.
enum class Fate {
    kDone,      // a conclusive good answer (the MCU acted on the request)
    kRefused,   // a refusal: the exchange fails with -2
    kLost,      // nothing the tool accepts: it waits and retransmits
    kLinkDown,  // SPI: the transfer fails and the link is gone
};

struct Fault {
    int msgid = 0;
    std::string action;  // vmcu rule action, with its argument
    unsigned count = 1;  // requests it applies to
    Fate fate = Fate::kLost;
    unsigned busy_ms = 0;  // delay announced by a busy answer
};

struct Plan {
    unsigned index = 0;
    uint64_t seed = 0;
    bool spi = false;
    bool fw_only = false;
    std::string image;
    unsigned flash_size = kFlashSize;
    std::vector<unsigned> served;  // parameters the MCU sends, as raw fields
    unsigned served_bytes = 16;    // length of the parameter payload
    std::vector<Fault> faults;     // in rule order
    std::vector<std::string> emits;
    std::string peer = "02";
    int emit_start = 300;
    // From the model.
    int expect = 0;  // 1 success, 0 failure, -1 either
    std::string expect_why;
    double bound_s = 0;
};

// The tool's view of the parameters: missing fields are zero, then every
// field is forced into its bounds.
std::vector<unsigned> limited(const std::vector<unsigned>& raw, unsigned bytes) {
    std::vector<unsigned> v(kFields, 0);
    for (int f = 0; f < kFields; f++) {
        if (static_cast<unsigned>(2 * f + 2) <= bytes)
            v[f] = raw[f];
        v[f] = std::min(std::max(v[f], kLow[f]), kHigh[f]);
    }
    return v;
}

std::string timeretry_hex(const Plan& p) {
    std::string hex;
    for (int f = 0; f < kFields; f++)
        hex += hex2(p.served[f] & 0xFF) + hex2(p.served[f] >> 8);
    return hex.substr(0, 2 * p.served_bytes);
}

// ---- the model ----------------------------------------------------------------

// Replays the upgrade on the exchange rules: which faults each request meets
// (the vmcu uses the rules of one id in order, each for its count), how many
// transmissions each exchange takes, and where the run must stop. Produces
// the expected outcome and the longest the run may take.
class Model {
public:
    explicit Model(const Plan& p) : p_(p) {
        for (const Fault& f : p.faults)
            queue_[f.msgid].push_back(f);
    }

    // The expected outcome: 1 success, 0 failure, -1 either.
    void run(int* expect, std::string* why, double* bound) {
        bool ok = upgrade(why);
        *expect = ok ? 1 : 0;
        if (ok)
            *why = "all faults recoverable";
        if (!uncertain_.empty()) {
            *expect = -1;
            *why = uncertain_;
        }
        // Margin for process start-up, scheduling and a loaded machine.
        *bound = 1.5 * seconds_ + 10.0;
    }

private:
    enum class Result { kOk, kFail };

    // The fate of the next request of `msgid`, consuming its rule.
    Fault take(int msgid) {
        auto it = queue_.find(msgid);
        if (it != queue_.end()) {
            std::deque<Fault>& q = it->second;
            while (!q.empty() && q.front().count == 0)
                q.pop_front();
            if (!q.empty()) {
                Fault f = q.front();
                q.front().count--;
                return f;
            }
        }
        Fault normal;
        normal.msgid = msgid;
        normal.fate = Fate::kDone;
        normal.action = "ack";  // answered normally
        return normal;
    }

    // One request/response exchange: one transmission and up to `retries`
    // retransmissions after `timeout_ms` of silence each. On SPI an answer
    // comes with the transfer after the request, so the last retransmission
    // reaches the MCU (which acts on it) but its answer is never read. On a
    // TTY the last retransmission gets one receive attempt of one 0.1 s read:
    // an MCU slowed down by a loaded machine, or an unsolicited frame
    // arriving first, can miss it.
    Result exchange(int msgid, unsigned timeout_ms, unsigned retries) {
        if (link_down_) {
            seconds_ += 0.05;
            return Result::kFail;
        }
        bool faulted = false;
        double t = 0;
        Result r = Result::kFail;
        bool concluded = false;
        for (unsigned n = 0; n <= retries && !concluded; n++) {
            Fault f = take(msgid);
            faulted = faulted || f.action != "ack";
            t += f.busy_ms / 1000.0;
            const bool last = n == retries;
            switch (f.fate) {
                case Fate::kDone:
                    if (last && p_.spi)
                        break;
                    if (last)
                        uncertain("the last retransmission of " + hex2(msgid) +
                                  " is answered within one 0.1 s read");
                    r = Result::kOk;
                    concluded = true;
                    break;
                case Fate::kRefused:
                    concluded = !(last && p_.spi);
                    break;
                case Fate::kLinkDown:
                    link_down_ = true;
                    concluded = true;
                    break;
                case Fate::kLost:
                    break;
            }
            // A parse can overrun the time-out by one read (0.1 s) plus a
            // pause.
            if (!concluded)
                t += timeout_ms / 1000.0 + 0.15;
        }
        // A faulted exchange may take its whole budget whatever the model
        // says; an unfaulted one is answered at once.
        if (faulted)
            t = std::max(t, (retries + 1) * (timeout_ms / 1000.0 + 0.15)) + 0.5;
        seconds_ += t + 0.08;
        return r;
    }

    void uncertain(const std::string& why) {
        if (uncertain_.empty())
            uncertain_ = why;
        // The step may fail and be attempted again.
        seconds_ += 4 * (1.5 + 0.15) + 0.5;
    }

    bool upgrade(std::string* why) {
        // Step 0: four attempts, then the low bounds.
        std::vector<unsigned> prm;
        bool got = false;
        for (int a = 0; a < 4 && !got; a++) {
            got = exchange(kGetTimeRetry, 500, 2) == Result::kOk;
            if (!got && a < 3)
                seconds_ += 0.5;
        }
        prm = got ? limited(p_.served, p_.served_bytes) : limited({}, 0);
        const unsigned len = static_cast<unsigned>(p_.image.size());
        if (!p_.fw_only) {
            seconds_ += 0.1;
            bool size_ok = false;
            for (int a = 0; a < 4 && !size_ok; a++) {
                size_ok = exchange(kGetFlashSize, prm[kMsgMs], 2) == Result::kOk;
                if (!size_ok && a < 3)
                    seconds_ += 0.5;
            }
            if (!size_ok)
                return fail(why, "step 1 gets no flash size");
            if (len > p_.flash_size)
                return fail(why, "image larger than the flash");
            if (exchange(kSystemReset, prm[kBootS] * 1000, 2) != Result::kOk)
                return fail(why, "step 2 fails");
            seconds_ += 1.0;
        }
        if (exchange(kRequestUpgrade, prm[kMsgMs], 2) != Result::kOk)
            return fail(why, "step 3 fails");
        if (exchange(kEraseFlash, prm[kEraseS] * 1000, 2) != Result::kOk)
            return fail(why, "step 4 fails");
        if (len > p_.flash_size)
            return fail(why, "the MCU refuses to erase more than its flash");
        const unsigned pk = prm[kPkSize];
        const unsigned first = std::min(len, pk);
        if (first > (p_.spi ? kSpiChunkMax : kTtyChunkMax))
            return fail(why, "chunk of " + std::to_string(first) + " bytes does not fit the link");
        for (unsigned sent = 0; sent < len; sent += std::min(pk, len - sent)) {
            if (exchange(kDownloading, prm[kProgMs], prm[kProgRetry]) != Result::kOk)
                return fail(why, "step 5 fails at byte " + std::to_string(sent));
            seconds_ += 0.011;
        }
        if (exchange(kCrcCheck, prm[kCrcS] * 1000, 2) != Result::kOk)
            return fail(why, "step 6 fails");
        if (exchange(kAppGo, prm[kAppS] * 1000, 2) != Result::kOk)
            return fail(why, "step 7 fails");
        return true;
    }

    bool fail(std::string* why, const std::string& text) {
        *why = text;
        return false;
    }

    const Plan& p_;
    std::map<int, std::deque<Fault>> queue_;
    bool link_down_ = false;
    std::string uncertain_;
    double seconds_ = 1.0;  // link bring-up, file read, statistics
};

// ---- drawing a run ------------------------------------------------------------

class Draw {
public:
    explicit Draw(uint64_t seed) : gen_(seed) {}
    unsigned range(unsigned lo, unsigned hi) {
        return std::uniform_int_distribution<unsigned>(lo, hi)(gen_);
    }
    bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(gen_) < p; }
    // Log-uniform in [lo, hi]: small values as likely per decade as large.
    unsigned log_range(unsigned lo, unsigned hi) {
        double x = std::uniform_real_distribution<double>(std::log(lo), std::log(hi + 1.0))(gen_);
        return std::min(hi, std::max(lo, static_cast<unsigned>(std::exp(x))));
    }
    template <typename T>
    const T& pick(const std::vector<std::pair<T, unsigned>>& weighted) {
        unsigned total = 0;
        for (const auto& w : weighted)
            total += w.second;
        unsigned x = range(0, total - 1);
        for (const auto& w : weighted) {
            if (x < w.second)
                return w.first;
            x -= w.second;
        }
        return weighted.back().first;
    }
    std::mt19937_64& gen() { return gen_; }

private:
    std::mt19937_64 gen_;
};

bool is_data(int msgid) {
    return msgid == kGetTimeRetry || msgid == kGetFlashSize;
}

// One fault of the given kind on `msgid`, with the number of requests it
// applies to. `budget` is the number of transmissions that the step may lose
// and still succeed; most faults stay within it, some exhaust it.
Fault make_fault(Draw& d, const Plan& p, int msgid, const std::string& kind, unsigned budget) {
    Fault f;
    f.msgid = msgid;
    f.action = kind;
    f.fate = Fate::kLost;
    auto lost_count = [&]() {
        const double x = std::uniform_real_distribution<double>(0, 1)(d.gen());
        if (x < 0.7 && budget >= 2)
            return d.range(1, budget - 1);  // the step still has a spare transmission
        return x < 0.85 ? budget : budget + 1;
    };
    if (kind == "busy") {
        f.busy_ms = d.chance(0.2) ? 0 : d.range(1, 1500);
        f.action = "busy=" + std::to_string(f.busy_ms);
        if (f.busy_ms == 0)
            f.busy_ms = 200;  // the tool's default for a delay of 0
        f.fate = Fate::kDone;
        f.count = d.range(1, 2);
    } else if (kind == "nak") {
        f.fate = Fate::kRefused;
    } else if (kind == "code") {
        // Failure codes; on SPI also unknown codes, which the tool ignores.
        unsigned c =
            p.spi && d.chance(0.4)
                ? d.range(9, 255)
                : d.pick<unsigned>({{1, 1}, {3, 1}, {4, 1}, {5, 1}, {6, 1}, {7, 1}, {8, 1}});
        f.action = "code=" + std::to_string(c);
        if (c >= 9) {
            f.count = lost_count();
        } else {
            f.fate = Fate::kRefused;
        }
    } else if (kind == "garbage") {
        f.action = "garbage=" + std::to_string(d.range(1, p.spi ? 200 : 300));
        f.fate = Fate::kDone;
        f.count = d.range(1, 3);
    } else if (kind == "long" || kind == "heartbeat") {
        // Acted on; a TTY takes a heartbeat as the end of the exchange, SPI
        // skips it as an answer for another id.
        f.fate = kind == "long" || !p.spi ? Fate::kDone : Fate::kLost;
        f.count = f.fate == Fate::kDone ? d.range(1, 2) : lost_count();
    } else if (kind == "xferfail") {
        f.fate = p.spi ? Fate::kLinkDown : Fate::kLost;
        f.count = p.spi ? 1 : lost_count();
    } else if (kind == "otherid") {
        f.action = "otherid=" + hex2(d.chance(0.5) ? 0xE5 : 0xE8);
        f.count = lost_count();
    } else {
        // silent, noack, badcrc, badsum, biglen, badseq, badsys, badcomp, lowid
        f.count = lost_count();
    }
    if (f.fate != Fate::kLost && kind != "busy" && kind != "garbage" && kind != "long" &&
        kind != "heartbeat")
        f.count = 1;
    return f;
}

std::string rule_text(const Fault& f) {
    std::string t = hex2(f.msgid) + ":" + f.action;
    if (f.count != 1)
        t += "*" + std::to_string(f.count);
    return t;
}

Plan make_plan(unsigned index, uint64_t master, unsigned max_image) {
    Plan p;
    p.index = index;
    p.seed = splitmix64(master ^ splitmix64(index));
    Draw d(p.seed);
    p.spi = d.chance(0.5);
    p.fw_only = d.chance(0.3);
    unsigned size = d.log_range(1, max_image);
    p.image.resize(size);
    for (char& c : p.image)
        c = static_cast<char>(d.gen()() & 0xFF);

    // Parameters within their bounds; chunks that fit one write of the link.
    p.served.assign(kFields, 0);
    p.served[kProgMs] = d.range(1000, 3000);
    p.served[kProgRetry] = d.range(2, 6);
    p.served[kPkSize] = p.spi ? d.range(240, kSpiChunkMax) : d.log_range(240, kTtyChunkMax);
    p.served[kEraseS] = d.chance(0.7) ? d.range(20, 25) : d.range(20, 60);
    p.served[kCrcS] = d.range(2, 6);
    p.served[kAppS] = d.range(2, 6);
    p.served[kBootS] = d.range(2, 6);
    p.served[kMsgMs] = d.range(500, 1500);
    // A few runs get values the tool must limit, chunk sizes the link cannot
    // carry, or a short parameter payload.
    if (d.chance(0.08)) {
        for (unsigned n = d.range(1, 3); n > 0; n--) {
            int f = static_cast<int>(d.range(0, kFields - 1));
            p.served[f] = d.chance(0.5) ? d.range(0, kLow[f] - 1) : d.range(kHigh[f] + 1, 65535);
        }
    }
    if (d.chance(0.03))
        p.served[kPkSize] =
            p.spi ? d.range(kSpiChunkMax + 1, 65535) : d.range(kTtyChunkMax + 1, 65535);
    if (d.chance(0.03))
        p.served_bytes = 2 * d.range(0, 7);
    if (d.chance(0.02))
        p.flash_size = size - 1;

    // Faults.
    const std::vector<unsigned> prm = limited(p.served, p.served_bytes);
    const unsigned chunks = (size + prm[kPkSize] - 1) / prm[kPkSize];
    unsigned nfaults = d.pick<unsigned>({{0, 15}, {1, 40}, {2, 25}, {3, 12}, {4, 5}, {6, 3}});
    std::vector<std::pair<int, unsigned>> ids = {{kGetTimeRetry, 8}, {kRequestUpgrade, 7},
                                                 {kEraseFlash, 3},   {kDownloading, 45},
                                                 {kCrcCheck, 7},     {kAppGo, 7}};
    if (!p.fw_only) {
        ids.push_back({kGetFlashSize, 7});
        ids.push_back({kSystemReset, 6});
    }
    std::vector<std::pair<std::string, unsigned>> kinds = {
        {"silent", 14},   {"noack", 12},  {"badcrc", 8},  {"badsum", 5},  {"biglen", 4},
        {"badseq", 5},    {"badsys", 4},  {"badcomp", 4}, {"lowid", 4},   {"garbage", 8},
        {"busy", 10},     {"nak", 3},     {"code", 2},    {"otherid", 3}, {"long", 3},
        {"heartbeat", 3}, {"xferfail", 1}};
    // Chunk faults by chunk index, the others in the order drawn.
    std::vector<std::pair<unsigned, Fault>> chunk_faults;
    for (unsigned i = 0; i < nfaults; i++) {
        int id = d.pick(ids);
        std::string kind = d.pick(kinds);
        // A data request answered by a plain acknowledgement, a longer
        // payload or a heartbeat leaves the record empty or overflows it;
        // those are tested elsewhere.
        while (is_data(id) && (kind == "long" || kind == "heartbeat"))
            kind = d.pick(kinds);
        // Silences on the erase step cost up to three minutes; keep them rare.
        if (id == kEraseFlash && (kind == "silent" || kind == "noack") && d.chance(0.7))
            kind = "busy";
        // Transmissions a step can lose and still succeed: on SPI the answer
        // to the last retransmission is never read. Steps 0 and 1 have four
        // attempts.
        unsigned budget = (id == kDownloading ? prm[kProgRetry] : 2) - (p.spi ? 1 : 0);
        if (is_data(id) && d.chance(0.2))
            budget = p.spi ? 10 : 11;
        Fault f = make_fault(d, p, id, kind, budget);
        if (id == kDownloading)
            chunk_faults.push_back({d.range(0, chunks - 1), f});
        else
            p.faults.push_back(f);
    }
    std::sort(chunk_faults.begin(), chunk_faults.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    unsigned next = 0;  // the chunk whose next transmission comes next
    for (const auto& cf : chunk_faults) {
        if (cf.first > next) {
            Fault filler;
            filler.msgid = kDownloading;
            filler.action = "ack";
            filler.count = cf.first - next;
            filler.fate = Fate::kDone;
            p.faults.push_back(filler);
            next = cf.first;
        }
        p.faults.push_back(cf.second);
        if (cf.second.fate == Fate::kDone)
            next += cf.second.count;
    }

    // Unsolicited frames. On a TTY a heartbeat whose sequence number happens
    // to match the request ends the exchange early, so heartbeats go to
    // another destination there (the tool drops them); system logs and user
    // strings reach the tool, which skips them.
    if (d.chance(0.25)) {
        bool heartbeat = false;
        for (unsigned n = d.range(1, 3); n > 0; n--) {
            std::string period = "@" + std::to_string(d.range(50, 700));
            switch (d.range(0, 3)) {
                case 0:
                    p.emits.push_back("heartbeat" + period);
                    heartbeat = true;
                    break;
                case 1:
                    p.emits.push_back("syslog" + period);
                    break;
                case 2:
                    p.emits.push_back("user=soak" + std::to_string(d.range(0, 999)) + period);
                    break;
                default:
                    p.emits.push_back("frame=E9C0FFEE" + period);
                    break;
            }
        }
        if (heartbeat && !p.spi)
            p.peer = "05";
        p.emit_start = static_cast<int>(d.range(0, 2000));
    }

    Model(p).run(&p.expect, &p.expect_why, &p.bound_s);
    return p;
}

std::string describe(const Plan& p) {
    std::ostringstream s;
    s << "run " << p.index << " seed 0x" << std::hex << p.seed << std::dec << " "
      << (p.spi ? "spi" : "tty") << " " << (p.fw_only ? "--upgrade-fw" : "--upgrade") << " size "
      << p.image.size() << " params";
    for (int f = 0; f < kFields; f++)
        s << (f ? "," : " ") << p.served[f];
    if (p.served_bytes != 16)
        s << " (" << p.served_bytes << " bytes)";
    if (p.flash_size != kFlashSize)
        s << " flash " << p.flash_size;
    s << " faults";
    if (p.faults.empty())
        s << " none";
    for (const Fault& f : p.faults)
        s << " " << rule_text(f);
    if (!p.emits.empty()) {
        s << " emits";
        for (const std::string& e : p.emits)
            s << " " << e;
        s << " peer " << p.peer << " start " << p.emit_start;
    }
    s << " expect "
      << (p.expect == 1   ? "success"
          : p.expect == 0 ? "failure"
                          : "either")
      << " (" << p.expect_why << ") bound " << static_cast<int>(std::ceil(p.bound_s)) << " s";
    return s.str();
}

// ---- running processes --------------------------------------------------------

struct Paths {
    std::string tool = SOAK_TOOL_PATH;
    std::string vmcu = SOAK_VMCU_PATH;
    std::string shim = SOAK_SHIM_PATH;
};

// Children running now, so that an interrupted soak leaves none behind.
constexpr int kMaxChildren = 256;
std::atomic<pid_t> g_children[kMaxChildren];

void track(pid_t pid, bool on) {
    for (std::atomic<pid_t>& slot : g_children) {
        pid_t expected = on ? 0 : pid;
        if (slot.compare_exchange_strong(expected, on ? pid : 0))
            return;
    }
}

void on_interrupt(int sig) {
    for (std::atomic<pid_t>& slot : g_children) {
        pid_t pid = slot.load();
        if (pid > 0)
            kill(pid, SIGKILL);
    }
    _exit(128 + sig);
}

// Starts `argv` with standard output and error to the given files.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extra_env,
            const std::string& out, const std::string& err) {
    std::vector<std::string> envs;
    auto name_of = [](const std::string& e) { return e.substr(0, e.find('=') + 1); };
    for (char** e = environ; *e != nullptr; e++) {
        bool replaced = false;
        for (const std::string& mine : extra_env)
            replaced = replaced || name_of(mine) == name_of(*e);
        if (!replaced)
            envs.emplace_back(*e);
    }
    envs.insert(envs.end(), extra_env.begin(), extra_env.end());
    std::vector<char*> cargv, cenv;
    for (const std::string& a : argv)
        cargv.push_back(const_cast<char*>(a.c_str()));
    cargv.push_back(nullptr);
    for (const std::string& e : envs)
        cenv.push_back(const_cast<char*>(e.c_str()));
    cenv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    if (posix_spawn(&pid, cargv[0], &fa, nullptr, cargv.data(), cenv.data()) != 0)
        pid = -1;
    if (pid > 0)
        track(pid, true);
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

// Waits for `pid` until `limit_s`; then kills it. Returns the wait status
// and whether it had to be killed.
int wait_for(pid_t pid, double limit_s, bool* killed) {
    double start = now_s();
    *killed = false;
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid || (r < 0 && errno != EINTR)) {
            track(pid, false);
            return status;
        }
        if (now_s() - start > limit_s && !*killed) {
            kill(pid, SIGKILL);
            *killed = true;
        }
        usleep(20000);
    }
}

std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

std::string join(const std::vector<std::string>& words) {
    std::string s;
    for (const std::string& w : words)
        s += (s.empty() ? "" : " ") + w;
    return s;
}

struct Outcome {
    bool tool_success = false;
    bool mcu_has_image = false;  // APP_GO logged and the image is identical
    bool hang = false;
    bool abnormal = false;  // non-zero exit, signal or sanitizer report
    bool setup_failed = false;
    double seconds = 0;
    std::string note;
};

class Runner {
public:
    Runner(const Paths& paths, const std::string& keep) : paths_(paths), keep_(keep) {}

    Outcome run(const Plan& p) {
        Outcome o;
        char tmpl[] = "/tmp/soak_XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            o.setup_failed = true;
            o.note = "mkdtemp failed";
            return o;
        }
        const std::string dir = tmpl;
        const std::string image = dir + "/app.bin";
        {
            std::ofstream f(image, std::ios::binary);
            f << p.image;
        }
        std::vector<std::string> vargs = {paths_.vmcu};
        if (p.spi)
            vargs.insert(vargs.end(), {"--spi", dir + "/spi.sock"});
        else
            vargs.push_back("--pty");
        vargs.insert(vargs.end(),
                     {"--log", dir + "/vmcu.log", "--image", dir + "/received.bin", "--exit-after",
                      "0", "--timeretry", timeretry_hex(p), "--flash-size",
                      std::to_string(p.flash_size), "--seed", std::to_string(p.seed & 0xFFFF)});
        for (const Fault& f : p.faults)
            vargs.insert(vargs.end(), {"--rule", rule_text(f)});
        for (const std::string& e : p.emits)
            vargs.insert(vargs.end(), {"--emit", e});
        if (!p.emits.empty())
            vargs.insert(vargs.end(),
                         {"--peer", p.peer, "--emit-start", std::to_string(p.emit_start)});
        {
            std::ofstream f(dir + "/plan.txt");
            f << describe(p) << "\nvmcu: " << join(vargs) << "\n";
        }
        pid_t vpid = spawn(vargs, {}, dir + "/vmcu.out", dir + "/vmcu.err");
        std::string dev;
        double start = now_s();
        while (vpid > 0 && now_s() - start < 10) {
            std::string first = read_file(dir + "/vmcu.out");
            size_t nl = first.find('\n');
            if (nl != std::string::npos) {
                if (first.rfind("pty: ", 0) == 0)
                    dev = first.substr(5, nl - 5);
                else if (first.rfind("spi: ", 0) == 0)
                    dev = "/dev/spidev0.0";
                break;
            }
            usleep(5000);
        }
        if (dev.empty()) {
            o.setup_failed = true;
            o.note = "the vmcu did not come up";
            stop_vmcu(vpid);
            keep(p, dir, o);
            return o;
        }
        std::vector<std::string> targs = {
            paths_.tool, "-id", "0xA", "-dev", dev, p.fw_only ? "--upgrade-fw" : "--upgrade",
            image};
        std::vector<std::string> env;
        if (p.spi) {
            const char* asan = getenv("ASAN_OPTIONS");
            std::string opts = asan != nullptr && *asan ? std::string(asan) + ":" : "";
            env = {"LD_PRELOAD=" + paths_.shim, "VMCU_SPI_SOCKET=" + dir + "/spi.sock",
                   "ASAN_OPTIONS=" + opts + "verify_asan_link_order=0"};
        }
        {
            std::ofstream f(dir + "/plan.txt", std::ios::app);
            f << "tool: " << join(env) << (env.empty() ? "" : " ") << join(targs) << "\n";
        }
        double t0 = now_s();
        pid_t tpid = spawn(targs, env, dir + "/tool.out", dir + "/tool.err");
        int status = 0;
        if (tpid > 0)
            status = wait_for(tpid, p.bound_s, &o.hang);
        o.seconds = now_s() - t0;
        stop_vmcu(vpid);

        const std::string out = read_file(dir + "/tool.out");
        const std::string err = read_file(dir + "/tool.err");
        o.tool_success = out.find("upgrade " + image + " successfully\n") != std::string::npos;
        const std::string log = read_file(dir + "/vmcu.log");
        const bool app_go =
            log.find("\nAPP_GO ") != std::string::npos || log.rfind("APP_GO ", 0) == 0;
        o.mcu_has_image = app_go && fs::exists(dir + "/received.bin") &&
                          read_file(dir + "/received.bin") == p.image;
        if (tpid <= 0) {
            o.setup_failed = true;
            o.note = "cannot start the tool";
        } else if (!o.hang && (!WIFEXITED(status) || WEXITSTATUS(status) != 0)) {
            o.abnormal = true;
            o.note = WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                                       : "signal " + std::to_string(WTERMSIG(status));
        }
        if (err.find("Sanitizer") != std::string::npos ||
            err.find("runtime error:") != std::string::npos) {
            o.abnormal = true;
            o.note += " sanitizer report";
        }
        if (breaks_rule(p, o))
            keep(p, dir, o);
        fs::remove_all(dir);
        return o;
    }

    static bool false_success(const Outcome& o) { return o.tool_success && !o.mcu_has_image; }
    static bool unexpected(const Plan& p, const Outcome& o) {
        return !o.hang && !o.setup_failed && p.expect >= 0 && o.tool_success != (p.expect == 1);
    }
    static bool breaks_rule(const Plan& p, const Outcome& o) {
        return false_success(o) || o.hang || o.abnormal || o.setup_failed || unexpected(p, o);
    }

private:
    static void stop_vmcu(pid_t pid) {
        if (pid <= 0)
            return;
        kill(pid, SIGTERM);
        bool killed = false;
        wait_for(pid, 5, &killed);
    }

    void keep(const Plan& p, const std::string& dir, const Outcome& o) {
        std::error_code ec;
        fs::remove(dir + "/spi.sock", ec);
        const std::string dest = keep_ + "/run-" + std::to_string(p.index);
        fs::create_directories(keep_, ec);
        fs::remove_all(dest, ec);
        fs::copy(dir, dest, fs::copy_options::recursive, ec);
        std::ofstream f(dest + "/plan.txt", std::ios::app);
        f << "outcome: tool " << (o.tool_success ? "reported success" : "did not report success")
          << ", MCU " << (o.mcu_has_image ? "holds the image and was started" : "does not hold it")
          << (o.hang ? ", killed after the bound (hang)" : "") << ", " << o.seconds << " s "
          << o.note << "\n";
    }

    const Paths& paths_;
    const std::string keep_;
};

// ---- command line -------------------------------------------------------------

void usage() {
    printf(
        "usage: soak [options] RUNS\n"
        "  --seed S       master seed (default: from the clock); run i uses a seed\n"
        "                 derived from S and i\n"
        "  --jobs J       runs at once (default 4)\n"
        "  --only I       run only run number I of the seed (to reproduce it)\n"
        "  --max-image N  largest image in bytes (default 262144)\n"
        "  --keep DIR     where transcripts of rule-breaking runs go (default soak-breaks)\n"
        "  --tool P, --vmcu P, --shim P   the programs under test\n"
        "  --quiet        print only rule breaks and the summary\n"
        "  --fail-fast    start no new run after the first rule break\n");
}

}  // namespace

int main(int argc, char** argv) {
    Paths paths;
    uint64_t seed = static_cast<uint64_t>(time(nullptr)) ^ (static_cast<uint64_t>(getpid()) << 32);
    unsigned jobs = 4, runs = 0, max_image = kMaxImage;
    long only = -1;
    bool quiet = false, have_runs = false, fail_fast = false;
    std::string keep_dir = "soak-breaks";
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                usage();
                exit(2);
            }
            return argv[++i];
        };
        if (a == "--seed")
            seed = strtoull(value().c_str(), nullptr, 0);
        else if (a == "--jobs")
            jobs = static_cast<unsigned>(std::max(1l, strtol(value().c_str(), nullptr, 10)));
        else if (a == "--only")
            only = strtol(value().c_str(), nullptr, 10);
        else if (a == "--max-image")
            max_image = static_cast<unsigned>(
                std::min<long>(kMaxImage, std::max(1l, strtol(value().c_str(), nullptr, 10))));
        else if (a == "--keep")
            keep_dir = value();
        else if (a == "--tool")
            paths.tool = value();
        else if (a == "--vmcu")
            paths.vmcu = value();
        else if (a == "--shim")
            paths.shim = value();
        else if (a == "--quiet")
            quiet = true;
        else if (a == "--fail-fast")
            fail_fast = true;
        else if (a == "--help" || a == "-h") {
            usage();
            return 0;
        } else if (!a.empty() && a[0] != '-') {
            runs = static_cast<unsigned>(strtoul(a.c_str(), nullptr, 10));
            have_runs = true;
        } else {
            usage();
            return 2;
        }
    }
    if (!have_runs) {
        usage();
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, on_interrupt);
    signal(SIGTERM, on_interrupt);
    printf("soak: seed %llu (0x%llx), %u runs, %u jobs, tool %s\n",
           static_cast<unsigned long long>(seed), static_cast<unsigned long long>(seed), runs, jobs,
           paths.tool.c_str());
    fflush(stdout);

    std::vector<unsigned> todo;
    for (unsigned i = 0; i < runs; i++)
        if (only < 0 || static_cast<unsigned>(only) == i)
            todo.push_back(i);
    if (only >= 0 && todo.empty())
        todo.push_back(static_cast<unsigned>(only));

    std::mutex mu;
    std::atomic<size_t> next{0};
    unsigned n = 0, successes = 0, failures = 0, false_successes = 0, hangs = 0, unexpected = 0,
             abnormal = 0, setup = 0, missed = 0, breaks = 0, expected_success = 0, either = 0;
    double start = now_s();
    double first_break_s = -1;
    long first_break_run = -1;
    std::atomic<bool> stop{false};
    Runner runner(paths, keep_dir);
    auto worker = [&]() {
        for (;;) {
            size_t k = next++;
            if (k >= todo.size() || stop)
                return;
            Plan p = make_plan(todo[k], seed, max_image);
            Outcome o = runner.run(p);
            std::lock_guard<std::mutex> lock(mu);
            n++;
            expected_success += p.expect == 1;
            either += p.expect < 0;
            (o.tool_success ? successes : failures)++;
            bool fs_ = Runner::false_success(o);
            false_successes += fs_;
            hangs += o.hang;
            abnormal += o.abnormal;
            setup += o.setup_failed;
            bool unexp = Runner::unexpected(p, o);
            unexpected += unexp;
            missed += !o.tool_success && o.mcu_has_image;
            bool broke = Runner::breaks_rule(p, o);
            breaks += broke;
            if (broke && first_break_s < 0) {
                first_break_s = now_s() - start;
                first_break_run = p.index;
            }
            if (broke && fail_fast)
                stop = true;
            if (!quiet || broke) {
                printf("%s -> %s%s, %.1f s%s%s%s%s%s\n", describe(p).c_str(),
                       o.tool_success ? "success" : "failure",
                       !o.tool_success && o.mcu_has_image ? " (MCU has the image)" : "", o.seconds,
                       fs_ ? " FALSE SUCCESS" : "", o.hang ? " HANG" : "",
                       unexp ? " UNEXPECTED" : "", o.abnormal ? " ABNORMAL" : "",
                       o.note.empty() ? "" : (" [" + o.note + "]").c_str());
                fflush(stdout);
            }
        }
    };
    std::vector<std::thread> threads;
    for (unsigned j = 0; j < std::max(1u, std::min<unsigned>(jobs, todo.size())); j++)
        threads.emplace_back(worker);
    for (std::thread& t : threads)
        t.join();
    double wall = now_s() - start;
    printf(
        "soak: runs %u, successes %u, failures %u, false successes %u, hangs %u, unexpected "
        "outcomes %u, abnormal exits %u, setup failures %u; missed successes %u (informational), "
        "expected successes %u, either outcome %u; wall %.1f s, seed %llu\n",
        n, successes, failures, false_successes, hangs, unexpected, abnormal, setup, missed,
        expected_success, either, wall, static_cast<unsigned long long>(seed));
    if (breaks > 0)
        printf(
            "soak: %u runs broke the rule, the first (run %ld) after %.1f s; transcripts in %s/\n",
            breaks, first_break_run, first_break_s, keep_dir.c_str());
    return breaks > 0 ? 1 : 0;
}
