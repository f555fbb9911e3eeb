// Linux-specific device calls, kept apart because their kernel headers clash
// with the C library's <termios.h>:
// - termios2 (TCGETS2/TCSETS2 with BOTHER) carries a numeric baud rate that
//   the classic Bxxx constants cannot express;
// - spidev ioctls set up the SPI node and run full-duplex transfers;
// - the count of unread input bytes tells a hung-up TTY from a ready one.
// Both exist in glibc and bionic builds alike, as they come from the kernel's
// own headers.
#include <asm/termbits.h>
#include <linux/spi/spidev.h>
#include <string.h>
#include <sys/ioctl.h>

#include "mcu_tool2_internal.h"

const unsigned int kTtyCbaudMask = CBAUD;
const unsigned int kTtyBotherFlag = BOTHER;

int tty_set_custom_rate(int fd, int rate) {
    struct termios2 tio;
    if (ioctl(fd, TCGETS2, &tio) != 0)
        return -1;
    tio.c_cflag &= ~static_cast<tcflag_t>(CBAUD | (CBAUD << IBSHIFT));
    tio.c_cflag |= BOTHER | (BOTHER << IBSHIFT);
    tio.c_ispeed = static_cast<speed_t>(rate);
    tio.c_ospeed = static_cast<speed_t>(rate);
    return ioctl(fd, TCSETS2, &tio) == 0 ? 0 : -1;
}

bool tty_hung_up(int fd) {
    int pending = 0;
    return ioctl(fd, FIONREAD, &pending) != 0 || pending == 0;
}

int spi_configure(int fd, uint8_t mode, uint32_t speed_hz, uint8_t bits, const char** what) {
    *what = "spi mode";
    if (ioctl(fd, SPI_IOC_WR_MODE, &mode) < 0 || ioctl(fd, SPI_IOC_RD_MODE, &mode) < 0)
        return -1;
    *what = "max speed hz";
    if (ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &speed_hz) < 0 ||
        ioctl(fd, SPI_IOC_RD_MAX_SPEED_HZ, &speed_hz) < 0)
        return -1;
    *what = "bits per word";
    if (ioctl(fd, SPI_IOC_WR_BITS_PER_WORD, &bits) < 0 ||
        ioctl(fd, SPI_IOC_RD_BITS_PER_WORD, &bits) < 0)
        return -1;
    return 0;
}

// The kernel writes the receive block through the address put into rx_buf.
// NOLINTNEXTLINE(readability-non-const-parameter)
int spi_transfer(int fd, const uint8_t* tx, uint8_t* rx) {
    // Speed, word size, delay and chip-select change stay 0: the device's
    // configured settings apply and chip select is released afterwards.
    struct spi_ioc_transfer tr;
    memset(&tr, 0, sizeof tr);
    tr.tx_buf = reinterpret_cast<uintptr_t>(tx);
    tr.rx_buf = reinterpret_cast<uintptr_t>(rx);
    tr.len = SPI_BLOCK_SIZE;
    return ioctl(fd, SPI_IOC_MESSAGE(1), &tr);
}
