// Describes the line settings of a terminal as one log line. Lives in its own
// translation unit because it uses the kernel's termios structures, which
// clash with the C library's <termios.h>.
#pragma once

#include <string>

namespace vmcu {

// "TERMIOS cs8=1 parenb=0 ..." for the terminal open on fd.
std::string describe_termios(int fd);

}  // namespace vmcu
