// The two links the virtual MCU serves. Each returns the process exit code.
#pragma once

#include "vmcu_log.h"
#include "vmcu_model.h"
#include "vmcu_options.h"
#include "vmcu_runtime.h"

namespace vmcu {

int run_pty(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt);
int run_spi(const Options& opt, Mcu& mcu, Logger& log, Runtime& rt);

}  // namespace vmcu
