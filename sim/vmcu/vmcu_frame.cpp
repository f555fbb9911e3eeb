#include "vmcu_frame.h"

#include <cctype>
#include <cstdio>

namespace vmcu {

uint16_t crc16_step(uint8_t byte, uint16_t crc) {
    uint8_t t = static_cast<uint8_t>(byte ^ (crc & 0xFF));
    t = static_cast<uint8_t>(t ^ (t << 4));
    return static_cast<uint16_t>((crc >> 8) ^ (t << 8) ^ (t << 3) ^ (t >> 4));
}

uint16_t crc16(const uint8_t* data, size_t len, uint16_t crc) {
    for (size_t i = 0; i < len; ++i) {
        crc = crc16_step(data[i], crc);
    }
    return crc;
}

uint8_t sum8(const uint8_t* data, size_t len) {
    unsigned s = 0;
    for (size_t i = 0; i < len; ++i) {
        s += data[i];
    }
    return static_cast<uint8_t>(s);
}

uint8_t crc8(const uint8_t* data, size_t len) {
    uint8_t c = 0;
    for (size_t i = 0; i < len; ++i) {
        c ^= data[i];
        for (int b = 0; b < 8; ++b) {
            c = (c & 0x80) ? static_cast<uint8_t>((c << 1) ^ 0x07) : static_cast<uint8_t>(c << 1);
        }
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

bool crc_ok(const Bytes& wire, const CrcPolicy& policy) {
    if (wire.size() < kOverhead) {
        return false;
    }
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

namespace {

enum class Verdict { kNeedMore, kSkipByte, kSkipFrame, kOk };

struct Candidate {
    Verdict verdict = Verdict::kNeedMore;
    size_t length = 0;  // whole frame length once known
    std::string reason;
};

std::string hex2(unsigned v) {
    char b[8];
    std::snprintf(b, sizeof b, "%02X", v & 0xFFu);
    return b;
}

// Judges the candidate frame starting at p[0] == 0xFD with n bytes available.
Candidate judge(const uint8_t* p, size_t n, const CrcPolicy& policy) {
    Candidate c;
    if (n < 3) {
        return c;
    }
    const size_t len = p[1] | (p[2] << 8);
    if (len > kMaxPayload) {
        c.verdict = Verdict::kSkipByte;
        c.reason = "len " + std::to_string(len);
        return c;
    }
    if (n < kHeaderLen) {
        return c;
    }
    const uint8_t sum = sum8(p, 7);
    if (sum != p[7]) {
        c.verdict = Verdict::kSkipByte;
        c.reason = "csum " + hex2(p[7]) + " != " + hex2(sum);
        return c;
    }
    c.length = len + kOverhead;
    if (n < c.length) {
        return c;
    }
    Bytes wire(p, p + c.length);
    if (!crc_ok(wire, policy)) {
        c.verdict = Verdict::kSkipFrame;
        c.reason = "crc msgid " + hex2(p[6]) + " seq " + std::to_string(p[3]) + " " + to_hex(wire);
        return c;
    }
    c.verdict = Verdict::kOk;
    return c;
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

void StreamReceiver::feed(const uint8_t* data, size_t len) {
    for (size_t i = 0; i < len; ++i) {
        if (buf_.empty() && data[i] != kMagic) {
            continue;  // noise between frames
        }
        buf_.push_back(data[i]);
    }
    scan();
}

void StreamReceiver::scan() {
    size_t pos = 0;
    while (pos < buf_.size()) {
        if (buf_[pos] != kMagic) {
            ++pos;
            continue;
        }
        const Candidate c = judge(buf_.data() + pos, buf_.size() - pos, policy_);
        if (c.verdict == Verdict::kNeedMore) {
            break;
        }
        if (c.verdict == Verdict::kSkipByte) {
            on_bad_(c.reason);
            ++pos;
        } else if (c.verdict == Verdict::kSkipFrame) {
            on_bad_(c.reason);
            pos += c.length;
        } else {
            const Frame f = make_frame(buf_.data() + pos, c.length);
            pos += c.length;
            on_frame_(f);
        }
    }
    // Keep only an unfinished candidate (which starts with 0xFD).
    while (pos < buf_.size() && buf_[pos] != kMagic) {
        ++pos;
    }
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(pos));
}

void StreamReceiver::abandon_partial() {
    if (buf_.empty()) {
        return;
    }
    on_bad_("incomplete " + std::to_string(buf_.size()) + " bytes " + to_hex(buf_));
    buf_.erase(buf_.begin());
    scan();
}

BlockScan scan_block(const uint8_t* data, size_t len, const CrcPolicy& policy) {
    BlockScan out;
    size_t pos = 0;
    while (pos < len) {
        if (data[pos] != kMagic) {
            ++pos;
            continue;
        }
        const Candidate c = judge(data + pos, len - pos, policy);
        switch (c.verdict) {
            case Verdict::kNeedMore:
                out.bad.push_back("truncated at offset " + std::to_string(pos));
                return out;
            case Verdict::kSkipByte:
                out.bad.push_back(c.reason);
                ++pos;
                break;
            case Verdict::kSkipFrame:
                out.bad.push_back(c.reason);
                pos += c.length;
                break;
            case Verdict::kOk:
                out.found = true;
                out.frame = make_frame(data + pos, c.length);
                return out;
        }
    }
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
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        start = 2;
    }
    for (size_t i = start; i < text.size(); ++i) {
        const char ch = text[i];
        if (ch == ' ' || ch == ':' || ch == '-') {
            if (digits.size() % 2 != 0) {
                return false;  // separators only between whole bytes
            }
            continue;
        }
        if (!std::isxdigit(static_cast<unsigned char>(ch))) {
            return false;
        }
        digits.push_back(ch);
    }
    if (digits.size() % 2 != 0) {
        return false;
    }
    out->clear();
    for (size_t i = 0; i < digits.size(); i += 2) {
        out->push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return true;
}

void put_u16(Bytes* out, uint16_t v) {
    out->push_back(static_cast<uint8_t>(v & 0xFF));
    out->push_back(static_cast<uint8_t>(v >> 8));
}

void put_u32(Bytes* out, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out->push_back(static_cast<uint8_t>((v >> (8 * i)) & 0xFF));
    }
}

uint32_t get_u32(const Bytes& in, size_t offset) {
    uint32_t v = 0;
    for (size_t i = 0; i < 4; ++i) {
        if (offset + i < in.size()) {
            v |= static_cast<uint32_t>(in[offset + i]) << (8 * i);
        }
    }
    return v;
}

}  // namespace vmcu
