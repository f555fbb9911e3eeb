// Checks the virtual MCU on its own, with frames written out byte by byte
// here (not built by the vmcu's code), so a fault in its codec or its answer
// rules shows up before the end-to-end tests rely on it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/vmcu_harness.h"

#ifndef VMCU_PATH
#error "VMCU_PATH must name the vmcu executable"
#endif
#ifndef VMCU_SPIDEV_PATH
#error "VMCU_SPIDEV_PATH must name libvmcu_spidev.so"
#endif
#ifndef VMCU_SPI_CLIENT_PATH
#error "VMCU_SPI_CLIENT_PATH must name the vmcu_spi_client test program"
#endif

namespace {

using vmcu_test::from_hex;
using vmcu_test::to_hex;

// Requests from the tool (own id 02) to the MCU (id 0A) and the MCU's answers.
const char kGetVersionsSeq1[] = "FD0000010A02DBE5F13C";
const char kGetVersionsSeq2[] = "FD0000020A02DBE6E41A";
const char kVersionsReplySeq1[] = "FD100001020ADBF50102030405060708090A0B0C0D0E0F1055FF";
const char kVersionsReplySeq2[] = "FD100002020ADBF60102030405060708090A0B0C0D0E0F109B0D";

class VmcuTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = vmcu_test::make_temp_dir();
        ASSERT_FALSE(dir_.empty());
        log_ = dir_ + "/vmcu.log";
    }
    void TearDown() override {
        if (fd_ >= 0) {
            close(fd_);
        }
        vmcu_.stop();
        vmcu_test::remove_tree(dir_);
    }

    // Starts a pty vmcu with `extra` options and opens its port.
    void start_pty(std::vector<std::string> extra) {
        extra.insert(extra.end(), {"--pty", "--log", log_, "--exit-after", "20000"});
        std::string err;
        ASSERT_TRUE(vmcu_.start(VMCU_PATH, extra, &err)) << err;
        fd_ = vmcu_test::open_raw_tty(vmcu_.endpoint());
        ASSERT_GE(fd_, 0) << vmcu_.endpoint();
    }

    // Writes one request and returns what came back within `ms` (at most `want` bytes).
    std::string ask(const std::string& hex, size_t want, int ms = 1000) {
        const std::vector<uint8_t> req = from_hex(hex);
        EXPECT_EQ(write(fd_, req.data(), req.size()), static_cast<ssize_t>(req.size()));
        return to_hex(vmcu_test::read_bytes(fd_, want, ms));
    }

    std::vector<std::string> log_lines() {
        vmcu_.stop();  // the log is complete once the vmcu has exited
        return vmcu_test::read_lines(log_);
    }

    static bool has_line(const std::vector<std::string>& lines, const std::string& want) {
        for (const std::string& l : lines) {
            if (l == want) {
                return true;
            }
        }
        return false;
    }

    std::string dir_;
    std::string log_;
    vmcu_test::VmcuProcess vmcu_;
    int fd_ = -1;
};

TEST_F(VmcuTest, TtyAnswersVersionQueryWithExactFrame) {
    start_pty({});
    EXPECT_EQ(ask(kGetVersionsSeq1, 26), kVersionsReplySeq1);
    const auto lines = log_lines();
    ASSERT_GE(lines.size(), 3u);
    // The line settings are logged before the first frame.
    EXPECT_EQ(lines[0].rfind("TERMIOS cs8=1 parenb=0 cstopb=0 crtscts=0 icanon=0 echo=0", 0), 0u)
        << lines[0];
    EXPECT_EQ(lines[1], std::string("RX ") + kGetVersionsSeq1);
    EXPECT_EQ(lines[2], std::string("TX ") + kVersionsReplySeq1);
}

TEST_F(VmcuTest, TtyAcknowledgesWithTheReferenceAckFrame) {
    // An MCU with id 01 acknowledging seq 1 to id 02 sends FD 00 00 01 02 01 FE FF 7B 11.
    start_pty({"--id", "01"});
    EXPECT_EQ(ask("FD0000010102D7D864D8", 10), "FD0000010201FEFF7B11");
}

TEST_F(VmcuTest, TtyBusyDefersTheAnswerToThePoll) {
    start_pty({"--rule", "DB:busy=300"});
    // BUSY (FD) carrying 300 ms as 2C 01, under the request's seq.
    EXPECT_EQ(ask(kGetVersionsSeq1, 12), "FD020001020AFD092C0132FE");
    // The poll comes with a new seq; the pending versions answer it under that seq.
    EXPECT_EQ(ask("FD0000020A02E0EB9405", 26), kVersionsReplySeq2);
}

TEST_F(VmcuTest, TtySilentRuleAndBadFramesGetNoAnswer) {
    start_pty({"--rule", "DB:silent"});
    EXPECT_EQ(ask(kGetVersionsSeq1, 26, 300), "");
    // A corrupted CRC is rejected, not answered.
    EXPECT_EQ(ask("FD0000020A02DBE6E41B", 26, 300), "");
    // The rule was used once; the next request is answered normally.
    EXPECT_EQ(ask(kGetVersionsSeq2, 26), kVersionsReplySeq2);
    const auto lines = log_lines();
    EXPECT_TRUE(has_line(lines, "RULE DB DB:silent"));
    bool bad_crc = false;
    for (const std::string& l : lines) {
        bad_crc = bad_crc || l.rfind("BAD crc", 0) == 0;
    }
    EXPECT_TRUE(bad_crc);
}

TEST_F(VmcuTest, TtyBootloaderStoresImageOnceAndChecksCrc8) {
    const std::string image = dir_ + "/image.bin";
    start_pty({"--image", image});
    EXPECT_EQ(ask("FD0400010A02D8E6090000009CB8", 10), "FD000001020AFE086EE0");  // erase 9
    EXPECT_EQ(ask("FD0400020A02D9E831323334FF29", 10), "FD000002020AFE09CBF5");  // "1234"
    // Retransmission of the same chunk: acknowledged again, not stored twice.
    EXPECT_EQ(ask("FD0400020A02D9E831323334FF29", 10), "FD000002020AFE09CBF5");
    EXPECT_EQ(ask("FD0500030A02D9EA35363738399FE3", 10), "FD000003020AFE0A88DB");  // "56789"
    // CRC-8 of "123456789" is F4.
    EXPECT_EQ(ask("FD0100040A02DCEAF4EA5D", 10), "FD000004020AFE0B81DE");
    EXPECT_EQ(ask("FD0000050A02DDEB9460", 10), "FD000005020AFE0CA297");  // APP_GO
    const auto lines = log_lines();
    EXPECT_TRUE(has_line(lines, "ERASE 9"));
    EXPECT_TRUE(has_line(lines, "DUP 2"));
    EXPECT_TRUE(has_line(lines, "CRC ok"));
    EXPECT_TRUE(has_line(lines, "APP_GO 9"));
    EXPECT_EQ(vmcu_test::read_file(image), "123456789");
}

class VmcuSpiTest : public VmcuTest {
protected:
    void start_spi(std::vector<std::string> extra) {
        socket_ = dir_ + "/spi.sock";
        extra.insert(extra.end(), {"--spi", socket_, "--log", log_, "--exit-after", "20000"});
        std::string err;
        ASSERT_TRUE(vmcu_.start(VMCU_PATH, extra, &err)) << err;
        ASSERT_EQ(vmcu_.endpoint(), socket_);
    }

    // Runs the SPI client with the given transmit blocks; returns its output lines.
    std::vector<std::string> transfers(const std::vector<std::string>& blocks) {
        std::vector<std::string> argv{VMCU_SPI_CLIENT_PATH};
        argv.insert(argv.end(), blocks.begin(), blocks.end());
        const auto res =
            vmcu_test::run_program(argv, vmcu_test::spidev_env(VMCU_SPIDEV_PATH, socket_), 5000);
        EXPECT_FALSE(res.timed_out);
        std::vector<std::string> lines;
        size_t pos = 0;
        while (pos < res.output.size()) {
            const size_t nl = res.output.find('\n', pos);
            lines.push_back(res.output.substr(pos, nl - pos));
            pos = nl == std::string::npos ? res.output.size() : nl + 1;
        }
        return lines;
    }

    // "rx " + the 528-byte block that starts with `frame` and is zero after it.
    static std::string block(const std::string& frame) {
        return "rx " + frame + std::string(2 * 528 - frame.size(), '0');
    }

    std::string socket_;
};

TEST_F(VmcuSpiTest, AnswerComesInTheNextTransfer) {
    start_spi({});
    const auto out = transfers({kGetVersionsSeq1, "-", "-"});
    ASSERT_EQ(out.size(), 5u);
    EXPECT_EQ(out[0], "open ok");
    EXPECT_EQ(out[1], "config ok");
    EXPECT_EQ(out[2], block(""));  // nothing is clocked out with the request itself
    EXPECT_EQ(out[3], block(kVersionsReplySeq1));
    EXPECT_EQ(out[4], block(""));
    const auto lines = log_lines();
    EXPECT_TRUE(has_line(lines, "SPI MODE 0"));
    EXPECT_TRUE(has_line(lines, "SPI SPEED 7800000"));
    EXPECT_TRUE(has_line(lines, "SPI BITS 8"));
    EXPECT_TRUE(has_line(lines, std::string("RX ") + kGetVersionsSeq1));
}

TEST_F(VmcuSpiTest, FailedTransferThenResultCodes) {
    start_spi({"--rule", "D7:xferfail", "--rule", "D7:nak"});
    // REQUEST_UPGRADE three times (seq 1, 2, 3), then a listening transfer.
    const auto out =
        transfers({"FD0000010A02D7E132FE", "FD0000020A02D7E227D8", "FD0000030A02D7E3D4C5", "-"});
    ASSERT_EQ(out.size(), 6u);
    EXPECT_EQ(out[2], "fail 5");  // EIO
    EXPECT_EQ(out[3], block(""));
    EXPECT_EQ(out[4], block("FD010002020AD7E301E420"));  // seq 2: result 1
    EXPECT_EQ(out[5], block("FD010003020AD7E400EC2A"));  // seq 3: result 0
    EXPECT_TRUE(has_line(log_lines(), "XFERFAIL"));
}

}  // namespace
