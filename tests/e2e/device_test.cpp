// Identity queries, reset and the exchange rules, on the real binary against
// the virtual MCU, over a pseudo-terminal and over the emulated spidev node.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <sstream>
#include <string>

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

const char kVersions[] =
    "Software: V4.3.2.1\n"
    "Bootloader: V8.7.6.5\n"
    "Hardware: V12.11.10.9\n"
    "Protocol: V16.15.14.13\n";
const char kZeroVersions[] =
    "Software: V0.0.0.0\n"
    "Bootloader: V0.0.0.0\n"
    "Hardware: V0.0.0.0\n"
    "Protocol: V0.0.0.0\n";

// Statistics of a version query answered after `sent` transmissions.
Stats version_stats(const Vmcu& mcu, unsigned sent) {
    Stats s;
    // On SPI a request counts once, when it succeeds.
    s.tx_pkts = mcu.link() == Vmcu::kSpi ? 1 : sent;
    s.tx_rows = id_row(0xdb, s.tx_pkts);
    s.rx_bytes = 16;
    s.rx_pkts = 1;
    s.rx_rows = id_row(0xdb, 1);
    return s;
}

class Device : public testing::TestWithParam<Vmcu::Link> {};

TEST_P(Device, VersionQueryPrintsFourVersionsAndStatistics) {
    Vmcu mcu(GetParam(), {"--versions", "0102030405060708090A0B0C0D0E0F10"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(normalize(r.out), open_lines(mcu) + kVersions + stats_block(version_stats(mcu, 1)));
    mcu.stop();
    // The request: FD 00 00 01 0A 02 DB, header sum, CRC.
    std::vector<std::string> rx = mcu.log("RX ");
    ASSERT_EQ(rx.size(), 1u);
    EXPECT_EQ(rx[0], "FD0000010A02DBE5" + wire::request(1, 0x0A, 0xDB).substr(16));
    EXPECT_EQ(rx[0], wire::request(1, 0x0A, 0xDB));
}

TEST_P(Device, SerialNumberIsDumpedWhole) {
    Vmcu mcu(GetParam(), {"--sn", "534E2D30303031"});
    ASSERT_TRUE(mcu.ok());
    // The last action wins: only the serial number is asked for.
    RunResult r = mcu.run_tool({"--version", "--get-sn"});
    Stats s;
    s.tx_pkts = 1;
    s.tx_rows = id_row(0xd5, 1);
    s.rx_bytes = 7;
    s.rx_pkts = 1;
    s.rx_rows = id_row(0xd5, 1);
    EXPECT_EQ(normalize(r.out),
              open_lines(mcu) +
                  "000: 53 4e 2d 30 30 30 31 00 00 00 00 00 00 00 00 00   SN-0001.........\n"
                  "016: 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00   ................\n" +
                  stats_block(s));
    mcu.stop();
    EXPECT_EQ(mcu.log("RX "), std::vector<std::string>{wire::request(1, 0x0A, 0xD5)});
}

TEST_P(Device, ResetPassesAnyTypeThrough) {
    Vmcu mcu(GetParam());
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--reset", "7"});
    Stats s;
    s.tx_bytes = 4;
    s.tx_pkts = 1;
    s.tx_rows = id_row(0xd1, 1);
    s.rx_pkts = 1;
    if (GetParam() == Vmcu::kTty) {
        s.rx_rows = id_row(0xfe, 1);  // ACK
    } else {
        s.rx_bytes = 1;  // the request's own id with its result code
        s.rx_rows = id_row(0xd1, 1);
    }
    EXPECT_EQ(normalize(r.out), open_lines(mcu) + stats_block(s));
    mcu.stop();
    EXPECT_EQ(mcu.log("RX "),
              std::vector<std::string>{wire::request(1, 0x0A, 0xD1, {0xAA, 0x55, 0x07, 0x00})});
}

TEST_P(Device, SilentMcuGetsTheSameFrameThreeTimes) {
    Vmcu mcu(GetParam(), {"--rule", "DB:silent*0"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--version"});
    Stats s;
    if (GetParam() == Vmcu::kTty) {
        s.tx_pkts = 3;
        s.tx_rows = id_row(0xdb, 3);
    }
    EXPECT_EQ(normalize(r.out),
              open_lines(mcu) + "mcu_version #, mcu_sendrecv fail\n" + stats_block(s));
    // 500 ms after each transmission, then one more receive attempt.
    EXPECT_GT(r.seconds, 1.0);
    EXPECT_LT(r.seconds, 2.5);
    mcu.stop();
    std::string frame = wire::request(1, 0x0A, 0xDB);
    EXPECT_EQ(mcu.log("RX "), (std::vector<std::string>{frame, frame, frame}));
}

TEST_P(Device, RefusalIsAFailure) {
    Vmcu mcu(GetParam(), {"--rule", "D1:nak"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"-d", "--reset", "1"});
    std::string out = normalize(r.out);
    if (GetParam() == Vmcu::kTty)
        EXPECT_NE(out.find("mcu_sendrecv #, NAK\nmcu_reset #, mcu_sendrecv fail\n"),
                  std::string::npos)
            << out;
    else
        EXPECT_NE(out.find("mcu_sendrecv #, msgid: 0xd1, seq: 1, result failed: 1\n"
                           "mcu_reset #, mcu_sendrecv fail\n"),
                  std::string::npos)
            << out;
}

TEST_P(Device, HeartbeatDuringAnExchangeEndsIt) {
    Vmcu mcu(GetParam(), {"--rule", "DB:heartbeat", "--heartbeat", "0E013214"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--version"});
    Stats s = version_stats(mcu, 1);
    s.tx_pkts = GetParam() == Vmcu::kTty ? 1 : 0;
    s.tx_rows = GetParam() == Vmcu::kTty ? id_row(0xdb, 1) : "";
    s.rx_bytes = 4;
    s.rx_rows = id_row(0xd0, 1);
    if (GetParam() == Vmcu::kSpi) {
        // On SPI only answers for the request's own id count: the heartbeat
        // is skipped and the retransmission is answered.
        EXPECT_EQ(
            normalize(r.out),
            open_lines(mcu) + "mcu_sendrecv #, msgid fail 0xd0\n" + kVersions + [&] {
                Stats v = version_stats(mcu, 2);
                v.rx_pkts = 2;
                v.rx_bytes = 20;
                v.rx_rows = id_row(0xd0, 1) + id_row(0xdb, 1);
                return stats_block(v);
            }());
        return;
    }
    EXPECT_EQ(normalize(r.out), open_lines(mcu) +
                                    "mcu_sendrecv #, CMD_HEARBEAT: 208\n"
                                    "---------- [HEARBEAT] -----------\n"
                                    "  device type: 14 (0x0e)\n"
                                    "device status: 1 (0x01)\n"
                                    "    cpu usage: 50 (0x32)\n"
                                    "    mem usage: 20 (0x14)\n" +
                                    kZeroVersions + stats_block(s));
}

TEST_P(Device, DataReplyLongerThanTheBufferIsRefused) {
    Vmcu mcu(GetParam(), {"--rule", "DB:long"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--version"});
    Stats s;
    s.tx_pkts = GetParam() == Vmcu::kTty ? 1 : 0;
    s.tx_rows = GetParam() == Vmcu::kTty ? id_row(0xdb, 1) : "";
    s.rx_bytes = 17;
    s.rx_pkts = 1;
    s.rx_rows = id_row(0xdb, 1);
    EXPECT_EQ(normalize(r.out), open_lines(mcu) +
                                    "mcu_sendrecv #, rxlen(16) < payload_len(17)\n"
                                    "mcu_version #, mcu_sendrecv fail\n" +
                                    stats_block(s));
}

// Each receive check, tripped by one bad answer; the retransmission 500 ms
// later is answered properly.
struct CounterCase {
    const char* rule;
    unsigned Stats::*counter;
};

void PrintTo(const CounterCase& c, std::ostream* os) {
    *os << c.rule;
}

class ReceiveCounter : public testing::TestWithParam<std::tuple<Vmcu::Link, CounterCase>> {};

TEST_P(ReceiveCounter, BadAnswerIsCountedAndTheRetransmissionAnswered) {
    Vmcu::Link link = std::get<0>(GetParam());
    CounterCase c = std::get<1>(GetParam());
    Vmcu mcu(link, {"--rule", std::string("DB:") + c.rule});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--version"});
    // Garbage before a good answer costs nothing but the bytes skipped.
    Stats s = version_stats(mcu, c.counter != nullptr ? 2 : 1);
    if (c.counter != nullptr)
        s.*(c.counter) = 1;
    EXPECT_EQ(normalize(r.out), open_lines(mcu) + kVersions + stats_block(s)) << c.rule;
}

INSTANTIATE_TEST_SUITE_P(
    Links, ReceiveCounter,
    testing::Combine(
        testing::Values(Vmcu::kTty, Vmcu::kSpi),
        testing::Values(CounterCase{"badcrc", &Stats::crc}, CounterCase{"biglen", &Stats::len},
                        CounterCase{"badsum", &Stats::sum}, CounterCase{"badseq", &Stats::seq},
                        CounterCase{"badsys", &Stats::sys}, CounterCase{"badcomp", &Stats::dst},
                        CounterCase{"lowid", &Stats::cmd}, CounterCase{"garbage=40", nullptr})),
    [](const testing::TestParamInfo<std::tuple<Vmcu::Link, CounterCase>>& info) {
        std::string name = std::get<1>(info.param).rule;
        name = name.substr(0, name.find('='));
        return std::string(std::get<0>(info.param) == Vmcu::kTty ? "Tty_" : "Spi_") + name;
    });

INSTANTIATE_TEST_SUITE_P(Links, Device, testing::Values(Vmcu::kTty, Vmcu::kSpi), link_name);

// ---- TTY specifics ---------------------------------------------------------

// Key=value pairs of the MCU's TERMIOS log line.
std::map<std::string, std::string> termios_of(const Vmcu& mcu) {
    std::map<std::string, std::string> kv;
    std::vector<std::string> lines = mcu.log("TERMIOS ");
    if (lines.empty())
        return kv;
    std::stringstream ss(lines[0]);
    std::string item;
    while (ss >> item) {
        size_t eq = item.find('=');
        if (eq != std::string::npos)
            kv[item.substr(0, eq)] = item.substr(eq + 1);
    }
    return kv;
}

void expect_port_config(const std::string& rate) {
    Vmcu mcu(Vmcu::kTty);
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"-speed", rate, "--version"});
    EXPECT_EQ(normalize(r.out), "open " + mcu.dev() + " @ " + rate + "\n" + kVersions +
                                    stats_block(version_stats(mcu, 1)));
    mcu.stop();
    std::map<std::string, std::string> t = termios_of(mcu);
    const std::map<std::string, std::string> want = {
        {"cs8", "1"},   {"parenb", "0"}, {"cstopb", "0"}, {"crtscts", "0"}, {"icanon", "0"},
        {"echo", "0"},  {"isig", "0"},   {"opost", "0"},  {"ixon", "0"},    {"ixoff", "0"},
        {"icrnl", "0"}, {"inpck", "0"},  {"vmin", "0"},   {"vtime", "1"},   {"cbaud", "B" + rate},
    };
    for (const auto& kv : want)
        EXPECT_EQ(t[kv.first], kv.second) << kv.first << " at " << rate;
    // The numeric rates come from termios2, which emulators may lack.
    if (t["termios2"] != "unsupported") {
        EXPECT_EQ(t["ispeed"], rate);
        EXPECT_EQ(t["ospeed"], rate);
    }
}

TEST(Tty, PortIsConfiguredRaw8N1WithTheRequestedRate) {
    for (const char* rate : {"9600", "115200", "230400", "460800"})
        expect_port_config(rate);
}

TEST(Tty, PortRunsAtTheHighestListedRates) {
    if (harness::under_emulator())
        GTEST_SKIP() << "qemu-user 7.2 turns the B921600 and B1152000 rate codes into B0";
    for (const char* rate : {"921600", "1152000"})
        expect_port_config(rate);
}

TEST(Tty, ArbitraryRateIsAnnouncedAndReallyApplied) {
    for (const char* rate : {"57600", "1000000"}) {
        Vmcu mcu(Vmcu::kTty);
        ASSERT_TRUE(mcu.ok());
        RunResult r = mcu.run_tool({"-speed", rate, "--version"});
        EXPECT_EQ(normalize(r.out), "open " + mcu.dev() + " @ " + rate + "\n" +
                                        "mcu_open #, arbitrary baudrate=" + rate + "\n\n" +
                                        kVersions + stats_block(version_stats(mcu, 1)));
        mcu.stop();
        std::map<std::string, std::string> t = termios_of(mcu);
        if (t["termios2"] == "unsupported") {
            // Emulators without termios2 keep the plain BOTHER marker.
            GTEST_SKIP() << "termios2 is not available here: the custom rate cannot be read back";
        }
        EXPECT_EQ(t["cbaud"], "BOTHER") << rate;
        EXPECT_EQ(t["ispeed"], rate);
        EXPECT_EQ(t["ospeed"], rate);
    }
}

TEST(Tty, BusyAnswerDelaysAndPollsWithTheNextSequence) {
    Vmcu mcu(Vmcu::kTty, {"--rule", "D1:busy=0", "--rule", "DB:busy=600"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--reset", "2"});
    Stats s;
    s.tx_bytes = 4;
    s.tx_pkts = 2;
    s.tx_rows = id_row(0xd1, 1) + id_row(0xe0, 1);
    s.rx_pkts = 2;
    s.rx_bytes = 2;
    s.rx_rows = id_row(0xfd, 1) + id_row(0xfe, 1);
    EXPECT_EQ(normalize(r.out),
              open_lines(mcu) + "mcu_sendrecv #, busy timout default 200\n" + stats_block(s));
    EXPECT_GT(r.seconds, 0.2);

    // A delay longer than the time-out is announced and still waited for.
    r = mcu.run_tool({"--version"});
    Stats v;
    v.tx_pkts = 2;
    v.tx_rows = id_row(0xdb, 1) + id_row(0xe0, 1);
    v.rx_pkts = 2;
    v.rx_bytes = 2 + 16;
    v.rx_rows = id_row(0xdb, 1) + id_row(0xfd, 1);
    EXPECT_EQ(normalize(r.out),
              open_lines(mcu) + "mcu_sendrecv #, busy too long 600\n" + kVersions + stats_block(v));
    EXPECT_GT(r.seconds, 0.6);
    mcu.stop();
    EXPECT_EQ(mcu.log("RX "),
              (std::vector<std::string>{wire::request(1, 0x0A, 0xD1, {0xAA, 0x55, 0x02, 0x00}),
                                        wire::request(2, 0x0A, 0xE0), wire::request(1, 0x0A, 0xDB),
                                        wire::request(2, 0x0A, 0xE0)}));
}

TEST(Tty, DeviceOptionCountsOnlyAfterTheTarget) {
    Vmcu mcu(Vmcu::kTty, {"--id", "19"});
    ASSERT_TRUE(mcu.ok());
    struct stat st;
    if (stat("/dev/ttyACM0", &st) == 0)
        GTEST_SKIP() << "/dev/ttyACM0 exists on this machine";
    // Target 0x19 defaults to /dev/ttyACM0, which replaces the -dev given first.
    RunResult r = harness::run_tool({"-dev", mcu.dev(), "-id", "0x19", "--version"});
    EXPECT_EQ(normalize(r.out),
              "open /dev/ttyACM0 @ 115200\n"
              "mcu_open #, open /dev/ttyACM0 fail : No such file or directory\n"
              "mcu_init #, mcu_open fail\n"
              "mcu_version #, mcu_init fail\n");
    // Given after the target, the device is used.
    r = harness::run_tool({"-id", "0x19", "-dev", mcu.dev(), "--get-sn"});
    EXPECT_EQ(normalize(r.out).substr(0, r.out.find('\n') + 1),
              "open " + mcu.dev() + " @ 115200\n");
    mcu.stop();
    EXPECT_EQ(mcu.log("RX "), std::vector<std::string>{wire::request(1, 0x19, 0xD5)});
}

// ---- SPI specifics ---------------------------------------------------------

TEST(Spi, FailureCodesRefuseTheRequest) {
    for (int code : {1, 3, 4, 5, 6, 7, 8}) {
        Vmcu mcu(Vmcu::kSpi, {"--rule", "D1:code=" + std::to_string(code)});
        ASSERT_TRUE(mcu.ok());
        RunResult r = mcu.run_tool({"--reset", "1"});
        Stats s;
        s.rx_pkts = 1;
        s.rx_bytes = 1;
        s.rx_rows = id_row(0xd1, 1);
        EXPECT_EQ(normalize(r.out),
                  open_lines(mcu) + "mcu_sendrecv #, msgid: 0xd1, seq: 1, result failed: " +
                      std::to_string(code) + "\nmcu_reset #, mcu_sendrecv fail\n" + stats_block(s));
    }
}

// The answer to a transfer comes in a later one, so on SPI the answer to the
// last retransmission is never clocked in: one skipped answer is all the
// budget of two retransmissions can absorb.
TEST(Spi, UnknownCodesAndOtherIdsAreSkipped) {
    struct Case {
        const char* rule;
        const char* diag;
        unsigned other_id;
    } cases[] = {{"D1:code=9", "", 0xd1},
                 {"D1:otherid=DB", "mcu_sendrecv #, msgid fail 0xdb\n", 0xdb}};
    for (const Case& c : cases) {
        Vmcu mcu(Vmcu::kSpi, {"--rule", c.rule});
        ASSERT_TRUE(mcu.ok());
        RunResult r = mcu.run_tool({"--reset", "1"});
        Stats s;
        s.tx_bytes = 4;
        s.tx_pkts = 1;
        s.tx_rows = id_row(0xd1, 1);
        s.rx_pkts = 2;
        s.rx_bytes = 2;
        s.rx_rows = c.other_id == 0xd1 ? id_row(0xd1, 2) : id_row(0xd1, 1) + id_row(0xdb, 1);
        EXPECT_EQ(normalize(r.out), open_lines(mcu) + c.diag + stats_block(s)) << c.rule;
        EXPECT_GT(r.seconds, 0.5) << c.rule;
        mcu.stop();
        std::string req = wire::request(1, 0x0A, 0xD1, {0xAA, 0x55, 0x01, 0x00});
        EXPECT_EQ(mcu.log("RX "), (std::vector<std::string>{req, req})) << c.rule;
    }
}

TEST(Spi, BusyAnswerLeadsToExactlyOnePoll) {
    Vmcu mcu(Vmcu::kSpi, {"--rule", "D1:busy=50", "--rule", "E0:silent"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--reset", "1"});
    mcu.stop();
    // Request, one poll with the request's sequence number, then (the poll
    // unanswered) the retransmission after the time-out.
    std::string req = wire::request(1, 0x0A, 0xD1, {0xAA, 0x55, 0x01, 0x00});
    EXPECT_EQ(mcu.log("RX "), (std::vector<std::string>{req, wire::request(1, 0x0A, 0xE0), req}));
    Stats s;
    s.tx_bytes = 4;
    s.tx_pkts = 1;
    s.tx_rows = id_row(0xd1, 1);
    s.rx_pkts = 2;
    s.rx_bytes = 4;
    s.rx_rows = id_row(0xd1, 2);
    EXPECT_EQ(normalize(r.out), open_lines(mcu) + stats_block(s));
}

TEST(Spi, FailedTransferTakesTheLinkDown) {
    Vmcu mcu(Vmcu::kSpi, {"--rule", "D1:xferfail"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--reset", "1"});
    Stats first, second;
    second.tx_fail = 1;
    EXPECT_EQ(normalize(r.out),
              open_lines(mcu) + "mcu_sendrecv #, spi message ioctl failed: -1\n\n" +
                  stats_block(first) + "mcu_reset #, mcu_sendrecv fail\n" + stats_block(second));
}

TEST(Spi, DeviceIsSetToMode0EightBitsAt7800000Hz) {
    Vmcu mcu(Vmcu::kSpi);
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"-speed", "7800000", "--version"});
    EXPECT_EQ(normalize(r.out),
              "open /dev/spidev0.0 @ 7800000\n"
              "========open_spi_serial: /dev/spidev0.0 success\n" +
                  std::string(kVersions) + stats_block(version_stats(mcu, 1)));
    mcu.stop();
    std::vector<std::string> settings;
    for (const std::string& l : mcu.log("SPI "))
        if (l != "CONNECT" && l != "DISCONNECT")
            settings.push_back(l);
    EXPECT_EQ(settings, (std::vector<std::string>{"MODE 0", "SPEED 7800000", "BITS 8"}));
}

}  // namespace
