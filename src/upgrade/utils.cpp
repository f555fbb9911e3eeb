// Diagnostics output, debug level, hex dump and the millisecond clock.
#include "utils.h"

#include <ctype.h>
#include <stdio.h>
#include <sys/time.h>

FXN_Print pfn_print = printf;
uint8_t __debuglevel = DEBUG_LV_NONE;

void set_print_fxn(void* pfn) {
    if (pfn != nullptr)
        pfn_print = reinterpret_cast<FXN_Print>(pfn);
}

void set_debug_level(int level) {
    __debuglevel = static_cast<uint8_t>(level);
}

void hexdump(const unsigned char* buf, unsigned short len) {
    if (pfn_print == nullptr || len == 0 || buf == nullptr)
        return;
    // The longest line (five-digit offset, 16 columns, 16 characters) is 73
    // characters, so a fixed 80-character line always fits.
    char line[80];
    for (int ofs = 0; ofs < len; ofs += 16) {
        int n = snprintf(line, sizeof line, "%03d: ", ofs);
        for (int i = 0; i < 16; i++) {
            if (ofs + i < len)
                n += snprintf(line + n, sizeof line - n, "%02x ", buf[ofs + i]);
            else
                n += snprintf(line + n, sizeof line - n, "   ");
        }
        n += snprintf(line + n, sizeof line - n, "  ");
        for (int i = 0; i < 16 && ofs + i < len; i++) {
            unsigned char c = buf[ofs + i];
            line[n++] = isprint(c) ? static_cast<char>(c) : '.';
        }
        line[n] = '\0';
        pfn_print("%s\n", line);
    }
}

int32_t Time_GetMs(void) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    uint64_t ms =
        static_cast<uint64_t>(tv.tv_sec) * 1000u + static_cast<uint64_t>(tv.tv_usec) / 1000u;
    return static_cast<int32_t>(static_cast<uint32_t>(ms));
}

int32_t Time_GetSec(void) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<int32_t>(static_cast<uint32_t>(tv.tv_sec));
}
