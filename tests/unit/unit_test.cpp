// Unit tests of what the end-to-end cases cannot reach cheaply: the hex
// conversion's capacity bound, the TTY parser's bound on noise, and library
// calls as other programs make them.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "mcu_tool2_internal.h"
#include "utils.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;  // diagnostics go to standard output

class Unit : public testing::Test {
protected:
    void SetUp() override { set_comp_id(1); }
    void TearDown() override { m_sys_id_check = m_comp_id_check = 1; }
};

TEST_F(Unit, HexConversionStopsAtTheCapacity) {
    uint8_t buf[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    CaptureStdout();
    EXPECT_EQ(string2hex("0123456789", buf, 3), -1);
    EXPECT_EQ(buf[0], 0xEE);
    EXPECT_EQ(string2hex("01aBcd", buf, 3), 3);
    EXPECT_EQ(buf[1], 0xAB);
    EXPECT_EQ(buf[2], 0xCD);
    EXPECT_EQ(buf[3], 0xEE);
    EXPECT_EQ(string2hex("12", nullptr, 3), -1);
    EXPECT_NE(GetCapturedStdout().find("buffer too small 3 < 5"), std::string::npos);
}

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

TEST_F(Unit, CallsAsOtherProgramsMakeThem) {
    ST_MavlinkStts st;
    memset(&st, 0xA5, sizeof st);
    clear_stts(&st);
    EXPECT_EQ(st.txPkts + st.rxBytes + st.cmdFail + st.rxCnt[CMD_NUM_MAX - 1], 0u);
    EXPECT_EQ(my_system("exit %d", 3), 0) << "the command ran";
    EXPECT_EQ(my_system("true"), 0);
    EXPECT_EQ(read_file("/dev/null", nullptr, 4), -1);
}

// Whatever a file is called, md5sum gets its name as one word and the shell
// runs nothing else (a stray command would leave a file "x" behind).
TEST_F(Unit, Md5sumOfAnyFileName) {
    char dir[] = "/tmp/mcu_md5_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    ASSERT_EQ(chdir(dir), 0);
    for (const char* name :
         {"plain-1.bin", "a b", "a;touch x", "$(touch x)", "`touch x`", "it's"}) {
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
