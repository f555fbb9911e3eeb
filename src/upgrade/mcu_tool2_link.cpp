// The device link: path and speed settings, the TTY-or-SPI decision (which
// selects the link's row of kLinkOps), opening and configuring the device of
// either kind, closing it.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <termios.h>
#include <unistd.h>

#include "mcu_tool2_internal.h"

const char* m_serial_dev = "/dev/ttyS2";
int m_serial_speed = 115200;
uint8_t m_serial_type = SERIAL_TYPE_TTY;
int m_serial_fd = -1;

namespace {

struct RateEntry {
    int rate;
    speed_t code;
};
constexpr RateEntry kTtyRates[] = {
    {9600, B9600},     {115200, B115200}, {230400, B230400},
    {460800, B460800}, {921600, B921600}, {1152000, B1152000},
};

// One tool per device: an exclusive lock taken as soon as the device is
// open, before anything is sent or configured, so a second tool cannot read
// the answers meant for the first. 0 when the lock is held (or the device
// offers no locking), -1 with the device closed when another holds it.
int lock_device(int fd, const char* serialname) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK)
        return 0;
    LOG_ERR("%s is in use by another program\n", serialname);
    mcu_close(fd);
    return -1;
}

// A program that closed its standard input gets descriptor 0 for the device,
// which mcu_close never closes: the device moves to another descriptor, so
// the next action of the same program finds it free.
int off_zero(int fd) {
    if (fd != 0)
        return fd;
    int moved = fcntl(fd, F_DUPFD, 1);
    close(fd);
    return moved;
}

// The kind-specific openers report as the call that picks them.
constexpr const char* kOpen = "mcu_open";

// Only bus 0, chip select 0 is an SPI link; every other path is a TTY.
uint8_t link_kind(const char* path) {
    return strstr(path, "spidev0.0") != nullptr ? SERIAL_TYPE_SPI : SERIAL_TYPE_TTY;
}

}  // namespace

int set_serial_dev(const char* name) {
    if (name == nullptr || name[0] == '\0') {
        LOG_ERR("null string\n");
        return -1;
    }
    m_serial_dev = name;
    LOG_DBG("m_serial_dev = %s\n", m_serial_dev);
    return 0;
}

int set_serial_speed(int speed) {
    if (speed == 0) {
        LOG_ERR("zero speed\n");
        return -1;
    }
    m_serial_speed = speed;
    LOG_DBG("m_serial_speed = %d\n", m_serial_speed);
    return 0;
}

int mcu_open(const char* serialname, int baudrate) {
    if (serialname == nullptr) {
        LOG_ERR("null pointer\n");
        return -1;
    }
    printf("open %s @ %d\n", serialname, baudrate);
    fflush(stdout);
    m_serial_type = link_kind(serialname);
    return link_ops().open(serialname, baudrate);
}

int open_spi_serial(const char* serialname, int baudrate) {
    int fd = off_zero(open(serialname, O_RDWR));
    if (fd < 0) {
        LOG_ERR_AS(kOpen, "can't open device %s failed, %s\n\n", serialname, strerror(errno));
        return -1;
    }
    if (lock_device(fd, serialname) < 0)
        return -1;
    if (baudrate != SPI_SPEED_HZ)
        LOG_ERR_AS(kOpen, "invalid spi speed: %d, using default\n\n", baudrate);
    const char* what = "";
    if (spi_configure(fd, 0, SPI_SPEED_HZ, 8, &what) < 0) {
        LOG_ERR_AS(kOpen, "can't set %s: %s\n\n", what, strerror(errno));
        mcu_close(fd);
        return -1;
    }
    printf("========open_spi_serial: %s success\n", serialname);
    fflush(stdout);
    return fd;
}

int open_tty_serial(const char* serialname, int baudrate) {
    int fd = off_zero(open(serialname, O_RDWR | O_NOCTTY | O_NONBLOCK));
    if (fd < 0) {
        LOG_ERR_AS(kOpen, "open %s fail : %s\n", serialname, strerror(errno));
        return -1;
    }
    if (lock_device(fd, serialname) < 0)
        return -1;
    // Blocking from here on: reads wait for VTIME, writes for the kernel.
    if (fcntl(fd, F_SETFL, 0) < 0) {
        LOG_ERR_AS(kOpen, "fcntl %s fail : %s\n", serialname, strerror(errno));
        mcu_close(fd);
        return -1;
    }
    struct termios options;
    if (tcgetattr(fd, &options) != 0) {
        LOG_ERR_AS(kOpen, "tcgetattr %s fail : %s\n", serialname, strerror(errno));
        mcu_close(fd);
        return -1;
    }
    bool custom_rate = true;
    for (const RateEntry& e : kTtyRates) {
        if (e.rate == baudrate) {
            cfsetispeed(&options, e.code);
            cfsetospeed(&options, e.code);
            custom_rate = false;
        }
    }
    if (custom_rate) {
        LOG_ERR_AS(kOpen, "arbitrary baudrate=%d\n\n", baudrate);
        options.c_cflag &= ~static_cast<tcflag_t>(kTtyCbaudMask);
        options.c_cflag |= kTtyBotherFlag;
    }
    // Raw 8N1 without flow control; other control bits as the port had them.
    options.c_cflag &= ~static_cast<tcflag_t>(CSIZE);
    options.c_cflag |= CS8;
    options.c_cflag &= ~static_cast<tcflag_t>(PARENB | CSTOPB | CRTSCTS);
    options.c_iflag &= ~static_cast<tcflag_t>(INPCK | IXON | IXOFF | IXANY | INLCR | IGNCR | ICRNL);
    // A read returns what has arrived, or nothing after 0.1 s of silence.
    options.c_cc[VTIME] = 1;
    options.c_cc[VMIN] = 0;
    options.c_lflag = 0;
    options.c_oflag = 0;
    options.c_oflag &= ~static_cast<tcflag_t>(ONLCR | OCRNL);
    tcflush(fd, TCIFLUSH);
    if (tcsetattr(fd, TCSANOW, &options) != 0) {
        LOG_ERR_AS(kOpen, "tcsetattr fail\n : %s\n", strerror(errno));
        mcu_close(fd);
        return -1;
    }
    // The BOTHER marker alone leaves the rate to the driver; termios2 hands
    // it the number itself. Kernels or emulators without termios2 keep the
    // marker only.
    if (custom_rate && tty_set_custom_rate(fd, baudrate) < 0)
        LOG_DBG_AS(kOpen, "termios2 rate %d not applied: %s\n", baudrate, strerror(errno));
    return fd;
}

void mcu_close(int fd) {
    if (fd > 0)
        close(fd);
}
