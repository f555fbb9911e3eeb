#include "vmcu_termios.h"

#include <asm/ioctls.h>
#include <asm/termbits.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

extern "C" int ioctl(int fd, unsigned long request, ...);

namespace vmcu {

namespace {

const char* cbaud_name(unsigned cbaud) {
    struct Entry {
        unsigned value;
        const char* name;
    };
    static const Entry table[] = {
        {B0, "B0"},
        {B50, "B50"},
        {B75, "B75"},
        {B110, "B110"},
        {B134, "B134"},
        {B150, "B150"},
        {B200, "B200"},
        {B300, "B300"},
        {B600, "B600"},
        {B1200, "B1200"},
        {B1800, "B1800"},
        {B2400, "B2400"},
        {B4800, "B4800"},
        {B9600, "B9600"},
        {B19200, "B19200"},
        {B38400, "B38400"},
        {BOTHER, "BOTHER"},
        {B57600, "B57600"},
        {B115200, "B115200"},
        {B230400, "B230400"},
        {B460800, "B460800"},
        {B500000, "B500000"},
        {B576000, "B576000"},
        {B921600, "B921600"},
        {B1000000, "B1000000"},
        {B1152000, "B1152000"},
        {B1500000, "B1500000"},
        {B2000000, "B2000000"},
        {B2500000, "B2500000"},
        {B3000000, "B3000000"},
        {B3500000, "B3500000"},
        {B4000000, "B4000000"},
    };
    for (const Entry& e : table) {
        if (e.value == cbaud) {
            return e.name;
        }
    }
    return "unknown";
}

std::string bit(const char* name, unsigned flags, unsigned mask) {
    return std::string(" ") + name + "=" + ((flags & mask) != 0 ? "1" : "0");
}

std::string num(const char* name, unsigned long v) {
    return std::string(" ") + name + "=" + std::to_string(v);
}

std::string hex(const char* name, unsigned v) {
    char b[32];
    std::snprintf(b, sizeof b, " %s=0x%x", name, v);
    return b;
}

}  // namespace

std::string describe_termios(int fd) {
    struct termios t;
    std::memset(&t, 0, sizeof t);
    if (ioctl(fd, TCGETS, &t) != 0) {
        return std::string("TERMIOS unavailable: ") + std::strerror(errno);
    }
    std::string s = "TERMIOS";
    s += num("cs8", (t.c_cflag & CSIZE) == CS8 ? 1 : 0);
    s += bit("parenb", t.c_cflag, PARENB);
    s += bit("cstopb", t.c_cflag, CSTOPB);
    s += bit("crtscts", t.c_cflag, CRTSCTS);
    s += bit("icanon", t.c_lflag, ICANON);
    s += bit("echo", t.c_lflag, ECHO);
    s += bit("isig", t.c_lflag, ISIG);
    s += bit("opost", t.c_oflag, OPOST);
    s += bit("ixon", t.c_iflag, IXON);
    s += bit("ixoff", t.c_iflag, IXOFF);
    s += bit("icrnl", t.c_iflag, ICRNL);
    s += bit("inpck", t.c_iflag, INPCK);
    s += num("vmin", t.c_cc[VMIN]);
    s += num("vtime", t.c_cc[VTIME]);
    s += std::string(" cbaud=") + cbaud_name(t.c_cflag & CBAUD);
    struct termios2 t2;
    std::memset(&t2, 0, sizeof t2);
    if (ioctl(fd, TCGETS2, &t2) == 0) {
        s += num("ispeed", t2.c_ispeed);
        s += num("ospeed", t2.c_ospeed);
    } else {
        s += " termios2=unsupported";
    }
    s += bit("ixany", t.c_iflag, IXANY);
    s += bit("inlcr", t.c_iflag, INLCR);
    s += bit("igncr", t.c_iflag, IGNCR);
    s += bit("onlcr", t.c_oflag, ONLCR);
    s += bit("iexten", t.c_lflag, IEXTEN);
    s += bit("clocal", t.c_cflag, CLOCAL);
    s += bit("cread", t.c_cflag, CREAD);
    s += hex("iflag", t.c_iflag);
    s += hex("oflag", t.c_oflag);
    s += hex("cflag", t.c_cflag);
    s += hex("lflag", t.c_lflag);
    return s;
}

}  // namespace vmcu
