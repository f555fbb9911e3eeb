// Unit tests of what the end-to-end cases cannot reach cheaply: the TTY
// parser's bound on noise and its largest frame, the public
// calls' argument checks, and library calls as other programs make them.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "mcu_tool2_internal.h"
#include "utils.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;  // diagnostics go to standard output

int g_printed = 0;
int count_print(const char*, ...) {
    return ++g_printed;
}

class Unit : public testing::Test {
protected:
    void SetUp() override { set_comp_id(1); }
    void TearDown() override { m_sys_id_check = m_comp_id_check = 1; }
};

TEST_F(Unit, TtyParseGivesUpAfterTwoFramesOfNoiseAndTakesTheLargestFrame) {
    std::vector<uint8_t> stream(2 * 65010 + 100, 0x00), chunk(65000, 0x3C);
    const int n = mcu_package(CMD_DOWNLOADING, chunk.data(), 65000);  // to the target, as sent
    const uint8_t* frame = reinterpret_cast<const uint8_t*>(&m_tx_msg);
    stream.insert(stream.end(), frame, frame + n);
    const int fd = memfd_create("stream", 0);
    ASSERT_EQ(pwrite(fd, stream.data(), stream.size(), 0), static_cast<ssize_t>(stream.size()));
    m_serial_type = SERIAL_TYPE_TTY;
    m_serial_fd = fd;
    m_sys_id_check = m_comp_id_check = 0;
    CaptureStdout();
    EXPECT_EQ(mcu_recv(&m_rx_msg, nullptr, 0), -1);
    EXPECT_NE(GetCapturedStdout().find("no frame within 130020 bytes"), std::string::npos);
    EXPECT_EQ(mcu_recv(&m_rx_msg, nullptr, 0), 0);
    EXPECT_EQ(m_rx_msg.msgid, CMD_DOWNLOADING);
    m_serial_fd = -1;
    close(fd);
}

// Each public call that checks its arguments refuses null pointers and
// empty, zero or negative sizes, each time with its diagnostic and -1 (the
// CRC-32 with its start value).
TEST_F(Unit, PublicCallsRefuseBadArguments) {
    ST_Version v = {1, 2, 3, 4};
    char t[16] = "", type[] = "Software", name[] = "n";
    uint8_t b[4];
    const char* f = "/tmp/mcu_unit_bad_arguments";
    const std::tuple<const char*, int, std::function<int()>> kRefusals[] = {
        {"null string", 2, [] { return set_serial_dev(nullptr) + set_serial_dev(""); }},
        {"zero speed", 1, [] { return set_print_fxn(nullptr), set_serial_speed(0); }},
        {"null param", 1, [&] { return print_version(type, nullptr); }},
        {"null pointer", 6,
         [] {
             return print_stts(nullptr) + mcu_upgrade(nullptr) + file_size(nullptr) +
                    file_size("") + static_cast<int>(crc32_update(nullptr, 4, ~0u)) +
                    static_cast<int>(calc_crc32(nullptr, 4)) - 1;
         }},
        {"uiLen == 0", 1, [&] { return static_cast<int>(crc32_update(b, 0, ~0u)); }},
        {"invalid params", 11,
         [&] {
             return version_to_string(nullptr, t, 16) + version_to_string(&v, nullptr, 16) +
                    version_to_string(&v, t, 0) + version_to_string(&v, t, -1) +
                    mcu_get_softver(0x0A, nullptr, 16) + mcu_get_softver(0x0A, t, 0) +
                    mcu_get_softver(0x0A, t, -1) + mcu_sendraw(nullptr) + mcu_writeraw(nullptr) +
                    mcu_sendraw_then_monitor(nullptr, 0xFF, 1) + mcu_crc16(nullptr);
         }},
        {"params wrong", 16,
         [&] {
             int r = calc_md5sum(nullptr, b, 4) + calc_md5sum(t, b, 4) + calc_md5sum(name, b, -1);
             for (auto call : {read_file, write_file, append_file})
                 r += call(nullptr, b, 4) + call(f, nullptr, 4) + call(f, b, 0) + call(f, b, -1);
             return r + calc_md5sum(name, nullptr, 4);
         }},
        {"", 0, [] { return clear_stts(nullptr), hexdump(nullptr, 4), 0; }},
    };
    for (const auto& [says, count, calls] : kRefusals) {
        CaptureStdout();
        EXPECT_EQ(calls(), -count) << says;
        const std::string said = GetCapturedStdout();
        int n = 0;
        for (size_t p = 0; *says && (p = said.find(says, p)) != said.npos; p++)
            n++;
        EXPECT_EQ(n, count) << said;
        EXPECT_EQ(count == 0, said.empty()) << said;
    }
    EXPECT_NE(access(f, F_OK), 0) << "a refused call created the file";
}

TEST_F(Unit, CallsAsOtherProgramsMakeThem) {
    ST_MavlinkStts st;
    memset(&st, 0xA5, sizeof st);
    clear_stts(&st);
    EXPECT_EQ(st.txPkts + st.rxBytes + st.cmdFail + st.rxCnt[CMD_NUM_MAX - 1], 0u);
    EXPECT_EQ(my_system("exit %d", 3) + my_system("true"), 0) << "the commands ran";
    uint8_t b[3] = {1, 2, 3};
    EXPECT_EQ((sum_u8(b, 3) + checksum_u8(b, 3)) & 0xFF, 0);
    EXPECT_LE(std::abs(Time_GetSec() - static_cast<int32_t>(time(nullptr))), 1);
    const char* f = "/tmp/mcu_unit_append";
    EXPECT_EQ(append_file(f, b, 3) + append_file(f, b, 3) + file_size(f) + unlink(f), 12);
    EXPECT_EQ(read_file(f, b, 3) + write_file("/nope/f", b, 3) + write_file("/dev/full", b, 3), -3);
    set_print_fxn(reinterpret_cast<void*>(count_print));  // the program's own function
    EXPECT_EQ(set_serial_speed(0) + g_printed, 0);
    set_print_fxn(reinterpret_cast<void*>(printf));
}

// Whatever a file is called, md5sum gets its name as one word and the shell
// runs nothing else (a stray command would leave a file "x" behind).
TEST_F(Unit, Md5sumOfAnyFileName) {
    char dir[] = "/tmp/mcu_md5_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    ASSERT_EQ(chdir(dir), 0);
    for (const char* name :
         {"plain-1.bin", "a b", "a;touch x", "$(touch x)", "`touch x`", "it's", "|"}) {
        uint8_t text[] = "abc", digest[40] = {0};
        ASSERT_EQ(write_file(name, text, 3), 3) << name;
        EXPECT_EQ(calc_md5sum(const_cast<char*>(name), digest, sizeof digest), 32) << name;
        EXPECT_STREQ(reinterpret_cast<char*>(digest), "900150983cd24fb0d6963f7d28e17f72") << name;
        EXPECT_NE(access("x", F_OK), 0) << name << " ran another command";
        unlink(name);
    }
    EXPECT_EQ(chdir("/"), 0);
    EXPECT_EQ(rmdir(dir), 0);
}

}  // namespace
