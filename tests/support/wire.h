// Test-side frame builder, written apart from the tool's encoder so the two
// check each other: builds a frame's hex text as the virtual MCU logs it.
#ifndef MCU_TEST_WIRE_H
#define MCU_TEST_WIRE_H

#include <stdint.h>

#include <string>
#include <vector>

namespace wire {

// CRC-16/MCRF4XX of `bytes` (start 0xFFFF, reflected 0x1021, no final XOR).
inline uint16_t crc16(const std::vector<uint8_t>& bytes) {
    uint16_t crc = 0xFFFF;
    for (uint8_t b : bytes) {
        crc ^= b;
        for (int i = 0; i < 8; i++)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0x8408)
                            : static_cast<uint16_t>(crc >> 1);
    }
    return crc;
}

inline std::vector<uint8_t> frame(uint8_t seq, uint8_t dst, uint8_t src, uint8_t msgid,
                                  const std::vector<uint8_t>& payload = {}, uint8_t extra = 0) {
    size_t n = payload.size();
    std::vector<uint8_t> f = {
        0xFD, static_cast<uint8_t>(n & 0xFF), static_cast<uint8_t>(n >> 8), seq, dst, src, msgid};
    uint8_t sum = 0;
    for (uint8_t b : f)
        sum = static_cast<uint8_t>(sum + b);
    f.push_back(sum);
    f.insert(f.end(), payload.begin(), payload.end());
    std::vector<uint8_t> covered(f.begin() + 1, f.end());
    covered.push_back(extra);
    uint16_t crc = crc16(covered);
    f.push_back(static_cast<uint8_t>(crc & 0xFF));
    f.push_back(static_cast<uint8_t>(crc >> 8));
    return f;
}

inline std::string hex(const std::vector<uint8_t>& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string s;
    for (uint8_t b : bytes) {
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}

// A request from the tool (own id 2) to target `dst`, as hex.
inline std::string request(uint8_t seq, uint8_t dst, uint8_t msgid,
                           const std::vector<uint8_t>& payload = {}) {
    return hex(frame(seq, dst, 2, msgid, payload));
}

}  // namespace wire

#endif  // MCU_TEST_WIRE_H
