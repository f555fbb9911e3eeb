// The two links the virtual MCU serves. Each returns the process exit code.
#pragma once

#include "vmcu_model.h"

namespace vmcu {

int run_pty(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt);
int run_spi(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt);

}  // namespace vmcu
