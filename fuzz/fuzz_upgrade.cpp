// Upgrade parameter records and images.
// Input: a 16-byte parameter record, the chunk size (2 bytes), the number of
// fake-MCU choices (1 byte), those choices (see FakeMcu), then the image.
// Properties: the limit step leaves every field within its bounds and an
// in-range field unchanged; programming over SPI that reports success has
// delivered the image byte for byte, in order, each chunk once.

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
    // Program time-out, retries, chunk size, erase, CRC check, app start and
    // bootloader time-outs, message time-out: wire order.
    const int bounds[8][2] = {{1000, 3000}, {2, 6},     {240, MAVLINK_MAX_PAYLOAD},
                              {20, 60},     {2, 6},     {2, 6},
                              {2, 6},       {500, 1500}};
    for (int i = 0; i < 8; i++) {
        const int in = data[2 * i] | (data[2 * i + 1] << 8);
        const int out = reinterpret_cast<const uint16_t*>(&cmd)[i];
        FUZZ_CHECK(out >= bounds[i][0] && out <= bounds[i][1]);
        FUZZ_CHECK(in < bounds[i][0] || in > bounds[i][1] || out == in);
    }
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
