// What the fuzz targets share: a property check that aborts (libFuzzer keeps
// the input), quiet output with a count of what was printed, a virtual clock
// and the fake MCU behind the SPI transfers (fake_kernel.cpp).
#ifndef MCU_FUZZ_SUPPORT_H
#define MCU_FUZZ_SUPPORT_H

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "mcu_tool2_internal.h"

#define FUZZ_CHECK(cond) ((cond) ? (void)0 : fuzz_fail(__FILE__, __LINE__, #cond))
[[noreturn]] void fuzz_fail(const char* file, int line, const char* cond);
void fuzz_quiet_init(void);    // standard output to /dev/null, diagnostics counted
size_t fuzz_diag_bytes(void);  // bytes of diagnostics since the last call

struct FakeMcu {
    std::vector<uint8_t> script;  // one choice per request: <230 success, 230-239 a result
                                  // code, 240-244 answer lost, 250-254 silence, 255 failed transfer
    size_t pos = 0;
    std::vector<uint8_t> received;  // the chunks acknowledged, once each
    int last_seq = -1;
    uint8_t pending[SPI_BLOCK_SIZE] = {};  // the answer for the next transfer
};
extern FakeMcu g_fake_mcu;

#endif  // MCU_FUZZ_SUPPORT_H
