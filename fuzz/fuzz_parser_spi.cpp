// Frame parser, SPI mode: the bytes the MCU clocks out in one 528-byte block.
// Input: check switches (bits 0-4: CRC, source, destination, sequence, id),
// target id, last sequence sent, then the block (cut or zero-padded).
// Properties: an accepted frame passes every enabled receive check and counts
// once; a refused block counts no packet.
#include <string.h>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_init();
    static const uint8_t digits[] = "123456789";
    FUZZ_CHECK(crc_calculate(digits, 9) == 0x6F91);  // CRC-16/MCRF4XX check value
    // A known ACK from target 1 to the tool (2), sequence 1, is accepted.
    static const uint8_t ack[] = {0xFD, 0, 0, 1, 2, 1, 0xFE, 0xFF, 0x7B, 0x11};
    uint8_t block[SPI_BLOCK_SIZE] = {};
    memcpy(block, ack, sizeof ack);
    set_comp_id(1);
    m_tx_seq = 1;
    m_serial_type = SERIAL_TYPE_SPI;
    FUZZ_CHECK(mcu_recv(&m_rx_msg, block, SPI_BLOCK_SIZE) == 0 && m_rx_msg.msgid == CMD_ACK);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3)
        return 0;
    uint8_t block[SPI_BLOCK_SIZE] = {};
    memcpy(block, data + 3, size - 3 < sizeof block ? size - 3 : sizeof block);
    set_comp_id(data[1]);
    m_tx_seq = data[2];
    m_crc_check = data[0] & 1;
    m_sys_id_check = (data[0] >> 1) & 1;
    m_comp_id_check = (data[0] >> 2) & 1;
    m_seq_check = (data[0] >> 3) & 1;
    m_msgid_check = (data[0] >> 4) & 1;
    m_serial_type = SERIAL_TYPE_SPI;
    const uint32_t packets = m_stts.rxPkts;
    int ret = mcu_recv(&m_rx_msg, block, SPI_BLOCK_SIZE);
    FUZZ_CHECK(ret == 0 || ret == -1);
    FUZZ_CHECK(m_stts.rxPkts == packets + (ret == 0));
    if (ret == 0)
        fuzz_check_accepted(m_rx_msg);
    fuzz_diag_bytes();
    return 0;
}
