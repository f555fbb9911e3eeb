// libvmcu_spidev.so: an LD_PRELOAD library that lets an unmodified program
// use the virtual MCU as its SPI device. Opening any path that contains
// "spidev0.0" connects to the vmcu's unix socket (environment variable
// VMCU_SPI_SOCKET) instead; the spidev ioctls on that descriptor are then
// served by the vmcu (see vmcu_spi_wire.h). Everything else passes through.
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <mutex>

#include "vmcu_spi_wire.h"

namespace {

constexpr int kMaxFd = 4096;

struct Device {
    bool used = false;
    uint8_t mode = 0;
    uint32_t mode32 = 0;
    uint32_t speed = 500000;
    uint8_t bits = 8;
    uint8_t lsb = 0;
    int lock_fd = -1;  // file locked in the device's name (see flock)
};

Device g_dev[kMaxFd];
std::mutex g_mutex;

template <typename Fn>
Fn next_symbol(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

using OpenFn = int (*)(const char*, int, ...);
using OpenAtFn = int (*)(int, const char*, int, ...);
using Open2Fn = int (*)(const char*, int);
using OpenAt2Fn = int (*)(int, const char*, int);
using IoctlFn = int (*)(int, unsigned long, ...);
using CloseFn = int (*)(int);
using FlockFn = int (*)(int, int);

bool is_spidev(const char* path) {
    return path != nullptr && strstr(path, "spidev0.0") != nullptr;
}

bool is_ours(int fd) {
    return fd >= 0 && fd < kMaxFd && g_dev[fd].used;
}

bool needs_mode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

// Connects to the vmcu; returns the socket or -1 with errno ENOENT.
int open_vmcu(int flags) {
    const char* path = getenv("VMCU_SPI_SOCKET");
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path == nullptr || *path == '\0' || strlen(path) >= sizeof addr.sun_path) {
        errno = ENOENT;
        return -1;
    }
    memcpy(addr.sun_path, path, strlen(path) + 1);
    const int type = SOCK_STREAM | ((flags & O_CLOEXEC) != 0 ? SOCK_CLOEXEC : 0);
    const int fd = socket(AF_UNIX, type, 0);
    if (fd < 0) {
        errno = ENOENT;
        return -1;
    }
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 || fd >= kMaxFd) {
        next_symbol<CloseFn>("close")(fd);
        errno = ENOENT;
        return -1;
    }
    // A vmcu that stops answering must not hang the program forever.
    struct timeval tv = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_dev[fd] = Device();
    g_dev[fd].used = true;
    return fd;
}

bool send_all(int fd, const uint8_t* p, size_t n) {
    while (n > 0) {
        const ssize_t k = send(fd, p, n, MSG_NOSIGNAL);
        if (k < 0 && errno == EINTR) {
            continue;
        }
        if (k <= 0) {
            return false;
        }
        p += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

bool recv_all(int fd, uint8_t* p, size_t n) {
    while (n > 0) {
        const ssize_t k = recv(fd, p, n, 0);
        if (k < 0 && errno == EINTR) {
            continue;
        }
        if (k <= 0) {
            return false;
        }
        p += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

// One request/reply with the vmcu. On success fills *sub and up to `cap`
// reply bytes (*len set to the count).
bool exchange(int fd, uint8_t type, uint8_t sub_out, const uint8_t* data, size_t len, uint8_t* sub,
              uint8_t* reply, size_t cap, size_t* reply_len) {
    uint8_t h[vmcu_wire::kHeaderSize];
    vmcu_wire::put_header(h, type, sub_out, static_cast<uint32_t>(len));
    if (!send_all(fd, h, sizeof h) || (len > 0 && !send_all(fd, data, len))) {
        return false;
    }
    if (!recv_all(fd, h, sizeof h)) {
        return false;
    }
    const uint32_t n = vmcu_wire::header_length(h);
    if (n > cap) {
        return false;
    }
    if (n > 0 && !recv_all(fd, reply, n)) {
        return false;
    }
    *sub = h[1];
    *reply_len = n;
    return true;
}

int report_setting(int fd, uint8_t what, uint32_t value) {
    uint8_t v[4];
    for (int i = 0; i < 4; ++i) {
        v[i] = static_cast<uint8_t>((value >> (8 * i)) & 0xFF);
    }
    uint8_t sub = 0;
    size_t n = 0;
    if (!exchange(fd, vmcu_wire::kSetting, what, v, sizeof v, &sub, nullptr, 0, &n)) {
        errno = EIO;
        return -1;
    }
    return 0;
}

void note(int fd, const char* text) {
    uint8_t sub = 0;
    size_t n = 0;
    exchange(fd, vmcu_wire::kNote, 0, reinterpret_cast<const uint8_t*>(text), strlen(text), &sub,
             nullptr, 0, &n);
}

int do_transfer(int fd, unsigned long request, void* arg) {
    if (request != SPI_IOC_MESSAGE(1)) {
        note(fd, "only SPI_IOC_MESSAGE(1) is supported");
        errno = EINVAL;
        return -1;
    }
    const auto* x = static_cast<const struct spi_ioc_transfer*>(arg);
    if (x == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (x->len != vmcu_wire::kBlockSize || x->tx_buf == 0 || x->rx_buf == 0) {
        char text[128];
        snprintf(text, sizeof text, "bad transfer: len %u tx %s rx %s", x->len,
                 x->tx_buf != 0 ? "set" : "null", x->rx_buf != 0 ? "set" : "null");
        note(fd, text);
        errno = EINVAL;
        return -1;
    }
    const auto* tx = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(x->tx_buf));
    auto* rx = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(x->rx_buf));
    uint8_t in[vmcu_wire::kBlockSize];
    uint8_t status = 0;
    size_t n = 0;
    if (!exchange(fd, vmcu_wire::kTransfer, 0, tx, vmcu_wire::kBlockSize, &status, in, sizeof in,
                  &n) ||
        status != vmcu_wire::kXferOk || n != vmcu_wire::kBlockSize) {
        errno = EIO;
        return -1;
    }
    memcpy(rx, in, sizeof in);
    return static_cast<int>(vmcu_wire::kBlockSize);
}

int spi_ioctl(int fd, unsigned long request, void* arg) {
    Device& d = g_dev[fd];
    if (_IOC_TYPE(request) == SPI_IOC_MAGIC && _IOC_NR(request) == 0 &&
        _IOC_DIR(request) == _IOC_WRITE) {
        return do_transfer(fd, request, arg);
    }
    if (arg == nullptr) {
        errno = EFAULT;
        return -1;
    }
    switch (request) {
        case SPI_IOC_WR_MODE:
            d.mode = *static_cast<const uint8_t*>(arg);
            d.mode32 = d.mode;
            return report_setting(fd, vmcu_wire::kMode, d.mode);
        case SPI_IOC_RD_MODE:
            *static_cast<uint8_t*>(arg) = d.mode;
            return 0;
        case SPI_IOC_WR_MODE32:
            d.mode32 = *static_cast<const uint32_t*>(arg);
            d.mode = static_cast<uint8_t>(d.mode32);
            return report_setting(fd, vmcu_wire::kMode, d.mode32);
        case SPI_IOC_RD_MODE32:
            *static_cast<uint32_t*>(arg) = d.mode32;
            return 0;
        case SPI_IOC_WR_MAX_SPEED_HZ:
            d.speed = *static_cast<const uint32_t*>(arg);
            return report_setting(fd, vmcu_wire::kSpeed, d.speed);
        case SPI_IOC_RD_MAX_SPEED_HZ:
            *static_cast<uint32_t*>(arg) = d.speed;
            return 0;
        case SPI_IOC_WR_BITS_PER_WORD:
            d.bits = *static_cast<const uint8_t*>(arg);
            return report_setting(fd, vmcu_wire::kBits, d.bits);
        case SPI_IOC_RD_BITS_PER_WORD:
            *static_cast<uint8_t*>(arg) = d.bits;
            return 0;
        case SPI_IOC_WR_LSB_FIRST:
            d.lsb = *static_cast<const uint8_t*>(arg);
            return 0;
        case SPI_IOC_RD_LSB_FIRST:
            *static_cast<uint8_t*>(arg) = d.lsb;
            return 0;
        default:
            errno = ENOTTY;
            return -1;
    }
}

// The open calls: a path naming spidev0.0 connects to the vmcu; any other
// goes on to the C library's own function with the caller's arguments.
template <typename Fn, typename... Args>
int open_or_pass(const char* name, const char* path, int flags, Args... args) {
    return is_spidev(path) ? open_vmcu(flags) : next_symbol<Fn>(name)(args...);
}

}  // namespace

extern "C" {

// The mode argument, present only when the flags create a file.
#define VMCU_MODE(flags)                             \
    mode_t mode = 0;                                 \
    if (needs_mode(flags)) {                         \
        va_list ap;                                  \
        va_start(ap, flags);                         \
        mode = static_cast<mode_t>(va_arg(ap, int)); \
        va_end(ap);                                  \
    }

int open(const char* path, int flags, ...) {
    VMCU_MODE(flags);
    return open_or_pass<OpenFn>("open", path, flags, path, flags, mode);
}
int open64(const char* path, int flags, ...) {
    VMCU_MODE(flags);
    return open_or_pass<OpenFn>("open64", path, flags, path, flags, mode);
}
int openat(int dirfd, const char* path, int flags, ...) {
    VMCU_MODE(flags);
    return open_or_pass<OpenAtFn>("openat", path, flags, dirfd, path, flags, mode);
}
int openat64(int dirfd, const char* path, int flags, ...) {
    VMCU_MODE(flags);
    return open_or_pass<OpenAtFn>("openat64", path, flags, dirfd, path, flags, mode);
}
int __open_2(const char* path, int flags) {
    return open_or_pass<Open2Fn>("__open_2", path, flags, path, flags);
}
int __open64_2(const char* path, int flags) {
    return open_or_pass<Open2Fn>("__open64_2", path, flags, path, flags);
}
int __openat_2(int dirfd, const char* path, int flags) {
    return open_or_pass<OpenAt2Fn>("__openat_2", path, flags, dirfd, path, flags);
}
int __openat64_2(int dirfd, const char* path, int flags) {
    return open_or_pass<OpenAt2Fn>("__openat64_2", path, flags, dirfd, path, flags);
}

int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (is_ours(fd)) {
        return spi_ioctl(fd, request, arg);
    }
    return next_symbol<IoctlFn>("ioctl")(fd, request, arg);
}

// Every opener of a real spidev node shares its inode, so flock on it keeps
// other programs out; each vmcu connection is a socket of its own, so the
// lock is taken on a file beside the vmcu's socket instead.
int flock(int fd, int op) {
    if (!is_ours(fd))
        return next_symbol<FlockFn>("flock")(fd, op);
    char path[sizeof(sockaddr_un::sun_path) + 8];
    snprintf(path, sizeof path, "%s.lock", getenv("VMCU_SPI_SOCKET"));
    const int lfd = next_symbol<OpenFn>("open")(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lfd < 0 || next_symbol<FlockFn>("flock")(lfd, op) != 0) {
        const int e = errno;
        if (lfd >= 0)
            next_symbol<CloseFn>("close")(lfd);
        errno = e;
        return -1;
    }
    g_dev[fd].lock_fd = lfd;
    return 0;
}

int close(int fd) {
    if (is_ours(fd)) {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_dev[fd].used = false;
        if (g_dev[fd].lock_fd >= 0)
            next_symbol<CloseFn>("close")(g_dev[fd].lock_fd);
    }
    return next_symbol<CloseFn>("close")(fd);
}

}  // extern "C"
