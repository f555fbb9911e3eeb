// SPI link: the spidev shim inside the tool forwards every setting and every
// 528-byte full-duplex transfer over a unix socket. The vmcu plays the SPI
// slave: what it has to say is queued and clocked out in later transfers.
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>

#include "vmcu_link.h"
#include "vmcu_spi_wire.h"

namespace vmcu {

namespace {

constexpr size_t kMaxQueue = 256;

class SpiLink {
public:
    SpiLink(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt)
        : opt_(opt), mcu_(mcu), log_(log), rt_(rt) {}
    ~SpiLink() {
        for (const Client& c : clients_)
            close(c.fd);
        if (listen_fd_ >= 0)
            unlink(opt_.spi_socket.c_str());
        close(listen_fd_);
    }

    // Listens on the socket; prints its name. Empty string on success, else the error.
    std::string listen_on();
    int serve();

private:
    struct Client {
        int fd;
        Bytes in;  // received, not yet a whole message
    };

    // False when the client is gone or broke the protocol.
    bool read_client(Client& c);
    bool process(int fd, uint8_t type, uint8_t sub, const Bytes& body);
    static bool reply(int fd, uint8_t type, uint8_t sub, const Bytes& data);
    // Clocks out the next queued frame into *rx; false when the transfer fails.
    bool transfer(const Bytes& tx, Bytes* rx);
    void enqueue(Bytes bytes);

    const Options& opt_;
    Mcu& mcu_;
    Logger& log_;
    Runtime& rt_;
    int listen_fd_ = -1;
    std::vector<Client> clients_;
    std::deque<Bytes> queue_;  // frames to clock out, one a transfer
};

std::string SpiLink::listen_on() {
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    const std::string& path = opt_.spi_socket;
    if (path.empty() || path.size() >= sizeof addr.sun_path)
        return "socket path empty or too long: " + path;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    unlink(path.c_str());
    if (listen_fd_ < 0 ||
        bind(listen_fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, 8) != 0) {
        std::string err = "listen on " + path + ": " + std::strerror(errno);
        close(listen_fd_);
        listen_fd_ = -1;
        return err;
    }
    std::printf("spi: %s\n", path.c_str());
    std::fflush(stdout);
    return "";
}

bool SpiLink::reply(int fd, uint8_t type, uint8_t sub, const Bytes& data) {
    Bytes out(vmcu_wire::kHeaderSize);
    vmcu_wire::put_header(out.data(), type, sub, static_cast<uint32_t>(data.size()));
    out.insert(out.end(), data.begin(), data.end());
    for (size_t done = 0; done < out.size();) {
        const ssize_t n = send(fd, out.data() + done, out.size() - done, MSG_NOSIGNAL);
        struct pollfd p = {fd, POLLOUT, 0};
        // The shim reads its reply at once; wait for room instead of spinning.
        const bool again = n < 0 && (errno == EINTR || ((errno == EAGAIN || errno == EWOULDBLOCK) &&
                                                        poll(&p, 1, 1000) > 0));
        if (n <= 0 && !again)
            return false;
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return true;
}

void SpiLink::enqueue(Bytes bytes) {
    if (bytes.size() > vmcu_wire::kBlockSize) {
        log_.line("NOTE frame of " + std::to_string(bytes.size()) +
                  " bytes does not fit a transfer, truncated");
        bytes.resize(vmcu_wire::kBlockSize);
    }
    if (queue_.size() >= kMaxQueue)
        log_.line("NOTE out queue full, frame dropped");
    else
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

bool SpiLink::process(int fd, uint8_t type, uint8_t sub, const Bytes& body) {
    Bytes rx;
    switch (type) {
        case vmcu_wire::kSetting:
            log_.line(std::string("SPI ") +
                      (sub == vmcu_wire::kMode    ? "MODE "
                       : sub == vmcu_wire::kSpeed ? "SPEED "
                       : sub == vmcu_wire::kBits  ? "BITS "
                                                  : "UNKNOWN ") +
                      std::to_string(get_u32(body, 0)));
            return reply(fd, vmcu_wire::kAck, 0, {});
        case vmcu_wire::kNote:
            log_.line("SHIM " + std::string(body.begin(), body.end()));
            return reply(fd, vmcu_wire::kAck, 0, {});
        case vmcu_wire::kTransfer:
            if (body.size() != vmcu_wire::kBlockSize)
                log_.line("BAD transfer of " + std::to_string(body.size()) + " bytes");
            else if (transfer(body, &rx))
                return reply(fd, vmcu_wire::kTransfer, vmcu_wire::kXferOk, rx);
            return reply(fd, vmcu_wire::kTransfer, vmcu_wire::kXferFailed, {});
        default:
            log_.line("BAD shim message type " + std::to_string(type));
            return false;
    }
}

bool SpiLink::read_client(Client& c) {
    uint8_t buf[4096];
    const ssize_t n = recv(c.fd, buf, sizeof buf, 0);
    if (n <= 0)
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
    c.in.insert(c.in.end(), buf, buf + n);
    while (c.in.size() >= vmcu_wire::kHeaderSize) {
        const uint32_t len = vmcu_wire::header_length(c.in.data());
        if (len > vmcu_wire::kMaxLength) {
            log_.line("BAD shim message length " + std::to_string(len));
            return false;
        }
        if (c.in.size() < vmcu_wire::kHeaderSize + len)
            break;
        const auto body = c.in.begin() + vmcu_wire::kHeaderSize;
        if (!process(c.fd, c.in[0], c.in[1], Bytes(body, body + len)))
            return false;
        c.in.erase(c.in.begin(), body + len);
    }
    return true;
}

int SpiLink::serve() {
    for (;;) {
        const int64_t now = now_ms();
        if (const char* why = rt_.exit_reason(now)) {
            log_.line(std::string("EXIT ") + why);
            return 0;
        }
        for (const Emit* e : rt_.due_emits(now)) {
            Bytes f = mcu_.emit_frame(*e);
            if (!clients_.empty())
                enqueue(std::move(f));
        }
        std::vector<struct pollfd> fds = {{rt_.signal_fd(), POLLIN, 0}, {listen_fd_, POLLIN, 0}};
        for (const Client& c : clients_)
            fds.push_back({c.fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), rt_.poll_timeout(now, -1)) < 0 && errno != EINTR) {
            log_.line(std::string("EXIT poll: ") + std::strerror(errno));
            return 1;
        }
        // Clients first (in reverse so that dropping one keeps the indices valid).
        for (size_t i = clients_.size(); i-- > 0;) {
            if ((fds[2 + i].revents & (POLLIN | POLLHUP | POLLERR)) == 0 ||
                read_client(clients_[i]))
                continue;
            close(clients_[i].fd);
            clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(i));
            log_.line("SPI DISCONNECT");
            if (clients_.empty() && !queue_.empty()) {
                // Whatever the last run left unread must not greet the next one.
                log_.line("NOTE dropped " + std::to_string(queue_.size()) + " queued frames");
                queue_.clear();
            }
        }
        const int fd = (fds[1].revents & POLLIN) != 0
                           ? accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)
                           : -1;
        if (fd >= 0) {
            clients_.push_back(Client{fd, {}});
            log_.line("SPI CONNECT");
        }
    }
}

}  // namespace

int run_spi(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt) {
    SpiLink link(opt, mcu, log, rt);
    const std::string err = link.listen_on();
    if (!err.empty()) {
        std::fprintf(stderr, "vmcu: %s\n", err.c_str());
        return 1;
    }
    return link.serve();
}

}  // namespace vmcu
