// Upgrade parameters and images. Input: a 16-byte parameter record, the chunk size (2 bytes),
// the number of fake-MCU choices (1 byte), those choices (see FakeMcu), the image.
// Properties: the limit step holds each field between what it makes of 0 and of 65535, both
// strictly inside that range, and leaves a field already between them as it is; programming over
// SPI that reports success has delivered the image byte for byte, in order, each chunk once.
#include <algorithm>

#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 19 || size - 19 < data[18])
        return 0;
    ST_TimeRetryCmd r[3];  // the input's record, one of zeros, one of 65535s: limited
    memcpy(&r[0], data, sizeof r[0]);
    memset(&r[1], 0, sizeof r[1]);
    memset(&r[2], 0xFF, sizeof r[2]);
    for (ST_TimeRetryCmd& c : r)
        mcu_limit_upgrade_param(&c);
    uint16_t in[8], out[3][8];
    memcpy(in, data, sizeof in);
    memcpy(out, r, sizeof out);
    for (int i = 0; i < 8; i++)
        FUZZ_CHECK(0 < out[1][i] && out[1][i] <= out[2][i] && out[2][i] < 0xFFFF &&
                   out[0][i] == std::clamp(in[i], out[1][i], out[2][i]));
    g_fake_mcu = FakeMcu{{data + 19, data + 19 + data[18]}, {}};
    const std::vector<uint8_t> image(data + 19 + data[18], data + size);
    set_comp_id(DEV_BATTERY);
    m_serial_type = SERIAL_TYPE_SPI;
    m_serial_fd = 3;  // the fake kernel never uses it
    const int ret =
        mcu_programFlash(const_cast<uint8_t*>(image.data()), static_cast<int>(image.size()), 1000,
                         r[0].program_retrys, data[16] | data[17] << 8);
    FUZZ_CHECK(ret != 0 || g_fake_mcu.received == image);
    return 0;
}
