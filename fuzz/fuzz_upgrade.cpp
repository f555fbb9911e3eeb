// Upgrade parameter records and images.
// Input: a 16-byte parameter record, the chunk size (2 bytes), the number of
// fake-MCU choices (1 byte), those choices (see fuzz_upgrade_mcu.h), then the
// image.
// Properties: the limit step leaves every field within its bounds and an
// in-range field unchanged; programming over SPI that reports success has
// delivered the image byte for byte, in order, each chunk once.
#include <string.h>

#include "fuzz_support.h"
#include "fuzz_upgrade_mcu.h"

namespace {

bool within(uint16_t v, int lo, int hi) {
    return v >= lo && v <= hi;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 19 || size - 19 < data[18])
        return 0;
    ST_TimeRetryCmd cmd, given;
    memcpy(&given, data, sizeof given);
    cmd = given;
    mcu_limit_upgrade_param(&cmd);
    uint16_t in[8], out[8];         // program time-out, retries, chunk size, erase, CRC check,
    memcpy(in, &given, sizeof in);  // app start, bootloader time-outs, message time-out
    memcpy(out, &cmd, sizeof out);
    const int bounds[8][2] = {{1000, 3000}, {2, 6},     {240, MAVLINK_MAX_PAYLOAD},
                              {20, 60},     {2, 6},     {2, 6},
                              {2, 6},       {500, 1500}};
    for (int i = 0; i < 8; i++) {
        FUZZ_CHECK(within(out[i], bounds[i][0], bounds[i][1]));
        FUZZ_CHECK(!within(in[i], bounds[i][0], bounds[i][1]) || out[i] == in[i]);
    }
    FakeMcu& f = g_fake_mcu;
    f = FakeMcu();
    f.script.assign(data + 19, data + 19 + data[18]);
    const uint8_t* image = data + 19 + data[18];
    int length = static_cast<int>(size - 19 - data[18]);
    set_comp_id(DEV_BATTERY);
    m_serial_type = SERIAL_TYPE_SPI;
    m_serial_fd = 3;  // the fake kernel never uses it
    int pksize = data[16] | (data[17] << 8);
    int ret =
        mcu_programFlash(const_cast<uint8_t*>(image), length, 1000, cmd.program_retrys, pksize);
    m_serial_fd = -1;
    FUZZ_CHECK(ret != 0 ||
               (f.received.size() == static_cast<size_t>(length) &&
                (length == 0 || memcmp(f.received.data(), image, f.received.size()) == 0)));
    fuzz_diag_bytes();
    return 0;
}
