// Hex strings: two digits per byte, high nibble first, nothing else.
#include <string.h>

#include "mcu_tool2_internal.h"

int char2hex(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

int string2hex(const char* str, uint8_t* buf, int len) {
    if (str == nullptr || buf == nullptr || len == 0) {
        LOG_ERR("invalid params\n");
        return -1;
    }
    int l = static_cast<int>(strlen(str));
    if (l % 2 != 0) {
        LOG_ERR("illegal length %d (%s)\n", l, str);
        return -1;
    }
    if (l / 2 > len) {
        LOG_ERR("buffer too small %d < %d\n", len, l / 2);
        return -1;
    }
    for (int i = 0; i < l / 2; i++) {
        const int pos = 2 * i;  // the high digit's position in the text
        int hi = char2hex(str[pos]);
        if (hi < 0) {
            LOG_ERR("illegal char %c at %d\n", str[pos], pos);
            return -1;
        }
        int lo = char2hex(str[pos + 1]);
        if (lo < 0) {
            LOG_ERR("illegal char %c at %d\n", str[pos + 1], pos + 1);
            return -1;
        }
        buf[i] = static_cast<uint8_t>((hi << 4) | lo);
    }
    return l / 2;
}

// Raw actions: a message typed as id + payload and framed by the tool, or a
// whole frame typed without its CRC, of which the tool fills in only the
// header sum and the CRC; and the monitor actions around mcu_monitor.
namespace {

// Monitor time-out in ms for an operator's seconds; -1 (no limit) for 0 or
// less, and at most the largest int.
int monitor_timeout_ms(int seconds) {
    if (seconds <= 0)
        return -1;
    if (seconds > 2147483647 / 1000)
        return 2147483647;
    return seconds * 1000;
}

// The bytes of the raw actions, converted from their hex strings.
uint8_t m_raw_buf[RAW_BUF_SIZE];

// Convert into m_raw_buf, check the target, bring the link up: the opening of
// both raw sends. The byte count, or -1 after the step's diagnostic.
int raw_begin(const char* func, const char* str) {
    memset(m_raw_buf, 0, sizeof m_raw_buf);
    int n = string2hex(str, m_raw_buf, RAW_BUF_SIZE);
    if (n < 0) {
        LOG_ERR_AS(func, "string convert to hex fail\n");
        return -1;
    }
    if (link_up(func, "no target specified") < 0)
        return -1;
    return n;
}

// Message id is byte 0, the payload follows; an empty string asks the
// encoder for a payload of -1 bytes, which it refuses.
int send_raw_message(int n) {
    return mcu_send(m_raw_buf[0], m_raw_buf + 1, n - 1);
}

}  // namespace

int mcu_sendraw(const char* str) {
    int n = raw_begin(__func__, str);
    if (n < 0)
        return -1;
    int ret = send_raw_message(n);
    if (ret < 0)
        LOG_ERR("mcu send fail\n");
    mcu_uninit();
    return ret;
}

int mcu_writeraw(const char* str) {
    uint8_t* buf = m_raw_buf;
    memset(buf, 0, RAW_BUF_SIZE);
    // The conversion leaves room for the two CRC bytes behind the frame.
    int n = string2hex(str, buf, RAW_BUF_SIZE - 2);
    if (n < 0) {
        LOG_ERR("string convert to hex fail\n");
        return -1;
    }
    // The CRC covers bytes 1 to n-1: without a byte there is no frame.
    if (n == 0) {
        LOG_ERR("empty hex string, nothing to write\n");
        return -1;
    }
    if (link_up(__func__, "no target specified") < 0)
        return -1;
    // The frame and its CRC go out in one write: at most 65000 bytes on a
    // TTY, one 528-byte block on SPI. Refused before anything is written.
    int limit = link_ops().max_write;
    if (n + 2 > limit) {
        LOG_ERR("raw frame of %d bytes leaves no room for its CRC, at most %d bytes\n", n,
                limit - 2);
        mcu_uninit();
        return -1;
    }
    // Header sum over bytes 0-6 into byte 7; for frames shorter than 8 bytes
    // the CRC below lands on or before it.
    buf[7] = sum_u8(buf, 7);
    uint16_t crc = crc_calculate(buf + 1, static_cast<uint16_t>(n - 1));
    buf[n] = static_cast<uint8_t>(crc & 0xFF);
    buf[n + 1] = static_cast<uint8_t>(crc >> 8);
    n += 2;
    if (mcu_write(m_serial_fd, buf, n, nullptr) < 0) {
        LOG_ERR("send %d bytes fail\n", n);
        m_stts.txFail++;
        link_release();
        return -1;
    }
    mcu_uninit();
    return n;
}

int mcu_monitor_message(uint8_t msgid, int seconds) {
    if (link_up(__func__, "no target specified") < 0)
        return -1;
    int ret = mcu_monitor(msgid, monitor_timeout_ms(seconds));
    mcu_uninit();
    return ret;
}

int mcu_sendraw_then_monitor(const char* str, uint8_t msgid, int seconds) {
    int n = raw_begin(__func__, str);
    if (n < 0)
        return -1;
    int ret = send_raw_message(n);
    if (ret < 0) {
        LOG_ERR("mcu send fail\n");
        link_release();
        return ret;
    }
    mcu_monitor(msgid, monitor_timeout_ms(seconds));
    mcu_uninit();
    return ret;
}
