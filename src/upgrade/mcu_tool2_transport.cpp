// Byte transport on the open device: a whole buffer per write (one SPI
// transfer of a fixed block on SPI), single reads on a TTY or one polling
// transfer on SPI, and a readiness wait for TTY input. Writes, and the frames
// the parser assembles, are traced (and dumped) at the debug levels above 0.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include "mcu_tool2_internal.h"

namespace {

// The kind-specific halves report as the calls that dispatch to them.
constexpr const char* kWrite = "mcu_write";
constexpr const char* kRead = "mcu_read";

}  // namespace

void link_trace(const char* func, int line, const char* dir, const uint8_t* buf, int len) {
    if (__debuglevel == DEBUG_LV_NONE || pfn_print == nullptr)
        return;
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    pfn_print("<%d.%06d> %s %d, %s: \n", static_cast<int>(tv.tv_sec), static_cast<int>(tv.tv_usec),
              func, line, dir);
    if (__debuglevel >= DEBUG_LV_DUMP && buf != nullptr && len > 0) {
        int n = (__debuglevel >= DEBUG_LV_FULLDUMP || len < 32) ? len : 32;
        hexdump(buf, static_cast<unsigned short>(n));
    }
}

int mcu_write(int fd, uint8_t* sendbuf, int len, uint8_t* recvbuf) {
    return link_ops().write(fd, sendbuf, len, recvbuf);
}

int mcu_read(int fd, uint8_t* buf, int len) {
    return link_ops().read(fd, buf, len);
}

int spi_write(int fd, uint8_t* sendbuf, int len, uint8_t* recvbuf) {
    uint8_t tx[SPI_BLOCK_SIZE] = {};
    uint8_t rx[SPI_BLOCK_SIZE] = {};
    // Traced before the check, so a refused call still shows in the trace.
    link_trace(kWrite, __LINE__, "TX", sendbuf, len);
    if (fd < 0 || sendbuf == nullptr || len < 0 || len > SPI_BLOCK_SIZE) {
        LOG_ERR_AS(kWrite, "illegal fd, buf or length %d\n", len);
        return -1;
    }
    memcpy(tx, sendbuf, static_cast<size_t>(len));
    if (spi_transfer(fd, tx, rx) <= 0) {
        LOG_ERR_AS(kWrite, "can't send spi message\n");
        return -10;
    }
    if (recvbuf != nullptr)
        memcpy(recvbuf, rx, sizeof rx);
    return 0;
}

int tty_write(int fd, uint8_t* sendbuf, int len, uint8_t* /*recvbuf*/) {
    if (fd < 0 || sendbuf == nullptr || len < 0 || len > MAVLINK_MAX_PAYLOAD) {
        LOG_ERR_AS(kWrite, "illegal fd, buf or length %d\n", len);
        return -1;
    }
    link_trace(kWrite, __LINE__, "TX", sendbuf, len);
    // One write of the whole buffer; a partial write is a failure.
    int ret = static_cast<int>(write(fd, sendbuf, static_cast<size_t>(len)));
    if (ret != len) {
        LOG_ERR_AS(kWrite, "write fail: %d : %s\n", ret, strerror(errno));
        return -1;
    }
    return 0;
}

int tty_read(int fd, uint8_t* buf, int len) {
    if (fd < 0 || buf == nullptr || len < 0 || len > MAVLINK_MAX_PAYLOAD) {
        LOG_ERR_AS(kRead, "illegal buf or length %d\n", len);
        return -1;
    }
    int ret = static_cast<int>(read(fd, buf, static_cast<size_t>(len)));
    if (ret == len)
        return 0;
    if (ret < 0)
        LOG_ERR_AS(kRead, "read : %s\n", strerror(errno));
    // Fewer bytes (none after the port's 0.1 s of silence): a quiet failure.
    return -1;
}

// The whole 528-byte block goes to buf, whatever len says.
int spi_read(int fd, uint8_t* buf, int /*len*/) {
    uint8_t tx[SPI_BLOCK_SIZE] = {};
    uint8_t rx[SPI_BLOCK_SIZE] = {};
    if (fd < 0 || buf == nullptr) {
        LOG_ERR_AS(kRead, "illegal buf or fd %d\n", fd);
        return -1;
    }
    if (spi_transfer(fd, tx, rx) <= 0) {
        LOG_ERR_AS(kRead, "can't send spi message\n");
        return -10;
    }
    memcpy(buf, rx, sizeof rx);
    return 0;
}

int mcu_wait(int timeout) {
    if (m_serial_type != SERIAL_TYPE_TTY) {
        LOG_ERR("illegal serial device type %d\n", m_serial_type);
        return -1;
    }
    if (m_serial_fd < 0 || m_serial_fd >= FD_SETSIZE) {
        LOG_ERR("select fail : %s\n", strerror(EBADF));
        return -1;
    }
    fd_set rfds;
    FD_ZERO(&rfds);
    FD_SET(m_serial_fd, &rfds);
    int nfds = m_serial_fd + 1;
    // The monitor's stop pipe ends the wait as soon as a stop is requested.
    if (m_wake_fd >= 0 && m_wake_fd < FD_SETSIZE) {
        FD_SET(m_wake_fd, &rfds);
        if (m_wake_fd >= nfds)
            nfds = m_wake_fd + 1;
    }
    struct timeval tv;
    tv.tv_sec = timeout / 1000;
    tv.tv_usec = static_cast<suseconds_t>(timeout % 1000) * 1000;
    int ret = select(nfds, &rfds, nullptr, nullptr, &tv);
    if (ret > 0 && FD_ISSET(m_serial_fd, &rfds))
        return 1;
    // Time up, only the stop pipe ready, or interrupted by a stop signal:
    // no input.
    if (ret >= 0 || errno == EINTR)
        return 0;
    LOG_ERR("select fail : %s\n", strerror(errno));
    return -1;
}
