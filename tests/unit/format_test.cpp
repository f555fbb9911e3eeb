// What the operator reads: version text, the link statistics report, debug
// replies, heartbeats and the upgrade parameter limits.
#include <string.h>

#include <string>

#include "unit_support.h"

namespace unit {
namespace {

class FormatTest : public ModuleTest {};

// ---- versions -----------------------------------------------------------

TEST_F(FormatTest, VersionTextRunsFromTheLastByteToTheFirst) {
    ST_Version v = {1, 2, 3, 4};
    char buf[16];
    EXPECT_EQ(version_to_string(&v, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "4.3.2.1");
    ST_Version wide = {255, 0, 10, 200};
    EXPECT_EQ(version_to_string(&wide, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "200.10.0.255");
}

TEST_F(FormatTest, VersionTextIsCutToTheBuffer) {
    ST_Version v = {1, 2, 3, 4};
    char buf[8];
    memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(version_to_string(&v, buf, 4), 0);
    EXPECT_STREQ(buf, "4.3");
    EXPECT_EQ(buf[4], 'Z');
    EXPECT_EQ(version_to_string(&v, buf, 1), 0);
    EXPECT_STREQ(buf, "");
}

TEST_F(FormatTest, VersionTextRefusesBadArguments) {
    ST_Version v = {1, 2, 3, 4};
    char buf[8];
    EXPECT_EQ(version_to_string(nullptr, buf, 8), -1);
    EXPECT_EQ(version_to_string(&v, nullptr, 8), -1);
    EXPECT_EQ(version_to_string(&v, buf, 0), -1);
    EXPECT_EQ(diag_lines(),
              "version_to_string #, invalid params\n"
              "version_to_string #, invalid params\n"
              "version_to_string #, invalid params\n");
}

TEST_F(FormatTest, PrintVersionLine) {
    ST_Version v = {1, 2, 3, 4};
    char software[] = "Software";
    EXPECT_EQ(stdout_of([&] { EXPECT_EQ(print_version(software, &v), 0); }),
              "Software: V4.3.2.1\n");
    EXPECT_EQ(stdout_of([&] { EXPECT_EQ(print_version(nullptr, &v), 0); }), " - : V4.3.2.1\n");
    EXPECT_EQ(stdout_of([&] { EXPECT_EQ(print_version(software, nullptr), -1); }), "");
    EXPECT_EQ(diag_lines(), "print_version #, null param\n");
}

// ---- statistics report --------------------------------------------------

class StatsReportTest : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        fix_clock_ms(int64_t{1700000000} * 1000);
        clear_stts(&st_);
    }
    std::string report() {
        return stdout_of([&] { EXPECT_EQ(print_stts(&st_), 0); });
    }
    std::string elapse_line() {
        const std::string r = report();
        const size_t start = r.find('\n') + 1;
        return r.substr(start, r.find('\n', start) - start);
    }
    ST_MavlinkStts st_;
};

TEST_F(StatsReportTest, ClearZeroesEverythingAndStampsTheStart) {
    memset(&st_, 0x5A, sizeof st_);
    fix_clock_ms(12345);
    clear_stts(&st_);
    EXPECT_EQ(st_.msStart, 12345);
    ST_MavlinkStts zero;
    memset(&zero, 0, sizeof zero);
    zero.msStart = 12345;
    EXPECT_EQ(0, memcmp(&st_, &zero, sizeof zero));
    clear_stts(nullptr);
}

TEST_F(StatsReportTest, ElapsedTimeHasThreeDecimals) {
    EXPECT_EQ(elapse_line(), "Fenlink statistics: elapse 0.000 s");
    advance_clock_ms(999);
    EXPECT_EQ(elapse_line(), "Fenlink statistics: elapse 0.999 s");
    advance_clock_ms(2345 - 999);
    EXPECT_EQ(elapse_line(), "Fenlink statistics: elapse 2.345 s");
    advance_clock_ms(100000 - 2345 + 7);
    EXPECT_EQ(elapse_line(), "Fenlink statistics: elapse 100.007 s");
}

TEST_F(StatsReportTest, ElapsedTimeAcrossTheClockWrap) {
    fix_clock_ms((int64_t{400} << 32) - 1000);
    clear_stts(&st_);
    advance_clock_ms(2345);
    EXPECT_EQ(elapse_line(), "Fenlink statistics: elapse 2.345 s");
}

TEST_F(StatsReportTest, EveryCounterOnItsOwnLine) {
    st_.txBytes = 1;
    st_.txPkts = 2;
    st_.txFail = 3;
    st_.rxBytes = 4;
    st_.rxPkts = 5;
    st_.crcFail = 6;
    st_.lenFail = 7;
    st_.sumFail = 8;
    st_.seqFail = 9;
    st_.sysFail = 10;
    st_.compFail = 11;
    st_.cmdFail = 4294967295u;
    st_.txCnt[0xDB] = 3;
    st_.txCnt[0x01] = 12345678;
    st_.rxCnt[0xFF] = 4;
    st_.rxCnt[0x00] = 1;
    EXPECT_EQ(report(),
              "=============================\n"
              "Fenlink statistics: elapse 0.000 s\n"
              "TX Bytes:           1\n"
              "TX Packets:         2\n"
              "TX Fail:            3\n"
              "TX messages:\n"
              "   [0x01]    12345678\n"
              "   [0xdb]           3\n"
              "RX Bytes:           4\n"
              "RX Packets:         5\n"
              "RX CRC Fail:        6\n"
              "RX Len Fail:        7\n"
              "RX Sum Fail:        8\n"
              "RX Seq Fail:        9\n"
              "RX Sys Fail:       10\n"
              "RX Dst Fail:       11\n"
              "RX Cmd Fail: 4294967295\n"
              "RX messages:\n"
              "   [0x00]           1\n"
              "   [0xff]           4\n"
              "=============================\n");
}

TEST_F(StatsReportTest, SwitchedOffChecksDropTheirLines) {
    const std::string all = report();
    m_seq_check = 0;
    std::string no_seq = all;
    no_seq.erase(no_seq.find("RX Seq Fail:        0\n"), 22);
    EXPECT_EQ(report(), no_seq);

    m_sys_id_check = m_comp_id_check = m_msgid_check = 0;
    EXPECT_EQ(report(),
              "=============================\n"
              "Fenlink statistics: elapse 0.000 s\n"
              "TX Bytes:           0\n"
              "TX Packets:         0\n"
              "TX Fail:            0\n"
              "TX messages:\n"
              "RX Bytes:           0\n"
              "RX Packets:         0\n"
              "RX CRC Fail:        0\n"
              "RX Len Fail:        0\n"
              "RX Sum Fail:        0\n"
              "RX messages:\n"
              "=============================\n");
}

TEST_F(StatsReportTest, NullRecord) {
    EXPECT_EQ(stdout_of([] { EXPECT_EQ(print_stts(nullptr), -1); }), "");
    EXPECT_EQ(diag_lines(), "print_stts #, null pointer\n");
}

// ---- debug replies and heartbeats ---------------------------------------

TEST_F(FormatTest, TimeSyncPrintsParam1First) {
    ST_DebugCmd cmd = {DEBUGCODE_TIME_SYNC, 0x11, 0x22, 0, 0};
    EXPECT_EQ(stdout_of([&] { mcu_debug(&cmd); }), "TIME SYNC: 0x00000022 0x00000011\n");
}

TEST_F(FormatTest, LoopbackResultFollowsParam0) {
    ST_DebugCmd cmd = {DEBUGCODE_SET_LOOPBACK, 0, 0, 0, 0};
    EXPECT_EQ(stdout_of([&] { mcu_debug(&cmd); }), "Set message loopback: fail\n");
    cmd.param0 = 0x100;
    EXPECT_EQ(stdout_of([&] { mcu_debug(&cmd); }), "Set message loopback: success\n");
}

TEST_F(FormatTest, UndefinedDebugCodesAreRefused) {
    for (uint32_t code : {21u, 31u, 34u, 0x104u, 0xFFFFFFFFu}) {
        clear_diag();
        ST_DebugCmd cmd = {code, 1, 2, 3, 4};
        EXPECT_EQ(stdout_of([&] { EXPECT_EQ(mcu_debug(&cmd), -2); }), "") << code;
        char line[64];
        snprintf(line, sizeof line, "mcu_debug #, msg->debugcode 0x%08x error\n\n", code);
        EXPECT_EQ(diag_lines(), line);
    }
    clear_diag();
    EXPECT_EQ(stdout_of([] { EXPECT_EQ(mcu_debug(nullptr), -2); }), "");
    EXPECT_EQ(diag(), "");
}

// ---- upgrade parameter limits -------------------------------------------

TEST_F(FormatTest, ValuesOnTheBoundsStayWithoutALine) {
    for (ST_TimeRetryCmd cmd : {ST_TimeRetryCmd{1000, 2, 240, 20, 2, 2, 2, 500},
                                ST_TimeRetryCmd{3000, 6, 65000, 60, 6, 6, 6, 1500}}) {
        const ST_TimeRetryCmd before = cmd;
        EXPECT_EQ(stdout_of([&] { mcu_limit_upgrade_param(&cmd); }), "");
        EXPECT_EQ(0, memcmp(&cmd, &before, sizeof before));
    }
}

TEST_F(FormatTest, OneStepOutsideABoundIsCorrected) {
    ST_TimeRetryCmd cmd = {2000, 3, 512, 61, 4, 4, 4, 499};
    EXPECT_EQ(stdout_of([&] { mcu_limit_upgrade_param(&cmd); }),
              "low message timeout ms: 499, using default: 500\n"
              "large erase timeouts: 61, using default: 60\n");
    EXPECT_EQ(cmd.message_timeoutms, 500);
    EXPECT_EQ(cmd.erase_timeouts, 60);
    cmd.message_timeoutms = 1501;
    cmd.erase_timeouts = 19;
    EXPECT_EQ(stdout_of([&] { mcu_limit_upgrade_param(&cmd); }),
              "large message timeout ms: 1501, using default: 1500\n"
              "low erase timeouts: 19, using default: 20\n");
    const ST_TimeRetryCmd want = {2000, 3, 512, 20, 4, 4, 4, 1500};
    EXPECT_EQ(0, memcmp(&cmd, &want, sizeof want));
}

}  // namespace
}  // namespace unit
