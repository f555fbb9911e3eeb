// Device-free calculators: CRC-16 of a hex-encoded message, CRC-32 of a file,
// and the wall clock in three formats. Results go to standard output.
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>

#include "mcu_tool2_internal.h"

int mcu_crc16(const char* str) {
    uint8_t buf[RAW_BUF_SIZE];
    int n = string2hex(str, buf, static_cast<int>(sizeof buf));
    if (n <= 0) {
        LOG_ERR("string convert to hex fail\n");
        return -1;
    }
    // No extra byte: the operator types it after the bytes the CRC covers.
    uint16_t crc = crc_calculate(buf, static_cast<uint16_t>(n));
    printf("crc16 : 0x%04x (%u Bytes)\n", crc, static_cast<unsigned>(n));
    fflush(stdout);
    return 0;
}

int mcu_crc32(const char* filename) {
    int size = file_size(filename);
    if (size == -1) {
        LOG_ERR("file_size fail\n");
        return -1;
    }
    // At least one byte, so an empty file reaches the read step (which
    // refuses it) on every platform, whatever malloc(0) returns.
    uint8_t* buf = static_cast<uint8_t*>(malloc(size > 0 ? static_cast<size_t>(size) : 1));
    if (buf == nullptr) {
        LOG_ERR("malloc %d fail\n", size);
        return -1;
    }
    int ret = read_file(filename, buf, size);
    if (ret < 0) {
        LOG_ERR("read_file fail\n");
        free(buf);
        return ret;
    }
    printf("crc32 : 0x%08x (%d Bytes)\n", calc_crc32(buf, static_cast<uint32_t>(size)), size);
    fflush(stdout);
    free(buf);
    return 0;
}

int mcu_date(int style) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    int32_t sec = static_cast<int32_t>(tv.tv_sec);
    int ms = static_cast<int>(tv.tv_usec / 1000);
    int32_t rest = sec;
    int day = rest / 86400;
    rest %= 86400;
    int hour = rest / 3600;
    rest %= 3600;
    int min = rest / 60;
    int s = rest % 60;
    switch (style) {
        case 1:
            printf("%02d:%02d:%02d.%03d\n", hour, min, s, ms);
            break;
        case 2:
            printf("%02d - %02d:%02d:%02d.%03d\n", day, hour, min, s, ms);
            break;
        default:
            printf("%08d.%03d\n", sec, ms);
            break;
    }
    fflush(stdout);
    return 0;
}
