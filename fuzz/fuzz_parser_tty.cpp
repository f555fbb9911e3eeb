// Frame parser, TTY mode: a byte stream read one byte at a time from a real
// descriptor (a pipe), and what the handlers print for the frames accepted.
// Input: check switches as in fuzz_parser_spi, target id, last sequence
// sent, then the stream.
// Properties: the parse of a finite stream ends; every accepted frame passes
// the enabled receive checks; the heartbeat and debug-reply printers take any
// payload, with diagnostics bounded by the stream's size.
#include <fcntl.h>
#include <unistd.h>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3 || size > 65536 + 3)
        return 0;
    int p[2];
    FUZZ_CHECK(pipe2(p, O_CLOEXEC) == 0);
    fcntl(p[1], F_SETPIPE_SZ, 1 << 17);
    FUZZ_CHECK(write(p[1], data + 3, size - 3) == static_cast<ssize_t>(size - 3));
    close(p[1]);
    set_comp_id(data[1]);
    m_tx_seq = data[2];
    m_crc_check = data[0] & 1;
    m_sys_id_check = (data[0] >> 1) & 1;
    m_comp_id_check = (data[0] >> 2) & 1;
    m_seq_check = (data[0] >> 3) & 1;
    m_msgid_check = (data[0] >> 4) & 1;
    m_serial_type = SERIAL_TYPE_TTY;
    m_serial_fd = p[0];
    // Each parse takes at least one byte, or ends the stream.
    for (size_t parses = 0; mcu_recv(&m_rx_msg, nullptr, 0) == 0; parses++) {
        FUZZ_CHECK(parses < size);
        fuzz_check_accepted(m_rx_msg);
        if (m_rx_msg.msgid == CMD_HEARBEAT)
            FUZZ_CHECK(mcu_heartbeat(reinterpret_cast<ST_HeartBeat*>(m_rx_msg.data)) == 0);
        if (m_rx_msg.msgid == CMD_DEBUG_DEVICE)
            mcu_debug(reinterpret_cast<ST_DebugCmd*>(m_rx_msg.data));
    }
    FUZZ_CHECK(fuzz_diag_bytes() <= 1024 + 8 * size);
    close(p[0]);
    m_serial_fd = -1;
    return 0;
}
