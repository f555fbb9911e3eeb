// Frame encoder (mcu_package, mcu_send's refusal) and the frame parser
// scanning SPI blocks: layout, sequence numbers, length limits, every receive
// check with its counter and debug line, resynchronisation and dumps.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "unit_support.h"

namespace unit {
namespace {

using Bytes = std::vector<uint8_t>;

const Bytes kAck = {0xFD, 0x00, 0x00, 0x01, 0x02, 0x01, 0xFE, 0xFF, 0x7B, 0x11};

Bytes cat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes with_byte(Bytes f, size_t index, uint8_t value) {
    f[index] = value;
    return f;
}

// Receive counters beyond msStart; compared field by field.
struct Counts {
    uint32_t rxBytes = 0, rxPkts = 0, lenFail = 0, crcFail = 0, seqFail = 0, sumFail = 0,
             sysFail = 0, compFail = 0, cmdFail = 0;
};

void expect_counts(const Counts& c, int rx_id = -1) {
    EXPECT_EQ(m_stts.rxBytes, c.rxBytes);
    EXPECT_EQ(m_stts.rxPkts, c.rxPkts);
    EXPECT_EQ(m_stts.lenFail, c.lenFail);
    EXPECT_EQ(m_stts.crcFail, c.crcFail);
    EXPECT_EQ(m_stts.seqFail, c.seqFail);
    EXPECT_EQ(m_stts.sumFail, c.sumFail);
    EXPECT_EQ(m_stts.sysFail, c.sysFail);
    EXPECT_EQ(m_stts.compFail, c.compFail);
    EXPECT_EQ(m_stts.cmdFail, c.cmdFail);
    EXPECT_EQ(m_stts.txBytes + m_stts.txPkts + m_stts.txFail, 0u);
    for (int id = 0; id < 256; id++) {
        EXPECT_EQ(m_stts.rxCnt[id], id == rx_id ? c.rxPkts : 0u) << "rxCnt " << id;
        EXPECT_EQ(m_stts.txCnt[id], 0u) << "txCnt " << id;
    }
}

class FrameTest : public ModuleTest {
protected:
    // Scans the bytes as one SPI block, padded with zeros to 528 bytes.
    int parse(Bytes block) {
        if (block.size() < SPI_BLOCK_SIZE)
            block.resize(SPI_BLOCK_SIZE, 0);
        return mcu_recv(&m_rx_msg, block.data(), static_cast<int>(block.size()));
    }
};

// ---- encoder ------------------------------------------------------------

TEST_F(FrameTest, BuildsTheVersionQueryFrame) {
    EXPECT_EQ(mcu_package(CMD_GET_VERSIONS, nullptr, 0), 10);
    EXPECT_EQ(tx_bytes(10), (Bytes{0xFD, 0x00, 0x00, 0x01, 0x01, 0x02, 0xDB, 0xDC, 0xA7, 0x1A}));
    EXPECT_EQ(m_tx_seq, 1);
    expect_counts({});
}

TEST_F(FrameTest, ExtraByteChangesOnlyTheCrcBytes) {
    m_crc_extra = 0x55;
    EXPECT_EQ(mcu_package(CMD_GET_VERSIONS, nullptr, 0), 10);
    EXPECT_EQ(tx_bytes(10), (Bytes{0xFD, 0x00, 0x00, 0x01, 0x01, 0x02, 0xDB, 0xDC, 0x8F, 0x1F}));

    uint8_t payload[] = {9, 8, 7, 6, 5};
    m_tx_seq = 0;
    m_crc_extra = 0;
    mcu_package(CMD_DOWNLOADING, payload, 5);
    Bytes plain = tx_bytes(15);
    m_tx_seq = 0;
    m_crc_extra = 0x55;
    mcu_package(CMD_DOWNLOADING, payload, 5);
    Bytes sealed = tx_bytes(15);
    EXPECT_EQ(Bytes(plain.begin(), plain.begin() + 13), Bytes(sealed.begin(), sealed.begin() + 13));
    EXPECT_NE(Bytes(plain.begin() + 13, plain.end()), Bytes(sealed.begin() + 13, sealed.end()));
    EXPECT_EQ(sealed, make_frame(1, 1, 2, CMD_DOWNLOADING, {9, 8, 7, 6, 5}, 0x55));
}

TEST_F(FrameTest, BuildsTheDebugDeviceFrame) {
    m_tx_seq = 4;
    uint8_t payload[] = {1, 2, 3};
    EXPECT_EQ(mcu_package(CMD_DEBUG_DEVICE, payload, 3), 13);
    EXPECT_EQ(tx_bytes(13), (Bytes{0xFD, 0x03, 0x00, 0x05, 0x01, 0x02, 0xE6, 0xEE, 0x01, 0x02, 0x03,
                                   0x58, 0x99}));
}

TEST_F(FrameTest, TargetAndOwnIdGoIntoTheFrame) {
    set_comp_id(DEV_RC);
    mcu_package(CMD_GET_SN, nullptr, 0);
    EXPECT_EQ(m_tx_msg.compid, DEV_RC);
    EXPECT_EQ(m_tx_msg.sysid, DEV_DSP_RC);
    set_comp_id(DEV_MOVIDIUS_2);
    mcu_package(CMD_GET_SN, nullptr, 0);
    EXPECT_EQ(m_tx_msg.compid, DEV_MOVIDIUS_2);
    EXPECT_EQ(m_tx_msg.sysid, DEV_DSP);
    EXPECT_STREQ(m_serial_dev, "/dev/ttyACM0");
}

TEST_F(FrameTest, SequenceNumbersWrapAfter255) {
    for (int i = 1; i <= 256; i++) {
        ASSERT_EQ(mcu_package(CMD_HEARBEAT, nullptr, 0), 10);
        EXPECT_EQ(m_tx_msg.seq, i & 0xFF);
        EXPECT_EQ(m_tx_seq, i & 0xFF);
    }
}

TEST_F(FrameTest, LargestPayloadFillsTheRecord) {
    Bytes payload(MAVLINK_MAX_PAYLOAD);
    for (size_t i = 0; i < payload.size(); i++)
        payload[i] = static_cast<uint8_t>(i * 7);
    EXPECT_EQ(mcu_package(CMD_DOWNLOADING, payload.data(), 65000), 65010);
    EXPECT_EQ(m_tx_msg.len, 0xE8);
    EXPECT_EQ(m_tx_msg.len_h, 0xFD);
    Bytes frame = tx_bytes(65010);
    EXPECT_EQ(frame, make_frame(1, 1, 2, CMD_DOWNLOADING, payload, 0));
    // The two CRC bytes fall on the record's crc field.
    EXPECT_EQ(m_tx_msg.crc, frame[65008] | (frame[65009] << 8));
}

TEST_F(FrameTest, OutOfRangeLengthsAreRefusedWithoutUsingASequenceNumber) {
    uint8_t payload[1] = {};
    m_tx_seq = 7;
    EXPECT_EQ(mcu_package(CMD_DOWNLOADING, payload, 65001), -1);
    EXPECT_EQ(mcu_package(CMD_DOWNLOADING, payload, -1), -1);
    EXPECT_EQ(m_tx_seq, 7);
    EXPECT_EQ(diag_lines(),
              "mcu_package #, illegal buf or length 65001\n"
              "mcu_package #, illegal buf or length -1\n");
}

TEST_F(FrameTest, NullPayloadGivesZeroBytes) {
    uint8_t old[] = {0xAA, 0xBB, 0xCC};
    mcu_package(CMD_DEBUG_DEVICE, old, 3);
    EXPECT_EQ(mcu_package(CMD_DEBUG_DEVICE, nullptr, 3), 13);
    EXPECT_EQ(tx_bytes(13), make_frame(2, 1, 2, CMD_DEBUG_DEVICE, {0, 0, 0}, 0));
}

TEST_F(FrameTest, LongPayloadUsesBothLengthBytes) {
    Bytes payload(300, 0x3C);
    EXPECT_EQ(mcu_package(CMD_DOWNLOADING, payload.data(), 300), 310);
    EXPECT_EQ(m_tx_msg.len, 0x2C);
    EXPECT_EQ(m_tx_msg.len_h, 0x01);
    EXPECT_EQ(tx_bytes(310), make_frame(1, 1, 2, CMD_DOWNLOADING, payload, 0));
}

TEST_F(FrameTest, SendRefusesAnSpiLink) {
    m_tx_seq = 3;
    EXPECT_EQ(mcu_send(CMD_GET_VERSIONS, nullptr, 0), -1);
    EXPECT_EQ(m_tx_seq, 3);
    EXPECT_EQ(diag_lines(), "mcu_send #, illegal serial device type 1\n");
    EXPECT_EQ(m_stts.txFail, 0u);
}

TEST_F(FrameTest, BuiltFrameParsesBackWithRolesSwapped) {
    Bytes payload(MAVLINK_MAX_PAYLOAD, 0xFD);
    payload[0] = 0x01;
    ASSERT_EQ(mcu_package(CMD_DOWNLOADING, payload.data(), 65000), 65010);
    Bytes frame = tx_bytes(65010);
    m_comp_id = 2;  // the frame's source
    m_sys_id = 1;   // the frame's destination
    EXPECT_EQ(mcu_recv(&m_rx_msg, frame.data(), 65010), 0);
    Counts c;
    c.rxBytes = 65000;
    c.rxPkts = 1;
    expect_counts(c, CMD_DOWNLOADING);
    EXPECT_EQ(0, memcmp(&m_rx_msg, frame.data(), 65010));
}

// ---- parser -------------------------------------------------------------

class ParserTest : public FrameTest {
protected:
    void SetUp() override {
        FrameTest::SetUp();
        m_tx_seq = 1;
    }
};

TEST_F(ParserTest, AcceptsAnAcknowledgementInsideABlock) {
    EXPECT_EQ(make_frame(1, 2, 1, CMD_ACK), kAck);
    memset(&m_rx_msg, 0xEE, sizeof m_rx_msg);
    // A bad header after the frame is never looked at.
    Bytes bad_header = {0xFD, 0x00, 0x00, 0x01, 0x02, 0x01, 0xFE, 0x00};
    EXPECT_EQ(parse(cat(cat({0x00, 0x11}, kAck), bad_header)), 0);
    Counts c;
    c.rxPkts = 1;
    expect_counts(c, CMD_ACK);
    EXPECT_EQ(m_rx_msg.magic, 0xFD);
    EXPECT_EQ(m_rx_msg.seq, 1);
    EXPECT_EQ(m_rx_msg.compid, 2);
    EXPECT_EQ(m_rx_msg.sysid, 1);
    EXPECT_EQ(m_rx_msg.msgid, CMD_ACK);
    EXPECT_EQ(m_rx_msg.csum, 0xFF);
    EXPECT_EQ(m_rx_msg.crc, 0x117B);
    // The CRC bytes sit behind the payload; the rest of the record is cleared.
    EXPECT_EQ(m_rx_msg.data[0], 0x7B);
    EXPECT_EQ(m_rx_msg.data[1], 0x11);
    EXPECT_EQ(m_rx_msg.data[2], 0);
    EXPECT_EQ(m_rx_msg.data[MAVLINK_MAX_PAYLOAD - 1], 0);
}

struct CheckCase {
    const char* name;
    Bytes frame;
    Counts counts;
    std::string lines;  // debug lines at level 1, after the RX trace
};

class ParserCheckTest : public ParserTest, public ::testing::WithParamInterface<CheckCase> {};

TEST_P(ParserCheckTest, CountsAtEveryLevelAndDescribesAboveNone) {
    const CheckCase& k = GetParam();
    EXPECT_EQ(parse(k.frame), -1);
    expect_counts(k.counts);
    EXPECT_EQ(diag(), "");

    clear_stts(&m_stts);
    set_debug_level(DEBUG_LV_DEBUG);
    fix_clock(1700000000, 42);
    EXPECT_EQ(parse(k.frame), -1);
    expect_counts(k.counts);
    EXPECT_EQ(diag_lines(), "<1700000000.000042> mcu_recv #, RX: \n" + k.lines);
}

Counts fails(uint32_t crc, uint32_t sys, uint32_t comp, uint32_t seq, uint32_t cmd) {
    Counts c;
    c.crcFail = crc;
    c.sysFail = sys;
    c.compFail = comp;
    c.seqFail = seq;
    c.cmdFail = cmd;
    return c;
}

std::string all_checks_lines() {
    // Message 0 sealed with 0 instead of its table byte 34.
    Bytes sent = make_frame(9, 9, 9, 0, {}, 0);
    Bytes want = make_frame(9, 9, 9, 0, {}, 34);
    char crc_line[64];
    snprintf(crc_line, sizeof crc_line, "mcu_recv #, crc 0x%04x != calc 0x%04x\n",
             sent[8] | (sent[9] << 8), want[8] | (want[9] << 8));
    return std::string(crc_line) +
           "mcu_recv #, sysid 9 != 1\nmcu_recv #, compid 9 != 2\n"
           "mcu_recv #, seq 9 != 1\nmcu_recv #, msgid 0 error\n";
}

INSTANTIATE_TEST_SUITE_P(
    Checks, ParserCheckTest,
    ::testing::Values(CheckCase{"Crc", with_byte(kAck, 9, 0x12), fails(1, 0, 0, 0, 0),
                                "mcu_recv #, crc 0x127b != calc 0x117b\n"},
                      CheckCase{"SourceAndSequence", make_frame(2, 2, 3, CMD_ACK),
                                fails(0, 1, 0, 1, 0),
                                "mcu_recv #, sysid 3 != 1\nmcu_recv #, seq 2 != 1\n"},
                      CheckCase{"Destination", make_frame(1, 5, 1, CMD_ACK), fails(0, 0, 1, 0, 0),
                                "mcu_recv #, compid 5 != 2\n"},
                      CheckCase{"MessageId207", make_frame(1, 2, 1, 207), fails(0, 0, 0, 0, 1),
                                "mcu_recv #, msgid 207 error\n"},
                      CheckCase{"AllFive", make_frame(9, 9, 9, 0, {}, 0), fails(1, 1, 1, 1, 1),
                                all_checks_lines()}),
    [](const ::testing::TestParamInfo<CheckCase>& info) { return info.param.name; });

TEST_F(ParserTest, MessageIdCheckOffAcceptsLowIds) {
    m_msgid_check = 0;
    EXPECT_EQ(parse(make_frame(1, 2, 1, 207)), 0);
    EXPECT_EQ(m_stts.rxCnt[207], 1u);
    // Id 0 is checked with its table byte 34; the transmit extra byte plays
    // no part in receiving.
    m_crc_extra = 0x55;
    EXPECT_EQ(parse(make_frame(1, 2, 1, 0, {0xAB}, 34)), 0);
    EXPECT_EQ(parse(make_frame(1, 2, 1, 0, {0xAB}, 0)), -1);
    EXPECT_EQ(parse(make_frame(1, 2, 1, 0, {0xAB}, 0x55)), -1);
    EXPECT_EQ(m_stts.rxCnt[0], 1u);
    EXPECT_EQ(m_stts.rxBytes, 1u);
    EXPECT_EQ(m_stts.crcFail, 2u);
}

TEST_F(ParserTest, OnlyTheCrcCheckRemainsWithTheOthersOff) {
    m_seq_check = m_sys_id_check = m_comp_id_check = m_msgid_check = 0;
    const Bytes frame = make_frame(77, 9, 8, 3, {1, 2});
    EXPECT_EQ(parse(frame), 0);
    EXPECT_EQ(parse(with_byte(frame, 10, static_cast<uint8_t>(~frame[10]))), -1);
    Counts c;
    c.rxBytes = 2;
    c.rxPkts = 1;
    c.crcFail = 1;
    expect_counts(c, 3);
}

TEST_F(ParserTest, BadHeaderSumIsCountedAndScanningGoesOn) {
    set_debug_level(DEBUG_LV_DEBUG);
    fix_clock(1700000000, 123456);
    EXPECT_EQ(parse(cat(with_byte(kAck, 7, 0x00), kAck)), 0);
    Counts c;
    c.rxPkts = 1;
    c.sumFail = 1;
    expect_counts(c, CMD_ACK);
    EXPECT_EQ(diag_lines(),
              "mcu_recv #, csum 0xff != 0x00\n<1700000000.123456> mcu_recv #, RX: \n");
}

TEST_F(ParserTest, StartByteInsideADroppedHeaderIsNotLookedAtAgain) {
    // FD 00 then a whole frame: its FD becomes the length-high byte of the
    // first candidate, whose header sum then fails on the frame's byte 5.
    EXPECT_EQ(parse(cat({0xFD, 0x00}, kAck)), -1);
    Counts c;
    c.sumFail = 1;
    expect_counts(c);
    EXPECT_EQ(parse(cat(cat({0xFD, 0x00}, kAck), kAck)), 0);
    c.sumFail = 2;
    c.rxPkts = 1;
    expect_counts(c, CMD_ACK);
    // A wrong header sum byte that happens to be FD does not start a frame.
    const Bytes rest(kAck.begin() + 1, kAck.end());
    EXPECT_EQ(parse(cat({0xFD, 0x00, 0x00, 0x01, 0x02, 0x01, 0xFE, 0xFD}, rest)), -1);
    c.sumFail = 3;
    expect_counts(c, CMD_ACK);
}

TEST_F(ParserTest, LengthAbove65000IsDroppedAtOnce) {
    // E9 FD is 65001; the FD is a length byte, not a new start.
    const Bytes rest(kAck.begin() + 1, kAck.end());
    EXPECT_EQ(parse(cat({0xFD, 0xE9, 0xFD}, rest)), -1);
    Counts c;
    c.lenFail = 1;
    expect_counts(c);
    EXPECT_EQ(parse(cat({0xFD, 0xE9, 0xFD}, kAck)), 0);
    c.lenFail = 2;
    c.rxPkts = 1;
    expect_counts(c, CMD_ACK);
    // 65000 itself is a valid length: the frame just does not end in the block.
    EXPECT_EQ(parse({0xFD, 0xE8, 0xFD, 0x01, 0x02, 0x01, 0xD9, 0xBF}), -1);
    expect_counts(c, CMD_ACK);
}

TEST_F(ParserTest, BlockWithoutACompleteFrameCountsNothing) {
    set_debug_level(DEBUG_LV_FULLDUMP);
    Bytes noise(SPI_BLOCK_SIZE);
    for (size_t i = 0; i < noise.size(); i++)
        noise[i] = static_cast<uint8_t>(i % 253);
    EXPECT_EQ(parse(noise), -1);
    Bytes cut(SPI_BLOCK_SIZE - 9, 0);
    cut = cat(cut, kAck);
    cut.resize(SPI_BLOCK_SIZE);
    EXPECT_EQ(parse(cut), -1);
    expect_counts({});
    EXPECT_EQ(diag(), "");
}

TEST_F(ParserTest, StartBytesInsideThePayloadAreData) {
    const Bytes payload = {0xFD, 0xFD, 0x00, 0xFD};
    EXPECT_EQ(parse(make_frame(1, 2, 1, CMD_USER_STRING, payload)), 0);
    EXPECT_EQ(Bytes(m_rx_msg.data, m_rx_msg.data + 4), payload);
    EXPECT_EQ(m_stts.rxBytes, 4u);
}

int dump_lines(const std::string& text, std::string* last) {
    int n = 0;
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
        std::string line = text.substr(start, nl - start);
        if (line.size() > 4 && line[3] == ':' && isdigit(static_cast<unsigned char>(line[0]))) {
            n++;
            *last = line;
        }
    }
    return n;
}

TEST_F(ParserTest, LongPayloadIsCountedAndDumpedByLevel) {
    const Bytes frame = make_frame(1, 2, 1, CMD_SYSLOG, Bytes(300, 0x41));
    std::string last;
    set_debug_level(DEBUG_LV_FULLDUMP);
    EXPECT_EQ(parse(frame), 0);
    EXPECT_EQ(m_stts.rxBytes, 300u);
    EXPECT_EQ(dump_lines(diag(), &last), 20);  // all 310 bytes
    char tail[64];
    snprintf(tail, sizeof tail, "304: 41 41 41 41 %02x %02x ", frame[308], frame[309]);
    EXPECT_EQ(last.substr(0, 23), tail);

    clear_diag();
    set_debug_level(DEBUG_LV_DUMP);
    EXPECT_EQ(parse(frame), 0);
    EXPECT_EQ(dump_lines(diag(), &last), 2);  // the first 32 bytes
    EXPECT_EQ(last.substr(0, 5), "016: ");
    EXPECT_EQ(m_stts.rxBytes, 600u);

    // A 40-byte frame is cut to 32 bytes at this level, whole above it.
    const Bytes forty = make_frame(1, 2, 1, CMD_SYSLOG, Bytes(30, 0x42));
    clear_diag();
    EXPECT_EQ(parse(forty), 0);
    EXPECT_EQ(dump_lines(diag(), &last), 2);
    clear_diag();
    set_debug_level(DEBUG_LV_MAX);
    EXPECT_EQ(parse(forty), 0);
    EXPECT_EQ(dump_lines(diag(), &last), 3);
}

TEST_F(ParserTest, ArgumentErrors) {
    uint8_t block[SPI_BLOCK_SIZE] = {};
    EXPECT_EQ(mcu_recv(nullptr, block, SPI_BLOCK_SIZE), -1);
    EXPECT_EQ(mcu_recv(&m_rx_msg, nullptr, SPI_BLOCK_SIZE), -1);
    m_serial_type = 7;
    EXPECT_EQ(mcu_recv(&m_rx_msg, block, SPI_BLOCK_SIZE), -1);
    const std::string text = diag_lines();
    EXPECT_EQ(text.rfind("mcu_recv #, null pointer\nmcu_recv #, null input buffer pointer\n"
                         "mcu_recv #, unknown serial device type : ",
                         0),
              0u)
        << text;
    expect_counts({});
}

}  // namespace
}  // namespace unit

namespace unit {
namespace {

// The TTY input mode, fed from a file: the end of the file reads like a
// silent line.
class TtyParserTest : public ModuleTest {
protected:
    void feed(const std::vector<uint8_t>& bytes) {
        char path[] = "/tmp/mcu_tty_XXXXXX";
        fd_ = mkstemp(path);
        ASSERT_GE(fd_, 0);
        unlink(path);
        ASSERT_EQ(write(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        lseek(fd_, 0, SEEK_SET);
        m_serial_type = SERIAL_TYPE_TTY;
        m_serial_fd = fd_;
    }
    void TearDown() override {
        m_serial_fd = -1;
        if (fd_ >= 0)
            close(fd_);
        ModuleTest::TearDown();
    }
    int fd_ = -1;
};

TEST_F(TtyParserTest, FrameAfterSilenceAndAfterEndlessNoise) {
    const std::vector<uint8_t> ack = {0xFD, 0x00, 0x00, 0x01, 0x02, 0x01, 0xFE, 0xFF, 0x7B, 0x11};
    m_tx_seq = 1;
    // Two frames' worth of noise without a frame ends one parse with a
    // diagnostic; the next parse takes up the stream and finds the frame.
    std::vector<uint8_t> stream(2 * 65010 + 100, 0x00);
    stream.insert(stream.end(), ack.begin(), ack.end());
    feed(stream);
    EXPECT_EQ(mcu_recv(&m_rx_msg, nullptr, 0), -1);
    EXPECT_EQ(diag_lines(), "mcu_recv #, no frame within 130020 bytes\n");
    EXPECT_EQ(mcu_recv(&m_rx_msg, nullptr, 0), 0);
    EXPECT_EQ(m_rx_msg.msgid, CMD_ACK);
    EXPECT_EQ(m_stts.rxPkts, 1u);
    // Then the line is silent: -1 without a word.
    clear_diag();
    EXPECT_EQ(mcu_recv(&m_rx_msg, nullptr, 0), -1);
    EXPECT_EQ(diag(), "");
}

}  // namespace
}  // namespace unit
