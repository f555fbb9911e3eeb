// Command line of the virtual MCU.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "vmcu_frame.h"

namespace vmcu {

enum class LinkKind { kTty, kSpi };

enum class Action {
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
    Action action = Action::kSilent;
    uint32_t arg = 0;
    int remaining = 1;  // -1: forever
    std::string text;   // the rule as given, for the log
};

enum class EmitKind { kHeartbeat, kSyslog, kUser, kDebug, kFrame };

struct Emit {
    EmitKind kind = EmitKind::kHeartbeat;
    uint8_t msgid = 0;
    Bytes payload;  // resolved at parse time (heartbeat: filled in later)
    int period_ms = 1000;
    int count = -1;  // -1: unlimited
};

using DebugParams = std::array<uint32_t, 4>;

struct Options {
    LinkKind link = LinkKind::kTty;
    std::string spi_socket;
    uint8_t id = 0x0A;
    uint8_t peer = 0x02;
    bool strict_dest = false;
    Bytes versions;
    Bytes sn;
    uint32_t flash_size = 1048576;
    Bytes timeretry;
    Bytes heartbeat;
    std::map<uint32_t, DebugParams> debug;  // explicit --debug settings
    std::vector<Rule> rules;
    std::vector<Emit> emits;
    int emit_start_ms = 300;
    CrcPolicy rx_crc;
    std::string log_path;
    std::string raw_path;
    std::string image_path;
    long baud = 0;
    long exit_after_ms = 120000;
    int spi_latency = 1;
    int rx_gap_ms = 100;
    bool require_bootloader = false;
    bool spi_data_result_own_id = false;
    uint32_t seed = 1;
};

// Parses argv. On error writes a message to `err` and returns false; when
// --help was given sets *help and returns true.
bool parse_options(int argc, char** argv, Options* opt, bool* help, std::string* err);
const char* help_text();

}  // namespace vmcu
