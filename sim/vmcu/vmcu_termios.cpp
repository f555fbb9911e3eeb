#include "vmcu_link.h"

#include <asm/ioctls.h>
#include <asm/termbits.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

extern "C" int ioctl(int fd, unsigned long request, ...);

namespace vmcu {

std::string describe_termios(int fd) {
    struct termios t = {};
    if (ioctl(fd, TCGETS, &t) != 0)
        return std::string("TERMIOS unavailable: ") + std::strerror(errno);
    // The rates the tool names (any other it sets as BOTHER with the rate in
    // termios2) and a new pty's B38400.
    const unsigned rates[] = {B9600, B38400, B115200, B230400, B460800, B921600, B1152000, BOTHER};
    const char* const names[] = {"B9600",   "B38400",  "B115200",  "B230400",
                                 "B460800", "B921600", "B1152000", "BOTHER"};
    const char* cbaud = "unknown";
    for (size_t i = 0; i < std::size(rates); ++i)
        cbaud = rates[i] == (t.c_cflag & CBAUD) ? names[i] : cbaud;
    struct termios2 t2 = {};
    char speeds[64] = " termios2=unsupported";
    if (ioctl(fd, TCGETS2, &t2) == 0)
        std::snprintf(speeds, sizeof speeds, " ispeed=%u ospeed=%u", t2.c_ispeed, t2.c_ospeed);
    auto on = [](tcflag_t flags, tcflag_t mask) { return (flags & mask) != 0 ? 1 : 0; };
    char s[512];
    std::snprintf(
        s, sizeof s,
        "TERMIOS cs8=%d parenb=%d cstopb=%d crtscts=%d icanon=%d echo=%d isig=%d "
        "opost=%d ixon=%d ixoff=%d icrnl=%d inpck=%d vmin=%d vtime=%d cbaud=%s%s "
        "ixany=%d inlcr=%d igncr=%d onlcr=%d iexten=%d clocal=%d cread=%d "
        "iflag=0x%x oflag=0x%x cflag=0x%x lflag=0x%x",
        (t.c_cflag & CSIZE) == CS8 ? 1 : 0, on(t.c_cflag, PARENB), on(t.c_cflag, CSTOPB),
        on(t.c_cflag, CRTSCTS), on(t.c_lflag, ICANON), on(t.c_lflag, ECHO), on(t.c_lflag, ISIG),
        on(t.c_oflag, OPOST), on(t.c_iflag, IXON), on(t.c_iflag, IXOFF), on(t.c_iflag, ICRNL),
        on(t.c_iflag, INPCK), t.c_cc[VMIN], t.c_cc[VTIME], cbaud, speeds, on(t.c_iflag, IXANY),
        on(t.c_iflag, INLCR), on(t.c_iflag, IGNCR), on(t.c_oflag, ONLCR), on(t.c_lflag, IEXTEN),
        on(t.c_cflag, CLOCAL), on(t.c_cflag, CREAD), t.c_iflag, t.c_oflag, t.c_cflag, t.c_lflag);
    return s;
}

}  // namespace vmcu
