// No descriptor outlives the link: the library's public calls, in this
// process, against the virtual MCU (the spidev emulation is preloaded into
// the test's environment, so /dev/spidev0.0 reaches a vmcu started with
// --spi once VMCU_SPI_SOCKET names its socket).
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <list>
#include <set>
#include <string>

#include "mcu_tool2.h"

// A sanitized build accepts the preloaded emulation before its runtime.
extern "C" const char* __asan_default_options() {
    return "verify_asan_link_order=0";
}

namespace {

// The virtual MCUs this test starts run without the preloaded emulation.
struct ChildrenWithoutPreload {
    ChildrenWithoutPreload() { unsetenv("LD_PRELOAD"); }
} children_without_preload;

// A virtual MCU on a pty or behind the emulated /dev/spidev0.0 (files at
// `base`), started by a shell that names its pid first.
struct Vmcu {
    FILE* out;
    int pid = 0;
    std::string sock, dev;
    Vmcu(bool spi, const std::string& base, const std::string& args) : sock(base + ".sock") {
        std::string emulator = MCU_EMULATOR;
        std::replace(emulator.begin(), emulator.end(), '|', ' ');
        out = popen(("echo $$; exec " + emulator + " " MCU_VMCU_PATH " --log " + base + ".log " +
                     (spi ? "--spi " + sock : "--pty") + " " + args)
                        .c_str(),
                    "r");
        char line[256] = "";  // "pty: /dev/pts/N" or "spi: PATH"
        EXPECT_TRUE(fscanf(out, "%d\n", &pid) == 1 && fgets(line, sizeof line, out) != nullptr);
        dev = spi ? "/dev/spidev0.0" : std::string(line + 5, strcspn(line + 5, "\n"));
        use();
    }
    ~Vmcu() { stop(); }
    // Points the library (which keeps the path by pointer, so it lives as
    // long as the process) and the emulation at this MCU.
    void use() const {
        static std::list<std::string> paths;
        setenv("VMCU_SPI_SOCKET", sock.c_str(), 1);
        set_comp_id(0x0A);
        set_serial_dev(paths.emplace_back(dev).c_str());
    }
    void stop() {
        if (out != nullptr && kill(pid, SIGTERM) == 0)
            pclose(std::exchange(out, nullptr));
    }
};

// What the descriptors of this process refer to.
std::multiset<std::string> open_descriptors() {
    std::multiset<std::string> fds;
    std::error_code ec;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd", ec))
        fds.insert(std::filesystem::read_symlink(fd.path(), ec).string());
    return fds;
}

class Descriptors : public testing::TestWithParam<bool> {};

TEST_P(Descriptors, EveryPublicCallClosesWhatItOpened) {
    char tmpl[] = "/tmp/mcu_test_XXXXXX";
    const std::string dir = mkdtemp(tmpl), image = dir + "/app.bin";
    std::ofstream(image) << std::string(1000, '\x5a');
    Vmcu mcu(GetParam(), dir + "/a", "--emit heartbeat@100*3");
    const auto before = open_descriptors();
    ASSERT_EQ(mcu_init(), 0);
    EXPECT_GT(open_descriptors().size(), before.size());
    mcu_uninit();
    mcu_uninit();  // a link already down closes nothing else
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(mcu_version(), 0);
    EXPECT_EQ(mcu_serial(), 0);
    EXPECT_EQ(mcu_reset(RESET_TYPE_DRYRUN), 0);
    EXPECT_EQ(mcu_debug_clear_stts(), 0);
    EXPECT_EQ(mcu_monitor_message(0xFF, 1), 0);
    set_upgrade_type(UPGRADE_TYPE_FW_ONLY);
    EXPECT_EQ(mcu_upgrade(image.c_str()), 0);
    EXPECT_EQ(open_descriptors(), before);
    // Failures: a refused CRC check, a failed SPI transfer (TTY: no answer),
    // devices that cannot be set up, a vanished SPI peer or a closed pty.
    Vmcu faulty(GetParam(), dir + "/b", "--rule DC:nak --rule DB:xferfail*0");
    const auto with_faulty = open_descriptors();
    EXPECT_EQ(mcu_upgrade(image.c_str()), -1);
    EXPECT_LT(mcu_version(), 0);
    for (const char* path : {"/nonexistent/ttyS9", "/dev/null", "/tmp"}) {
        set_serial_dev(path);
        EXPECT_EQ(mcu_version(), -1) << path;
    }
    EXPECT_EQ(open_descriptors(), with_faulty);
    faulty.stop();
    faulty.use();
    const auto stopped = open_descriptors();
    EXPECT_EQ(mcu_version(), -1);
    EXPECT_EQ(open_descriptors(), stopped);
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
}

INSTANTIATE_TEST_SUITE_P(Links, Descriptors, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& i) {
                             return std::string(i.param ? "Spi" : "Tty");
                         });

}  // namespace
