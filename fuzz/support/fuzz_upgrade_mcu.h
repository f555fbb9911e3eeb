// The fake MCU behind the fuzz targets' SPI transfers (fake_kernel.cpp).
#ifndef MCU_FUZZ_UPGRADE_MCU_H
#define MCU_FUZZ_UPGRADE_MCU_H

#include <vector>

struct FakeMcu {
    std::vector<uint8_t> script;  // one choice per request: <230 success, 230-239
                                  // a result code, 240-244 answer lost, 250-254
                                  // silence, 255 failed transfer
    size_t pos = 0;
    std::vector<uint8_t> received;  // the chunks acknowledged, once each
    bool have_seq = false;
    uint8_t last_seq = 0;
    uint8_t pending[528] = {};  // the answer for the next transfer
};
extern FakeMcu g_fake_mcu;

#endif  // MCU_FUZZ_UPGRADE_MCU_H
