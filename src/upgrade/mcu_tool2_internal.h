// Module-internal interface of mcu_tool2, shared by its files (and by the
// front end for the bring-up of its one action): the one process-wide link
// context (state prefixed m_) and the layers below the public actions.
//
// The layers, lowest first (file -> what it offers):
//   utils.h, utils*.cpp    diagnostics (pfn_print, LOG_*), hexdump, the
//                          millisecond clock, byte sums, CRC-8/32, file and
//                          shell helpers
//   checksum.h             frame CRC-16 (crc_init, crc_accumulate,
//                          crc_calculate) and the extra bytes msg_crcs
//   mcu_tool2_link.cpp     device path and speed, mcu_open / mcu_close: the
//                          path decides TTY or SPI, which picks the row of
//                          kLinkOps (below) that every layer calls through
//   mcu_tool2_kernel.cpp   termios2 custom rates, spidev set-up and transfers,
//                          the hang-up test (Linux specifics)
//   mcu_tool2_transport.cpp  mcu_write / mcu_read / mcu_wait, link_trace
//   mcu_tool2_stats.cpp    m_stts, clear_stts / print_stts, the protocol
//                          switches (extra byte, upgrade type, checks)
//   mcu_tool2_frame.cpp    mcu_package / mcu_send (encoder), mcu_recv (parser)
//   mcu_tool2_device.cpp   target identity, mcu_init / mcu_uninit / link_up,
//                          version formatting, identity queries and reset
//   mcu_tool2_inbound.cpp  mcu_heartbeat / mcu_debug / mcu_monitor: what the
//                          MCU emits
//   mcu_tool2_engine.cpp   mcu_sendrecv: one request/response exchange
//   mcu_tool2_debug.cpp    remote debug commands (counters, loopback, flood)
//   mcu_tool2_boot.cpp     upgrade parameters and the bootloader commands
//   mcu_tool2_upgrade.cpp  the eight-step upgrade, mcu_upgrade
//   mcu_tool2_raw.cpp      hex strings, raw messages and frames, monitor actions
//   mcu_tool2_calc.cpp     device-free calculators (CRC-16, CRC-32, clock)
//   mcu_main2.cpp          the command line (front end, not part of the module)
//
// Results follow the public header: 0 success, -1 local failure, -2 refused
// by the MCU, -3 time-out, -10 failed SPI transfer inside the transport.
#ifndef MCU_TOOL2_INTERNAL_H
#define MCU_TOOL2_INTERNAL_H

#include <stdint.h>
#include <time.h>

#include "checksum.h"
#include "mcu_tool2.h"

// Every SPI transfer moves exactly this many bytes each way.
constexpr int SPI_BLOCK_SIZE = 528;
// The only SPI clock the link runs at.
constexpr int SPI_SPEED_HZ = 7800000;
// Largest frame payload that fits one SPI block.
constexpr int SPI_MAX_PAYLOAD = SPI_BLOCK_SIZE - MAVLINK_FRAME_OVERHEAD;

// ---- link context -------------------------------------------------------
extern const char* m_serial_dev;
extern int m_serial_speed;
extern uint8_t m_serial_type;  // EN_SerialType of the last open attempt
extern int m_serial_fd;        // open descriptor, -1 when the link is down
extern uint8_t m_comp_id;      // target component, 0 = none
extern uint8_t m_sys_id;       // the tool's own id
extern uint8_t m_tx_seq;       // sequence number of the last frame built
extern uint8_t m_crc_extra;
extern uint8_t m_upgrade_type;
extern uint8_t m_seq_check;
extern uint8_t m_crc_check;
extern uint8_t m_sys_id_check;
extern uint8_t m_comp_id_check;
extern uint8_t m_msgid_check;
extern ST_MavlinkMsg m_tx_msg;
extern ST_MavlinkMsg m_rx_msg;
extern ST_MavlinkStts m_stts;

// Blocks the process for ms milliseconds (any value; resumed after signals).
inline void pause_ms(uint32_t ms) {
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(ms / 1000);
    ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    while (nanosleep(&ts, &ts) != 0) {
    }
}

// Milliseconds since `since` on the 32-bit clock, right across its wrap.
inline int32_t elapsed_ms(int32_t since) {
    return static_cast<int32_t>(static_cast<uint32_t>(Time_GetMs()) - static_cast<uint32_t>(since));
}

// The record seen as wire bytes: header, payload and the CRC bytes behind the
// payload, which for a full payload fall on the crc field.
inline uint8_t* wire_bytes(ST_MavlinkMsg* msg) {
    return reinterpret_cast<uint8_t*>(msg);
}

// Payload length of a frame record: len + 256 * len_h.
inline int frame_payload_len(const ST_MavlinkMsg* msg) {
    return msg->len | (msg->len_h << 8);
}

// ---- link (mcu_tool2_link.cpp) ------------------------------------------
// Opens and configures the device; the descriptor or -1.
int mcu_open(const char* serialname, int baudrate);
// Closes fd when it is greater than 0.
void mcu_close(int fd);

// What a TTY and an SPI link do differently, one row per EN_SerialType.
// mcu_open records the kind of the path it opens in m_serial_type, which
// picks the row; the layers above call through link_ops() instead of asking
// which kind of link they have (only the TTY-only calls mcu_send and
// mcu_wait still refuse an SPI link). Each function reports in the name of
// the call that dispatches to it.
struct ST_LinkOps {
    // mcu_open after the kind is known: open and configure the device.
    int (*open)(const char* serialname, int baudrate);
    // mcu_write / mcu_read: one write (one transfer on SPI), one read (one
    // polling transfer on SPI).
    int (*write)(int fd, uint8_t* sendbuf, int len, uint8_t* recvbuf);
    int (*read)(int fd, uint8_t* buf, int len);
    // mcu_recv: a frame pulled from the line, or the first one in a block.
    int (*recv)(ST_MavlinkMsg* msg, uint8_t* buf, int length);
    // mcu_sendrecv: the exchange rules of the link.
    int (*sendrecv)(uint8_t msgid, uint8_t* txbuf, int txlen, uint8_t* rxbuf, int rxlen,
                    int timeout, int retry_cnt);
    // One pass of the monitor: 1 a frame in m_rx_msg, 0 none, -1 it ends.
    int (*listen)(int timeout);
    // Most bytes one write moves.
    int max_write;
};
int open_tty_serial(const char* serialname, int baudrate);
int open_spi_serial(const char* serialname, int baudrate);
int tty_write(int fd, uint8_t* sendbuf, int len, uint8_t* recvbuf);
int spi_write(int fd, uint8_t* sendbuf, int len, uint8_t* recvbuf);
int tty_read(int fd, uint8_t* buf, int len);
int spi_read(int fd, uint8_t* buf, int len);
int tty_recv(ST_MavlinkMsg* msg, uint8_t* buf, int length);
int spi_recv(ST_MavlinkMsg* msg, uint8_t* buf, int length);
int tty_sendrecv(uint8_t msgid, uint8_t* txbuf, int txlen, uint8_t* rxbuf, int rxlen, int timeout,
                 int retry_cnt);
int spi_sendrecv(uint8_t msgid, uint8_t* txbuf, int txlen, uint8_t* rxbuf, int rxlen, int timeout,
                 int retry_cnt);
int tty_listen(int timeout);
int spi_listen(int timeout);
constexpr ST_LinkOps kLinkOps[] = {
    // SERIAL_TYPE_TTY
    {open_tty_serial, tty_write, tty_read, tty_recv, tty_sendrecv, tty_listen, MAVLINK_MAX_PAYLOAD},
    // SERIAL_TYPE_SPI
    {open_spi_serial, spi_write, spi_read, spi_recv, spi_sendrecv, spi_listen, SPI_BLOCK_SIZE},
};
inline const ST_LinkOps& link_ops(void) {
    return kLinkOps[m_serial_type];
}

// ---- kernel specifics (mcu_tool2_kernel.cpp) ----------------------------
// The termios rate field mask and its "other rate" code.
extern const unsigned int kTtyCbaudMask;
extern const unsigned int kTtyBotherFlag;
// Puts the numeric rate into the port's termios2 speed fields with BOTHER.
// 0 on success, -1 when the kernel refuses termios2 (errno kept).
int tty_set_custom_rate(int fd, int rate);
// True when a TTY that select reports readable has no byte to read: the
// other end hung up (a closed pseudo-terminal, an unplugged USB adapter).
bool tty_hung_up(int fd);
// Sets mode, clock and word size of a spidev node, each written then read
// back. 0 on success; on failure -1 with *what naming the setting.
int spi_configure(int fd, uint8_t mode, uint32_t speed_hz, uint8_t bits, const char** what);
// One full-duplex SPI_BLOCK_SIZE transfer; the ioctl's result.
int spi_transfer(int fd, const uint8_t* tx, uint8_t* rx);

// ---- transport (mcu_tool2_transport.cpp) --------------------------------
int mcu_write(int fd, uint8_t* sendbuf, int len, uint8_t* recvbuf);
int mcu_read(int fd, uint8_t* buf, int len);
// Waits for TTY input; also ends when m_wake_fd (when not -1) turns
// readable or a signal interrupts it. 1 input ready, 0 none, -1 error.
int mcu_wait(int timeout);
// Read end of the monitor's stop pipe, -1 outside the monitor.
extern int m_wake_fd;
// The "TX" or "RX" trace line of a frame in the name of func, and from
// DEBUG_LV_DUMP on its bytes (cut to 32 below DEBUG_LV_FULLDUMP).
void link_trace(const char* func, int line, const char* dir, const uint8_t* buf, int len);

// ---- frame (mcu_tool2_frame.cpp) ----------------------------------------
int mcu_package(uint8_t msgid, uint8_t* sendbuf, int len);
int mcu_send(uint8_t msgid, uint8_t* sendbuf, int len);
int mcu_recv(ST_MavlinkMsg* msg, uint8_t* buf, int length);

// ---- lifecycle, identity and reset (mcu_tool2_device.cpp) ---------------
// The opening of every device action: refuse without a target (printing
// `no_target` in the name of `func`), then bring the link up ("mcu_init
// fail" on failure). 0 when the link is up, -1 otherwise.
int link_up(const char* func, const char* no_target);
// Closes the device without the statistics report: the failure paths that
// end an action with no report still free the device (and its lock) for the
// next action of the same process.
void link_release(void);
// CMD_SYSTEM_RESET of reset_type, confirmed with 0x55AA; the engine's result.
int reset_exchange(uint16_t reset_type, int timeout);

// ---- inbound (mcu_tool2_inbound.cpp) ------------------------------------
int mcu_heartbeat(ST_HeartBeat* msg);
int mcu_debug(ST_DebugCmd* msg);
int mcu_monitor(uint8_t msgid, int timeout);

// ---- engine (mcu_tool2_engine.cpp) --------------------------------------
int mcu_sendrecv(uint8_t msgid, uint8_t* txbuf, int txlen, uint8_t* rxbuf, int rxlen, int timeout,
                 int retry_cnt);

// ---- upgrade (mcu_tool2_boot.cpp, mcu_tool2_upgrade.cpp) ----------------
// Forces every field into its range, one line per changed field.
void mcu_limit_upgrade_param(ST_TimeRetryCmd* cmd);
int mcu_getFlashSize(uint32_t* flash_size, uint32_t timeoutms);
int mcu_enterBootloader(uint32_t timeoutms);
int mcu_requestUpgrade(uint32_t timeoutms);
int mcu_eraseFlash(uint32_t firmware_size, uint32_t timeoutms);
int mcu_programFlash(uint8_t* firmware, int length, int timeoutms, int retrys, int pksize);
int mcu_requestCrcCheck(uint8_t* firmware, int length, uint32_t timeoutms);
int mcu_runApp(uint32_t timeoutms);
int mcu_upgradeFirmare(uint8_t* firmware, int length);

// ---- raw (mcu_tool2_raw.cpp) --------------------------------------------
// Value of one hex digit, or -1.
int char2hex(char c);
// Converts a hex string into at most len bytes; the byte count or -1.
int string2hex(const char* str, uint8_t* buf, int len);
// Size of the raw actions' conversion buffer: one whole frame record.
constexpr int RAW_BUF_SIZE = static_cast<int>(sizeof(ST_MavlinkMsg));

#endif  // MCU_TOOL2_INTERNAL_H
