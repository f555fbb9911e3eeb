// End-to-end test harness: runs the real mcu_tool2 binary and the virtual MCU
// as child processes (behind the cross build's emulator, and the tool behind
// MCU_TOOL_WRAPPER such as valgrind, when set), captures what they print, and
// normalises what changes from run to run.
#ifndef MCU_TEST_HARNESS_H
#define MCU_TEST_HARNESS_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace harness {

struct RunResult {
    std::string out, err;       // standard output and error
    int status = -1;            // exit status, or 128 + signal
    double seconds = 0;         // wall time
    std::string out_at_signal;  // standard output read before the signal was sent
};

// A signal sent to the child `after_s` seconds after its start (none when 0).
struct Signal {
    int sig = 0;
    double after_s = 0;
};

// Runs the tool with `args`; `env` entries ("NAME=value") replace inherited
// ones. A tool still running after `limit_s` is killed (status 137). A report
// of the wrapper or a sanitizer fails the test that ran it.
RunResult run_tool(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                   double limit_s = 120, Signal sig = {});

// Seconds a wrapped tool needs beyond a native one to start and to end
// (MCU_TOOL_WRAPPER_SLACK_S, else 3 with a wrapper, 0 without).
double tool_slack_s();
const std::string& tool_path();

// Source lines of diagnostics, trace stamps, the statistics' elapsed time and
// the build stamp replaced by "#", "<T>", "#.###" and "<stamp>".
std::string normalize(const std::string& text);

// A scratch directory, removed at destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::string write(const std::string& name, const std::string& bytes) const;

private:
    std::string path_;
};

std::string read_file(const std::string& path);

// The virtual MCU as a child process, on a pseudo-terminal or behind the
// emulated /dev/spidev0.0, logging into its own scratch directory.
class Vmcu {
public:
    enum Link { kTty, kSpi };
    Vmcu(Link link, const std::vector<std::string>& args = {});
    ~Vmcu() { stop(); }
    Vmcu(const Vmcu&) = delete;
    Vmcu& operator=(const Vmcu&) = delete;

    bool ok() const { return pid_ > 0 && !dev_.empty(); }
    Link link() const { return link_; }
    const std::string& dev() const { return dev_; }
    // Environment the tool needs to reach this MCU (the SPI emulation).
    std::vector<std::string> env() const;
    void stop();  // the log is complete afterwards
    std::vector<std::string> log_lines() const;
    // Lines that start with `prefix`, without it.
    std::vector<std::string> log(const std::string& prefix) const;
    // What the tool prints when it opens this MCU's device at 115200.
    std::string open_lines() const;

private:
    Link link_;
    TempDir dir_;
    std::string dev_, socket_;
    int pid_ = -1, out_fd_ = -1;
};

}  // namespace harness

#endif  // MCU_TEST_HARNESS_H
