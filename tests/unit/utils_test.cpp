// Diagnostics sink, debug level, hex dump layout and the millisecond clock.
#include <string>
#include <vector>

#include "unit_support.h"

namespace unit {
namespace {

class UtilsTest : public ModuleTest {};

std::string blanks(int columns) {
    return std::string(static_cast<size_t>(columns) * 3, ' ');
}

TEST_F(UtilsTest, HexdumpShowsOnlyPrintableCharacters) {
    const unsigned char bytes[] = {0x00, 0x7F, 0x80, 0xFF, 0x20, 0x41, 0x7E, 0x1F};
    hexdump(bytes, sizeof bytes);
    EXPECT_EQ(diag(), "000: 00 7f 80 ff 20 41 7e 1f " + blanks(8) + "  .... A~.\n");
}

TEST_F(UtilsTest, HexdumpLongestBufferKeepsEveryLineWhole) {
    std::vector<unsigned char> buf(65535, 'Z');
    hexdump(buf.data(), 65535);
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t nl; (nl = diag().find('\n', start)) != std::string::npos; start = nl + 1)
        lines.push_back(diag().substr(start, nl - start));
    ASSERT_EQ(lines.size(), 4096u);
    EXPECT_EQ(lines[1].substr(0, 5), "016: ");
    EXPECT_EQ(lines[64].substr(0, 6), "1024: ");
    // A five-digit offset with 16 columns is the longest line: 73 characters.
    std::string zs(16, 'Z');
    std::string row;
    for (int i = 0; i < 16; i++)
        row += "5a ";
    EXPECT_EQ(lines[4094], "65504: " + row + "  " + zs);
    EXPECT_EQ(lines[4094].size(), 73u);
    EXPECT_EQ(lines[4095], "65520: " + row.substr(0, 45) + blanks(1) + "  " + zs.substr(0, 15));
}

TEST_F(UtilsTest, HexdumpOfNothingPrintsNothing) {
    const unsigned char byte = 1;
    hexdump(&byte, 0);
    EXPECT_EQ(diag(), "");
}

TEST_F(UtilsTest, NullPrintFunctionSilencesDumpsAndDiagnostics) {
    pfn_print = nullptr;
    const unsigned char abc[] = {'a', 'b', 'c'};
    std::string out = stdout_of([&] {
        hexdump(abc, 3);
        EXPECT_EQ(crc32_update(nullptr, 4, 7u), 7u);
        set_debug_level(DEBUG_LV_DEBUG);
        set_crc_extra(0x12);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(diag(), "");
}

TEST_F(UtilsTest, SetPrintFxnIgnoresNull) {
    set_print_fxn(nullptr);
    EXPECT_EQ(pfn_print, &capture_print);
    crc32_update(nullptr, 4, 0);
    EXPECT_EQ(diag_lines(), "crc32_update #, null pointer\n");
}

struct LevelCase {
    int given;
    uint8_t stored;
    bool debug_lines;
};

class DebugLevelTest : public ModuleTest, public ::testing::WithParamInterface<LevelCase> {};

TEST_P(DebugLevelTest, StoredTruncatedToEightBits) {
    set_debug_level(GetParam().given);
    EXPECT_EQ(__debuglevel, GetParam().stored);
    set_crc_extra(0x5A);
    EXPECT_EQ(diag_lines(), GetParam().debug_lines ? "set_crc_extra #, m_crc_extra = 0x5a\n" : "");
}

INSTANTIATE_TEST_SUITE_P(Levels, DebugLevelTest,
                         ::testing::Values(LevelCase{0, 0, false}, LevelCase{1, 1, true},
                                           LevelCase{3, 3, true}, LevelCase{255, 255, true},
                                           LevelCase{256, 0, false}, LevelCase{260, 4, true},
                                           LevelCase{-1, 255, true}));

TEST_F(UtilsTest, TimeGetMsIsLowThirtyTwoBitsReadAsSigned) {
    // 1700000000999 ms is 0xCFE5C3E7 in its low 32 bits.
    fix_clock(1700000000, 999999);
    EXPECT_EQ(Time_GetMs(), -807048217);
    fix_clock(0, 1999);
    EXPECT_EQ(Time_GetMs(), 1);
}

TEST_F(UtilsTest, TimeGetSecIsLowThirtyTwoBitsReadAsSigned) {
    fix_clock((int64_t{1} << 32) + 5, 0);
    EXPECT_EQ(Time_GetSec(), 5);
    fix_clock(int64_t{1} << 31, 0);
    EXPECT_EQ(Time_GetSec(), INT32_MIN);
}

TEST_F(UtilsTest, ElapsedTimeStaysRightAcrossTheWrap) {
    const int64_t wrap = int64_t{400} << 32;
    // Across zero: -1000 then 1345.
    fix_clock_ms(wrap - 1000);
    int32_t start = Time_GetMs();
    EXPECT_EQ(start, -1000);
    advance_clock_ms(2345);
    EXPECT_EQ(Time_GetMs(), 1345);
    EXPECT_EQ(elapsed_ms(start), 2345);
    // Across the signed limit: INT32_MAX - 999 then INT32_MIN + 1000.
    fix_clock_ms(wrap + (int64_t{1} << 31) - 1000);
    start = Time_GetMs();
    EXPECT_EQ(start, INT32_MAX - 999);
    advance_clock_ms(2000);
    EXPECT_EQ(Time_GetMs(), INT32_MIN + 1000);
    EXPECT_EQ(elapsed_ms(start), 2000);
}

}  // namespace
}  // namespace unit
