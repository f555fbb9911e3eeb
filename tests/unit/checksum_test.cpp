// Byte sum, two's-complement checksum, CRC-8, the word-oriented CRC-32, the
// frame CRC-16 and its per-message extra byte table.
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "unit_support.h"

namespace unit {
namespace {

class ChecksumTest : public ModuleTest {};

const uint8_t kDigits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};

TEST_F(ChecksumTest, ByteSumAndChecksumOfTheCheckInput) {
    EXPECT_EQ(sum_u8(kDigits, 9), 0xDD);
    EXPECT_EQ(checksum_u8(kDigits, 9), 0x23);
    EXPECT_EQ(sum_u8(kDigits, 0), 0);
    EXPECT_EQ(checksum_u8(kDigits, 0), 0);
    EXPECT_EQ(sum_u8(kDigits, -5), 0);
}

TEST_F(ChecksumTest, ChecksumCompletesTheSumToZero) {
    std::vector<uint8_t> buf(300, 0xFF);
    buf[7] = 0x13;
    const uint8_t c = checksum_u8(buf.data(), 300);
    EXPECT_EQ(static_cast<uint8_t>(sum_u8(buf.data(), 300) + c), 0);
    buf.push_back(c);
    EXPECT_EQ(sum_u8(buf.data(), 301), 0);
}

TEST_F(ChecksumTest, Crc8) {
    EXPECT_EQ(calc_crc8(0x00, kDigits, 9), 0xF4);
    EXPECT_EQ(calc_crc8(0xFF, kDigits, 9), 0xFB);
    EXPECT_EQ(calc_crc8(0x5C, kDigits, 0), 0x5C);
    // No final XOR: feeding the data in pieces gives the same result.
    EXPECT_EQ(calc_crc8(calc_crc8(0, kDigits, 4), kDigits + 4, 5), 0xF4);
}

// Byte-wise CRC-32/MPEG-2 from 0 over the data filled with 0xFF to whole
// words and with the bytes of every word reversed.
uint32_t crc32_reference(std::vector<uint8_t> data) {
    while (data.size() % 4 != 0)
        data.push_back(0xFF);
    uint32_t crc = 0;
    for (size_t w = 0; w < data.size(); w += 4) {
        for (int k = 3; k >= 0; k--) {
            crc ^= static_cast<uint32_t>(data[w + static_cast<size_t>(k)]) << 24;
            for (int bit = 0; bit < 8; bit++)
                crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
        }
    }
    return crc;
}

TEST_F(ChecksumTest, Crc32KnownValues) {
    EXPECT_EQ(calc_crc32(kDigits, 4), 0x050DC953u);
    EXPECT_EQ(calc_crc32(kDigits, 8), 0x97F8EFA0u);
    EXPECT_EQ(calc_crc32(kDigits, 9), 0xD09E59B9u);
    const uint8_t ff[] = {0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(calc_crc32(ff, 1), 0xC704DD7Bu);
    EXPECT_EQ(calc_crc32(ff, 4), 0xC704DD7Bu);
    const uint8_t zeros[4] = {};
    EXPECT_EQ(calc_crc32(zeros, 4), 0u);
    EXPECT_EQ(diag(), "");
}

TEST_F(ChecksumTest, Crc32MatchesReferenceForEveryTailLength) {
    for (uint32_t len = 1; len <= 37; len++) {
        // Exactly len bytes on the heap: the 0xFF fill must not read past them.
        std::unique_ptr<uint8_t[]> buf(new uint8_t[len]);
        std::vector<uint8_t> copy;
        for (uint32_t i = 0; i < len; i++) {
            buf[i] = static_cast<uint8_t>(i * 37 + 11);
            copy.push_back(buf[i]);
        }
        EXPECT_EQ(calc_crc32(buf.get(), len), crc32_reference(copy)) << "len " << len;
    }
}

TEST_F(ChecksumTest, Crc32RefusalsReturnTheStartValue) {
    EXPECT_EQ(crc32_update(kDigits, 0, 0x12345678u), 0x12345678u);
    EXPECT_EQ(crc32_update(nullptr, 9, 0xCAFEu), 0xCAFEu);
    EXPECT_EQ(diag_lines(), "crc32_update #, uiLen == 0\ncrc32_update #, null pointer\n");
}

TEST_F(ChecksumTest, Crc32ChainsOnlyOverWholeWords) {
    const uint32_t whole = calc_crc32(kDigits, 9);
    EXPECT_EQ(crc32_update(kDigits + 8, 1, crc32_update(kDigits, 8, 0)), whole);
    EXPECT_EQ(crc32_update(kDigits + 4, 5, calc_crc32(kDigits, 4)), whole);
    // A first piece of 3 bytes gets 0xFF filled in inside the data.
    const uint32_t split = crc32_update(kDigits + 3, 6, calc_crc32(kDigits, 3));
    EXPECT_NE(split, whole);
    EXPECT_EQ(split, crc32_reference({'1', '2', '3', 0xFF, '4', '5', '6', '7', '8', '9'}));
}

TEST_F(ChecksumTest, Crc16CheckValueAndEmptyInput) {
    EXPECT_EQ(crc_calculate(kDigits, 9), 0x6F91);
    EXPECT_EQ(crc_calculate(kDigits, 0), 0xFFFF);
    uint16_t acc;
    crc_init(&acc);
    EXPECT_EQ(acc, 0xFFFF);
    for (uint8_t b : kDigits)
        crc_accumulate(b, &acc);
    EXPECT_EQ(acc, 0x6F91);
}

TEST_F(ChecksumTest, ExtraByteTableHasExactlyTheKnownEntries) {
    const std::map<int, int> known = {
        {0, 34},    {1, 187},   {3, 18},    {4, 233},  {15, 142},  {17, 220},  {18, 22},
        {19, 172},  {20, 15},   {24, 128},  {25, 241}, {26, 148},  {27, 46},   {28, 196},
        {29, 142},  {30, 42},   {31, 107},  {32, 163}, {40, 133},  {41, 225},  {42, 76},
        {43, 37},   {44, 5},    {48, 96},   {49, 12},  {50, 194},  {51, 122},  {55, 163},
        {56, 250},  {57, 198},  {60, 147},  {61, 138}, {65, 119},  {66, 122},  {70, 147},
        {71, 162},  {72, 137},  {73, 196},  {74, 190}, {75, 234},  {76, 182},  {77, 32},
        {96, 51},   {97, 142},  {98, 54},   {99, 164}, {100, 65},  {101, 143}, {102, 249},
        {103, 244}, {112, 39},  {113, 60},  {114, 34}, {116, 125}, {117, 173}, {118, 79},
        {144, 225}, {150, 240}, {160, 235}, {161, 95}, {162, 134},
    };
    ASSERT_EQ(known.size(), 61u);
    for (int id = 0; id < 256; id++) {
        auto it = known.find(id);
        EXPECT_EQ(msg_crcs[id], it == known.end() ? 0 : it->second) << "id " << id;
    }
}

}  // namespace
}  // namespace unit
