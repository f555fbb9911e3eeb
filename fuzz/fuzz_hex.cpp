// Hex strings: the conversion and the actions that take one.
// Input: the string (up to the first zero byte), then the buffer size.
// Properties: a conversion gives half the string's length in bytes, exactly
// the digits given (either case), or -1 and writes nothing past the buffer;
// the CRC-16 action and the raw actions without a target take any string
// without touching a device, with bounded diagnostics.

#include <stdlib.h>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data),
                     strnlen(reinterpret_cast<const char*>(data), size));
    size_t rest = size - text.size();
    int cap = rest > 1 ? data[text.size() + 1] : 255;
    std::vector<uint8_t> buf(static_cast<size_t>(cap) + 1, 0xEE);
    int n = string2hex(text.c_str(), buf.data(), cap);
    FUZZ_CHECK(buf[static_cast<size_t>(cap)] == 0xEE);
    if (n >= 0) {
        FUZZ_CHECK(static_cast<size_t>(n) * 2 == text.size() && n <= cap);
        for (int i = 0; i < n; i++)
            FUZZ_CHECK(strtoul(text.substr(2 * i, 2).c_str(), nullptr, 16) == buf[i]);
    }
    set_comp_id(DEV_NONE);  // no target: the device actions refuse before any open
    mcu_crc16(text.c_str());
    mcu_sendraw(text.c_str());
    mcu_writeraw(text.c_str());
    FUZZ_CHECK(m_serial_fd == -1);
    FUZZ_CHECK(fuzz_diag_bytes() <= 4096 + 8 * text.size());
    return 0;
}
