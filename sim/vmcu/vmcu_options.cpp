#include "vmcu_options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vmcu {

namespace {

const char kHelp[] =
    "usage: vmcu (--pty | --spi SOCKET) [options]\n"
    "\n"
    "A virtual MCU for end-to-end tests of mcu_tool2. It answers the tool's\n"
    "framed requests like the real MCU, with faults injected on demand.\n"
    "\n"
    "Link (one is required):\n"
    "  --pty                 create a pseudo-terminal and serve on it; prints\n"
    "                        'pty: /dev/pts/N' on stdout once ready\n"
    "  --spi SOCKET          serve SPI transfers from the libvmcu_spidev.so shim on\n"
    "                        the unix socket SOCKET; prints 'spi: SOCKET' once\n"
    "                        listening. Run the tool with LD_PRELOAD=libvmcu_spidev.so\n"
    "                        and VMCU_SPI_SOCKET=SOCKET; it then opens any path\n"
    "                        containing 'spidev0.0' as this vmcu\n"
    "\n"
    "Identity and content:\n"
    "  --id HEX              the MCU's component id (default 0A)\n"
    "  --peer HEX            destination id of unsolicited frames (default 02)\n"
    "  --strict-dest         ignore requests whose destination id is not --id\n"
    "                        (by default they are answered and logged as NOTE)\n"
    "  --versions HEX        GET_VERSIONS payload (default\n"
    "                        0102030405060708090A0B0C0D0E0F10)\n"
    "  --sn HEX              GET_SN payload (default 32 bytes: the ASCII text\n"
    "                        'VMCU-SN-0123456789' followed by 14 zero bytes)\n"
    "  --flash-size N        GET_APP_FLASHSIZE answer, decimal (default 1048576)\n"
    "  --timeretry HEX       raw GET_TIMERETRY payload (default: eight LE u16\n"
    "                        1000,3,240,20,2,2,2,500, that is\n"
    "                        E8030300F0001400020002000200F401)\n"
    "  --heartbeat HEX       heartbeat payload (default 0E013214)\n"
    "  --debug CODE:P0,P1,P2,P3\n"
    "                        parameters of the debug reply for CODE (decimal;\n"
    "                        params decimal or 0x-hex, missing ones 0). Defaults:\n"
    "                        code 1: 0x11,0x22,0,0; codes 4..20: CODE*100+1,0,0,0;\n"
    "                        32: 11,22,33,44; 33: 55,66,77,88; code 2 echoes the\n"
    "                        request's param0; other codes: zeros. Code 0 (flood\n"
    "                        test) is answered with ACK (SPI: a debug reply of\n"
    "                        code 0)\n"
    "\n"
    "Faults and behaviour per message id:\n"
    "  --rule ID:ACTION[=ARG][*N]   (repeatable)\n"
    "                        ID is hex (e.g. DB) or '*' for any id; busy polls\n"
    "                        (QUERY_DEVICE) count as id E0. The rules are used in\n"
    "                        the order given, each for N matching requests\n"
    "                        (default 1, *0 = forever); afterwards the id is\n"
    "                        answered normally. ACTION is one of:\n"
    "    silent              no answer (the request is not acted on)\n"
    "    nak                 TTY: CMD_NAK; SPI: result code 1\n"
    "    code=N              SPI: result code N (TTY: as nak; code=0 as ack)\n"
    "    busy=MS             TTY: CMD_BUSY with delay MS; SPI: result 2 + delay;\n"
    "                        the request is kept and answered at the next poll\n"
    "    badcrc, badsum, biglen, badseq, badsys, badcomp, lowid\n"
    "                        the normal answer with a wrong CRC / wrong header\n"
    "                        checksum / length bytes E9 FD and only a few bytes /\n"
    "                        seq+1 / wrong source id / wrong destination id /\n"
    "                        message id 207 (checksums valid)\n"
    "    garbage=N           N random bytes without 0xFD, then the normal answer\n"
    "    long                normal answer with one extra payload byte (A5)\n"
    "    short=N             normal answer with the payload cut to N bytes\n"
    "    otherid=HEX         answer with message id HEX (SPI: result 0)\n"
    "    heartbeat           a heartbeat frame (request's seq) instead\n"
    "    debugreply=CODE     a debug reply for CODE instead\n"
    "    ack                 TTY: plain ACK; SPI: result 0, instead of the answer\n"
    "    noack               act on the request but send nothing\n"
    "    xferfail            SPI: the transfer carrying the request fails (EIO);\n"
    "                        TTY: as silent\n"
    "  All answer-changing actions except silent, nak, code, busy and xferfail\n"
    "  act on the request (store the chunk, erase, ...) before answering.\n"
    "\n"
    "Unsolicited frames:\n"
    "  --emit KIND[=ARG]@PERIOD_MS[*COUNT]   (repeatable; COUNT default unlimited)\n"
    "                        KIND: heartbeat (payload of --heartbeat),\n"
    "                        syslog[=HEX] (20 bytes; default eventcode 5, params\n"
    "                        1,2,3,4), user=TEXT (USER_STRING, no terminator),\n"
    "                        debug=HEX (DEBUG_DEVICE payload), frame=HEX (msgid\n"
    "                        byte then payload). They use the vmcu's own sequence\n"
    "                        counter, source --id and destination --peer. TTY:\n"
    "                        written at once; SPI: queued for the next transfers\n"
    "                        (only while a client is connected)\n"
    "  --emit-start MS       delay of the first emission after start (default 300)\n"
    "\n"
    "Bootloader:\n"
    "  --image FILE          write the received image here at APP_GO\n"
    "  --require-bootloader  refuse REQUEST_UPGRADE, ERASE_APP_FLASH, DOWNLOADING\n"
    "                        and CRC_CHECK until a reset of type 2 was received\n"
    "\n"
    "Link details:\n"
    "  --rx-extra HEX|none|any\n"
    "                        CRC extra byte expected on received frames (default\n"
    "                        00); 'none': CRC without an extra byte (as the tool's\n"
    "                        --writeraw computes it); 'any': any extra byte or none\n"
    "  --rx-gap MS           TTY: drop an unfinished frame after MS of silence\n"
    "                        (default 100)\n"
    "  --spi-data-result query|own\n"
    "                        SPI: id of a result-code answer (nak, code, busy, ack,\n"
    "                        ack-like normal answers) to a data request (GET_SN,\n"
    "                        GET_APP_FLASHSIZE, GET_VERSIONS, GET_TIMERETRY):\n"
    "                        'query' (default) sends it as QUERY_DEVICE (E0), which\n"
    "                        the tool reads as a result code; 'own' uses the\n"
    "                        request's id, which the tool takes for data\n"
    "  --spi-latency N       SPI: an answer is clocked out N transfers after the\n"
    "                        request (default 1, the next transfer)\n"
    "  --baud N              TTY: act as a line of N baud (10 bits per byte): a\n"
    "                        request is handled only after its wire time, every\n"
    "                        write is delayed by its wire time, and each received\n"
    "                        frame logs 'RXTIME at <ms since start> span <ms>\n"
    "                        bytes <n> wire <ms>'; default no pacing\n"
    "  --seed N              seed of the garbage generator (default 1)\n"
    "\n"
    "Recording and lifetime:\n"
    "  --log FILE            event log, one line per event, flushed at once:\n"
    "                        RX <hex of a valid received frame>\n"
    "                        TX <hex of the bytes sent, garbage prefix included>\n"
    "                        BAD <why a received candidate frame was rejected>\n"
    "                        TERMIOS cs8=.. parenb=.. ... ispeed=N ospeed=N ...\n"
    "                          (TTY: at the first frame and whenever the port's\n"
    "                          settings changed since the last TERMIOS line)\n"
    "                        SPI MODE <n> | SPI SPEED <hz> | SPI BITS <n>\n"
    "                        SPI CONNECT | SPI DISCONNECT | XFERFAIL | SHIM <text>\n"
    "                        RULE <id> <rule as given> | IGNORED dest <id>\n"
    "                        RESET <type> | REQUEST_UPGRADE | ERASE <size> |\n"
    "                        DUP <seq> | CRC ok | CRC bad | APP_GO <bytes>\n"
    "                        NOTE <text> | DROP <n> bytes: <why> | EXIT <why>\n"
    "  --raw FILE            TTY: every received byte; SPI: every non-zero 528-byte\n"
    "                        transmit block\n"
    "  --exit-after MS       exit after MS milliseconds (default 120000, 0 = never)\n"
    "  --help                this text\n"
    "\n"
    "The vmcu exits on SIGTERM or SIGINT, closing its log.\n";

bool parse_number(const std::string& s, unsigned long long max, unsigned long long* out) {
    if (s.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long long v = std::strtoull(s.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > max || s[0] == '-') {
        return false;
    }
    *out = v;
    return true;
}

bool parse_decimal(const std::string& s, unsigned long long max, unsigned long long* out) {
    if (s.empty() || s.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    return parse_number(s, max, out);
}

bool parse_hex_byte(const std::string& s, uint8_t* out) {
    std::string t = s;
    if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
        t = t.substr(2);
    }
    if (t.empty() || t.size() > 2 ||
        t.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return false;
    }
    *out = static_cast<uint8_t>(std::stoul(t, nullptr, 16));
    return true;
}

bool parse_rule(const std::string& item, Rule* r, std::string* err) {
    r->text = item;
    const size_t colon = item.find(':');
    if (colon == std::string::npos) {
        *err = "rule needs ID:ACTION: " + item;
        return false;
    }
    const std::string id = item.substr(0, colon);
    std::string rest = item.substr(colon + 1);
    if (id == "*") {
        r->msgid = -1;
    } else {
        uint8_t b = 0;
        if (!parse_hex_byte(id, &b)) {
            *err = "bad rule id: " + item;
            return false;
        }
        r->msgid = b;
    }
    r->remaining = 1;
    const size_t star = rest.rfind('*');
    if (star != std::string::npos) {
        unsigned long long n = 0;
        if (!parse_decimal(rest.substr(star + 1), 1000000000ULL, &n)) {
            *err = "bad rule count: " + item;
            return false;
        }
        r->remaining = n == 0 ? -1 : static_cast<int>(n);
        rest = rest.substr(0, star);
    }
    std::string name = rest;
    std::string arg;
    bool has_arg = false;
    const size_t eq = rest.find('=');
    if (eq != std::string::npos) {
        name = rest.substr(0, eq);
        arg = rest.substr(eq + 1);
        has_arg = true;
    }
    struct Entry {
        const char* name;
        Action action;
        int argkind;  // 0 none, 1 decimal, 2 hex byte
    };
    static const Entry table[] = {
        {"silent", Action::kSilent, 0},
        {"nak", Action::kNak, 0},
        {"code", Action::kCode, 1},
        {"busy", Action::kBusy, 1},
        {"badcrc", Action::kBadCrc, 0},
        {"badsum", Action::kBadSum, 0},
        {"biglen", Action::kBigLen, 0},
        {"badseq", Action::kBadSeq, 0},
        {"badsys", Action::kBadSys, 0},
        {"badcomp", Action::kBadComp, 0},
        {"lowid", Action::kLowId, 0},
        {"garbage", Action::kGarbage, 1},
        {"long", Action::kLong, 0},
        {"short", Action::kShort, 1},
        {"otherid", Action::kOtherId, 2},
        {"heartbeat", Action::kHeartbeat, 0},
        {"debugreply", Action::kDebugReply, 1},
        {"ack", Action::kAck, 0},
        {"noack", Action::kNoAck, 0},
        {"xferfail", Action::kXferFail, 0},
    };
    for (const Entry& e : table) {
        if (name != e.name) {
            continue;
        }
        r->action = e.action;
        if (e.argkind == 0) {
            if (has_arg) {
                *err = "rule action takes no argument: " + item;
                return false;
            }
            return true;
        }
        if (!has_arg) {
            *err = "rule action needs =ARG: " + item;
            return false;
        }
        if (e.argkind == 2) {
            uint8_t b = 0;
            if (!parse_hex_byte(arg, &b)) {
                *err = "bad hex id in rule: " + item;
                return false;
            }
            r->arg = b;
            return true;
        }
        unsigned long long v = 0;
        const unsigned long long max = e.action == Action::kBusy      ? 65535
                                       : e.action == Action::kCode    ? 255
                                       : e.action == Action::kGarbage ? 1000000
                                                                      : 0xFFFFFFFFULL;
        if (!parse_number(arg, max, &v)) {
            *err = "bad number in rule: " + item;
            return false;
        }
        r->arg = static_cast<uint32_t>(v);
        return true;
    }
    *err = "unknown rule action: " + item;
    return false;
}

bool parse_emit(const std::string& item, Emit* e, std::string* err) {
    const size_t at = item.rfind('@');
    if (at == std::string::npos) {
        *err = "emit needs KIND@PERIOD_MS: " + item;
        return false;
    }
    std::string timing = item.substr(at + 1);
    const std::string what = item.substr(0, at);
    e->count = -1;
    const size_t star = timing.find('*');
    if (star != std::string::npos) {
        unsigned long long n = 0;
        if (!parse_decimal(timing.substr(star + 1), 1000000000ULL, &n)) {
            *err = "bad emit count: " + item;
            return false;
        }
        e->count = static_cast<int>(n);
        timing = timing.substr(0, star);
    }
    unsigned long long period = 0;
    if (!parse_decimal(timing, 86400000ULL, &period) || period == 0) {
        *err = "bad emit period: " + item;
        return false;
    }
    e->period_ms = static_cast<int>(period);
    const size_t eq = what.find('=');
    const std::string kind = what.substr(0, eq);
    const bool has_arg = eq != std::string::npos;
    const std::string arg = has_arg ? what.substr(eq + 1) : std::string();
    if (kind == "heartbeat" && !has_arg) {
        e->kind = EmitKind::kHeartbeat;
        e->msgid = 208;
    } else if (kind == "syslog") {
        e->kind = EmitKind::kSyslog;
        e->msgid = 229;
        if (has_arg) {
            if (!parse_hex(arg, &e->payload)) {
                *err = "bad syslog hex: " + item;
                return false;
            }
        } else {
            e->payload.clear();
            for (uint32_t v : {5u, 1u, 2u, 3u, 4u}) {
                put_u32(&e->payload, v);
            }
        }
    } else if (kind == "user" && has_arg) {
        e->kind = EmitKind::kUser;
        e->msgid = 232;
        e->payload.assign(arg.begin(), arg.end());
    } else if (kind == "debug" && has_arg) {
        e->kind = EmitKind::kDebug;
        e->msgid = 230;
        if (!parse_hex(arg, &e->payload)) {
            *err = "bad debug hex: " + item;
            return false;
        }
    } else if (kind == "frame" && has_arg) {
        e->kind = EmitKind::kFrame;
        Bytes b;
        if (!parse_hex(arg, &b) || b.empty()) {
            *err = "bad frame hex: " + item;
            return false;
        }
        e->msgid = b[0];
        e->payload.assign(b.begin() + 1, b.end());
    } else {
        *err = "unknown emit kind: " + item;
        return false;
    }
    if (e->payload.size() > kMaxPayload) {
        *err = "emit payload too long: " + item;
        return false;
    }
    return true;
}

bool parse_debug(const std::string& item, std::map<uint32_t, DebugParams>* out, std::string* err) {
    const size_t colon = item.find(':');
    unsigned long long code = 0;
    if (colon == std::string::npos || !parse_decimal(item.substr(0, colon), 0xFFFFFFFFULL, &code)) {
        *err = "debug needs CODE:P0,P1,P2,P3: " + item;
        return false;
    }
    DebugParams p{0, 0, 0, 0};
    std::string rest = item.substr(colon + 1);
    size_t idx = 0;
    while (!rest.empty()) {
        if (idx >= 4) {
            *err = "too many debug params: " + item;
            return false;
        }
        const size_t comma = rest.find(',');
        const std::string field = rest.substr(0, comma);
        unsigned long long v = 0;
        if (!parse_number(field, 0xFFFFFFFFULL, &v)) {
            *err = "bad debug param: " + item;
            return false;
        }
        p[idx++] = static_cast<uint32_t>(v);
        if (comma == std::string::npos) {
            break;
        }
        rest = rest.substr(comma + 1);
    }
    (*out)[static_cast<uint32_t>(code)] = p;
    return true;
}

}  // namespace

const char* help_text() {
    return kHelp;
}

bool parse_options(int argc, char** argv, Options* opt, bool* help, std::string* err) {
    *help = false;
    parse_hex("0102030405060708090A0B0C0D0E0F10", &opt->versions);
    const std::string sn_text = "VMCU-SN-0123456789";
    opt->sn.assign(sn_text.begin(), sn_text.end());
    opt->sn.resize(32, 0);
    opt->timeretry.clear();
    for (uint16_t v : {1000, 3, 240, 20, 2, 2, 2, 500}) {
        put_u16(&opt->timeretry, v);
    }
    parse_hex("0E013214", &opt->heartbeat);
    bool have_link = false;

    for (int i = 1; i < argc; ++i) {
        std::string name = argv[i];
        std::string value;
        bool inline_value = false;
        const size_t eq = name.find('=');
        if (name.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = name.substr(eq + 1);
            name = name.substr(0, eq);
            inline_value = true;
        }
        auto need = [&](std::string* v) {
            if (inline_value) {
                *v = value;
                return true;
            }
            if (i + 1 >= argc) {
                *err = name + " needs a value";
                return false;
            }
            *v = argv[++i];
            return true;
        };
        auto flag = [&]() {
            if (inline_value) {
                *err = name + " takes no value";
                return false;
            }
            return true;
        };
        std::string v;
        unsigned long long n = 0;
        if (name == "--help" || name == "-h") {
            *help = true;
            return true;
        } else if (name == "--pty") {
            if (!flag()) {
                return false;
            }
            opt->link = LinkKind::kTty;
            have_link = true;
        } else if (name == "--spi") {
            if (!need(&opt->spi_socket)) {
                return false;
            }
            opt->link = LinkKind::kSpi;
            have_link = true;
        } else if (name == "--id" || name == "--peer") {
            uint8_t b = 0;
            if (!need(&v) || !parse_hex_byte(v, &b)) {
                *err = err->empty() ? "bad " + name + " value" : *err;
                return false;
            }
            (name == "--id" ? opt->id : opt->peer) = b;
        } else if (name == "--strict-dest") {
            if (!flag()) {
                return false;
            }
            opt->strict_dest = true;
        } else if (name == "--spi-data-result") {
            if (!need(&v) || (v != "query" && v != "own")) {
                *err = "--spi-data-result takes query or own";
                return false;
            }
            opt->spi_data_result_own_id = v == "own";
        } else if (name == "--require-bootloader") {
            if (!flag()) {
                return false;
            }
            opt->require_bootloader = true;
        } else if (name == "--versions" || name == "--sn" || name == "--timeretry" ||
                   name == "--heartbeat") {
            Bytes* target = name == "--versions"    ? &opt->versions
                            : name == "--sn"        ? &opt->sn
                            : name == "--timeretry" ? &opt->timeretry
                                                    : &opt->heartbeat;
            if (!need(&v) || !parse_hex(v, target) || target->size() > kMaxPayload) {
                *err = err->empty() ? "bad " + name + " hex" : *err;
                return false;
            }
        } else if (name == "--flash-size") {
            if (!need(&v) || !parse_decimal(v, 0xFFFFFFFFULL, &n)) {
                *err = err->empty() ? "bad --flash-size" : *err;
                return false;
            }
            opt->flash_size = static_cast<uint32_t>(n);
        } else if (name == "--debug") {
            if (!need(&v) || !parse_debug(v, &opt->debug, err)) {
                return false;
            }
        } else if (name == "--rule") {
            Rule r;
            if (!need(&v) || !parse_rule(v, &r, err)) {
                return false;
            }
            opt->rules.push_back(r);
        } else if (name == "--emit") {
            Emit e;
            if (!need(&v) || !parse_emit(v, &e, err)) {
                return false;
            }
            opt->emits.push_back(e);
        } else if (name == "--emit-start" || name == "--exit-after" || name == "--rx-gap" ||
                   name == "--spi-latency" || name == "--baud" || name == "--seed") {
            if (!need(&v) || !parse_decimal(v, 0x7FFFFFFFULL, &n)) {
                *err = err->empty() ? "bad " + name + " value" : *err;
                return false;
            }
            if (name == "--emit-start") {
                opt->emit_start_ms = static_cast<int>(n);
            } else if (name == "--exit-after") {
                opt->exit_after_ms = static_cast<long>(n);
            } else if (name == "--rx-gap") {
                opt->rx_gap_ms = static_cast<int>(n);
            } else if (name == "--spi-latency") {
                opt->spi_latency = static_cast<int>(n);
            } else if (name == "--baud") {
                opt->baud = static_cast<long>(n);
            } else {
                opt->seed = static_cast<uint32_t>(n);
            }
        } else if (name == "--rx-extra") {
            if (!need(&v)) {
                return false;
            }
            if (v == "any") {
                opt->rx_crc.any = true;
            } else if (v == "none") {
                opt->rx_crc.none = true;
            } else if (!parse_hex_byte(v, &opt->rx_crc.extra)) {
                *err = "bad --rx-extra value";
                return false;
            }
        } else if (name == "--log" || name == "--raw" || name == "--image") {
            std::string* target = name == "--log"   ? &opt->log_path
                                  : name == "--raw" ? &opt->raw_path
                                                    : &opt->image_path;
            if (!need(target)) {
                return false;
            }
        } else {
            *err = "unknown option: " + name;
            return false;
        }
    }
    if (!have_link) {
        *err = "one of --pty or --spi SOCKET is required";
        return false;
    }
    if (opt->spi_latency < 1) {
        opt->spi_latency = 1;
    }
    return true;
}

}  // namespace vmcu
