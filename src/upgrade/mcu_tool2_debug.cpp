// Remote debug commands: the MCU's link counters and load, clearing them,
// switching its message loopback, and flooding it with test messages. Each
// request is a CMD_DEBUG_DEVICE exchange; the MCU's debug answers are printed
// by mcu_debug inside the engine, so success prints nothing here.
#include <string.h>

#include "mcu_tool2_internal.h"

namespace {

constexpr int kDebugTimeoutMs = 500;
constexpr int kDebugRetries = 2;
// Largest flood-test payload: a frame of it still fits one SPI block.
constexpr int kFloodMaxLen = 512;
static_assert(kFloodMaxLen + MAVLINK_FRAME_OVERHEAD <= SPI_BLOCK_SIZE, "flood frame fits a block");

// One debug request; the MCU's answer is printed by the engine's handler.
int debug_exchange(uint32_t code, uint32_t param0) {
    ST_DebugCmd cmd;
    memset(&cmd, 0, sizeof cmd);
    cmd.debugcode = code;
    cmd.param0 = param0;
    return mcu_sendrecv(CMD_DEBUG_DEVICE, reinterpret_cast<uint8_t*>(&cmd), sizeof cmd, nullptr, 0,
                        kDebugTimeoutMs, kDebugRetries);
}

}  // namespace

int mcu_debug_get_stts(void) {
    if (link_up(__func__, "no target specified") < 0)
        return -1;
    // A refused or silent counter does not stop the sequence.
    for (uint32_t code = DEBUGCODE_RX_BYTES; code <= DEBUGCODE_RELAY_FAILS; code++)
        debug_exchange(code, 0);
    debug_exchange(DEBUGCODE_CPU_USAGE, 0);
    debug_exchange(DEBUGCODE_MEM_USAGE, 0);
    mcu_uninit();
    return 0;
}

int mcu_debug_clear_stts(void) {
    if (link_up(__func__, "no target specified") < 0)
        return -1;
    int ret = debug_exchange(DEBUGCODE_CLEAR_STTS, 0);
    mcu_uninit();
    return ret;
}

int mcu_debug_set_message_loopback(int flag) {
    if (link_up(__func__, "no target specified") < 0)
        return -1;
    int ret = debug_exchange(DEBUGCODE_SET_LOOPBACK, static_cast<uint32_t>(flag));
    mcu_uninit();
    return ret;
}

int mcu_debug_message_send_test(int count, int len, int interval, uint8_t pattern) {
    // 1. Target and link.
    if (link_up(__func__, "no target specified") < 0)
        return -1;
    // 2. Length within one SPI block.
    if (len <= 0 || len > kFloodMaxLen) {
        LOG_ERR("length %d illegal, set to %d\n", len, kFloodMaxLen);
        len = kFloodMaxLen;
    }
    // 3. Answers may carry any sequence number and ids.
    m_sys_id_check = 0;
    m_comp_id_check = 0;
    m_seq_check = 0;
    // 4. The fill.
    uint8_t buf[kFloodMaxLen];
    memset(buf, pattern, sizeof buf);
    // 5. The messages; a negative interval is taken as no pause.
    for (int i = 0; i < count; i++) {
        memset(buf, 0, sizeof(uint32_t));  // debugcode DEBUGCODE_MESSAGE_TEST
        mcu_sendrecv(CMD_DEBUG_DEVICE, buf, len, nullptr, 0, kDebugTimeoutMs, kDebugRetries);
        if (interval > 0)
            pause_ms(static_cast<uint32_t>(interval));
    }
    // 6. Down.
    mcu_uninit();
    return 0;
}
