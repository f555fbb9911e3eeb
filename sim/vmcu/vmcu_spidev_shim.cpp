// libvmcu_spidev.so: an LD_PRELOAD library that lets an unmodified program
// use the virtual MCU as its SPI device. Opening any path that contains
// "spidev0.0" connects to the vmcu's unix socket (environment variable
// VMCU_SPI_SOCKET) instead; the spidev ioctls on that descriptor are then
// served by the vmcu (see vmcu_spi_wire.h). Everything else passes through.
//
// It builds for glibc and for Android's bionic and needs nothing but the C
// library: no compiled part of the C++ library, no exceptions.
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

#include "vmcu_spi_wire.h"

namespace {

#if defined(__BIONIC__)
using Request = int;  // bionic's ioctl(int, int, ...)
#else
using Request = unsigned long;
#endif

constexpr int kMaxFd = 4096;

// An emulated device: the settings the program wrote, for the read-back ioctls.
struct Device {
    bool used;
    uint8_t mode;
    uint8_t bits;
    uint32_t speed;
    int lock_fd;  // file locked in the device's name (see flock)
};

Device g_dev[kMaxFd];

template <typename Fn>
Fn next_symbol(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

using OpenFn = int (*)(const char*, int, ...);
using OpenAtFn = int (*)(int, const char*, int, ...);
using Open2Fn = int (*)(const char*, int);
using OpenAt2Fn = int (*)(int, const char*, int);
using FlockFn = int (*)(int, int);

int real_close(int fd) {
    return next_symbol<int (*)(int)>("close")(fd);
}

bool is_ours(int fd) {
    return fd >= 0 && fd < kMaxFd && g_dev[fd].used;
}

// Connects to the vmcu; returns the socket or -1 with errno ENOENT.
int open_vmcu(int flags) {
    const char* path = getenv("VMCU_SPI_SOCKET");
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    const size_t len = path != nullptr ? strlen(path) : 0;
    const int type = SOCK_STREAM | ((flags & O_CLOEXEC) != 0 ? SOCK_CLOEXEC : 0);
    const int fd = len > 0 && len < sizeof addr.sun_path ? socket(AF_UNIX, type, 0) : -1;
    if (fd >= 0)
        memcpy(addr.sun_path, path, len + 1);
    if (fd < 0 || fd >= kMaxFd ||
        connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
        if (fd >= 0)
            real_close(fd);
        errno = ENOENT;
        return -1;
    }
    // A vmcu that stops answering must not hang the program forever.
    const struct timeval tv = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    g_dev[fd] = Device{true, 0, 8, 500000, -1};
    return fd;
}

// Runs io(offset) until n bytes have gone; false when the socket fails or closes.
template <typename Io>
bool all(size_t n, Io io) {
    for (size_t done = 0; done < n;) {
        const ssize_t k = io(done);
        if (k <= 0 && !(k < 0 && errno == EINTR))
            return false;
        done += k > 0 ? static_cast<size_t>(k) : 0;
    }
    return true;
}

// One message to the vmcu and its reply, which must carry `cap` bytes of data
// (into `reply`). Returns the reply's sub code, or -1.
int exchange(int fd, uint8_t type, uint8_t sub, const uint8_t* data, size_t len,
             uint8_t* reply = nullptr, size_t cap = 0) {
    uint8_t h[vmcu_wire::kHeaderSize];
    vmcu_wire::put_header(h, type, sub, static_cast<uint32_t>(len));
    if (!all(sizeof h, [&](size_t d) { return send(fd, h + d, sizeof h - d, MSG_NOSIGNAL); }) ||
        !all(len, [&](size_t d) { return send(fd, data + d, len - d, MSG_NOSIGNAL); }) ||
        !all(sizeof h, [&](size_t d) { return recv(fd, h + d, sizeof h - d, 0); }))
        return -1;
    const uint32_t n = vmcu_wire::header_length(h);
    if (n != cap || !all(n, [&](size_t d) { return recv(fd, reply + d, n - d, 0); }))
        return -1;
    return h[1];
}

int report_setting(int fd, uint8_t what, uint32_t value) {
    const uint8_t v[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                          static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    if (exchange(fd, vmcu_wire::kSetting, what, v, sizeof v) < 0) {
        errno = EIO;
        return -1;
    }
    return 0;
}

int do_transfer(int fd, unsigned long request, const struct spi_ioc_transfer* x) {
    if (request != SPI_IOC_MESSAGE(1) || x == nullptr || x->len != vmcu_wire::kBlockSize ||
        x->tx_buf == 0 || x->rx_buf == 0) {
        char text[128];  // told to the vmcu, which logs it
        const int n = snprintf(text, sizeof text, "unsupported transfer: request %#lx len %u",
                               request, x != nullptr ? x->len : 0);
        exchange(fd, vmcu_wire::kNote, 0, reinterpret_cast<const uint8_t*>(text), n);
        errno = x == nullptr ? EFAULT : EINVAL;
        return -1;
    }
    const auto* tx = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(x->tx_buf));
    auto* rx = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(x->rx_buf));
    uint8_t in[vmcu_wire::kBlockSize];
    if (exchange(fd, vmcu_wire::kTransfer, 0, tx, sizeof in, in, sizeof in) != vmcu_wire::kXferOk) {
        errno = EIO;
        return -1;
    }
    memcpy(rx, in, sizeof in);
    return static_cast<int>(sizeof in);
}

int spi_ioctl(int fd, unsigned long request, void* arg) {
    Device& d = g_dev[fd];
    if (_IOC_TYPE(request) == SPI_IOC_MAGIC && _IOC_NR(request) == 0 &&
        _IOC_DIR(request) == _IOC_WRITE)
        return do_transfer(fd, request, static_cast<const struct spi_ioc_transfer*>(arg));
    auto* u8 = static_cast<uint8_t*>(arg);
    auto* u32 = static_cast<uint32_t*>(arg);
    if (arg == nullptr) {
        errno = EFAULT;
        return -1;
    }
    switch (request) {
        case SPI_IOC_WR_MODE:
            return report_setting(fd, vmcu_wire::kMode, d.mode = *u8);
        case SPI_IOC_RD_MODE:
            return *u8 = d.mode, 0;
        case SPI_IOC_WR_MAX_SPEED_HZ:
            return report_setting(fd, vmcu_wire::kSpeed, d.speed = *u32);
        case SPI_IOC_RD_MAX_SPEED_HZ:
            return *u32 = d.speed, 0;
        case SPI_IOC_WR_BITS_PER_WORD:
            return report_setting(fd, vmcu_wire::kBits, d.bits = *u8);
        case SPI_IOC_RD_BITS_PER_WORD:
            return *u8 = d.bits, 0;
        default:
            errno = ENOTTY;
            return -1;
    }
}

// The open calls: a path naming spidev0.0 connects to the vmcu; any other
// goes on to the C library's own function with the caller's arguments.
template <typename Fn, typename... Args>
int open_or_pass(const char* name, const char* path, int flags, Args... args) {
    if (path != nullptr && strstr(path, "spidev0.0") != nullptr)
        return open_vmcu(flags);
    return next_symbol<Fn>(name)(args...);
}

}  // namespace

extern "C" {

// The mode argument, present only when the flags create a file.
#define VMCU_MODE(flags)                                              \
    mode_t mode = 0;                                                  \
    if (((flags)&O_CREAT) != 0 || ((flags)&O_TMPFILE) == O_TMPFILE) { \
        va_list ap;                                                   \
        va_start(ap, flags);                                          \
        mode = static_cast<mode_t>(va_arg(ap, int));                  \
        va_end(ap);                                                   \
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

int ioctl(int fd, Request request, ...) {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (is_ours(fd))  // ioctl numbers are 32 bits wide (the kernel reads them so)
        return spi_ioctl(fd, static_cast<unsigned int>(request), arg);
    return next_symbol<int (*)(int, Request, ...)>("ioctl")(fd, request, arg);
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
            real_close(lfd);
        errno = e;
        return -1;
    }
    g_dev[fd].lock_fd = lfd;
    return 0;
}

// A copy of a device's descriptor is the same device (without the lock).
int fcntl(int fd, int cmd, ...) {
    va_list ap;
    va_start(ap, cmd);
    const long arg = va_arg(ap, long);
    va_end(ap);
    const int r = next_symbol<int (*)(int, int, ...)>("fcntl")(fd, cmd, arg);
    if (is_ours(fd) && (cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC) && r >= 0 && r < kMaxFd) {
        g_dev[r] = g_dev[fd];
        g_dev[r].lock_fd = -1;
    }
    return r;
}

int close(int fd) {
    if (is_ours(fd)) {
        g_dev[fd].used = false;
        if (g_dev[fd].lock_fd >= 0)
            real_close(g_dev[fd].lock_fd);
    }
    return real_close(fd);
}

}  // extern "C"
