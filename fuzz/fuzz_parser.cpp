// Frame parser: the bytes from the MCU, in both input modes.
// Input: mode and check switches (bit 0-4: CRC, source, destination,
// sequence, id check; bit 7: TTY stream, else one SPI block), target id, last
// sequence sent, then the bytes (an SPI block is cut or zero-padded to 528).
// Properties: every accepted frame passes the enabled address and sequence
// checks and counts once; a finite TTY stream's parse ends; the heartbeat and debug
// printers take any payload; diagnostics stay bounded.

#include "fuzz_support.h"

namespace {

void accepted(const ST_MavlinkMsg& m) {
    const int len = frame_payload_len(&m);
    FUZZ_CHECK(m.magic == 0xFD && len <= MAVLINK_MAX_PAYLOAD);
    FUZZ_CHECK(!m_sys_id_check || m.sysid == m_comp_id);
    FUZZ_CHECK(!m_comp_id_check || m.compid == m_sys_id);
    FUZZ_CHECK(!m_seq_check || m.seq == m_tx_seq);
    if (m.msgid == CMD_HEARBEAT)
        FUZZ_CHECK(mcu_heartbeat(reinterpret_cast<ST_HeartBeat*>(m_rx_msg.data)) == 0);
    if (m.msgid == CMD_DEBUG_DEVICE)
        mcu_debug(reinterpret_cast<ST_DebugCmd*>(m_rx_msg.data));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3 || size > 65536)
        return 0;
    set_comp_id(data[1]);
    m_tx_seq = data[2];
    m_crc_check = data[0] & 1;
    m_sys_id_check = (data[0] >> 1) & 1;
    m_comp_id_check = (data[0] >> 2) & 1;
    m_seq_check = (data[0] >> 3) & 1;
    m_msgid_check = (data[0] >> 4) & 1;
    if ((data[0] & 0x80) == 0) {
        uint8_t block[SPI_BLOCK_SIZE] = {};
        memcpy(block, data + 3, size - 3 < sizeof block ? size - 3 : sizeof block);
        m_serial_type = SERIAL_TYPE_SPI;
        const uint32_t packets = m_stts.rxPkts;
        int ret = mcu_recv(&m_rx_msg, block, SPI_BLOCK_SIZE);
        FUZZ_CHECK((ret == 0 || ret == -1) && m_stts.rxPkts == packets + (ret == 0));
        if (ret == 0)
            accepted(m_rx_msg);
    } else {
        int p[2];
        FUZZ_CHECK(pipe2(p, O_CLOEXEC) == 0);
        fcntl(p[1], F_SETPIPE_SZ, 1 << 17);
        FUZZ_CHECK(write(p[1], data + 3, size - 3) == static_cast<ssize_t>(size - 3));
        close(p[1]);
        m_serial_type = SERIAL_TYPE_TTY;
        m_serial_fd = p[0];
        // Each parse takes at least one byte, or ends the stream.
        for (size_t parses = 0; mcu_recv(&m_rx_msg, nullptr, 0) == 0; parses++) {
            FUZZ_CHECK(parses < size);
            accepted(m_rx_msg);
        }
        close(p[0]);
        m_serial_fd = -1;
    }
    FUZZ_CHECK(fuzz_diag_bytes() <= 1024 + 8 * size);
    return 0;
}
