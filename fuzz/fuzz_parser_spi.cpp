// Frame parser, SPI mode: the bytes the MCU clocks out in one 528-byte block.
//
// Input: flags (bit 0 CRC, 1 source, 2 destination, 3 sequence, 4 message-id
// check), target id, last transmitted sequence number, then the block (cut or
// zero-padded to 528 bytes).
//
// Properties, for every input:
// - mcu_recv gives the result of the reference parser, and every receive
//   counter moves exactly as the reference says (rxPkts up by one iff 0);
//   the per-id counter moves only for an accepted frame, by one;
// - an accepted frame is the block's bytes, its header sum and its CRC (with
//   the per-message extra byte) recomputed independently match, and the
//   received CRC sits both behind the payload and in the crc field.
#include <string.h>

#include "fuzz_support.h"

namespace {

ST_MavlinkMsg g_msg;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_init();
    static const uint8_t digits[] = "123456789";
    FUZZ_CHECK(ref_crc16(digits, 9) == 0x6F91, "reference CRC check value");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3)
        return 0;
    uint8_t block[SPI_BLOCK_SIZE] = {};
    size_t n = size - 3 < sizeof block ? size - 3 : sizeof block;
    memcpy(block, data + 3, n);

    RefChecks checks;
    checks.crc = data[0] & 1;
    checks.sys = data[0] & 2;
    checks.comp = data[0] & 4;
    checks.seq = data[0] & 8;
    checks.msgid = data[0] & 16;
    set_comp_id(data[1]);
    checks.comp_id = m_comp_id;
    checks.sys_id = m_sys_id;
    checks.tx_seq = m_tx_seq = data[2];
    m_crc_check = checks.crc;
    m_sys_id_check = checks.sys;
    m_comp_id_check = checks.comp;
    m_seq_check = checks.seq;
    m_msgid_check = checks.msgid;
    m_serial_type = SERIAL_TYPE_SPI;

    RefCounts expected;
    RefFrame ref = ref_parse(block, sizeof block, checks, &expected);

    RefCounts before = stts_counts(m_stts);
    uint32_t cnt_before[CMD_NUM_MAX];
    memcpy(cnt_before, m_stts.rxCnt, sizeof cnt_before);

    int ret = mcu_recv(&g_msg, block, SPI_BLOCK_SIZE);

    FUZZ_CHECK(ret == ref.ret, "mcu_recv %d, reference %d", ret, ref.ret);
    check_counts(before, stts_counts(m_stts), expected, "spi");
    for (int id = 0; id < CMD_NUM_MAX; id++) {
        uint32_t d = m_stts.rxCnt[id] - cnt_before[id];
        uint32_t want = (ret == 0 && id == g_msg.msgid) ? 1 : 0;
        FUZZ_CHECK(d == want, "rxCnt[0x%02x] moved by %u", id, d);
    }
    if (ret != 0)
        return 0;

    // An accepted frame: exactly the block's bytes, independently sealed.
    const uint8_t* fr = block + ref.start;
    size_t len = ref.payload_len;
    const uint8_t* rec = reinterpret_cast<const uint8_t*>(&g_msg);
    FUZZ_CHECK(static_cast<size_t>(frame_payload_len(&g_msg)) == len, "payload length");
    FUZZ_CHECK(memcmp(rec, fr, len + 10) == 0, "record differs from the frame's bytes");
    uint8_t sum = 0;
    for (int i = 0; i < 7; i++)
        sum = static_cast<uint8_t>(sum + rec[i]);
    FUZZ_CHECK(sum == g_msg.csum, "header sum of an accepted frame");
    uint16_t rx_crc = static_cast<uint16_t>(rec[8 + len] | (rec[9 + len] << 8));
    FUZZ_CHECK(g_msg.crc == rx_crc, "crc field 0x%04x, bytes 0x%04x", g_msg.crc, rx_crc);
    if (checks.crc) {
        uint16_t crc = ref_crc16_update(ref_crc16(rec + 1, 7 + len), ref_crc_extra(g_msg.msgid));
        FUZZ_CHECK(crc == rx_crc, "accepted frame with CRC 0x%04x, computed 0x%04x", rx_crc, crc);
    }
    if (checks.sys)
        FUZZ_CHECK(g_msg.sysid == m_comp_id, "source check");
    if (checks.comp)
        FUZZ_CHECK(g_msg.compid == m_sys_id, "destination check");
    if (checks.seq)
        FUZZ_CHECK(g_msg.seq == m_tx_seq, "sequence check");
    if (checks.msgid)
        FUZZ_CHECK(g_msg.msgid >= 208, "message id check");
    // Nothing past the frame was written into the record.
    for (size_t i = len + 10; i < sizeof g_msg - 2 && i < len + 64; i++)
        FUZZ_CHECK(rec[i] == 0, "record byte %zu behind the frame is 0x%02x", i, rec[i]);
    return 0;
}
