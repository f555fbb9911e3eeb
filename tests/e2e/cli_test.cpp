// The command line and the device-free actions, run on the real binary.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "harness.h"

using harness::normalize;
using harness::run_tool;
using harness::TempDir;
using harness::usage_text;
using harness::version_line;

namespace {

// Checks the exit status and the whole normalised standard output.
void expect_run(const std::vector<std::string>& args, const std::string& out, int status = 0) {
    harness::RunResult r = run_tool(args);
    EXPECT_EQ(r.status, status);
    EXPECT_EQ(normalize(r.out), out);
}

TEST(CommandLine, NoArgumentsPrintsTheVersionLine) {
    harness::RunResult r = run_tool({});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(normalize(r.out), version_line());
    // The build stamp is the compiler's date and time.
    EXPECT_TRUE(std::regex_match(r.out, std::regex(R"(V1\.3\.01 Build [A-Z][a-z]{2} [ 0-9][0-9] )"
                                                   R"([0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}\n)")));
    EXPECT_EQ(r.err, "");
}

TEST(CommandLine, HelpInEveryFormPrintsVersionAndUsage) {
    for (const char* opt : {"--help", "-help", "-h", "--hel"}) {
        harness::RunResult r = run_tool({opt});
        EXPECT_EQ(r.status, 0) << opt;
        EXPECT_EQ(normalize(r.out), version_line() + usage_text()) << opt;
        EXPECT_EQ(r.err, "") << opt;
    }
}

TEST(CommandLine, ParserComplaintsGoToStandardErrorThenVersionAndUsage) {
    // Unknown option, missing argument, ambiguous abbreviation.
    for (std::vector<std::string> args : {std::vector<std::string>{"--bogus"},
                                          {"-id", "0xA", "--reset"},
                                          {"--upg", "fw.bin"},
                                          {"--d"}}) {
        harness::RunResult r = run_tool(args);
        EXPECT_EQ(r.status, 0) << args[0];
        EXPECT_EQ(normalize(r.out), version_line() + usage_text()) << args[0];
        EXPECT_NE(r.err, "") << args[0];
    }
}

TEST(CommandLine, RefusedSettingsPrintTheirReasonAndUsage) {
    expect_run({"-speed", "0", "--version"}, "set_serial_speed #, zero speed\n" + usage_text());
    expect_run({"-id", "0xA", "-dev", "", "--version"},
               "set_serial_dev #, null string\n" + usage_text());
}

TEST(CommandLine, ImmediateActionEndsTheRunBeforeLaterOptions) {
    expect_run({"--hex-dump", "abc", "--version"},
               "000: 61 62 63                                          abc\n");
}

TEST(CommandLine, TargetIdIsHexadecimalCutToEightBits) {
    auto id_lines = [](const char* sys, const char* comp, const char* dev) {
        return std::string("set_comp_id #, m_sys_id = ") + sys + "\n" +
               "set_comp_id #, m_comp_id = " + comp + "\n" +
               "set_comp_id #, m_serial_dev = " + dev + "\n";
    };
    expect_run({"-d", "-id", "1A"}, id_lines("0x02", "0x1a", "/dev/ttyACM0") + version_line());
    expect_run({"-d", "-id", "0x1a"}, id_lines("0x02", "0x1a", "/dev/ttyACM0") + version_line());
    expect_run({"-d", "-id", "0x10E"}, id_lines("0x03", "0x0e", "/dev/ttyS2") + version_line());
    // Nothing parsable is 0: no target.
    expect_run({"-d", "-id", "zz"}, id_lines("0x02", "0x00", "/dev/ttyS2") + version_line());
    // A debug option only affects the options after it.
    expect_run({"-id", "0xA", "-d"}, version_line());
}

TEST(CommandLine, SettersEchoAtDebugLevel) {
    expect_run(
        {"-d", "-dev", "/dev/ttyUSB3", "-speed", "-5", "--extra-crc", "0x155", "--ignore-seq"},
        "set_serial_dev #, m_serial_dev = /dev/ttyUSB3\n"
        "set_serial_speed #, m_serial_speed = -5\n"
        "set_crc_extra #, m_crc_extra = 0x55\n"
        "set_seq_check #, m_seq_check = 0x00\n" +
            version_line());
    expect_run({"--dd", "--upgrade-fw", "fw.bin", "--ddd", "--upgrade", "b.bin", "--get-sn"},
               "set_upgrade_type #, m_upgrade_type = 0x01\n"
               "set_upgrade_type #, m_upgrade_type = 0x00\n"
               "mcu_serial #, comp_id not set\n");
}

TEST(CommandLine, NonOptionWordsAreReportedAndTheActionStillRuns) {
    expect_run({"--version", "one", "two"},
               "non-option ARGV-elements: one two \nmcu_version #, comp_id not set\n");
    expect_run({"word"}, "non-option ARGV-elements: word \n" + version_line());
}

TEST(CommandLine, LastDeviceActionWins) {
    // Without a target every action refuses in its own words, which shows
    // which one was recorded.
    expect_run({"--version", "--get-sn"}, "mcu_serial #, comp_id not set\n");
    expect_run({"--get-sn", "-v"}, "mcu_version #, comp_id not set\n");
    expect_run({"--version", "-r", "7"}, "mcu_reset #, comp_id not set\n");
    expect_run({"--get-stts"}, "mcu_debug_get_stts #, no target specified\n");
    expect_run({"--clear-stts"}, "mcu_debug_clear_stts #, no target specified\n");
    expect_run({"--loopback", "1"}, "mcu_debug_set_message_loopback #, no target specified\n");
    expect_run({"--flood-test", "3"}, "mcu_debug_message_send_test #, no target specified\n");
    expect_run({"--monitor", "e8"}, "mcu_monitor_message #, no target specified\n");
    expect_run({"--upgrade", "fw.bin"}, "mcu_upgrade #, component not specified\n");
    expect_run({"-u", "fw.bin"}, "mcu_upgrade #, component not specified\n");
    expect_run({"--get-timeretry"}, "get_timeretry #, no target specified\n", 255);
}

TEST(CommandLine, MonitorAfterSendrawBecomesSendThenMonitor) {
    expect_run({"--sendraw", "D001", "--monitor", "e8", "--timeout", "5"},
               "mcu_sendraw_then_monitor #, no target specified\n");
    expect_run({"--monitor", "e8", "--sendraw", "D001"}, "mcu_sendraw #, no target specified\n");
    // The last string given is the one used, and a bad one is reported
    // before the missing target.
    expect_run({"--writeraw", "0G", "--sendraw", "D0"}, "mcu_sendraw #, no target specified\n");
    expect_run({"--sendraw", "D0", "--writeraw", "0G"},
               "string2hex #, illegal char G at 1\nmcu_writeraw #, string convert to hex fail\n");
}

TEST(Crc16, CheckValueAndSingleByte) {
    expect_run({"--calc-crc16", "313233343536373839"}, "crc16 : 0x6f91 (9 Bytes)\n");
    expect_run({"-calc-crc16", "00"}, "crc16 : 0x0f87 (1 Bytes)\n");
    // Upper and lower case digits are the same bytes.
    expect_run({"--calc-crc16", "aBcD"}, run_tool({"--calc-crc16", "ABcd"}).out);
}

TEST(Crc16, BadHexStringsGetTheirDiagnosticAndUsage) {
    const std::string fail = "mcu_crc16 #, string convert to hex fail\n" + usage_text();
    expect_run({"--calc-crc16", ""}, fail);
    expect_run({"--calc-crc16", "0G"}, "string2hex #, illegal char G at 1\n" + fail);
    expect_run({"--calc-crc16", "abc"}, "string2hex #, illegal length 3 (abc)\n" + fail);
    expect_run({"--calc-crc16", "0x12"}, "string2hex #, illegal char x at 1\n" + fail);
    expect_run({"--calc-crc16", "12 345"}, "string2hex #, illegal char   at 2\n" + fail);
    // The length is checked before the characters.
    expect_run({"--calc-crc16", "12 34"}, "string2hex #, illegal length 5 (12 34)\n" + fail);
    // One byte more than a whole frame record holds.
    std::string longest(2 * 65010, 'a');
    harness::RunResult r = run_tool({"--calc-crc16", longest});
    EXPECT_TRUE(std::regex_match(r.out, std::regex(R"(crc16 : 0x[0-9a-f]{4} \(65010 Bytes\)\n)")));
    expect_run({"--calc-crc16", longest + "ab"},
               "string2hex #, buffer too small 65010 < 65011\n" + fail);
}

TEST(Crc32, WordOrientedValuesOfFiles) {
    TempDir dir;
    struct Case {
        std::string bytes;
        const char* out;
    } cases[] = {
        {"1234", "crc32 : 0x050dc953 (4 Bytes)\n"},
        {"12345678", "crc32 : 0x97f8efa0 (8 Bytes)\n"},
        {"123456789", "crc32 : 0xd09e59b9 (9 Bytes)\n"},
        {std::string(1, '\xff'), "crc32 : 0xc704dd7b (1 Bytes)\n"},
        {std::string(4, '\xff'), "crc32 : 0xc704dd7b (4 Bytes)\n"},
        {std::string(4, '\0'), "crc32 : 0x00000000 (4 Bytes)\n"},
    };
    int i = 0;
    for (const Case& c : cases)
        expect_run({"--calc-crc32", dir.write("f" + std::to_string(i++), c.bytes)}, c.out);
}

TEST(Crc32, MissingEmptyAndUnreadableFiles) {
    TempDir dir;
    const std::string missing = dir.file("missing.bin");
    expect_run({"--calc-crc32", missing}, "file_size #, stat " + missing +
                                              " fail : No such file or directory\n"
                                              "mcu_crc32 #, file_size fail\n" +
                                              usage_text());
    expect_run({"--calc-crc32", ""},
               "file_size #, null pointer\nmcu_crc32 #, file_size fail\n" + usage_text());
    expect_run({"--calc-crc32", dir.write("empty.bin", "")},
               "read_file #, params wrong\nmcu_crc32 #, read_file fail\n" + usage_text());
    // A directory has a size but cannot be read as a file.
    harness::RunResult r = run_tool({"--calc-crc32", dir.path()});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(normalize(r.out), "read_file #, read " + dir.path() +
                                    " fail : Is a directory\nmcu_crc32 #, read_file fail\n" +
                                    usage_text());
}

TEST(HexDump, LineLayout) {
    expect_run({"--hex-dump", "abc"},
               "000: 61 62 63                                          abc\n");
    expect_run({"--hex-dump", "0123456789abcdef"},
               "000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66   0123456789abcdef\n");
    expect_run({"--hex-dump", "0123456789abcdefg"},
               "000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66   0123456789abcdef\n"
               "016: 67                                                g\n");
    expect_run({"--hex-dump", ""}, "");
    expect_run({"--hex-dump", "a b\x7f\x80"},
               "000: 61 20 62 7f 80                                    a b..\n");
}

TEST(Date, FormatsAFixedInstant) {
    const std::vector<std::string> env = {std::string("LD_PRELOAD=") + MCU_FIXED_CLOCK_PATH,
                                          "MCU_FIXED_TIME=1700000000.123456",
                                          harness::preload_asan_options()};
    struct Case {
        const char* style;
        const char* out;
    } cases[] = {
        {"0", "1700000000.123\n"}, {"1", "22:13:20.123\n"},    {"2", "19675 - 22:13:20.123\n"},
        {"7", "1700000000.123\n"}, {"-1", "1700000000.123\n"},
    };
    for (const Case& c : cases) {
        harness::RunResult r = run_tool({"--date", c.style}, env);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, c.out) << "style " << c.style;
    }
    // Small values keep their padding.
    harness::RunResult r =
        run_tool({"--date", "2"}, {env[0], env[2], "MCU_FIXED_TIME=86461.005999"});
    EXPECT_EQ(r.out, "01 - 00:01:01.005\n");
    r = run_tool({"--date", "0"}, {env[0], env[2], "MCU_FIXED_TIME=5.000000"});
    EXPECT_EQ(r.out, "00000005.000\n");
}

}  // namespace
