// A minimal spidev user for the vmcu tests: opens /dev/spidev0.0 (or --device
// PATH), configures it the way mcu_tool2 does, then performs one 528-byte
// transfer per argument. An argument is the hex of the bytes at the start of
// the transmit block (the rest is zero), or "-" for an all-zero block.
// Output, one line per step:
//   open ok | open fail <errno>
//   config ok | config fail <errno>
//   rx <1056 hex digits> | fail <errno>
#include <errno.h>
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
    const char* device = "/dev/spidev0.0";
    int first = 1;
    if (argc > 2 && std::strcmp(argv[1], "--device") == 0) {
        device = argv[2];
        first = 3;
    }
    const int fd = open(device, O_RDWR);
    if (fd < 0) {
        std::printf("open fail %d\n", errno);
        return 1;
    }
    std::printf("open ok\n");
    uint8_t mode = 0;
    uint32_t speed = 7800000;
    uint8_t bits = 8;
    if (ioctl(fd, SPI_IOC_WR_MODE, &mode) != 0 || ioctl(fd, SPI_IOC_RD_MODE, &mode) != 0 ||
        ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &speed) != 0 ||
        ioctl(fd, SPI_IOC_RD_MAX_SPEED_HZ, &speed) != 0 ||
        ioctl(fd, SPI_IOC_WR_BITS_PER_WORD, &bits) != 0 ||
        ioctl(fd, SPI_IOC_RD_BITS_PER_WORD, &bits) != 0) {
        std::printf("config fail %d\n", errno);
        close(fd);
        return 1;
    }
    std::printf("config ok\n");
    for (int i = first; i < argc; ++i) {
        uint8_t tx[528] = {0};
        uint8_t rx[528] = {0};
        const std::string hex = argv[i];
        if (hex != "-") {
            if (hex.size() % 2 != 0 || hex.size() / 2 > sizeof tx) {
                std::printf("bad argument %s\n", argv[i]);
                close(fd);
                return 2;
            }
            for (size_t k = 0; k < hex.size() / 2; ++k) {
                tx[k] = static_cast<uint8_t>(std::stoul(hex.substr(2 * k, 2), nullptr, 16));
            }
        }
        struct spi_ioc_transfer x;
        std::memset(&x, 0, sizeof x);
        x.tx_buf = reinterpret_cast<uintptr_t>(tx);
        x.rx_buf = reinterpret_cast<uintptr_t>(rx);
        x.len = sizeof tx;
        const int rc = ioctl(fd, SPI_IOC_MESSAGE(1), &x);
        if (rc < 1) {
            std::printf("fail %d\n", errno);
            continue;
        }
        std::printf("rx ");
        for (uint8_t b : rx) {
            std::printf("%02X", b);
        }
        std::printf("\n");
    }
    std::fflush(stdout);
    close(fd);
    return 0;
}
