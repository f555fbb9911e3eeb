// Checksum routines: byte sum, two's-complement checksum, CRC-8 and the
// word-oriented CRC-32. All bitwise, no tables.
#include <stdlib.h>
#include <string.h>

#include "utils.h"

uint8_t sum_u8(const uint8_t* buf, int len) {
    uint8_t sum = 0;
    for (int i = 0; i < len; i++)
        sum = static_cast<uint8_t>(sum + buf[i]);
    return sum;
}

uint8_t checksum_u8(const uint8_t* buf, int len) {
    return static_cast<uint8_t>(0x100 - sum_u8(buf, len));
}

uint8_t calc_crc8(uint8_t crc, const uint8_t* buf, int len) {
    // A negative count is treated like zero.
    for (int i = 0; i < len; i++) {
        crc ^= buf[i];
        for (int bit = 0; bit < 8; bit++)
            crc = (crc & 0x80) ? static_cast<uint8_t>((crc << 1) ^ 0x07)
                               : static_cast<uint8_t>(crc << 1);
    }
    return crc;
}

uint32_t crc32_update(const uint8_t* ucBuf, uint32_t uiLen, uint32_t crc) {
    if (ucBuf == nullptr) {
        LOG_ERR("null pointer\n");
        return crc;
    }
    if (uiLen == 0) {
        LOG_ERR("uiLen == 0\n");
        return crc;
    }
    // A partial last word is completed with 0xFF in a private copy, so no
    // byte beyond the caller's buffer is ever read.
    uint8_t* scratch = nullptr;
    const uint8_t* data = ucBuf;
    if (uiLen % 4 != 0) {
        scratch = static_cast<uint8_t*>(malloc(static_cast<size_t>(uiLen) + 3));
        if (scratch == nullptr) {
            LOG_ERR("malloc %d fail\n", static_cast<int>(uiLen + 3));
            return crc;
        }
        memcpy(scratch, ucBuf, uiLen);
        memset(scratch + uiLen, 0xFF, 3);
        data = scratch;
    }
    uint32_t words = static_cast<uint32_t>((static_cast<uint64_t>(uiLen) + 3) / 4);
    for (uint32_t w = 0; w < words; w++) {
        const uint8_t* p = data + 4 * static_cast<size_t>(w);
        uint32_t word = static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
                        (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
        for (int bit = 0; bit < 32; bit++) {
            if ((crc ^ word) & 0x80000000u)
                crc = (crc << 1) ^ 0x04C11DB7u;
            else
                crc <<= 1;
            word <<= 1;
        }
    }
    free(scratch);
    return crc;
}

uint32_t calc_crc32(const uint8_t* ucBuf, uint32_t uiLen) {
    return crc32_update(ucBuf, uiLen, 0);
}
