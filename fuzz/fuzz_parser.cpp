// The frame parser. Input: check switches (bit 0-4: CRC, source, destination, sequence, id check;
// bit 7: a TTY stream, else one SPI block), target id, last sequence sent, the bytes from the MCU.
// Properties: an accepted frame passes the enabled address and sequence checks, counts once and,
// with the CRC check on, is refused with a bit of its CRC changed; a finite TTY stream's parse
// ends; the heartbeat and debug printers take any payload; diagnostics stay bounded.
// Around it: a property check that aborts (libFuzzer keeps the input); standard output to
// /dev/null, diagnostics counted; a virtual clock; the kernel calls stand-ins that touch no device.
#include <fcntl.h>
#include <sys/mman.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "mcu_tool2_internal.h"

#define FUZZ_CHECK(cond) \
    ((cond) ? (void)0    \
            : (fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond), abort()))

static size_t g_diag = 0;  // bytes of diagnostics
static int64_t g_now_us = 1700000000LL * 1000000;

static int count_print(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    return g_diag += static_cast<size_t>(n > 0 ? n : 0), n;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dup2(open("/dev/null", O_WRONLY), 1);
    pfn_print = count_print;
    return 0;
}

// Each clock reading advances by 1 ms (so every time-out runs out), each pause by its length.
extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) noexcept {
    g_now_us += 1000;
    *tv = {static_cast<time_t>(g_now_us / 1000000), static_cast<suseconds_t>(g_now_us % 1000000)};
    return 0;
}
extern "C" int nanosleep(const struct timespec* req, struct timespec*) {
    g_now_us += static_cast<int64_t>(req->tv_sec) * 1000000 + req->tv_nsec / 1000;
    return 0;
}

const unsigned int kTtyCbaudMask = 0, kTtyBotherFlag = 0;
int tty_set_custom_rate(int, int) {
    return -1;
}
bool tty_hung_up(int) {
    return false;
}
int spi_configure(int, uint8_t, uint32_t, uint8_t, const char**) {
    return 0;
}

// No SPI device: every transfer fails.
int spi_transfer(int, const uint8_t*, uint8_t*) {
    return -1;
}

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
