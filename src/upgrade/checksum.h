// checksum: the frame CRC-16 (CRC-16/MCRF4XX as MAVLink computes it: poly
// 0x1021 bit-reflected, start 0xFFFF, no final XOR; check value 0x6F91) and
// the per-message extra byte table folded in after a received frame.
//
// A frame's CRC covers wire offsets 1 to 7 + N (both length bytes, seq, ids,
// msgid, header sum and payload) and then one extra byte that is not sent.
#ifndef MCU_CHECKSUM_H
#define MCU_CHECKSUM_H

#include <stdint.h>

static inline void crc_init(uint16_t* crcAccum) {
    *crcAccum = 0xFFFF;
}

// Folds one byte into the accumulator.
static inline void crc_accumulate(uint8_t data, uint16_t* crcAccum) {
    uint8_t tmp = static_cast<uint8_t>(data ^ static_cast<uint8_t>(*crcAccum & 0xFF));
    tmp = static_cast<uint8_t>(tmp ^ static_cast<uint8_t>(tmp << 4));
    *crcAccum = static_cast<uint16_t>((*crcAccum >> 8) ^ (tmp << 8) ^ (tmp << 3) ^ (tmp >> 4));
}

// CRC of length bytes from a fresh accumulator; 0 bytes give 0xFFFF.
static inline uint16_t crc_calculate(const uint8_t* pBuffer, uint16_t length) {
    uint16_t crcTmp;
    crc_init(&crcTmp);
    while (length--)
        crc_accumulate(*pBuffer++, &crcTmp);
    return crcTmp;
}

// Extra CRC byte per message id, used when checking received frames. Every id
// of the command set (208 and up) has 0.
static constexpr uint8_t msg_crcs[256] = {
    34,  187, 0,   18,  233, 0,   0,   0,   0,   0,   0,   0,   0,   0,   0,  142,  // 0
    0,   220, 22,  172, 15,  0,   0,   0,   128, 241, 148, 46,  196, 142, 42, 107,  // 16
    163, 0,   0,   0,   0,   0,   0,   0,   133, 225, 76,  37,  5,   0,   0,  0,    // 32
    96,  12,  194, 122, 0,   0,   0,   163, 250, 198, 0,   0,   147, 138, 0,  0,    // 48
    0,   119, 122, 0,   0,   0,   147, 162, 137, 196, 190, 234, 182, 32,  0,  0,    // 64
    0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,  0,    // 80
    51,  142, 54,  164, 65,  143, 249, 244, 0,   0,   0,   0,   0,   0,   0,  0,    // 96
    39,  60,  34,  0,   125, 173, 79,  0,   0,   0,   0,   0,   0,   0,   0,  0,    // 112
    0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,  0,    // 128
    225, 0,   0,   0,   0,   0,   240, 0,   0,   0,   0,   0,   0,   0,   0,  0,    // 144
    235, 95,  134, 0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,  0,    // 160
};

#endif  // MCU_CHECKSUM_H
