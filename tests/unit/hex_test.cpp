// Hex digits and hex strings: two digits per byte, high nibble first.
#include <string.h>

#include <string>

#include "unit_support.h"

namespace unit {
namespace {

class HexTest : public ModuleTest {};

TEST_F(HexTest, DigitValuesAndTheirNeighbours) {
    const struct {
        char c;
        int value;
    } cases[] = {
        {'0', 0},  {'9', 9},  {'A', 10},  {'F', 15},
        {'a', 10}, {'f', 15}, {'/', -1},  {':', -1},
        {'@', -1}, {'G', -1}, {'`', -1},  {'g', -1},
        {'x', -1}, {' ', -1}, {'\0', -1}, {static_cast<char>(0xB0), -1},
    };
    for (const auto& k : cases)
        EXPECT_EQ(char2hex(k.c), k.value) << "char " << static_cast<int>(k.c);
}

TEST_F(HexTest, ConvertsEitherCase) {
    uint8_t buf[4] = {};
    EXPECT_EQ(string2hex("aB", buf, 4), 1);
    EXPECT_EQ(buf[0], 0xAB);
    EXPECT_EQ(string2hex("AB", buf, 4), 1);
    EXPECT_EQ(buf[0], 0xAB);
    EXPECT_EQ(string2hex("D00102", buf, 4), 3);
    EXPECT_EQ(buf[0], 0xD0);
    EXPECT_EQ(buf[1], 0x01);
    EXPECT_EQ(buf[2], 0x02);
    EXPECT_EQ(diag(), "");
}

TEST_F(HexTest, ExactFitWritesNothingBeyondTheCapacity) {
    uint8_t buf[4];
    memset(buf, 0xEE, sizeof buf);
    EXPECT_EQ(string2hex("0123456789", buf, 3), -1);
    EXPECT_EQ(buf[0], 0xEE);
    EXPECT_EQ(string2hex("012345", buf, 3), 3);
    EXPECT_EQ(buf[2], 0x45);
    EXPECT_EQ(buf[3], 0xEE);
    EXPECT_EQ(diag_lines(), "string2hex #, buffer too small 3 < 5\n");
}

TEST_F(HexTest, EmptyStringIsZeroBytes) {
    uint8_t buf[2] = {0x77, 0x77};
    EXPECT_EQ(string2hex("", buf, 2), 0);
    EXPECT_EQ(buf[0], 0x77);
    EXPECT_EQ(diag(), "");
}

struct BadString {
    const char* str;
    int len;
    const char* line;
};

class HexRefusalTest : public ModuleTest, public ::testing::WithParamInterface<BadString> {};

TEST_P(HexRefusalTest, RefusedWithOneDiagnostic) {
    uint8_t buf[8] = {};
    EXPECT_EQ(string2hex(GetParam().str, buf, GetParam().len), -1);
    EXPECT_EQ(diag_lines(), std::string("string2hex #, ") + GetParam().line + "\n");
}

INSTANTIATE_TEST_SUITE_P(Strings, HexRefusalTest,
                         ::testing::Values(BadString{"0x12", 8, "illegal char x at 1"},
                                           BadString{"12 34", 8, "illegal length 5 (12 34)"},
                                           BadString{"12 345", 8, "illegal char   at 2"},
                                           BadString{"G1", 8, "illegal char G at 0"},
                                           BadString{"1g", 8, "illegal char g at 1"},
                                           BadString{"00112z", 8, "illegal char z at 5"},
                                           BadString{"abc", 8, "illegal length 3 (abc)"},
                                           BadString{"a", 8, "illegal length 1 (a)"},
                                           BadString{"00112233", 3, "buffer too small 3 < 4"},
                                           BadString{"00", 0, "invalid params"},
                                           BadString{nullptr, 8, "invalid params"}));

TEST_F(HexTest, NullBufferIsRefused) {
    EXPECT_EQ(string2hex("00", nullptr, 8), -1);
    EXPECT_EQ(diag_lines(), "string2hex #, invalid params\n");
}

}  // namespace
}  // namespace unit
