// Upgrade soak, `soak RUNS SEED JOBS DIR`: the real tool against the virtual MCU with random
// images, upgrade parameters, link and injected faults. The rule: the tool reports success exactly
// when the MCU holds the identical image, checked its CRC and was told to start it (a fault on the
// answer to that start excuses a missing success line); the MCU's CRC check never fails; the tool
// ends with status 0 within kBoundS. DIR/run-I/run.sh replays run I, kept if it breaks the rule.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace {

// The virtual MCU's default upgrade parameters in wire order (the third: the chunk size).
constexpr unsigned kDefaults[8] = {1000, 3, 240, 20, 2, 2, 2, 500};
constexpr unsigned kBoundS = 240;  // a run still going then hangs
// The message ids of steps 0 to 7 (chunks: D9), and the fault actions of the virtual MCU.
const std::string kIds[8] = {"DE", "D6", "D1", "D7", "D8", "D9", "DC", "DD"};
const char* const kKinds[] = {
    "silent",      "silent",     "noack",      "noack",     "nak",          "nak",     "code",
    "busy",        "busy",       "badcrc",     "badsum",    "biglen",       "badseq",  "badsys",
    "badcomp",     "lowid",      "long",       "ack",       "short=0",      "short=2", "garbage=5",
    "garbage=250", "otherid=E5", "otherid=FE", "heartbeat", "debugreply=1", "xferfail"};

std::string slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

// Writes run `index` of `seed` into `dir`: app.bin and run.sh.
void prepare(unsigned long long seed, unsigned index, const std::string& dir) {
    std::mt19937_64 gen(seed * 0x9E3779B97F4A7C15ull + index);
    auto range = [&](unsigned a, unsigned b) { return std::uniform_int_distribution(a, b)(gen); };
    auto unit = [&] { return std::generate_canonical<double, 64>(gen); };
    auto coin = [&](double p) { return unit() < p; };
    const bool spi = coin(0.5), fw_only = coin(0.3);
    std::string image(std::clamp(unsigned(std::exp(13 * unit())), 1u, 262144u), 0);
    std::generate(image.begin(), image.end(), gen);
    // Parameters: mostly the defaults, sometimes anything, on SPI mostly a chunk one SPI block
    // carries; rarely a short reply.
    std::string hex;
    unsigned chunks = 0;
    for (unsigned f = 0; f < 8; f++) {
        unsigned v = coin(0.2) ? unsigned(std::exp2(16 * unit()) - 1) : kDefaults[f];
        v = f == 2 && spi && coin(0.9) ? range(kDefaults[2], 518) : v;
        for (int shift : {4, 0, 12, 8})  // little-endian
            hex += "0123456789ABCDEF"[v >> shift & 15];
        chunks = f == 2 ? image.size() / (v + 1) + 1 : chunks;
    }
    std::string vmcu = " --timeretry '" + hex.substr(0, coin(0.03) ? 4 * range(0, 7) : 32) +
                       "' --flash-size " + std::to_string(coin(0.02) ? image.size() - 1 : 1u << 20);
    std::discrete_distribution<int> pick({8, fw_only ? 0. : 6, fw_only ? 0. : 6, 7, 3, 36, 10, 9});
    for (unsigned n = std::min(range(0, 5), range(0, 5)), chunk = 0; n > 0; n--) {
        const int k = pick(gen);
        std::string kind = kKinds[range(0, std::size(kKinds) - 1)];
        // Mostly a few times, sometimes more, sometimes for good (*0: an MCU gone mute).
        unsigned count = coin(0.3) ? range(0, 9) : range(1, 2);
        if (kind == "nak" || kind == "code" || kind == "xferfail" || kind == "busy")
            count = range(1, kind == "busy" ? 2 : 1);
        if (kind == "code")  // refusals; on SPI also unknown codes, which the tool ignores
            kind += "=" + std::to_string(coin(0.3) ? range(9, 255) : "1345678"[range(0, 6)] - '0');
        if (kind == "busy")
            kind += "=" + std::to_string(coin(0.1) ? range(7000, 9000) : range(0, 1500));
        const unsigned skip = k == 5 && chunk < chunks ? range(0, chunks - 1 - chunk) : 0;
        if (skip > 0)  // the fault starts at a random later chunk
            vmcu += " --rule 'D9:ack*" + std::to_string(skip) + "'";
        chunk += k == 5 ? skip + count : 0;
        vmcu += " --rule '" + kIds[k] + ":" + kind + "*" + std::to_string(count) + "'";
    }
    // Unsolicited frames; on a pty for another component (a heartbeat ends a pty exchange).
    const char* emit[] = {"heartbeat", "syslog", "user=soak", "frame=E9C0FFEE"};
    if (coin(0.2))
        vmcu += " --emit " + (emit[range(0, 3)] + ("@" + std::to_string(range(50, 700)))) +
                " --peer " + (spi ? "02" : "05") + " --emit-start " +
                std::to_string(range(0, 2000));
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "/app.bin", std::ios::binary) << image;
    std::ofstream(dir + "/run.sh")
        << "# run " << index << " of seed " << seed << "\ncd \"$(dirname \"$0\")\"\n. " SOAK_VMCU_SH
        << "\nvmcu_start vmcu.out " SOAK_VMCU_PATH
           " --log vmcu.log --image received.bin --exit-after "
        << 1000 * kBoundS + 60000 << vmcu << (spi ? " --spi spi.sock" : " --pty") << "\n"
        << (spi ? "export LD_PRELOAD=" SOAK_SHIM_PATH " VMCU_SPI_SOCKET=spi.sock\n" : "")
        << "timeout -s KILL " << kBoundS << " " SOAK_TOOL_PATH " -id 0xA -dev "
        << (spi ? "/dev/spidev0.0" : "$pty") << (fw_only ? " --upgrade-fw" : " --upgrade")
        << " app.bin >tool.out 2>tool.err\necho $? >status\nvmcu_stop\n";
}

// Judges the run in `dir`: counts a success, prints the run and keeps it when it broke the rule.
bool broke(const std::string& dir, unsigned& successes) {
    const std::string log = slurp(dir + "/vmcu.log"), status = slurp(dir + "/status");
    const bool success = slurp(dir + "/tool.out").find(" successfully\n") != log.npos;
    const size_t crc_ok = log.rfind("\nCRC ok"), app_go = log.rfind("\nAPP_GO ");
    const bool started = crc_ok < app_go && app_go != log.npos &&
                         slurp(dir + "/received.bin") == slurp(dir + "/app.bin");
    const std::string why =
        status != "0\n" ? "status " + status.substr(0, status.find('\n'))  // 137: at the bound
        : success != started && (success || slurp(dir + "/run.sh").find("'DD:") == log.npos)
            ? "the tool's verdict disagrees with the MCU"
        : log.find("\nCRC bad") != log.npos ? "the MCU's CRC check failed"
                                            : "";
    successes += success;
    if (why.empty())
        return std::filesystem::remove_all(dir), false;
    printf("%s/run.sh -> %s; BROKE THE RULE: %s\n", dir.c_str(), success ? "success" : "failure",
           why.c_str());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5 || atoi(argv[1]) <= 0 || atoi(argv[3]) <= 0)
        return printf("usage: soak RUNS SEED JOBS DIR\n"), 2;
    const unsigned runs = atoi(argv[1]);
    const std::string dir = argv[4];
    for (unsigned i = 0; i < runs; i++)
        prepare(strtoull(argv[2], nullptr, 0), i, dir + "/run-" + std::to_string(i));
    const std::string each = "cd '" + dir + "' && seq 0 " + std::to_string(runs - 1);
    if (std::system((each + " | xargs -P " + argv[3] + " -I{} bash run-{}/run.sh").c_str()) == -1)
        return printf("soak: no shell\n"), 2;
    unsigned successes = 0, breaks = 0;
    for (unsigned i = 0; i < runs; i++)
        breaks += broke(dir + "/run-" + std::to_string(i), successes);
    std::remove(dir.c_str());  // only if empty
    printf("soak: seed %s, runs %u, successes %u, failures %u, rule breaks %u\n", argv[2], runs,
           successes, runs - successes, breaks);
    return breaks > 0 ? 1 : 0;
}
