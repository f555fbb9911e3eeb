// The frame parser. Input: check switches (bit 0-4: CRC, source, destination, sequence, id check;
// bit 7: a TTY stream, else one SPI block), target id, last sequence sent, the bytes from the MCU.
// Properties: an accepted frame passes the enabled address and sequence checks, counts once and,
// with the CRC check on, is refused with a bit of its CRC changed; a finite TTY stream's parse
// ends; the heartbeat and debug printers take any payload; diagnostics stay bounded.
#include <sys/mman.h>

#include "fuzz.h"

static void accepted() {
    ST_MavlinkMsg& m = m_rx_msg;
    const int length = frame_payload_len(&m) + MAVLINK_FRAME_OVERHEAD;
    FUZZ_CHECK(m.magic == 0xFD && length <= MAVLINK_MAX_PAYLOAD + MAVLINK_FRAME_OVERHEAD);
    FUZZ_CHECK(!m_sys_id_check || m.sysid == m_comp_id);
    FUZZ_CHECK(!m_comp_id_check || m.compid == m_sys_id);
    FUZZ_CHECK(!m_seq_check || m.seq == m_tx_seq);
    if (m_crc_check) {
        static ST_MavlinkMsg again;
        wire_bytes(&m)[length - 1] ^= 1;
        FUZZ_CHECK(spi_recv(&again, wire_bytes(&m), length) == -1);
    }
    if (m.msgid == CMD_HEARBEAT)
        FUZZ_CHECK(mcu_heartbeat(reinterpret_cast<ST_HeartBeat*>(m.data)) == 0);
    if (m.msgid == CMD_DEBUG_DEVICE)
        mcu_debug(reinterpret_cast<ST_DebugCmd*>(m.data));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3 || size > 65536)
        return 0;
    set_comp_id(data[1]);
    m_tx_seq = data[2];
    uint8_t* checks[] = {&m_crc_check, &m_sys_id_check, &m_comp_id_check, &m_seq_check,
                         &m_msgid_check};
    for (int i = 0; i < 5; i++)
        *checks[i] = data[0] >> i & 1;
    if ((data[0] & 0x80) == 0) {
        uint8_t block[SPI_BLOCK_SIZE] = {};
        memcpy(block, data + 3, std::min<size_t>(size - 3, SPI_BLOCK_SIZE));
        m_serial_type = SERIAL_TYPE_SPI;
        const uint32_t packets = m_stts.rxPkts;
        const int ret = mcu_recv(&m_rx_msg, block, SPI_BLOCK_SIZE);
        FUZZ_CHECK((ret == 0 || ret == -1) && m_stts.rxPkts == packets + (ret == 0));
        if (ret == 0)
            accepted();
    } else {
        m_serial_fd = memfd_create("stream", 0);
        FUZZ_CHECK(pwrite(m_serial_fd, data + 3, size - 3, 0) == static_cast<ssize_t>(size - 3));
        m_serial_type = SERIAL_TYPE_TTY;
        // Each parse takes at least one byte, or ends the stream.
        for (size_t parses = 0; mcu_recv(&m_rx_msg, nullptr, 0) == 0; parses++) {
            FUZZ_CHECK(parses < size);
            accepted();
        }
        close(m_serial_fd);
    }
    FUZZ_CHECK(std::exchange(g_diag, 0) <= 1024 + 8 * size);
    return 0;
}
