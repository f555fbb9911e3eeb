// Test-side rendering of the tool's hex dump layout, for building expected
// transcripts of dumped frames.
#ifndef MCU_TEST_DUMP_H
#define MCU_TEST_DUMP_H

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

namespace dump {

inline std::string lines(const std::vector<uint8_t>& bytes) {
    std::string out;
    for (size_t ofs = 0; ofs < bytes.size(); ofs += 16) {
        char buf[32];
        snprintf(buf, sizeof buf, "%03zu: ", ofs);
        std::string line = buf;
        std::string text;
        for (size_t i = 0; i < 16; i++) {
            if (ofs + i < bytes.size()) {
                uint8_t b = bytes[ofs + i];
                snprintf(buf, sizeof buf, "%02x ", b);
                line += buf;
                text += (b >= 0x20 && b < 0x7f) ? static_cast<char>(b) : '.';
            } else {
                line += "   ";
            }
        }
        out += line + "  " + text + "\n";
    }
    return out;
}

inline std::vector<uint8_t> unhex(const std::string& hex) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

}  // namespace dump

#endif  // MCU_TEST_DUMP_H
