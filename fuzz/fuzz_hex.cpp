// Hex strings: char2hex, string2hex, the CRC-16 calculator and the opening
// of the raw actions.
//
// Input: one capacity byte, then the text (up to its first zero byte).
//
// Properties:
// - char2hex gives the digit's value for 0-9, A-F, a-f and -1 for anything
//   else;
// - string2hex accepts exactly the even-length all-hex strings whose bytes
//   fit the capacity, the bytes print back as the same text (ignoring case),
//   nothing is written past the capacity (the buffer is exactly that big), and
//   a refusal prints the one diagnostic that names its reason;
// - the CRC-16 calculator prints the independent CRC of the decoded bytes, or
//   refuses (empty or bad string) without printing a result;
// - with no target, mcu_sendraw and mcu_writeraw refuse with their own
//   diagnostics and never open a device (nothing printed, no descriptor).
#include <stdlib.h>
#include <string.h>

#include <string>

#include "fuzz_support.h"

namespace {

int ref_digit(char c) {
    static const char kLower[] = "0123456789abcdef";
    static const char kUpper[] = "0123456789ABCDEF";
    for (int i = 0; i < 16; i++) {
        if (c == kLower[i] || c == kUpper[i])
            return i;
    }
    return -1;
}

// Expected string2hex result and diagnostic for `cap` bytes of room.
int expect_convert(const std::string& s, int cap, std::vector<uint8_t>* bytes, std::string* diag) {
    char line[200];
    bytes->clear();
    if (cap == 0) {
        *diag = "string2hex: invalid params\n";
        return -1;
    }
    int l = static_cast<int>(s.size());
    if (l % 2 != 0) {
        *diag = "string2hex: illegal length " + std::to_string(l) + " (" + s + ")\n";
        return -1;
    }
    if (l / 2 > cap) {
        snprintf(line, sizeof line, "string2hex: buffer too small %d < %d\n", cap, l / 2);
        *diag = line;
        return -1;
    }
    for (int i = 0; i < l; i++) {
        if (ref_digit(s[i]) < 0) {
            *diag = "string2hex: illegal char ";
            *diag += s[i];
            *diag += " at " + std::to_string(i) + "\n";
            return -1;
        }
    }
    for (int i = 0; i < l; i += 2)
        bytes->push_back(static_cast<uint8_t>(ref_digit(s[i]) * 16 + ref_digit(s[i + 1])));
    diag->clear();
    return l / 2;
}

std::string lower(std::string s) {
    for (char& c : s) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    const char* text = reinterpret_cast<const char*>(data + 1);
    std::string s(text, strnlen(text, size - 1));
    int cap = data[0] == 0xFF ? RAW_BUF_SIZE : data[0];

    for (char c : s)
        FUZZ_CHECK(char2hex(c) == ref_digit(c), "char2hex(0x%02x)", static_cast<uint8_t>(c));
    FUZZ_CHECK(char2hex('\0') == -1, "char2hex of the terminator");

    // string2hex into a buffer of exactly cap bytes.
    std::vector<uint8_t> want;
    std::string want_diag;
    int want_n = expect_convert(s, cap, &want, &want_diag);
    uint8_t* buf = static_cast<uint8_t*>(malloc(cap > 0 ? static_cast<size_t>(cap) : 1));
    diag_collect(true);
    int n = string2hex(s.c_str(), buf, cap);
    std::string diag = diag_text();
    diag_collect(false);
    FUZZ_CHECK(n == want_n, "string2hex returned %d, expected %d", n, want_n);
    FUZZ_CHECK(diag == want_diag, "diagnostic '%s', expected '%s'", diag.c_str(),
               want_diag.c_str());
    if (n >= 0) {
        FUZZ_CHECK(want.empty() || memcmp(buf, want.data(), want.size()) == 0, "decoded bytes");
        std::string back;
        char two[3];
        for (int i = 0; i < n; i++) {
            snprintf(two, sizeof two, "%02x", buf[i]);
            back += two;
        }
        FUZZ_CHECK(back == lower(s), "round trip '%s' -> '%s'", s.c_str(), back.c_str());
    }
    free(buf);

    // The CRC-16 calculator: room for a whole frame record.
    std::string conv_diag;
    int full = expect_convert(s, RAW_BUF_SIZE, &want, &conv_diag);
    diag_collect(true);
    stdout_capture_begin();
    int r = mcu_crc16(s.c_str());
    std::string out = stdout_capture_end();
    diag = diag_text();
    diag_collect(false);
    if (full > 0) {
        char line[64];
        snprintf(line, sizeof line, "crc16 : 0x%04x (%u Bytes)\n",
                 ref_crc16(want.data(), want.size()), static_cast<unsigned>(full));
        FUZZ_CHECK(r == 0 && out == line && diag.empty(), "crc16 printed '%s', expected '%s'",
                   out.c_str(), line);
    } else {
        std::string d = conv_diag + "mcu_crc16: string convert to hex fail\n";
        FUZZ_CHECK(r == -1 && out.empty() && diag == d, "crc16 refusal: '%s' / '%s'", out.c_str(),
                   diag.c_str());
    }

    // The raw actions without a target: refused before any device is opened.
    set_comp_id(DEV_NONE);
    m_serial_fd = -1;
    const char* kNoTarget = "no target specified\n";
    diag_collect(true);
    stdout_capture_begin();
    r = mcu_sendraw(s.c_str());
    out = stdout_capture_end();
    diag = diag_text();
    diag_collect(false);
    std::string d = full >= 0 ? std::string("mcu_sendraw: ") + kNoTarget
                              : conv_diag + "mcu_sendraw: string convert to hex fail\n";
    FUZZ_CHECK(r == -1 && out.empty() && diag == d && m_serial_fd == -1,
               "sendraw without target: %d '%s' '%s'", r, out.c_str(), diag.c_str());

    int fit = expect_convert(s, RAW_BUF_SIZE - 2, &want, &conv_diag);
    diag_collect(true);
    stdout_capture_begin();
    r = mcu_writeraw(s.c_str());
    out = stdout_capture_end();
    diag = diag_text();
    diag_collect(false);
    if (fit < 0)
        d = conv_diag + "mcu_writeraw: string convert to hex fail\n";
    else if (fit == 0)
        d = "mcu_writeraw: empty hex string, nothing to write\n";
    else
        d = std::string("mcu_writeraw: ") + kNoTarget;
    FUZZ_CHECK(r == -1 && out.empty() && diag == d && m_serial_fd == -1,
               "writeraw without target: %d '%s' '%s'", r, out.c_str(), diag.c_str());
    return 0;
}
