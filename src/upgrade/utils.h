// utils: the helpers every other module of the tool leans on.
//
// - Diagnostics: one replaceable printf-like function (`pfn_print`, initially
//   printf) and a process-wide debug level (`__debuglevel`). Every diagnostic
//   line reads "<function> <source line>, <message>\n"; error lines print
//   whenever `pfn_print` is set, debug lines only at a debug level above 0.
// - `hexdump`: the fixed 16-bytes-per-line dump layout, through `pfn_print`.
// - Clock: a 32-bit signed millisecond clock whose differences are taken in
//   32-bit arithmetic, so they stay right across the wrap.
// - Checksums: byte sum, two's-complement checksum, CRC-8 (poly 0x07) and the
//   word-oriented CRC-32 (poly 0x04C11DB7, 0xFF fill of a partial last word).
// - Files and shell: each call checks its arguments, prints one line on a
//   failure and returns -1 (a short read is returned as its count, silently).
#ifndef MCU_UTILS_H
#define MCU_UTILS_H

#include <stdint.h>

typedef int (*FXN_Print)(const char* fmt, ...);

enum EN_DebugLevel {
    DEBUG_LV_NONE = 0,
    DEBUG_LV_DEBUG = 1,
    DEBUG_LV_DUMP = 2,
    DEBUG_LV_FULLDUMP = 3,
    DEBUG_LV_MAX = 4,
};

// Diagnostics output; null silences every diagnostic and hex dump.
extern FXN_Print pfn_print;
// Current debug level, an EN_DebugLevel value (anything above 2 dumps in full).
extern uint8_t __debuglevel;

// Error diagnostic: printed whenever a print function is installed.
#define LOG_ERR(fmt, ...)                                                \
    do {                                                                 \
        if (pfn_print)                                                   \
            pfn_print("%s %d, " fmt, __func__, __LINE__, ##__VA_ARGS__); \
    } while (0)

// Debug diagnostic: printed only at a debug level above DEBUG_LV_NONE.
#define LOG_DBG(fmt, ...)                                                \
    do {                                                                 \
        if (pfn_print && __debuglevel != DEBUG_LV_NONE)                  \
            pfn_print("%s %d, " fmt, __func__, __LINE__, ##__VA_ARGS__); \
    } while (0)

// The same, reported in the name of `func`: for helpers that a function
// splits off, so the line still names the function the caller knows.
#define LOG_ERR_AS(func, fmt, ...)                                   \
    do {                                                             \
        if (pfn_print)                                               \
            pfn_print("%s %d, " fmt, func, __LINE__, ##__VA_ARGS__); \
    } while (0)
#define LOG_DBG_AS(func, fmt, ...)                                   \
    do {                                                             \
        if (pfn_print && __debuglevel != DEBUG_LV_NONE)              \
            pfn_print("%s %d, " fmt, func, __LINE__, ##__VA_ARGS__); \
    } while (0)

// A null pfn leaves the current print function in place.
void set_print_fxn(void* pfn);
// Stores the level truncated to 8 bits; no range check.
void set_debug_level(int level);
// Dumps len bytes of buf through pfn_print, 16 per line; nothing for len 0.
void hexdump(const unsigned char* buf, unsigned short len);
// Wall-clock milliseconds, low 32 bits read as signed.
int32_t Time_GetMs(void);
// Wall-clock seconds, low 32 bits read as signed.
int32_t Time_GetSec(void);

// Sum of the bytes modulo 256 (0 for len <= 0).
uint8_t sum_u8(const uint8_t* buf, int len);
// Two's-complement negation of sum_u8: buf followed by it sums to 0.
uint8_t checksum_u8(const uint8_t* buf, int len);
// CRC-8, polynomial 0x07, MSB first, no reflection, no final XOR.
uint8_t calc_crc8(uint8_t crc, const uint8_t* buf, int len);
// CRC-32 over little-endian 32-bit words, MSB first, no reflection, no final
// XOR; a trailing partial word is completed with 0xFF bytes.
uint32_t crc32_update(const uint8_t* ucBuf, uint32_t uiLen, uint32_t crc);
// crc32_update from 0.
uint32_t calc_crc32(const uint8_t* ucBuf, uint32_t uiLen);

// Size of a file by path (stat, following links), or -1.
int file_size(const char* filepath);
// One read of up to len bytes into buf (first cleared); bytes read or -1.
int read_file(const char* filepath, uint8_t* buf, int len);
// Creates or truncates the file, one write of len bytes; bytes written or -1.
int write_file(const char* filepath, uint8_t* buf, int len);
// Creates the file or appends to it, one write of len bytes; bytes written or -1.
int append_file(const char* filepath, uint8_t* buf, int len);
// MD5 digest text of a file from the system's md5sum (the name quoted for the
// shell unless it is plain); digit count or -1.
int calc_md5sum(char* filepath, uint8_t* buf, int len);
// Formats a command and runs it through the shell; 0 when the shell ran.
int my_system(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

#endif  // MCU_UTILS_H
