// What the MCU sends on its own or in answer to a debug request: heartbeats,
// debug replies, and the monitor that prints every message (or those of one
// id) for a given time. Output goes to standard output, flushed per line.
// SIGINT or SIGTERM during the monitor ends it as if its time were up.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "mcu_tool2_internal.h"

int m_wake_fd = -1;

namespace {

// Set by SIGINT or SIGTERM while the monitor runs. The handler also writes a
// byte into a pipe whose read end (m_wake_fd) the readiness wait watches
// beside the device, so a signal that lands just before the wait still ends
// it at once instead of after the whole time-out.
volatile sig_atomic_t m_monitor_stop = 0;
int m_wake_pipe[2] = {-1, -1};

void on_stop_signal(int /*signo*/) {
    int saved = errno;
    m_monitor_stop = 1;
    if (m_wake_pipe[1] >= 0) {
        ssize_t n = write(m_wake_pipe[1], "", 1);
        (void)n;
    }
    errno = saved;
}

// The stop signals, caught for the monitor's lifetime; what was there before
// is restored when it ends. They are caught even where the shell started the
// tool ignoring SIGINT (a background job of a script), so that `kill -INT`
// ends a monitor the same way everywhere. (Plain calls rather than a guard
// object: the tool keeps no exception-unwinding code and needs no C++
// runtime library.)
constexpr int kStopSignals[2] = {SIGINT, SIGTERM};
struct sigaction m_old_actions[2];
bool m_caught[2] = {false, false};

void catch_stop_signals(void) {
    m_monitor_stop = 0;
    if (pipe2(m_wake_pipe, O_CLOEXEC | O_NONBLOCK) == 0)
        m_wake_fd = m_wake_pipe[0];
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;  // device reads resume; the wait ends
    for (int i = 0; i < 2; i++)
        m_caught[i] = sigaction(kStopSignals[i], &sa, &m_old_actions[i]) == 0;
}

void release_stop_signals(void) {
    for (int i = 0; i < 2; i++) {
        if (m_caught[i])
            sigaction(kStopSignals[i], &m_old_actions[i], nullptr);
    }
    m_wake_fd = -1;
    for (int& fd : m_wake_pipe) {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
}

// The monitor's helpers report in its name.
constexpr const char* kMonitor = "mcu_monitor";

// Pause between SPI monitor passes that found nothing, so the loop never
// spins; the MCU's output is collected one 528-byte transfer per pass.
constexpr int kSpiMonitorPauseMs = 10;

void out(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void out(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
    fflush(stdout);
}

// Text of the debug reply codes that print one signed counter (codes 4-20).
constexpr const char* kCounterLines[] = {
    "RX BYTES:       %d\n", "RX FRAMES:      %d\n", "RX MESSAGES:    %d\n", "RX CRC FAILS:   %d\n",
    "RX LEN FAILS:   %d\n", "RX SUM FAILS:   %d\n", "RX MEM FAILS:   %d\n", "RX DUP SEQ:     %d\n",
    "TX BYTES:       %d\n", "TX FRAMES:      %d\n", "TX MESSAGES:    %d\n", "TX SEND FAILS:  %d\n",
    "TX MEM FAILS:   %d\n", "TX RETRY FAILS: %d\n", "HANDLE FAILS:   %d\n", "RELAY MESSAGES: %d\n",
    "RELAY FAILS:    %d\n",
};
static_assert(sizeof(kCounterLines) / sizeof(kCounterLines[0]) ==
                  DEBUGCODE_RELAY_FAILS - DEBUGCODE_RX_BYTES + 1,
              "one line per counter code");

// Prints one accepted frame the way the monitor shows it.
void monitor_print(ST_MavlinkMsg* msg) {
    int payload_len = frame_payload_len(msg);
    switch (msg->msgid) {
        case CMD_SYSLOG: {
            const ST_SysLog* log = reinterpret_cast<const ST_SysLog*>(msg->data);
            out("---------- [SYSLOG] -----------\n");
            out("[%08d]: 0x%08x, 0x%08x, 0x%08x, 0x%08x\n", static_cast<int32_t>(log->eventcode),
                log->param0, log->param1, log->param2, log->param3);
            break;
        }
        case CMD_USER_STRING:
            // The terminator goes right behind the payload (over the first
            // CRC byte), so a text without one ends at the payload's length.
            wire_bytes(msg)[8 + payload_len] = '\0';
            out("---------- [USER_STRING] -----------\n");
            out("%s\n", reinterpret_cast<const char*>(msg->data));
            break;
        case CMD_HEARBEAT:
            mcu_heartbeat(reinterpret_cast<ST_HeartBeat*>(msg->data));
            break;
        default:
            LOG_ERR_AS(kMonitor, "msgid 0x%02x\n", msg->msgid);
            hexdump(wire_bytes(msg),
                    static_cast<unsigned short>(payload_len + MAVLINK_FRAME_OVERHEAD));
            break;
    }
}

}  // namespace

int mcu_heartbeat(ST_HeartBeat* msg) {
    if (msg == nullptr)
        return -2;
    out("---------- [HEARBEAT] -----------\n");
    out("  device type: %d (0x%02x)\n", msg->dev_type, msg->dev_type);
    out("device status: %d (0x%02x)\n", msg->dev_status, msg->dev_status);
    out("    cpu usage: %d (0x%02x)\n", msg->cpu_usage, msg->cpu_usage);
    out("    mem usage: %d (0x%02x)\n", msg->mem_usage, msg->mem_usage);
    return 0;
}

int mcu_debug(ST_DebugCmd* msg) {
    if (msg == nullptr)
        return -2;
    uint32_t code = msg->debugcode;
    switch (code) {
        case DEBUGCODE_MESSAGE_TEST:
            return 0;
        case DEBUGCODE_TIME_SYNC:
            out("TIME SYNC: 0x%08x 0x%08x\n", msg->param1, msg->param0);
            return 0;
        case DEBUGCODE_SET_LOOPBACK:
            out(msg->param0 != 0 ? "Set message loopback: success\n"
                                 : "Set message loopback: fail\n");
            return 0;
        case DEBUGCODE_CLEAR_STTS:
            out("CLEAR ALL\n");
            return 0;
        case DEBUGCODE_CPU_USAGE:
            out("CPU0 Usage:     %08u\n", msg->param0);
            out("CPU0 Usage Max: %08u\n", msg->param1);
            out("CPU1 Usage:     %08u\n", msg->param2);
            out("CPU1 Usage Max: %08u\n", msg->param3);
            return 0;
        case DEBUGCODE_MEM_USAGE:
            out("Mem0 Usage:     %08u\n", msg->param0);
            out("Mem0 Usage Max: %08u\n", msg->param1);
            out("Mem1 Usage:     %08u\n", msg->param2);
            out("Mem1 Usage Max: %08u\n", msg->param3);
            return 0;
        default:
            break;
    }
    if (code >= DEBUGCODE_RX_BYTES && code <= DEBUGCODE_RELAY_FAILS) {
        printf(kCounterLines[code - DEBUGCODE_RX_BYTES], static_cast<int32_t>(msg->param0));
        fflush(stdout);
        return 0;
    }
    LOG_ERR("msg->debugcode 0x%08x error\n\n", code);
    return -2;
}

int mcu_monitor(uint8_t msgid, int timeout) {
    // 1. No limit: the largest int.
    if (timeout <= 0)
        timeout = 2147483647;
    // 2. Banner.
    out("monitor 0x%02x\n", msgid);
    // 3. The MCU's own messages carry its own sequence numbers and any id;
    //    only the CRC check stays on.
    m_seq_check = 0;
    m_sys_id_check = 0;
    m_comp_id_check = 0;
    m_msgid_check = 0;
    // 4. Start; from here a stop signal ends the monitor like its time.
    catch_stop_signals();
    // 5. Listen until the time is up or a stop signal came.
    int ret = 0;
    int32_t tick0 = Time_GetMs();
    while (ret == 0 && m_monitor_stop == 0 && elapsed_ms(tick0) < timeout) {
        // 5.1-5.2 one frame from the link, 5.3 the id filter, 5.4 print it.
        int got = link_ops().listen(timeout);
        if (got < 0)
            ret = -1;
        else if (got > 0 && (msgid == 0xFF || m_rx_msg.msgid == msgid))
            monitor_print(&m_rx_msg);
    }
    release_stop_signals();
    return ret;
}

// 5.1-5.2 on a TTY: wait for input, each wait given the whole time-out, then
// one frame from the line. Its diagnostics carry the monitor's name.
int tty_listen(int timeout) {
    if (mcu_wait(timeout) <= 0) {
        if (m_monitor_stop == 0)
            LOG_DBG_AS(kMonitor, "mcu_wait fail\n");
        return 0;
    }
    // A hung-up device stays readable without a byte to read; the monitor
    // ends rather than spin until its time is up.
    if (tty_hung_up(m_serial_fd)) {
        LOG_ERR_AS(kMonitor, "%s hung up\n", m_serial_dev);
        return -1;
    }
    if (mcu_recv(&m_rx_msg, nullptr, 0) < 0) {
        LOG_DBG_AS(kMonitor, "mcu recv fail\n");
        return 0;
    }
    return 1;
}

// 5.1-5.2 on SPI: one listening transfer, then its first frame.
int spi_listen(int /*timeout*/) {
    uint8_t block[SPI_BLOCK_SIZE];
    if (mcu_read(m_serial_fd, block, SPI_BLOCK_SIZE) < 0)
        return -1;
    if (mcu_recv(&m_rx_msg, block, SPI_BLOCK_SIZE) < 0) {
        pause_ms(kSpiMonitorPauseMs);
        return 0;
    }
    return 1;
}
