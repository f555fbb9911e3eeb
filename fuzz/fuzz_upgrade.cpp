// Upgrade parameter records and images.
// Input: a 16-byte parameter record, the chunk size (2 bytes), the number of
// fake-MCU choices (1 byte), those choices (see FakeMcu), then the image.
// Properties: programming over SPI (with the retries of the limited record)
// that reports success has delivered the image byte for byte, in order, each
// chunk once.

#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 19 || size - 19 < data[18])
        return 0;
    ST_TimeRetryCmd cmd;
    memcpy(&cmd, data, sizeof cmd);
    mcu_limit_upgrade_param(&cmd);
    FakeMcu& f = g_fake_mcu = FakeMcu();
    f.script.assign(data + 19, data + 19 + data[18]);
    const uint8_t* image = data + 19 + data[18];
    const size_t length = size - 19 - data[18];
    set_comp_id(DEV_BATTERY);
    m_serial_type = SERIAL_TYPE_SPI;
    m_serial_fd = 3;  // the fake kernel never uses it
    int ret = mcu_programFlash(const_cast<uint8_t*>(image), static_cast<int>(length), 1000,
                               cmd.program_retrys, data[16] | (data[17] << 8));
    m_serial_fd = -1;
    FUZZ_CHECK(ret != 0 || f.received == std::vector<uint8_t>(image, image + length));
    fuzz_diag_bytes();
    return 0;
}
