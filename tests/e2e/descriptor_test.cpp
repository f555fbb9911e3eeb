// No descriptor outlives the link: the public calls of the library, in this
// process, against the virtual MCU. The process runs with the spidev
// emulation preloaded (the test's environment), so /dev/spidev0.0 reaches a
// vmcu started with --spi once VMCU_SPI_SOCKET names its socket.
#include <gtest/gtest.h>

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "harness.h"
#include "mcu_tool2.h"

using harness::Vmcu;

// In a sanitized build the preloaded emulation comes before the sanitizer's
// runtime, which the runtime accepts only when told so.
extern "C" const char* __asan_default_options() {
    return "verify_asan_link_order=0";
}

namespace {

// The emulation is loaded into this process already; the virtual MCUs it
// starts run without it.
struct ChildrenWithoutPreload {
    ChildrenWithoutPreload() { unsetenv("LD_PRELOAD"); }
} children_without_preload;

// The descriptors open in this process, each with what it refers to.
std::set<std::string> open_descriptors() {
    std::set<std::string> fds;
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr)
        return fds;
    const int own = dirfd(d);
    while (const struct dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == ".." || name == std::to_string(own))
            continue;
        char target[512] = {};
        ssize_t n = readlink(("/proc/self/fd/" + name).c_str(), target, sizeof target - 1);
        fds.insert(name + " -> " + (n > 0 ? std::string(target, static_cast<size_t>(n)) : "?"));
    }
    closedir(d);
    return fds;
}

std::string listing(const std::set<std::string>& fds) {
    std::string s;
    for (const std::string& f : fds)
        s += "  " + f + "\n";
    return s;
}

// The library keeps the device path by pointer, so the paths it is given
// live as long as the process.
void set_device(const std::string& path) {
    static std::vector<std::unique_ptr<std::string>> paths;
    paths.push_back(std::make_unique<std::string>(path));
    set_serial_dev(paths.back()->c_str());
}

// Points the library and the preloaded emulation at `mcu`.
void use(const Vmcu& mcu) {
    for (const std::string& e : mcu.env())
        if (e.rfind("VMCU_SPI_SOCKET=", 0) == 0)
            setenv("VMCU_SPI_SOCKET", e.substr(16).c_str(), 1);
    set_comp_id(0x0A);
    set_device(mcu.dev());
}

std::string link_name(const testing::TestParamInfo<Vmcu::Link>& info) {
    return info.param == Vmcu::kTty ? "Tty" : "Spi";
}

class Descriptors : public testing::TestWithParam<Vmcu::Link> {};

TEST_P(Descriptors, InitOpensOneAndUninitClosesIt) {
    Vmcu mcu(GetParam());
    ASSERT_TRUE(mcu.ok());
    use(mcu);
    const std::set<std::string> before = open_descriptors();
    ASSERT_EQ(mcu_init(), 0);
    EXPECT_EQ(open_descriptors().size(), before.size() + 1) << listing(open_descriptors());
    mcu_uninit();
    EXPECT_EQ(open_descriptors(), before) << listing(open_descriptors());
    // Taking a link down that is already down closes nothing else.
    mcu_uninit();
    EXPECT_EQ(open_descriptors(), before) << listing(open_descriptors());
}

TEST_P(Descriptors, ActionsLeaveNothingOpen) {
    Vmcu mcu(GetParam());
    ASSERT_TRUE(mcu.ok());
    use(mcu);
    const std::set<std::string> before = open_descriptors();
    EXPECT_EQ(mcu_version(), 0);
    EXPECT_EQ(mcu_serial(), 0);
    ST_TimeRetryCmd cmd = {};
    ASSERT_EQ(mcu_init(), 0);
    EXPECT_EQ(mcu_getMcuUpgradeParam(&cmd), 0);
    mcu_uninit();
    EXPECT_EQ(cmd.program_pksize, 240);
    EXPECT_EQ(open_descriptors(), before) << listing(open_descriptors());
}

TEST_P(Descriptors, UpgradeLeavesNothingOpen) {
    harness::TempDir dir;
    Vmcu mcu(GetParam(), {"--image", dir.file("received.bin")});
    ASSERT_TRUE(mcu.ok());
    use(mcu);
    const std::string image(1000, '\x5a');
    const std::string file = dir.write("app.bin", image);
    const std::set<std::string> before = open_descriptors();
    set_upgrade_type(UPGRADE_TYPE_FW_ONLY);
    EXPECT_EQ(mcu_upgrade(file.c_str()), 0);
    EXPECT_EQ(open_descriptors(), before) << listing(open_descriptors());
    // A failed upgrade (refused CRC check) as well.
    Vmcu refusing(GetParam(), {"--rule", "DC:nak"});
    ASSERT_TRUE(refusing.ok());
    use(refusing);
    const std::set<std::string> before_refusal = open_descriptors();
    EXPECT_EQ(mcu_upgrade(file.c_str()), -1);
    EXPECT_EQ(open_descriptors(), before_refusal) << listing(open_descriptors());
    mcu.stop();
    EXPECT_EQ(harness::read_file(dir.file("received.bin")), image);
}

// The SPI transfer that carries the request fails: the engine takes the link
// down itself, and the action's own take-down finds it down.
TEST(DescriptorsAfterFailure, SpiTransferClosesTheDevice) {
    Vmcu mcu(Vmcu::kSpi, {"--rule", "DB:xferfail"});
    ASSERT_TRUE(mcu.ok());
    use(mcu);
    const std::set<std::string> before = open_descriptors();
    EXPECT_EQ(mcu_version(), -1);
    EXPECT_EQ(open_descriptors(), before) << listing(open_descriptors());
    mcu.stop();
    EXPECT_EQ(mcu.log("XFERFAIL").size(), 1u);
}

// Device paths that cannot become a link: missing, not a terminal, a
// directory, a vanished SPI peer.
TEST(DescriptorsAfterFailure, OpenLeavesNothingOpen) {
    harness::TempDir dir;
    const std::string plain = dir.write("plain.txt", "not a terminal");
    const std::vector<std::string> paths = {"/nonexistent/ttyS9", "/dev/null", plain, dir.path()};
    set_comp_id(0x0A);
    for (const std::string& path : paths) {
        set_device(path);
        const std::set<std::string> before = open_descriptors();
        EXPECT_EQ(mcu_init(), -1) << path;
        EXPECT_EQ(open_descriptors(), before) << path << "\n" << listing(open_descriptors());
        mcu_uninit();
        EXPECT_EQ(mcu_version(), -1) << path;
        EXPECT_EQ(open_descriptors(), before) << path << "\n" << listing(open_descriptors());
    }
    // An SPI node whose virtual MCU has gone away.
    {
        Vmcu gone(Vmcu::kSpi);
        ASSERT_TRUE(gone.ok());
        use(gone);
        gone.stop();
    }
    const std::set<std::string> before = open_descriptors();
    EXPECT_EQ(mcu_version(), -1);
    EXPECT_EQ(open_descriptors(), before) << listing(open_descriptors());
}

INSTANTIATE_TEST_SUITE_P(Links, Descriptors, testing::Values(Vmcu::kTty, Vmcu::kSpi), link_name);

}  // namespace
