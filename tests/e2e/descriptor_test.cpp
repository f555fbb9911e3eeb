// No descriptor outlives the link: the library's public calls, in this
// process, against the virtual MCU (the spidev emulation is preloaded into
// the test's environment, so /dev/spidev0.0 reaches a vmcu started with
// --spi once VMCU_SPI_SOCKET names its socket).
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <list>
#include <set>
#include <string>

#include "harness.h"
#include "mcu_tool2.h"

using harness::Vmcu;

// A sanitized build accepts the preloaded emulation before its runtime.
extern "C" const char* __asan_default_options() {
    return "verify_asan_link_order=0";
}

namespace {

// The virtual MCUs this test starts run without the preloaded emulation.
struct ChildrenWithoutPreload {
    ChildrenWithoutPreload() { unsetenv("LD_PRELOAD"); }
} children_without_preload;

// What the descriptors of this process refer to.
std::multiset<std::string> open_descriptors() {
    std::multiset<std::string> fds;
    std::error_code ec;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd", ec))
        fds.insert(std::filesystem::read_symlink(fd.path(), ec).string());
    return fds;
}

// Points the library and the emulation at `mcu` (the library keeps the path
// by pointer, so it must live as long as the process).
void use(const Vmcu& mcu) {
    for (const std::string& e : mcu.env())
        if (e.rfind("VMCU_SPI_SOCKET=", 0) == 0)
            setenv("VMCU_SPI_SOCKET", e.substr(16).c_str(), 1);
    static std::list<std::string> paths;
    set_comp_id(0x0A);
    set_serial_dev(paths.emplace_back(mcu.dev()).c_str());
}

class Descriptors : public testing::TestWithParam<Vmcu::Link> {};

TEST_P(Descriptors, EveryPublicCallClosesWhatItOpened) {
    harness::TempDir dir;
    const std::string image = dir.write("app.bin", std::string(1000, '\x5a'));
    Vmcu mcu(GetParam(), {"--emit", "heartbeat@100*3"});
    ASSERT_TRUE(mcu.ok());
    use(mcu);
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
    Vmcu faulty(GetParam(), {"--rule", "DC:nak", "--rule", "DB:xferfail*0"});
    use(faulty);
    const auto with_faulty = open_descriptors();
    EXPECT_EQ(mcu_upgrade(image.c_str()), -1);
    EXPECT_LT(mcu_version(), 0);
    for (const char* path : {"/nonexistent/ttyS9", "/dev/null", "/tmp"}) {
        set_serial_dev(path);
        EXPECT_EQ(mcu_version(), -1) << path;
    }
    EXPECT_EQ(open_descriptors(), with_faulty);
    faulty.stop();
    use(faulty);
    const auto stopped = open_descriptors();
    EXPECT_EQ(mcu_version(), -1);
    EXPECT_EQ(open_descriptors(), stopped);
}

INSTANTIATE_TEST_SUITE_P(Links, Descriptors, testing::Values(Vmcu::kTty, Vmcu::kSpi),
                         [](const testing::TestParamInfo<Vmcu::Link>& i) {
                             return std::string(i.param == Vmcu::kTty ? "Tty" : "Spi");
                         });

}  // namespace
