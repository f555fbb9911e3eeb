// Monitor, remote debug commands, raw messages and frames, and the upgrade
// parameter query: the real binary against the virtual MCU.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "dump.h"
#include "harness.h"
#include "wire.h"

using harness::id_row;
using harness::link_name;
using harness::normalize;
using harness::open_lines;
using harness::RunResult;
using harness::Stats;
using harness::stats_block;
using harness::Vmcu;

namespace {

// Payloads of the frames that the MCU logged as received with `msgid`.
std::vector<std::string> payloads(const Vmcu& mcu, uint8_t msgid) {
    std::vector<std::string> out;
    for (const std::string& hex : mcu.log("RX ")) {
        std::vector<uint8_t> f = dump::unhex(hex);
        if (f.size() >= 10 && f[6] == msgid)
            out.push_back(hex.substr(16, hex.size() - 20));
    }
    return out;
}

const char kHeartbeat[] =
    "---------- [HEARBEAT] -----------\n"
    "  device type: 14 (0x0e)\n"
    "device status: 1 (0x01)\n"
    "    cpu usage: 50 (0x32)\n"
    "    mem usage: 20 (0x14)\n";

class Actions : public testing::TestWithParam<Vmcu::Link> {};

// The engine's note of a debug reply that ends an exchange.
std::string debug_note(const Vmcu& mcu) {
    return mcu.link() == Vmcu::kTty ? "mcu_sendrecv #, CMD_DEBUG_DEVICE: 230\n"
                                    : "mcu_sendrecv #, CMD_DEBUG_DEVICE: 0xe6\n";
}

// Statistics of `n` debug exchanges ended by the MCU's debug replies: on SPI
// a request ended that way is not counted as transmitted.
Stats debug_stats(const Vmcu& mcu, unsigned n) {
    Stats s;
    if (mcu.link() == Vmcu::kTty) {
        s.tx_bytes = 20 * n;
        s.tx_pkts = n;
        s.tx_rows = id_row(0xe6, n);
    }
    s.rx_bytes = 20 * n;
    s.rx_pkts = n;
    s.rx_rows = id_row(0xe6, n);
    return s;
}

// A tool behind a wrapper (valgrind) starts late: unsolicited frames come
// that much later, and the monitor listens that much longer, so that they
// still arrive while it listens.
int slack_s() {
    return static_cast<int>(std::ceil(harness::tool_slack_s()));
}
std::string monitor_seconds(int s) {
    return std::to_string(s + slack_s());
}

// Unsolicited frames, all emitted once 800 ms after the MCU started, in this
// order: a heartbeat, a system-log event, a five-byte user string, and a
// message of an id the monitor does not know.
std::vector<std::string> emitting() {
    return {"--emit-start", harness::after_tool_start_ms(800),
            "--emit",       "heartbeat@1000*1",
            "--emit",       "syslog=050000000100000002000000030000000400000a@1000*1",
            "--emit",       "user=hello@1000*1",
            "--emit",       "frame=E9C0FFEE@1000*1"};
}

TEST_P(Actions, MonitorPrintsEveryMessage) {
    Vmcu mcu(GetParam(), emitting());
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--monitor", "ff", "--timeout", monitor_seconds(2)});
    mcu.stop();
    std::vector<std::string> tx = mcu.log("TX ");
    ASSERT_EQ(tx.size(), 4u);
    Stats s;
    s.monitor = true;
    s.rx_pkts = 4;
    s.rx_bytes = 4 + 20 + 5 + 3;
    s.rx_rows = id_row(0xd0, 1) + id_row(0xe5, 1) + id_row(0xe8, 1) + id_row(0xe9, 1);
    EXPECT_EQ(normalize(r.out), open_lines(mcu) + "monitor 0xff\n" + kHeartbeat +
                                    "---------- [SYSLOG] -----------\n"
                                    "[00000005]: 0x00000001, 0x00000002, 0x00000003, 0x0a000004\n"
                                    "---------- [USER_STRING] -----------\n"
                                    "hello\n"
                                    "mcu_monitor #, msgid 0xe9\n" +
                                    dump::lines(dump::unhex(tx[3])) + stats_block(s));
    EXPECT_GE(r.seconds, 2.0 + slack_s());
    EXPECT_LT(r.seconds, 4.5 + 2 * slack_s());
}

TEST_P(Actions, MonitorOfOneIdSkipsTheOthersSilently) {
    Vmcu mcu(GetParam(), emitting());
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"-monitor", "e5", "--timeout", monitor_seconds(2)});
    Stats s;
    s.monitor = true;
    s.rx_pkts = 4;
    s.rx_bytes = 4 + 20 + 5 + 3;
    s.rx_rows = id_row(0xd0, 1) + id_row(0xe5, 1) + id_row(0xe8, 1) + id_row(0xe9, 1);
    EXPECT_EQ(normalize(r.out), open_lines(mcu) +
                                    "monitor 0xe5\n"
                                    "---------- [SYSLOG] -----------\n"
                                    "[00000005]: 0x00000001, 0x00000002, 0x00000003, "
                                    "0x0a000004\n" +
                                    stats_block(s));
}

TEST_P(Actions, SendThenMonitor) {
    Vmcu mcu(GetParam(),
             {"--emit-start", harness::after_tool_start_ms(800), "--emit", "user=after@1000*1"});
    ASSERT_TRUE(mcu.ok());
    RunResult r =
        mcu.run_tool({"--sendraw", "E9", "--monitor", "e8", "--timeout", monitor_seconds(2)});
    mcu.stop();
    if (GetParam() == Vmcu::kSpi) {
        // Raw messages go out on a TTY only.
        EXPECT_EQ(normalize(r.out), open_lines(mcu) +
                                        "mcu_send #, illegal serial device type 1\n"
                                        "mcu_sendraw_then_monitor #, mcu send fail\n");
        EXPECT_EQ(mcu.log("RX ").size(), 0u);
        return;
    }
    Stats s;
    s.monitor = true;
    s.tx_pkts = 1;
    s.tx_rows = id_row(0xe9, 1);
    // The MCU's acknowledgement of the raw message is counted, not shown.
    s.rx_pkts = 2;
    s.rx_bytes = 5;
    s.rx_rows = id_row(0xe8, 1) + id_row(0xfe, 1);
    EXPECT_EQ(normalize(r.out), open_lines(mcu) +
                                    "monitor 0xe8\n"
                                    "---------- [USER_STRING] -----------\n"
                                    "after\n" +
                                    stats_block(s));
    EXPECT_EQ(mcu.log("RX "), std::vector<std::string>{wire::request(1, 0x0A, 0xE9)});
}

TEST_P(Actions, StatisticsQueryPrintsEveryCounter) {
    Vmcu mcu(GetParam());
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--get-stts"});
    const char* const lines[] = {
        "RX BYTES:       401\n",
        "RX FRAMES:      501\n",
        "RX MESSAGES:    601\n",
        "RX CRC FAILS:   701\n",
        "RX LEN FAILS:   801\n",
        "RX SUM FAILS:   901\n",
        "RX MEM FAILS:   1001\n",
        "RX DUP SEQ:     1101\n",
        "TX BYTES:       1201\n",
        "TX FRAMES:      1301\n",
        "TX MESSAGES:    1401\n",
        "TX SEND FAILS:  1501\n",
        "TX MEM FAILS:   1601\n",
        "TX RETRY FAILS: 1701\n",
        "HANDLE FAILS:   1801\n",
        "RELAY MESSAGES: 1901\n",
        "RELAY FAILS:    2001\n",
        "CPU0 Usage:     00000011\nCPU0 Usage Max: 00000022\n"
        "CPU1 Usage:     00000033\nCPU1 Usage Max: 00000044\n",
        "Mem0 Usage:     00000055\nMem0 Usage Max: 00000066\n"
        "Mem1 Usage:     00000077\nMem1 Usage Max: 00000088\n",
    };
    std::string want = open_lines(mcu);
    for (const char* line : lines)
        want += debug_note(mcu) + line;
    EXPECT_EQ(normalize(r.out), want + stats_block(debug_stats(mcu, 19)));
    mcu.stop();
    std::vector<std::string> sent = payloads(mcu, 0xE6);
    ASSERT_EQ(sent.size(), 19u);
    EXPECT_EQ(sent[0], "04000000" + std::string(32, '0'));
    EXPECT_EQ(sent[16], "14000000" + std::string(32, '0'));
    EXPECT_EQ(sent[18], "21000000" + std::string(32, '0'));
}

TEST_P(Actions, StatisticsQueryAgainstASilentMcuTimesOutNineteenTimes) {
    Vmcu mcu(GetParam(), {"--rule", "E6:silent*0"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--get-stts"});
    Stats s;
    if (GetParam() == Vmcu::kTty) {
        s.tx_bytes = 19 * 3 * 20;
        s.tx_pkts = 19 * 3;
        s.tx_rows = id_row(0xe6, 19 * 3);
    }
    EXPECT_EQ(normalize(r.out), open_lines(mcu) + stats_block(s));
    // Each exchange: two retransmissions 500 ms apart and a last receive
    // attempt; on a TTY the silence is noticed in steps of 0.1 s reads.
    EXPECT_GT(r.seconds, 19.0);
    EXPECT_LT(r.seconds, 26.0 + slack_s());
}

TEST_P(Actions, ClearAndLoopback) {
    Vmcu mcu(GetParam());
    ASSERT_TRUE(mcu.ok());
    const std::string head = open_lines(mcu) + debug_note(mcu);
    const std::string tail = stats_block(debug_stats(mcu, 1));
    RunResult r = mcu.run_tool({"--clear-stts"});
    EXPECT_EQ(normalize(r.out), head + "CLEAR ALL\n" + tail);
    r = mcu.run_tool({"--loopback", "5"});
    EXPECT_EQ(normalize(r.out), head + "Set message loopback: success\n" + tail);
    r = mcu.run_tool({"--loopback", "0"});
    EXPECT_EQ(normalize(r.out), head + "Set message loopback: fail\n" + tail);
    mcu.stop();
    std::vector<std::string> sent = payloads(mcu, 0xE6);
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0], "03000000" + std::string(32, '0'));
    EXPECT_EQ(sent[1], "0200000005000000" + std::string(24, '0'));
    EXPECT_EQ(sent[2], "0200000000000000" + std::string(24, '0'));
}

// Transcript of a flood test of `n` messages of `len` bytes: a TTY MCU
// acknowledges each, an SPI MCU answers each with a debug reply of code 0.
std::string flood_transcript(const Vmcu& mcu, unsigned n, unsigned len, const std::string& diag) {
    Stats s;
    s.flood = true;
    s.rx_pkts = n;
    std::string notes;
    if (mcu.link() == Vmcu::kTty) {
        s.tx_bytes = n * len;
        s.tx_pkts = n;
        s.tx_rows = id_row(0xe6, n);
        s.rx_rows = id_row(0xfe, n);
    } else {
        s.rx_bytes = 20 * n;
        s.rx_rows = id_row(0xe6, n);
        for (unsigned i = 0; i < n; i++)
            notes += debug_note(mcu);
    }
    return open_lines(mcu) + diag + notes + stats_block(s);
}

TEST_P(Actions, FloodTestPayloads) {
    Vmcu mcu(GetParam());
    ASSERT_TRUE(mcu.ok());
    RunResult r =
        mcu.run_tool({"--flood-test", "3", "--length", "8", "--pattern", "aa", "--interval", "0"});
    EXPECT_EQ(normalize(r.out), flood_transcript(mcu, 3, 8, ""));
    r = mcu.run_tool({"--flood-test", "0"});
    EXPECT_EQ(normalize(r.out), flood_transcript(mcu, 0, 80, ""));
    r = mcu.run_tool({"--flood-test", "1", "--length", "3", "--pattern", "0x1ff"});
    EXPECT_EQ(normalize(r.out), flood_transcript(mcu, 1, 3, ""));
    mcu.stop();
    EXPECT_EQ(payloads(mcu, 0xE6), (std::vector<std::string>{"00000000AAAAAAAA", "00000000AAAAAAAA",
                                                             "00000000AAAAAAAA", "000000"}));
}

TEST_P(Actions, FloodTestClampsTheLengthAndDefaultsTo80Bytes) {
    Vmcu mcu(GetParam());
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--flood-test", "2", "--length", "600"});
    EXPECT_EQ(normalize(r.out),
              flood_transcript(mcu, 2, 512,
                               "mcu_debug_message_send_test #, length 600 illegal, set to 512\n"));
    r = mcu.run_tool({"--flood-test", "2", "--length", "0"});
    EXPECT_EQ(normalize(r.out),
              flood_transcript(mcu, 2, 512,
                               "mcu_debug_message_send_test #, length 0 illegal, set to 512\n"));
    RunResult d = mcu.run_tool({"--flood-test", "2"});
    EXPECT_EQ(normalize(d.out), flood_transcript(mcu, 2, 80, ""));
    EXPECT_GE(d.seconds, 0.02);  // 10 ms after each message
    mcu.stop();
    std::string big = "00000000" + std::string(2 * 508, '5');
    std::string small = "00000000" + std::string(2 * 76, '5');
    EXPECT_EQ(payloads(mcu, 0xE6), (std::vector<std::string>{big, big, big, big, small, small}));
}

INSTANTIATE_TEST_SUITE_P(Links, Actions, testing::Values(Vmcu::kTty, Vmcu::kSpi), link_name);

// ---- raw messages and frames ----------------------------------------------

TEST(Raw, SendrawFramesIdAndPayload) {
    Vmcu mcu(Vmcu::kTty);
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--sendraw", "D00102"});
    Stats s;
    s.tx_bytes = 2;
    s.tx_pkts = 1;
    s.tx_rows = id_row(0xd0, 1);
    EXPECT_EQ(normalize(r.out), open_lines(mcu) + stats_block(s));
    r = mcu.run_tool({"--sendraw", ""});
    EXPECT_EQ(normalize(r.out), open_lines(mcu) +
                                    "mcu_send #, illegal buf or length -1\n"
                                    "mcu_sendraw #, mcu send fail\n" +
                                    stats_block(Stats()));
    mcu.stop();
    EXPECT_EQ(mcu.log("RX "), std::vector<std::string>{wire::request(1, 0x0A, 0xD0, {1, 2})});
}

TEST(Raw, SendrawOnSpiIsRefused) {
    Vmcu mcu(Vmcu::kSpi);
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--sendraw", "D00102"});
    EXPECT_EQ(normalize(r.out), open_lines(mcu) +
                                    "mcu_send #, illegal serial device type 1\n"
                                    "mcu_sendraw #, mcu send fail\n" +
                                    stats_block(Stats()));
}

TEST(Raw, WriterawFillsInOnlyHeaderSumAndCrc) {
    harness::TempDir dir;
    std::string raw_path = dir.file("raw.bin");
    Vmcu rec(Vmcu::kTty, {"--rx-extra", "any", "--raw", raw_path});
    ASSERT_TRUE(rec.ok());
    // An 8-byte header: byte 7 replaced by the sum, the CRC (no extra byte)
    // right behind it.
    RunResult r = rec.run_tool({"--writeraw", "FD0000070A02DB00"});
    EXPECT_EQ(normalize(r.out), open_lines(rec) + stats_block(Stats()));
    // Two bytes: the CRC over byte 1 follows at once.
    r = rec.run_tool({"--writeraw", "FD05"});
    EXPECT_EQ(normalize(r.out), open_lines(rec) + stats_block(Stats()));
    // Length bytes that disagree with the payload go out unchanged.
    r = rec.run_tool({"--writeraw", "FD0900070A02DB000102"});
    rec.stop();
    std::vector<uint8_t> crc_of_header = {0, 0, 7, 0x0A, 2, 0xDB, 0xEB};
    uint16_t c1 = wire::crc16(crc_of_header);
    uint16_t c2 = wire::crc16({0x05});
    uint16_t c3 = wire::crc16({0x09, 0, 7, 0x0A, 2, 0xDB, 0xF4, 1, 2});
    std::string want =
        wire::hex({0xFD, 0, 0, 7, 0x0A, 2, 0xDB, 0xEB, static_cast<uint8_t>(c1),
                   static_cast<uint8_t>(c1 >> 8)}) +
        wire::hex({0xFD, 0x05, static_cast<uint8_t>(c2), static_cast<uint8_t>(c2 >> 8)}) +
        wire::hex({0xFD, 0x09, 0, 7, 0x0A, 2, 0xDB, 0xF4, 1, 2, static_cast<uint8_t>(c3),
                   static_cast<uint8_t>(c3 >> 8)});
    std::string raw = harness::read_file(raw_path);
    EXPECT_EQ(wire::hex(std::vector<uint8_t>(raw.begin(), raw.end())), want);
}

TEST(Raw, WriterawRefusesEmptyAndOverlongInputBeforeWriting) {
    Vmcu mcu(Vmcu::kTty);
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--writeraw", ""});
    EXPECT_EQ(normalize(r.out), "mcu_writeraw #, empty hex string, nothing to write\n");
    r = mcu.run_tool({"--writeraw", std::string(2 * 64999, 'a')});
    EXPECT_EQ(normalize(r.out), open_lines(mcu) +
                                    "mcu_writeraw #, raw frame of 64999 bytes leaves no room for "
                                    "its CRC, at most 64998 bytes\n" +
                                    stats_block(Stats()));
    Vmcu spi(Vmcu::kSpi);
    ASSERT_TRUE(spi.ok());
    r = spi.run_tool({"--writeraw", std::string(2 * 527, 'a')});
    EXPECT_EQ(normalize(r.out), open_lines(spi) +
                                    "mcu_writeraw #, raw frame of 527 bytes leaves no room for "
                                    "its CRC, at most 526 bytes\n" +
                                    stats_block(Stats()));
    mcu.stop();
    spi.stop();
    EXPECT_EQ(mcu.log("RX ").size(), 0u);
    EXPECT_EQ(spi.log("RX ").size(), 0u);
}

// ---- upgrade parameters ----------------------------------------------------

TEST_P(Actions, UpgradeParametersAsReceived) {
    // 1500 ms, 3 retries, 512-byte chunks, the rest zero.
    Vmcu mcu(GetParam(), {"--timeretry", "DC0503000002"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--get-timeretry"});
    EXPECT_EQ(r.status, 0);
    Stats s;
    s.tx_pkts = 1;
    s.tx_rows = id_row(0xde, 1);
    s.rx_bytes = 6;
    s.rx_pkts = 1;
    s.rx_rows = id_row(0xde, 1);
    EXPECT_EQ(normalize(r.out),
              open_lines(mcu) + "get timeout: 1500, retrys: 3, pksize: 512\n" + stats_block(s));
}

TEST_P(Actions, UpgradeParametersFailuresExitWith255) {
    Vmcu mcu(GetParam(), {"--rule", "DE:silent*0"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--get-timeretry"});
    EXPECT_EQ(r.status, 255);
    Stats s;
    if (GetParam() == Vmcu::kTty) {
        s.tx_pkts = 3;
        s.tx_rows = id_row(0xde, 3);
    }
    EXPECT_EQ(normalize(r.out),
              open_lines(mcu) + "get MCU upgrade param TIMEOUT\n" + stats_block(s));

    Vmcu refusing(GetParam(), {"--rule", "DE:nak"});
    ASSERT_TRUE(refusing.ok());
    r = refusing.run_tool({"--get-timeretry"});
    EXPECT_EQ(r.status, 255);
    EXPECT_NE(normalize(r.out).find("get MCU upgrade param FAIL\n"), std::string::npos);

    r = harness::run_tool({"-id", "0xA", "-dev", "/nonexistent/tty", "--get-timeretry"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(normalize(r.out),
              "open /nonexistent/tty @ 115200\n"
              "mcu_open #, open /nonexistent/tty fail : No such file or directory\n"
              "mcu_init #, mcu_open fail\n"
              "get_timeretry #, mcu_init fail\n");
}

}  // namespace
