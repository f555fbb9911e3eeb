// The two links the virtual MCU serves. Each returns the process exit code.
#pragma once

#include <string>

#include "vmcu_model.h"

namespace vmcu {

int run_pty(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt);
int run_spi(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt);

// The pty's line settings as the log line "TERMIOS cs8=1 parenb=0 ...". In a
// file of its own (vmcu_termios.cpp): it reads the kernel's termios
// structures, which clash with the C library's <termios.h>.
std::string describe_termios(int fd);

}  // namespace vmcu
