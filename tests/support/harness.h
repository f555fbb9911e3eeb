// End-to-end test harness: runs the real mcu_tool2 binary and the virtual MCU
// as child processes (behind the cross build's emulator, and the tool behind
// MCU_TOOL_WRAPPER such as valgrind, when set) and captures what they print.
#ifndef MCU_TEST_HARNESS_H
#define MCU_TEST_HARNESS_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace harness {

using Lines = std::vector<std::string>;

struct RunResult {
    std::string out, err, out_at_signal;  // out_at_signal: read before the signal was sent
    int status = -1;                      // exit status, or 128 + signal
    double seconds = 0;
};

// Runs the tool with `args`; `env` entries ("NAME=value") replace inherited
// ones; `sig`, when not 0, is sent `sig_at` seconds after the start. A tool
// still running after 120 s is killed. A report of the wrapper or a
// sanitizer fails the test that ran it.
RunResult run_tool(const Lines& args, const Lines& env, int sig = 0, double sig_at = 0);

// Seconds a wrapped tool needs beyond a native one to start and to end
// (MCU_TOOL_WRAPPER_SLACK_S, else 3 with a wrapper, 0 without).
double tool_slack_s();

// Source lines of diagnostics, trace stamps, the statistics' elapsed time and
// the build stamp replaced by "#", "<T>", "#.###" and "<stamp>".
std::string normalize(const std::string& text);
std::string read_file(const std::string& path);

// A scratch directory, removed at destruction.
struct TempDir {
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    std::string file(const std::string& name) const { return path + "/" + name; }
    std::string write(const std::string& name, const std::string& bytes) const;
    std::string path;
};

// The virtual MCU as a child process, on a pseudo-terminal or behind the
// emulated /dev/spidev0.0, logging into its own scratch directory.
class Vmcu {
public:
    enum Link { kTty, kSpi };
    Vmcu(Link link, const Lines& args);
    ~Vmcu() { stop(); }
    Vmcu(const Vmcu&) = delete;

    bool ok() const { return pid_ > 0 && !dev_.empty(); }
    const std::string& dev() const { return dev_; }
    Lines env() const;  // what the tool needs to reach it (the SPI emulation)
    void stop();        // the log is complete afterwards
    Lines log(const std::string& prefix = "") const;  // its lines that start so, without it

private:
    Link link_;
    TempDir dir_;
    std::string dev_;
    int pid_ = -1, out_fd_ = -1;
};

}  // namespace harness

#endif  // MCU_TEST_HARNESS_H
