// Frame codec of the virtual MCU: checksums, frame building and the two
// receivers (a byte-stream receiver for the TTY and a block scanner for SPI).
//
// This is deliberately a separate implementation from the tool's own codec so
// that end-to-end tests compare two independent readings of the wire format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vmcu {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kMagic = 0xFD;
constexpr size_t kHeaderLen = 8;  // magic .. csum
constexpr size_t kOverhead = 10;  // header + 2 CRC bytes
constexpr size_t kMaxPayload = 65000;

// 8-bit plain sum, used for the header checksum over bytes 0..6.
uint8_t sum8(const uint8_t* data, size_t len);
// CRC-8, polynomial 0x07, init 0, no reflection, no final xor.
uint8_t crc8(const uint8_t* data, size_t len);

struct Frame {
    uint8_t seq = 0;
    uint8_t compid = 0;  // destination
    uint8_t sysid = 0;   // source
    uint8_t msgid = 0;
    Bytes payload;
    Bytes wire;  // the exact bytes as received or built
};

// Builds a complete frame (CRC extra byte 00).
Bytes encode_frame(uint8_t seq, uint8_t compid, uint8_t sysid, uint8_t msgid, const Bytes& payload);
// Appends the CRC (CRC-16/MCRF4XX over all but the start byte, then the extra
// byte 00) to the frame bytes in *f.
void append_crc(Bytes* f);

// Which CRC extra byte(s) a receiver accepts.
struct CrcPolicy {
    bool any = false;   // accept any extra byte, or none at all
    uint8_t extra = 0;  // otherwise exactly this one
};

// Incremental receiver for a byte stream. Valid frames and rejections are
// reported through the callbacks in the order they are recognised.
class StreamReceiver {
public:
    StreamReceiver(CrcPolicy policy, std::function<void(const Frame&)> on_frame,
                   std::function<void(const std::string&)> on_bad)
        : policy_(policy), on_frame_(std::move(on_frame)), on_bad_(std::move(on_bad)) {}

    void feed(const uint8_t* data, size_t len);
    // True while a started frame is waiting for more bytes.
    bool partial() const { return !buf_.empty(); }
    // Gives up on a started frame (after an inter-byte gap): reports it and
    // rescans the bytes after its start byte.
    void abandon_partial();

private:
    void scan();

    CrcPolicy policy_;
    std::function<void(const Frame&)> on_frame_;
    std::function<void(const std::string&)> on_bad_;
    Bytes buf_;  // starts with 0xFD whenever it is not empty
};

struct BlockScan {
    bool found = false;
    Frame frame;
    std::vector<std::string> bad;  // rejected candidates before the frame
};

// Finds the first valid frame in a block (an SPI transfer). Candidates with a
// bad header are skipped one byte at a time; a frame with a bad CRC is skipped
// whole; a frame cut off by the end of the block is not a frame.
BlockScan scan_block(const uint8_t* data, size_t len, const CrcPolicy& policy);

std::string to_hex(const uint8_t* data, size_t len);
inline std::string to_hex(const Bytes& b) {
    return to_hex(b.data(), b.size());
}
inline std::string hex2(uint8_t b) {
    return to_hex(&b, 1);
}
// Parses an even-length hex string (an optional 0x prefix and blanks, ':' or
// '-' between bytes are allowed). Returns false on malformed input.
bool parse_hex(const std::string& text, Bytes* out);

void put_u16(Bytes* out, uint16_t v);
void put_u32(Bytes* out, uint32_t v);
uint32_t get_u32(const Bytes& in, size_t offset);  // missing bytes read as 0

}  // namespace vmcu
