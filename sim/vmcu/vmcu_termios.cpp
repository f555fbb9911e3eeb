#include "vmcu_termios.h"

#include <asm/ioctls.h>
#include <asm/termbits.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

extern "C" int ioctl(int fd, unsigned long request, ...);

namespace vmcu {

std::string describe_termios(int fd) {
    struct termios t = {};
    if (ioctl(fd, TCGETS, &t) != 0)
        return std::string("TERMIOS unavailable: ") + std::strerror(errno);
    // The rates the tool names; any other it sets as BOTHER with the rate in termios2.
    const char* cbaud = "unknown";
    const struct {
        unsigned value;
        const char* name;
    } rates[] = {{B9600, "B9600"},     {B115200, "B115200"}, {B230400, "B230400"},
                 {B460800, "B460800"}, {B921600, "B921600"}, {B1152000, "B1152000"},
                 {BOTHER, "BOTHER"}};
    for (const auto& r : rates)
        cbaud = r.value == (t.c_cflag & CBAUD) ? r.name : cbaud;
    std::string s = "TERMIOS";
    char b[64];
    auto add = [&](const char* name, unsigned long v, const char* format = " %s=%lu") {
        std::snprintf(b, sizeof b, format, name, v);
        s += b;
    };
    auto bit = [&](const char* name, unsigned flags, unsigned mask) {
        add(name, (flags & mask) != 0 ? 1 : 0);
    };
    add("cs8", (t.c_cflag & CSIZE) == CS8 ? 1 : 0);
    bit("parenb", t.c_cflag, PARENB);
    bit("cstopb", t.c_cflag, CSTOPB);
    bit("crtscts", t.c_cflag, CRTSCTS);
    bit("icanon", t.c_lflag, ICANON);
    bit("echo", t.c_lflag, ECHO);
    bit("isig", t.c_lflag, ISIG);
    bit("opost", t.c_oflag, OPOST);
    bit("ixon", t.c_iflag, IXON);
    bit("ixoff", t.c_iflag, IXOFF);
    bit("icrnl", t.c_iflag, ICRNL);
    bit("inpck", t.c_iflag, INPCK);
    add("vmin", t.c_cc[VMIN]);
    add("vtime", t.c_cc[VTIME]);
    s += std::string(" cbaud=") + cbaud;
    struct termios2 t2 = {};
    if (ioctl(fd, TCGETS2, &t2) == 0) {
        add("ispeed", t2.c_ispeed);
        add("ospeed", t2.c_ospeed);
    } else {
        s += " termios2=unsupported";
    }
    bit("ixany", t.c_iflag, IXANY);
    bit("inlcr", t.c_iflag, INLCR);
    bit("igncr", t.c_iflag, IGNCR);
    bit("onlcr", t.c_oflag, ONLCR);
    bit("iexten", t.c_lflag, IEXTEN);
    bit("clocal", t.c_cflag, CLOCAL);
    bit("cread", t.c_cflag, CREAD);
    add("iflag", t.c_iflag, " %s=0x%lx");
    add("oflag", t.c_oflag, " %s=0x%lx");
    add("cflag", t.c_cflag, " %s=0x%lx");
    add("lflag", t.c_lflag, " %s=0x%lx");
    return s;
}

}  // namespace vmcu
