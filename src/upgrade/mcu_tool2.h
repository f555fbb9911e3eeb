// mcu_tool2: talks to one MCU component over a TTY or a spidev SPI link with
// the framed message protocol (start byte 0xFD, 16-bit length, sequence,
// destination and source ids, message id, header sum, payload, CRC-16).
//
// The module holds one process-wide link context. Setters configure it (they
// return 0, or -1 when they refuse a value); device actions bring the link up,
// run their exchanges, take the link down (which prints the link statistics)
// and report their outcome on standard output. Results of device operations:
//    0  success
//   -1  local failure (argument, device, write, buffer, transfer)
//   -2  the MCU refused (NAK on a TTY, a failure result code on SPI)
//   -3  time-out: no conclusive answer within the retry budget
// Diagnostics go through pfn_print (utils.h) as "<function> <line>, ...".
//
// Every wire record below is little-endian; the code lays the records over
// the wire bytes directly, so it builds only for little-endian hosts.
#ifndef MCU_TOOL2_H
#define MCU_TOOL2_H

#include <stddef.h>
#include <stdint.h>

#include "utils.h"

// ---- the calls ----------------------------------------------------------
// A program sets the target (and, if not its default, the device and speed),
// then runs one action; each device action opens and closes the link itself.
// The records the calls take are defined under "types and details" below.
struct ST_MavlinkStts;
struct ST_Version;
struct ST_TimeRetryCmd;

// Link settings. The device path is kept by pointer, not copied.
int set_serial_dev(const char* name);
int set_serial_speed(int speed);
// Protocol switches.
int set_crc_extra(uint8_t val);
int set_upgrade_type(uint8_t val);
int set_seq_check(uint8_t val);
// Target component; also fixes the tool's own id and the default device path.
int set_comp_id(uint8_t id);
int comp_id_is_set(void);

// Link statistics.
void clear_stts(ST_MavlinkStts* st);
int print_stts(ST_MavlinkStts* st);

// Version formatting: "debug.patch.minor.major".
int version_to_string(ST_Version* v, char* buf, int len);
int print_version(char* type, ST_Version* v);

// Link lifecycle: clear statistics and open; close and print statistics.
int mcu_init(void);
void mcu_uninit(void);

// Device actions. reset_type is an EN_ResetType; mcu_get_softver sets the
// target itself and leaves the software version as text in buf; a monitor's
// msgid 0xFF shows every message, and seconds of 0 or less mean no limit.
int mcu_reset(uint16_t reset_type);
int mcu_get_softver(uint8_t comp_id, char* buf, int len);
int mcu_version(void);
int mcu_serial(void);
int mcu_getMcuUpgradeParam(ST_TimeRetryCmd* cmd);
int mcu_upgrade(const char* filename);
int mcu_sendraw(const char* str);
int mcu_writeraw(const char* str);
int mcu_monitor_message(uint8_t msgid, int seconds);
int mcu_sendraw_then_monitor(const char* str, uint8_t msgid, int seconds);
int mcu_debug_get_stts(void);
int mcu_debug_clear_stts(void);
int mcu_debug_set_message_loopback(int flag);
int mcu_debug_message_send_test(int count, int len, int interval, uint8_t pattern);

// Device-free calculators.
int mcu_crc16(const char* str);
int mcu_crc32(const char* filename);
int mcu_date(int style);

// ---- types and details --------------------------------------------------

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "wire records are little-endian and are laid over the wire bytes");

// Message ids of the command set.
enum EN_Command {
    CMD_HEARBEAT = 208,
    CMD_SYSTEM_RESET = 209,
    CMD_FACTORY_RESET = 210,
    CMD_SET_SN = 212,
    CMD_GET_SN = 213,
    CMD_GET_APP_FLASHSIZE = 214,
    CMD_REQUEST_UPGRADE = 215,
    CMD_ERASE_APP_FLASH = 216,
    CMD_DOWNLOADING = 217,
    CMD_SET_HW_VERSION = 218,
    CMD_GET_VERSIONS = 219,
    CMD_CRC_CHECK = 220,
    CMD_APP_GO = 221,
    CMD_GET_TIMERETRY = 222,
    CMD_QUERY_DEVICE = 224,
    CMD_SYSLOG = 229,
    CMD_DEBUG_DEVICE = 230,
    CMD_SUBSCRIBE_MESSAGE = 231,
    CMD_USER_STRING = 232,
    CMD_BUSY = 253,
    CMD_ACK = 254,
    CMD_NAK = 255,
    CMD_NUM_MAX = 256,
};

// Result codes carried in SPI answers.
enum EN_Result {
    RESULT_SUCCESS = 0,
    RESULT_FAILURE = 1,
    RESULT_BUSY = 2,
    RESULT_PARAM_ERR = 3,
    RESULT_PARSE_FAIL = 4,
    RESULT_SUBSCRIBE_MSG_TYPE = 5,
    RESULT_TOO_MANY_SUBSCRIBER = 6,
    RESULT_SUBSCRIBE_FREQ = 7,
    RESULT_UNSUPPORTED = 8,
    RESULT_CODE_MAX = 9,
};

// Component ids.
enum EN_DeviceId {
    DEV_NONE = 0,
    DEV_UAV = 1,
    DEV_DSP = 2,
    DEV_DSP_RC = 3,
    DEV_RC_PLAYER = 4,
    DEV_BASESTATION = 5,
    DEV_ESC_PITCH = 7,
    DEV_ESC_ROLL = 8,
    DEV_ESC_YAW = 9,
    DEV_BATTERY = 10,
    DEV_GIMBAL = 11,
    DEV_TOF = 12,
    DEV_RC_ANDROID = 13,
    DEV_RC = 14,
    DEV_SONAR = 15,
    DEV_RADAR = 16,
    DEV_ESC1 = 20,
    DEV_ESC2 = 21,
    DEV_ESC3 = 22,
    DEV_ESC4 = 23,
    DEV_SWITCHER = 24,
    DEV_MOVIDIUS_1 = 25,
    DEV_MOVIDIUS_2 = 26,
    DEV_MOVIDIUS_3 = 27,
    DEV_PC = 28,
    DEV_FLOW = 29,
    DEV_APP = 32,
    DEV_CAMERA = 33,
    DEV_SRVESC1 = 34,
    DEV_SRVESC2 = 35,
    DEV_SRVESC3 = 36,
    DEV_SRVESC4 = 37,
    DEV_CHARGE_HUB = 38,
    DEV_BATTERY_HUB = 39,
    DEV_RF58G_A = 41,
    DEV_RF58G_G = 42,
    DEV_AIRSPEED = 43,
    DEV_MULTICAST = 254,
    DEV_BROADCAST = 255,
    MAV_COMPONENT_ENUM_END = 256,
};

enum EN_SerialType {
    SERIAL_TYPE_TTY = 0,
    SERIAL_TYPE_SPI = 1,
};

enum EN_UpgradeType {
    UPGRADE_TYPE_NORMAL = 0,
    UPGRADE_TYPE_FW_ONLY = 1,
    UPGRADE_TYPE_MAX = 2,
};

enum EN_ResetType {
    RESET_TYPE_DRYRUN = 0,
    RESET_TYPE_REBOOT = 1,
    RESET_TYPE_BOOTLOADER = 2,
    RESET_TYPE_LOGDUMP = 3,
};

enum EN_DebugCode {
    DEBUGCODE_MESSAGE_TEST = 0,
    DEBUGCODE_TIME_SYNC = 1,
    DEBUGCODE_SET_LOOPBACK = 2,
    DEBUGCODE_CLEAR_STTS = 3,
    DEBUGCODE_RX_BYTES = 4,
    DEBUGCODE_RX_FRAMES = 5,
    DEBUGCODE_RX_MESSAGES = 6,
    DEBUGCODE_RX_CRC_FAILS = 7,
    DEBUGCODE_RX_LEN_FAILS = 8,
    DEBUGCODE_RX_SUM_FAILS = 9,
    DEBUGCODE_RX_MEM_FAILS = 10,
    DEBUGCODE_RX_DUP_SEQ = 11,
    DEBUGCODE_TX_BYTES = 12,
    DEBUGCODE_TX_FRAMES = 13,
    DEBUGCODE_TX_MESSAGES = 14,
    DEBUGCODE_TX_SEND_FAILS = 15,
    DEBUGCODE_TX_MEM_FAILS = 16,
    DEBUGCODE_TX_RETRY_FAILS = 17,
    DEBUGCODE_HANDLE_FAILS = 18,
    DEBUGCODE_RELAY_MESSAGES = 19,
    DEBUGCODE_RELAY_FAILS = 20,
    DEBUGCODE_CPU_USAGE = 32,
    DEBUGCODE_MEM_USAGE = 33,
};

// Largest payload of one frame, and the framing bytes around it.
constexpr int MAVLINK_MAX_PAYLOAD = 65000;
constexpr int MAVLINK_FRAME_OVERHEAD = 10;

// One frame, laid out as on the wire: the CRC bytes follow the payload inside
// `data` (and fall on `crc` for a full 65000-byte payload).
#pragma pack(push, 1)
struct ST_MavlinkMsg {
    uint8_t magic;
    uint8_t len;
    uint8_t len_h;
    uint8_t seq;
    uint8_t compid;  // destination
    uint8_t sysid;   // source
    uint8_t msgid;
    uint8_t csum;
    uint8_t data[MAVLINK_MAX_PAYLOAD];
    uint16_t crc;
};
#pragma pack(pop)
static_assert(sizeof(ST_MavlinkMsg) == 8 + MAVLINK_MAX_PAYLOAD + 2, "frame record is packed");
static_assert(offsetof(ST_MavlinkMsg, compid) == 4 && offsetof(ST_MavlinkMsg, sysid) == 5,
              "destination precedes source on the wire");
static_assert(offsetof(ST_MavlinkMsg, data) == 8, "payload starts at offset 8");
static_assert(offsetof(ST_MavlinkMsg, crc) == 8 + MAVLINK_MAX_PAYLOAD, "crc follows the payload");

// Link statistics of one action.
struct ST_MavlinkStts {
    int32_t msStart;
    uint32_t txBytes;
    uint32_t txPkts;
    uint32_t rxBytes;
    uint32_t rxPkts;
    uint32_t txFail;
    uint32_t lenFail;
    uint32_t crcFail;
    uint32_t seqFail;
    uint32_t sumFail;
    uint32_t sysFail;
    uint32_t compFail;
    uint32_t cmdFail;
    uint32_t rxCnt[CMD_NUM_MAX];
    uint32_t txCnt[CMD_NUM_MAX];
};

#pragma pack(push, 1)
// One version: shown as debug.patch.minor.major.
struct ST_Version {
    uint8_t major;
    uint8_t minor;
    uint8_t patch;
    uint8_t debug;
};

// Payload of CMD_SYSTEM_RESET.
struct ST_ResetCmd {
    uint16_t confirm_code;  // always 0x55AA
    uint16_t reset_type;    // EN_ResetType
};

// Payload of CMD_HEARBEAT.
struct ST_HeartBeat {
    uint8_t dev_type;
    uint8_t dev_status;
    uint8_t cpu_usage;
    uint8_t mem_usage;
};

// Payload of CMD_SYSLOG.
struct ST_SysLog {
    uint32_t eventcode;
    uint32_t param0;
    uint32_t param1;
    uint32_t param2;
    uint32_t param3;
};

// Payload of CMD_DEBUG_DEVICE, both directions.
struct ST_DebugCmd {
    uint32_t debugcode;  // EN_DebugCode
    uint32_t param0;
    uint32_t param1;
    uint32_t param2;
    uint32_t param3;
};

// Reply payload of CMD_GET_TIMERETRY: the MCU's upgrade timing.
struct ST_TimeRetryCmd {
    uint16_t program_timeoutms;
    uint16_t program_retrys;
    uint16_t program_pksize;
    uint16_t erase_timeouts;
    uint16_t checkcrc_timeouts;
    uint16_t runapp_timeouts;
    uint16_t bootload_timeouts;
    uint16_t message_timeoutms;
};
#pragma pack(pop)
static_assert(sizeof(ST_Version) == 4, "ST_Version wire size");
static_assert(sizeof(ST_ResetCmd) == 4, "ST_ResetCmd wire size");
static_assert(sizeof(ST_HeartBeat) == 4, "ST_HeartBeat wire size");
static_assert(sizeof(ST_SysLog) == 20, "ST_SysLog wire size");
static_assert(sizeof(ST_DebugCmd) == 20, "ST_DebugCmd wire size");
static_assert(sizeof(ST_TimeRetryCmd) == 16, "ST_TimeRetryCmd wire size");

#endif  // MCU_TOOL2_H
