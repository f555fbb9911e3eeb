// Test-side helpers for the virtual MCU: start and stop a vmcu process, run a
// program (the tool, or the SPI test client) against it, and small file and
// hex utilities. Used by the vmcu smoke test and the end-to-end tests.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vmcu_test {

class VmcuProcess {
public:
    VmcuProcess() = default;
    ~VmcuProcess();
    VmcuProcess(const VmcuProcess&) = delete;
    VmcuProcess& operator=(const VmcuProcess&) = delete;

    // Starts `vmcu_path` with `args` and waits up to `ready_ms` for its
    // "pty: PATH" or "spi: PATH" line. False (with *err) on failure.
    bool start(const std::string& vmcu_path, const std::vector<std::string>& args, std::string* err,
               int ready_ms = 5000);
    // The pty slave path or the socket path the vmcu announced.
    const std::string& endpoint() const { return endpoint_; }
    pid_t pid() const { return pid_; }
    // SIGTERM, then waits up to 3 s (SIGKILL after that). Returns the exit
    // status as from waitpid(), or -1 when nothing was running.
    int stop();

private:
    pid_t pid_ = -1;
    int out_fd_ = -1;
    std::string endpoint_;
};

struct RunResult {
    int status = -1;  // waitpid() status
    bool timed_out = false;
    std::string output;  // stdout and stderr, interleaved
};

// Runs argv[0] with the arguments, the current environment plus `env`
// ("NAME=value", replacing variables of the same name), for at most
// `timeout_ms` (then SIGKILL).
RunResult run_program(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                      int timeout_ms);

// Environment that points a program's "spidev0.0" at a vmcu --spi socket.
// Also relaxes AddressSanitizer's library-order check, which a preloaded
// library would otherwise trip in a sanitized program.
std::vector<std::string> spidev_env(const std::string& shim_path, const std::string& socket);

// A fresh private directory under $TMPDIR (or /tmp).
std::string make_temp_dir();
void remove_tree(const std::string& dir);
std::string read_file(const std::string& path);
std::vector<std::string> read_lines(const std::string& path);

std::vector<uint8_t> from_hex(const std::string& hex);
std::string to_hex(const std::vector<uint8_t>& bytes);

// Opens a pty slave like a raw serial port (8N1, no echo, VMIN 0, VTIME 0).
int open_raw_tty(const std::string& path);
// Reads from fd until `want` bytes arrived or `timeout_ms` passed.
std::vector<uint8_t> read_bytes(int fd, size_t want, int timeout_ms);

}  // namespace vmcu_test
