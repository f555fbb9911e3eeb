// Command line of the virtual MCU: what it serves on, what it answers, the
// fault rules it applies and the unsolicited frames it sends.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vmcu_frame.h"

namespace vmcu {

enum class LinkKind { kTty, kSpi };

// What a --rule does to the requests it matches (see the help text).
enum class Action {
    kNone,  // no rule: the normal answer
    kSilent,
    kNak,
    kCode,
    kBusy,
    kBadCrc,
    kBadSum,
    kBigLen,
    kBadSeq,
    kBadSys,
    kBadComp,
    kLowId,
    kGarbage,
    kLong,
    kShort,
    kOtherId,
    kHeartbeat,
    kDebugReply,
    kAck,
    kNoAck,
    kXferFail,
};

struct Rule {
    int msgid = -1;  // -1: any id
    Action action = Action::kNone;
    uint32_t arg = 0;
    int remaining = 1;  // -1: forever
    std::string text;   // the rule as given, for the log
};

// What the vmcu's heartbeats carry: device type 14, status 1, cpu 50 %, memory 20 %.
constexpr uint8_t kHeartbeatPayload[] = {0x0E, 0x01, 0x32, 0x14};

// An unsolicited frame, sent every period_ms, count times (-1: unlimited).
struct Emit {
    uint8_t msgid = 0;
    Bytes payload;
    int period_ms = 1000;
    int count = -1;
};

struct Options {
    LinkKind link = LinkKind::kTty;
    std::string spi_socket;
    uint8_t peer = 0x02;
    Bytes versions = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    Bytes sn;  // by default "VMCU-SN-0123456789", zeros to 32 bytes
    uint32_t flash_size = 1048576;
    // Eight little-endian u16: 1000, 3, 240, 20, 2, 2, 2, 500.
    Bytes timeretry = {0xE8, 0x03, 0x03, 0x00, 0xF0, 0x00, 0x14, 0x00,
                       0x02, 0x00, 0x02, 0x00, 0x02, 0x00, 0xF4, 0x01};
    std::vector<Rule> rules;
    std::vector<Emit> emits;
    int emit_start_ms = 300;
    CrcPolicy rx_crc;
    std::string log_path;
    std::string raw_path;
    std::string image_path;
    long baud = 0;
    long exit_after_ms = 0;  // 0: until stopped
};

// Parses argv. On error writes a message to `err` and returns false; when
// --help was given sets *help and returns true.
bool parse_options(int argc, char** argv, Options* opt, bool* help, std::string* err);
const char* help_text();

}  // namespace vmcu
