// SPI link: the spidev shim inside the tool forwards every setting and every
// 528-byte full-duplex transfer over a unix socket. The vmcu plays the SPI
// slave: what it has to say is queued and clocked out in later transfers.
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "vmcu_link.h"
#include "vmcu_spi_wire.h"

namespace vmcu {

namespace {

constexpr size_t kMaxQueue = 256;

class SpiLink {
public:
    SpiLink(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt)
        : opt_(opt), mcu_(mcu), log_(log), rt_(rt) {}
    ~SpiLink();

    bool listen_on(std::string* err);
    int serve();

private:
    struct Client {
        int fd;
        Bytes in;
    };

    void accept_client();
    // False when the client is gone.
    bool read_client(Client& c);
    bool process(Client& c, uint8_t type, uint8_t sub, const Bytes& body);
    bool reply(Client& c, uint8_t type, uint8_t sub, const uint8_t* data, size_t len);
    // Clocks out the next queued frame into *rx; false when the transfer fails.
    bool transfer(const Bytes& tx, Bytes* rx);
    void enqueue(Bytes bytes);
    void drop_client(size_t index);

    const Options& opt_;
    Mcu& mcu_;
    Logger& log_;
    Runtime& rt_;
    int listen_fd_ = -1;
    std::vector<Client> clients_;
    std::deque<Bytes> queue_;  // frames to clock out, one a transfer
};

SpiLink::~SpiLink() {
    for (const Client& c : clients_) {
        close(c.fd);
    }
    if (listen_fd_ >= 0) {
        close(listen_fd_);
        unlink(opt_.spi_socket.c_str());
    }
}

bool SpiLink::listen_on(std::string* err) {
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    if (opt_.spi_socket.empty() || opt_.spi_socket.size() >= sizeof addr.sun_path) {
        *err = "socket path empty or too long: " + opt_.spi_socket;
        return false;
    }
    std::memcpy(addr.sun_path, opt_.spi_socket.c_str(), opt_.spi_socket.size() + 1);
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listen_fd_ < 0) {
        *err = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    unlink(opt_.spi_socket.c_str());
    if (bind(listen_fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, 8) != 0) {
        *err = "bind/listen " + opt_.spi_socket + ": " + std::strerror(errno);
        close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    std::printf("spi: %s\n", opt_.spi_socket.c_str());
    std::fflush(stdout);
    return true;
}

void SpiLink::accept_client() {
    const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        return;
    }
    clients_.push_back(Client{fd, {}});
    log_.line("SPI CONNECT");
}

void SpiLink::drop_client(size_t index) {
    close(clients_[index].fd);
    clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(index));
    log_.line("SPI DISCONNECT");
    if (clients_.empty() && !queue_.empty()) {
        // Whatever the last run left unread must not greet the next one.
        log_.line("NOTE dropped " + std::to_string(queue_.size()) + " queued frames");
        queue_.clear();
    }
}

bool SpiLink::reply(Client& c, uint8_t type, uint8_t sub, const uint8_t* data, size_t len) {
    Bytes out(vmcu_wire::kHeaderSize);
    vmcu_wire::put_header(out.data(), type, sub, static_cast<uint32_t>(len));
    out.insert(out.end(), data, data + len);
    size_t done = 0;
    while (done < out.size()) {
        const ssize_t n = send(c.fd, out.data() + done, out.size() - done, MSG_NOSIGNAL);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            // The shim reads its reply at once; wait for room instead of spinning.
            struct pollfd p = {c.fd, POLLOUT, 0};
            if (poll(&p, 1, 1000) > 0) {
                continue;
            }
        }
        return false;
    }
    return true;
}

void SpiLink::enqueue(Bytes bytes) {
    if (bytes.size() > vmcu_wire::kBlockSize) {
        log_.line("NOTE frame of " + std::to_string(bytes.size()) +
                  " bytes does not fit a transfer, truncated");
        bytes.resize(vmcu_wire::kBlockSize);
    }
    if (queue_.size() >= kMaxQueue) {
        log_.line("NOTE out queue full, frame dropped");
        return;
    }
    queue_.push_back(std::move(bytes));
}

bool SpiLink::transfer(const Bytes& tx, Bytes* rx) {
    Reply r;
    if (std::any_of(tx.begin(), tx.end(), [](uint8_t b) { return b != 0; })) {
        log_.raw(tx.data(), tx.size());
        const BlockScan scan = scan_block(tx.data(), tx.size(), opt_.rx_crc);
        for (const std::string& why : scan.bad)
            log_.line("BAD " + why);
        if (scan.found) {
            log_.line("RX " + to_hex(scan.frame.wire));
            r = mcu_.handle(scan.frame);
        } else if (scan.bad.empty()) {
            log_.line("BAD no frame in transmit block");
        }
    }
    if (r.xfer_fail)
        return false;  // nothing is clocked out by a failed transfer
    // The slave answers a request in the transfers after the one that carried it.
    rx->assign(vmcu_wire::kBlockSize, 0);
    if (!queue_.empty()) {
        std::copy(queue_.front().begin(), queue_.front().end(), rx->begin());
        log_.line("TX " + to_hex(queue_.front()));
        queue_.pop_front();
    }
    if (!r.bytes.empty())
        enqueue(r.bytes);
    return true;
}

bool SpiLink::process(Client& c, uint8_t type, uint8_t sub, const Bytes& body) {
    switch (type) {
        case vmcu_wire::kSetting: {
            const uint32_t v = get_u32(body, 0);
            const char* what = sub == vmcu_wire::kMode    ? "MODE"
                               : sub == vmcu_wire::kSpeed ? "SPEED"
                               : sub == vmcu_wire::kBits  ? "BITS"
                                                          : "UNKNOWN";
            log_.line(std::string("SPI ") + what + " " + std::to_string(v));
            return reply(c, vmcu_wire::kAck, 0, nullptr, 0);
        }
        case vmcu_wire::kNote:
            log_.line("SHIM " + std::string(body.begin(), body.end()));
            return reply(c, vmcu_wire::kAck, 0, nullptr, 0);
        case vmcu_wire::kTransfer: {
            if (body.size() != vmcu_wire::kBlockSize) {
                log_.line("BAD transfer of " + std::to_string(body.size()) + " bytes");
                return reply(c, vmcu_wire::kTransfer, vmcu_wire::kXferFailed, nullptr, 0);
            }
            Bytes rx;
            if (!transfer(body, &rx))
                return reply(c, vmcu_wire::kTransfer, vmcu_wire::kXferFailed, nullptr, 0);
            return reply(c, vmcu_wire::kTransfer, vmcu_wire::kXferOk, rx.data(), rx.size());
        }
        default:
            log_.line("BAD shim message type " + std::to_string(type));
            return false;
    }
}

bool SpiLink::read_client(Client& c) {
    uint8_t buf[4096];
    const ssize_t n = recv(c.fd, buf, sizeof buf, 0);
    if (n == 0) {
        return false;
    }
    if (n < 0) {
        return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    }
    c.in.insert(c.in.end(), buf, buf + n);
    while (c.in.size() >= vmcu_wire::kHeaderSize) {
        const uint32_t len = vmcu_wire::header_length(c.in.data());
        if (len > vmcu_wire::kMaxLength) {
            log_.line("BAD shim message length " + std::to_string(len));
            return false;
        }
        if (c.in.size() < vmcu_wire::kHeaderSize + len) {
            break;
        }
        const uint8_t type = c.in[0];
        const uint8_t sub = c.in[1];
        const Bytes body(c.in.begin() + vmcu_wire::kHeaderSize,
                         c.in.begin() + vmcu_wire::kHeaderSize + len);
        c.in.erase(c.in.begin(), c.in.begin() + vmcu_wire::kHeaderSize + len);
        if (!process(c, type, sub, body)) {
            return false;
        }
    }
    return true;
}

int SpiLink::serve() {
    for (;;) {
        const int64_t now = now_ms();
        if (rt_.stop_requested()) {
            log_.line("EXIT signal");
            return 0;
        }
        if (rt_.expired(now)) {
            log_.line("EXIT time limit");
            return 0;
        }
        for (const Emit* e : rt_.due_emits(now)) {
            Bytes f = mcu_.emit_frame(*e);
            if (!clients_.empty())
                enqueue(std::move(f));
        }
        std::vector<struct pollfd> fds;
        fds.push_back({rt_.signal_fd(), POLLIN, 0});
        fds.push_back({listen_fd_, POLLIN, 0});
        for (const Client& c : clients_) {
            fds.push_back({c.fd, POLLIN, 0});
        }
        const int rc = poll(fds.data(), fds.size(), rt_.poll_timeout(now, -1));
        if (rc < 0) {
            if (errno == EINTR) {
                continue;
            }
            log_.line(std::string("EXIT poll: ") + std::strerror(errno));
            return 1;
        }
        // Clients first (in reverse so that dropping one keeps the indices valid).
        for (size_t i = clients_.size(); i-- > 0;) {
            const short rev = fds[2 + i].revents;
            if ((rev & (POLLIN | POLLHUP | POLLERR)) != 0 && !read_client(clients_[i])) {
                drop_client(i);
            }
        }
        if ((fds[1].revents & POLLIN) != 0) {
            accept_client();
        }
    }
}

}  // namespace

int run_spi(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt) {
    SpiLink link(opt, mcu, log, rt);
    std::string err;
    if (!link.listen_on(&err)) {
        std::fprintf(stderr, "vmcu: %s\n", err.c_str());
        return 1;
    }
    return link.serve();
}

}  // namespace vmcu
