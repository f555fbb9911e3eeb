#include "vmcu_frame.h"

#include <cctype>
#include <cstdio>

namespace vmcu {

namespace {

// CRC-16/MCRF4XX, one byte at a time (bit-reflected 0x1021, init 0xFFFF).
uint16_t crc16_step(uint8_t byte, uint16_t crc) {
    uint8_t t = static_cast<uint8_t>(byte ^ (crc & 0xFF));
    t = static_cast<uint8_t>(t ^ (t << 4));
    return static_cast<uint16_t>((crc >> 8) ^ (t << 8) ^ (t << 3) ^ (t >> 4));
}

uint16_t crc16(const uint8_t* data, size_t len, uint16_t crc = 0xFFFF) {
    for (size_t i = 0; i < len; ++i)
        crc = crc16_step(data[i], crc);
    return crc;
}

// Checks the CRC of a complete candidate frame (wire bytes, header included).
bool crc_ok(const Bytes& wire, const CrcPolicy& policy) {
    if (wire.size() < kOverhead)
        return false;
    const size_t body = wire.size() - 2;
    const uint16_t got = static_cast<uint16_t>(wire[body] | (wire[body + 1] << 8));
    const uint16_t partial = crc16(wire.data() + 1, body - 1);
    if (policy.any && partial == got)
        return true;
    for (int e = 0; e < 256; ++e)
        if ((policy.any || e == policy.extra) &&
            crc16_step(static_cast<uint8_t>(e), partial) == got)
            return true;
    return false;
}

// Finds the first valid frame in p[*pos..n): returns its length with *pos at
// its start, or 0 with *pos at an unfinished candidate (or at n). A candidate
// with a bad header is skipped one byte at a time, a frame with a bad CRC
// whole; each is reported to `bad`.
size_t next_frame(const uint8_t* p, size_t n, size_t* pos, const CrcPolicy& policy,
                  const std::function<void(const std::string&)>& bad) {
    for (; *pos < n; ++*pos) {
        const uint8_t* f = p + *pos;
        const size_t avail = n - *pos;
        if (f[0] != kMagic)
            continue;
        if (avail < 3)
            return 0;
        const size_t len = f[1] | (f[2] << 8);
        if (len > kMaxPayload) {
            bad("len " + std::to_string(len));
            continue;
        }
        if (avail < kHeaderLen)
            return 0;
        if (sum8(f, 7) != f[7]) {
            bad("csum " + hex2(f[7]) + " != " + hex2(sum8(f, 7)));
            continue;
        }
        if (avail < len + kOverhead)
            return 0;
        const Bytes wire(f, f + len + kOverhead);
        if (crc_ok(wire, policy))
            return wire.size();
        bad("crc msgid " + hex2(f[6]) + " seq " + std::to_string(f[3]) + " " + to_hex(wire));
        *pos += wire.size() - 1;
    }
    return 0;
}

Frame make_frame(const uint8_t* p, size_t length) {
    Frame f;
    f.seq = p[3];
    f.compid = p[4];
    f.sysid = p[5];
    f.msgid = p[6];
    f.payload.assign(p + kHeaderLen, p + length - 2);
    f.wire.assign(p, p + length);
    return f;
}

}  // namespace

uint8_t sum8(const uint8_t* data, size_t len) {
    unsigned s = 0;
    for (size_t i = 0; i < len; ++i)
        s += data[i];
    return static_cast<uint8_t>(s);
}

uint8_t crc8(const uint8_t* data, size_t len) {
    uint8_t c = 0;
    for (size_t i = 0; i < len; ++i) {
        c ^= data[i];
        for (int b = 0; b < 8; ++b)
            c = (c & 0x80) ? static_cast<uint8_t>((c << 1) ^ 0x07) : static_cast<uint8_t>(c << 1);
    }
    return c;
}

Bytes encode_frame(uint8_t seq, uint8_t compid, uint8_t sysid, uint8_t msgid,
                   const Bytes& payload) {
    Bytes f = {kMagic, 0, 0, seq, compid, sysid, msgid};
    f[1] = static_cast<uint8_t>(payload.size() & 0xFF);
    f[2] = static_cast<uint8_t>((payload.size() >> 8) & 0xFF);
    f.push_back(sum8(f.data(), 7));
    f.insert(f.end(), payload.begin(), payload.end());
    append_crc(&f);
    return f;
}

void append_crc(Bytes* f) {
    put_u16(f, crc16_step(0, crc16(f->data() + 1, f->size() - 1)));
}

void StreamReceiver::feed(const uint8_t* data, size_t len) {
    buf_.insert(buf_.end(), data, data + len);
    scan();
}

void StreamReceiver::scan() {
    size_t pos = 0;
    for (size_t n; (n = next_frame(buf_.data(), buf_.size(), &pos, policy_, on_bad_)) > 0; pos += n)
        on_frame_(make_frame(buf_.data() + pos, n));
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(pos));
}

void StreamReceiver::abandon_partial() {
    if (buf_.empty())
        return;
    on_bad_("incomplete " + std::to_string(buf_.size()) + " bytes " + to_hex(buf_));
    buf_.erase(buf_.begin());
    scan();
}

BlockScan scan_block(const uint8_t* data, size_t len, const CrcPolicy& policy) {
    BlockScan out;
    size_t pos = 0;
    const size_t n = next_frame(data, len, &pos, policy,
                                [&](const std::string& why) { out.bad.push_back(why); });
    out.found = n > 0;
    if (out.found)
        out.frame = make_frame(data + pos, n);
    else if (pos < len)
        out.bad.push_back("truncated at offset " + std::to_string(pos));
    return out;
}

std::string to_hex(const uint8_t* data, size_t len) {
    static const char digits[] = "0123456789ABCDEF";
    std::string s;
    s.reserve(len * 2);
    for (size_t i = 0; i < len; ++i) {
        s.push_back(digits[data[i] >> 4]);
        s.push_back(digits[data[i] & 0x0F]);
    }
    return s;
}

bool parse_hex(const std::string& text, Bytes* out) {
    std::string digits;
    size_t start = 0;
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        start = 2;
    for (size_t i = start; i < text.size(); ++i) {
        const char ch = text[i];
        if ((ch == ' ' || ch == ':' || ch == '-') && digits.size() % 2 == 0)
            continue;  // a separator, between whole bytes only
        if (!std::isxdigit(static_cast<unsigned char>(ch)))
            return false;
        digits.push_back(ch);
    }
    if (digits.size() % 2 != 0)
        return false;
    out->clear();
    for (size_t i = 0; i < digits.size(); i += 2)
        out->push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return true;
}

void put_u16(Bytes* out, uint16_t v) {
    out->push_back(static_cast<uint8_t>(v & 0xFF));
    out->push_back(static_cast<uint8_t>(v >> 8));
}

void put_u32(Bytes* out, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        out->push_back(static_cast<uint8_t>((v >> (8 * i)) & 0xFF));
}

uint32_t get_u32(const Bytes& in, size_t offset) {
    uint32_t v = 0;
    for (size_t i = 0; i < 4; ++i) {
        if (offset + i < in.size())
            v |= static_cast<uint32_t>(in[offset + i]) << (8 * i);
    }
    return v;
}

}  // namespace vmcu
