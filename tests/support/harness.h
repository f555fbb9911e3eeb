// End-to-end test harness: runs the real mcu_tool2 binary (and the virtual
// MCU) as child processes, captures what they print, and normalises the parts
// of a transcript that change from run to run or from build to build.
#ifndef MCU_TEST_HARNESS_H
#define MCU_TEST_HARNESS_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace harness {

struct RunResult {
    std::string out;  // standard output
    std::string err;  // standard error
    int status = -1;  // exit status, or 128 + signal
    double seconds = 0;
    std::string out_at_signal;  // standard output read before the signal was sent
};

// A signal sent to the child `after_s` seconds after it started (none when
// `sig` is 0).
struct Signal {
    int sig = 0;
    double after_s = 0;
};

// Runs `program` with `args`; `env` entries ("NAME=value") are added to the
// environment. A child still running after `limit_s` seconds is killed and
// the run reported as status 137.
RunResult run(const std::string& program, const std::vector<std::string>& args,
              const std::vector<std::string>& env = {}, double limit_s = 120, Signal sig = {});

// Runs the tool under test, behind the words of the environment variable
// MCU_TOOL_WRAPPER when it is set (a checker such as "valgrind
// --error-exitcode=99 -q ..."). A report of the wrapper ("==<pid>==" lines on
// standard error, or exit status 99) fails the test that ran the tool; the
// report lines are removed from `err`.
RunResult run_tool(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                   double limit_s = 120, Signal sig = {});

// ASAN_OPTIONS entry that lets a sanitized tool run with a preloaded library.
std::string preload_asan_options();

// True when target programs run under a cross-compiling emulator.
bool under_emulator();

// True when MCU_TOOL_WRAPPER puts a wrapper in front of the tool.
bool tool_wrapped();
// Seconds a wrapped tool may need beyond a native one to start and to end:
// MCU_TOOL_WRAPPER_SLACK_S, else 3 with a wrapper; 0 without one. Tests that
// time the tool, or emit at a fixed time after the MCU started, add it.
double tool_slack_s();
// Milliseconds as text, with the tool's slack added: for "--emit-start".
std::string after_tool_start_ms(int ms);

// Path of the tool under test, as the tests pass it for argv[0].
const std::string& tool_path();

// Replaces what varies between runs and builds: the source line in
// diagnostics ("mcu_init 123, " -> "mcu_init #, "), trace time stamps
// ("<1700000000.123456>" -> "<T>"), the statistics' elapsed time
// ("elapse 1.234 s" -> "elapse #.### s") and the build stamp of the version
// line ("Build Nov 23 2026 00:14:50" -> "Build <stamp>").
std::string normalize(const std::string& text);

// The version line as the tool prints it, normalised.
std::string version_line();
// The usage text for argv[0] = tool_path().
std::string usage_text();

// The statistics block printed when the link goes down, for the given
// counter lines. `tx` and `rx` are the per-id rows ("   [0xdb]           1\n"...).
struct Stats {
    unsigned tx_bytes = 0, tx_pkts = 0, tx_fail = 0;
    std::string tx_rows;
    unsigned rx_bytes = 0, rx_pkts = 0, crc = 0, len = 0, sum = 0, seq = 0, sys = 0, dst = 0,
             cmd = 0;
    std::string rx_rows;
    bool monitor = false;  // the monitor drops the Seq, Sys, Dst and Cmd lines
    bool no_seq = false;   // --ignore-seq drops the Seq line
    bool flood = false;    // the flood test drops the Seq, Sys and Dst lines
};
std::string stats_block(const Stats& s);
// One per-id row of the statistics.
std::string id_row(unsigned id, unsigned count);

// A scratch directory removed at destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Writes `bytes` to a file in the directory and returns its path.
    std::string write(const std::string& name, const std::string& bytes) const;

private:
    std::string path_;
};

std::string read_file(const std::string& path);

// The virtual MCU as a child process, on a pseudo-terminal or behind the
// emulated /dev/spidev0.0, recording into a log in its own scratch directory.
class Vmcu {
public:
    enum Link { kTty, kSpi };
    Vmcu(Link link, const std::vector<std::string>& args = {});
    ~Vmcu();
    Vmcu(const Vmcu&) = delete;
    Vmcu& operator=(const Vmcu&) = delete;

    bool ok() const { return pid_ > 0 && !dev_.empty(); }
    Link link() const { return link_; }
    // Device path for the tool's -dev option.
    const std::string& dev() const { return dev_; }
    // Environment the tool needs to reach this MCU (the SPI emulation).
    std::vector<std::string> env() const;
    // Runs the tool with "-id <id> -dev <dev>" in front of `args`.
    RunResult run_tool(const std::vector<std::string>& args, const std::string& id = "0xA",
                       double limit_s = 120) const;
    // Stops the MCU (its log is complete afterwards).
    void stop();
    // Lines of the log, and those that start with `prefix` (prefix removed).
    std::vector<std::string> log_lines() const;
    std::vector<std::string> log(const std::string& prefix) const;
    // Path of a file in the MCU's scratch directory.
    std::string file(const std::string& name) const { return dir_.file(name); }

private:
    Link link_;
    TempDir dir_;
    std::string dev_;
    std::string socket_;
    int pid_ = -1;
    int out_fd_ = -1;
};

// Test-name suffix of a link: "Tty" or "Spi".
std::string link_name(const testing::TestParamInfo<Vmcu::Link>& info);
// What the tool prints when it opens the MCU's device at the default speed.
std::string open_lines(const Vmcu& mcu);

}  // namespace harness

#endif  // MCU_TEST_HARNESS_H
