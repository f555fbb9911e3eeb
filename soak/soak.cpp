// Upgrade soak: the real tool against the virtual MCU with a random image, upgrade parameters
// (the MCU's defaults, some fields anywhere in 0..65535), link and injected faults. The rule: the
// tool reports success exactly when the MCU holds the identical image, checked its CRC and was
// told to start it (a fault on the answer to that start excuses a missing success line); the
// MCU's CRC check never fails; the tool ends with status 0 within kBoundS. Run I of seed S is the
// same on every invocation: DIR/run-I/run.sh, kept with its transcripts when it breaks the rule.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

// The MCU's default upgrade parameters (wire order: program time-out, retries, chunk size,
// erase, CRC check, app start and bootloader time-outs, message time-out), and the time a run
// may take: a hang, not a slow run.
constexpr unsigned kDefaults[8] = {1000, 3, 240, 20, 2, 2, 2, 500};
constexpr unsigned kBoundS = 240;
// The message ids of steps 0 to 7 (chunks: D9), and the fault actions of the virtual MCU.
const std::string kIds[8] = {"DE", "D6", "D1", "D7", "D8", "D9", "DC", "DD"};
const char* const kKinds[] = {
    "silent",      "silent",     "noack",      "noack",     "nak",          "nak",     "code",
    "busy",        "busy",       "badcrc",     "badsum",    "biglen",       "badseq",  "badsys",
    "badcomp",     "lowid",      "long",       "ack",       "short=0",      "short=2", "garbage=5",
    "garbage=250", "otherid=E5", "otherid=FE", "heartbeat", "debugreply=1", "xferfail"};

using Clock = std::chrono::steady_clock;

std::string slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

std::mutex g_mu;
unsigned g_successes, g_failures, g_breaks;

// Draws run `index` of `seed`, runs it in `dir` and reports it (only when it
// breaks the rule with `quiet`).
void run(unsigned long long seed, unsigned index, const std::string& dir, bool quiet) {
    std::mt19937_64 gen(seed * 0x9E3779B97F4A7C15ull + index);
    auto range = [&](unsigned lo, unsigned hi) {
        return std::uniform_int_distribution<unsigned>(lo, hi)(gen);
    };
    auto unit = [&] { return std::uniform_real_distribution<>(0, 1)(gen); };
    auto coin = [&](double p) { return unit() < p; };
    const bool spi = coin(0.5), fw_only = coin(0.3);
    bool app_go_faulted = false;
    std::string image(std::clamp(static_cast<unsigned>(std::exp(13 * unit())), 1u, 262144u), 0);
    for (char& c : image)
        c = static_cast<char>(gen());

    // Parameters: mostly the defaults, sometimes anything, rarely a short payload.
    unsigned bytes = coin(0.03) ? 2 * range(0, 7) : 16, chunks = 0;
    std::string hex, params;
    for (unsigned f = 0, v; f < 8; f++, params += (f > 1 ? "," : "") + std::to_string(v)) {
        v = coin(0.2) ? static_cast<unsigned>(std::exp(std::log(65536.0) * unit()) - 1)
                      : kDefaults[f];
        if (f == 2 && spi && coin(0.9))
            v = range(240, 518);         // the largest chunk that one SPI block carries
        for (int shift : {4, 0, 12, 8})  // little-endian
            hex += "0123456789ABCDEF"[v >> shift & 15];
        chunks = f == 2 ? image.size() / (v + 1) + 1 : chunks;
    }
    std::string vmcu = " --timeretry '" + hex.substr(0, 2 * bytes) + "' --flash-size " +
                       std::to_string(coin(0.02) ? image.size() - 1 : 1u << 20);
    std::discrete_distribution<int> pick({8, fw_only ? 0. : 6, fw_only ? 0. : 6, 7, 3, 36, 10, 9});
    for (unsigned n = std::min(range(0, 5), range(0, 5)), chunk = 0; n > 0; n--) {
        const int k = pick(gen);
        std::string kind = kKinds[range(0, std::size(kKinds) - 1)];
        // Mostly a few times, sometimes more, sometimes for good (*0: an MCU gone mute).
        unsigned count = coin(0.3) ? range(0, 9) : range(1, 2);
        if (kind == "nak" || kind == "code" || kind == "xferfail")
            count = 1;
        if (kind == "code")  // refusals; on SPI also unknown codes, which the tool ignores
            kind += "=" + std::to_string(coin(0.3) ? range(9, 255) : "1345678"[range(0, 6)] - '0');
        if (kind == "busy") {
            kind += "=" + std::to_string(coin(0.1) ? range(7000, 9000) : range(0, 1500));
            count = range(1, 2);
        }
        if (k == 5 && chunk < chunks) {  // the fault starts at a random later chunk
            const unsigned skip = range(0, chunks - 1 - chunk);
            if (skip > 0)
                vmcu += " --rule 'D9:ack*" + std::to_string(skip) + "'";
            chunk += skip + count;
        }
        vmcu += " --rule '" + kIds[k] + ":" + kind + "*" + std::to_string(count) + "'";
        app_go_faulted |= k == 7;
    }
    // Unsolicited frames; on a pty for another component (a heartbeat ends a pty exchange).
    const char* emit[] = {"heartbeat", "syslog", "user=soak", "frame=E9C0FFEE"};
    if (coin(0.2))
        vmcu += " --emit " + (emit[range(0, 3)] + ("@" + std::to_string(range(50, 700)))) +
                " --peer " + (spi ? "02" : "05") + " --emit-start " +
                std::to_string(range(0, 2000));
    const std::string text =
        "run " + std::to_string(index) + " seed " + std::to_string(seed) + ": " +
        (spi ? "spi " : "pty ") + (fw_only ? "--upgrade-fw, " : "--upgrade, ") +
        std::to_string(image.size()) + " bytes, params " + params + ", vmcu" + vmcu;

    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "/app.bin", std::ios::binary) << image;
    std::ofstream(dir + "/run.sh")
        << "# " << text << "\ncd \"$(dirname \"$0\")\"\n"
        << SOAK_VMCU_PATH " --log vmcu.log --image received.bin --exit-after "
        << 1000 * kBoundS + 60000 << vmcu << (spi ? " --spi spi.sock" : " --pty")
        << " >vmcu.out 2>vmcu.err & vmcu=$!\n"
        // The vmcu's first line names the device.
        << "up() { [ \"$(cat vmcu.out 2>/dev/null | wc -l)\" -gt 0 ]; }\n"
        << "for i in $(seq 1000); do up && break; sleep 0.01; done\n"
        << "up || { echo no vmcu >status; kill $vmcu; exit; }\n"
        << (spi ? "export LD_PRELOAD=" SOAK_SHIM_PATH
                  " VMCU_SPI_SOCKET=spi.sock "
                  "ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0\n"
                : "")
        << "timeout -s KILL " << kBoundS << " " SOAK_TOOL_PATH " -id 0xA -dev "
        << (spi ? "/dev/spidev0.0" : "$(sed -n 's/^pty: //p' vmcu.out)")
        << (fw_only ? " --upgrade-fw" : " --upgrade") << " app.bin >tool.out 2>tool.err\n"
        << "echo $? >status\nkill $vmcu\nwait $vmcu\n";
    const Clock::time_point start = Clock::now();
    const int sh = std::system(("sh '" + dir + "/run.sh'").c_str());
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const std::string log = slurp(dir + "/vmcu.log"), status = slurp(dir + "/status");
    const bool success =
        slurp(dir + "/tool.out").find("upgrade app.bin successfully\n") != log.npos;
    const size_t crc_ok = log.rfind("\nCRC ok"), app_go = log.rfind("\nAPP_GO ");
    const bool started = app_go != log.npos && crc_ok != log.npos && crc_ok < app_go &&
                         slurp(dir + "/received.bin") == image;
    std::string why;  // a sanitizer report ends the tool with a non-zero status too
    if (sh == -1 || status != "0\n")
        why = status == "137\n" ? "still running at the bound"
                                : "status " + status.substr(0, status.size() - 1);
    else if (success != started && (success || !app_go_faulted))
        why = success ? "success reported, but the MCU did not verify and start the image"
                      : "the MCU verified and started the image, but the tool reports failure";
    else if (log.find("\nCRC bad") != log.npos)
        why = "the MCU's CRC check failed: the tool sent something other than the file";
    if (why.empty())
        std::filesystem::remove_all(dir);
    std::lock_guard<std::mutex> lock(g_mu);
    (success ? g_successes : g_failures)++;
    g_breaks += !why.empty();
    if (!quiet || !why.empty())
        printf("%s -> %s in %.1f s%s\n", text.c_str(), success ? "success" : "failure", seconds,
               why.empty() ? "" : ("; BROKE THE RULE (" + dir + "): " + why).c_str());
    fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    unsigned long long seed = std::random_device()();
    unsigned runs = 0, jobs = 4;
    std::string keep = "soak-breaks";
    bool quiet = false, bad = false;
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i], v = i + 1 < argc ? argv[i + 1] : "";
        if (a == "--quiet")
            quiet = true;
        else if (a == "--seed" && ++i)
            seed = strtoull(v.c_str(), nullptr, 0);
        else if (a == "--jobs" && ++i)
            jobs = std::max(1ul, strtoul(v.c_str(), nullptr, 10));
        else if (a == "--keep" && ++i)
            keep = v;
        else
            bad |= a[0] == '-' || (runs = strtoul(a.c_str(), nullptr, 10)) == 0;
    }
    if (bad || runs == 0)
        return printf("usage: soak RUNS [--seed S] [--jobs J] [--keep DIR] [--quiet]\n"), 2;
    printf("soak: seed %llu, %u runs, %u jobs\n", seed, runs, jobs);
    fflush(stdout);
    std::atomic<unsigned> next{0};
    const Clock::time_point start = Clock::now();
    std::vector<std::thread> workers;
    for (unsigned j = 0; j < jobs; j++)
        workers.emplace_back([&] {
            for (unsigned i; (i = next++) < runs;)
                run(seed, i, keep + "/run-" + std::to_string(i), quiet);
        });
    for (std::thread& w : workers)
        w.join();
    std::error_code no_breaks;
    std::filesystem::remove(keep, no_breaks);  // only if empty
    printf("soak: runs %u, successes %u, failures %u, rule breaks %u; wall %.1f s, seed %llu\n",
           g_successes + g_failures, g_successes, g_failures, g_breaks,
           std::chrono::duration<double>(Clock::now() - start).count(), seed);
    return g_breaks > 0 ? 1 : 0;
}
