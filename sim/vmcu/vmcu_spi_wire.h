// Messages between the spidev shim (libvmcu_spidev.so, inside the tool) and
// the vmcu, over a unix stream socket. Every message is an 8-byte header
// followed by `length` bytes:
//
//   offset 0  type    'C' setting written, 'X' transfer, 'N' note (text)
//   offset 1  sub     'C': 'M' mode, 'S' max speed Hz, 'B' bits per word;
//                     reply 'X': 0 transfer done, 1 transfer failed
//   offset 2  0, 0
//   offset 4  length  little-endian u32
//
// The shim sends one message and waits for exactly one reply:
//   'C' (4-byte LE value)  ->  'A' (no data)
//   'N' (text)             ->  'A'
//   'X' (528 tx bytes)     ->  'X' with sub 0 and 528 rx bytes, or sub 1 and none
#pragma once

#include <cstddef>
#include <cstdint>

namespace vmcu_wire {

constexpr size_t kHeaderSize = 8;
constexpr size_t kBlockSize = 528;
constexpr uint32_t kMaxLength = 4096;

constexpr uint8_t kSetting = 'C';
constexpr uint8_t kTransfer = 'X';
constexpr uint8_t kNote = 'N';
constexpr uint8_t kAck = 'A';

constexpr uint8_t kMode = 'M';
constexpr uint8_t kSpeed = 'S';
constexpr uint8_t kBits = 'B';

constexpr uint8_t kXferOk = 0;
constexpr uint8_t kXferFailed = 1;

inline void put_header(uint8_t* h, uint8_t type, uint8_t sub, uint32_t length) {
    h[0] = type;
    h[1] = sub;
    h[2] = 0;
    h[3] = 0;
    for (int i = 0; i < 4; ++i)
        h[4 + i] = static_cast<uint8_t>((length >> (8 * i)) & 0xFF);
}

inline uint32_t header_length(const uint8_t* h) {
    return static_cast<uint32_t>(h[4]) | (static_cast<uint32_t>(h[5]) << 8) |
           (static_cast<uint32_t>(h[6]) << 16) | (static_cast<uint32_t>(h[7]) << 24);
}

}  // namespace vmcu_wire
