#include "vmcu_options.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <map>

namespace vmcu {

namespace {

const char kHelp[] =
    "usage: vmcu (--pty | --spi SOCKET) [options]\n"
    "\n"
    "A virtual MCU (component id 0A) for end-to-end tests of mcu_tool2. It answers\n"
    "the tool's framed requests like the real MCU, with faults injected on demand.\n"
    "\n"
    "  --pty               serve on a new pseudo-terminal; prints 'pty: /dev/pts/N'\n"
    "  --spi SOCKET        serve the libvmcu_spidev.so shim on the unix socket\n"
    "                      SOCKET; prints 'spi: SOCKET'. Run the tool with\n"
    "                      LD_PRELOAD=libvmcu_spidev.so VMCU_SPI_SOCKET=SOCKET: any\n"
    "                      path containing 'spidev0.0' then opens this vmcu\n"
    "  --versions HEX      GET_VERSIONS payload (default the 16 bytes 01, 02 .. 10)\n"
    "  --sn HEX            GET_SN payload (default 'VMCU-SN-0123456789', 32 bytes)\n"
    "  --flash-size N      GET_APP_FLASHSIZE answer (default 1048576); ERASE and\n"
    "                      DOWNLOADING beyond it are refused\n"
    "  --timeretry HEX     GET_TIMERETRY payload (default eight LE u16: 1000, 3,\n"
    "                      240, 20, 2, 2, 2, 500)\n"
    "  --image FILE        write the received image here at APP_GO\n"
    "  --rx-extra HEX|any  CRC extra byte of received frames (default 00; any: any\n"
    "                      or none)\n"
    "  --baud N            TTY: act as a line of N baud (10 bits a byte): requests\n"
    "                      and answers take their wire time; logs 'RXTIME at MS\n"
    "                      span MS bytes N wire MS' for each received frame\n"
    "  --rule ID:ACTION[=ARG][*N]   (repeatable)\n"
    "                      for the next N requests (default 1, *0 forever) with id\n"
    "                      ID (hex, or * for any; polls are E0), in the order given:\n"
    "    silent            no answer, the request is not acted on\n"
    "    nak, code=N       refuse (TTY: NAK; SPI: result code 1 or N); code=0 is\n"
    "                      the normal answer\n"
    "    busy=MS           answer BUSY with delay MS (SPI: result 2 and the delay),\n"
    "                      the request is then answered at the next poll\n"
    "    xferfail          SPI: the transfer fails (EIO); TTY: as silent\n"
    "    noack             act on the request, answer nothing\n"
    "    ack               act on it, answer a plain ACK (SPI: result 0)\n"
    "    badcrc badsum biglen badseq badsys badcomp lowid long short=N garbage=N\n"
    "                      act on it, answer with a wrong CRC / header checksum /\n"
    "                      length E9FD / seq+1 / source / destination / id 207 / an\n"
    "                      extra byte / payload cut to N / N noise bytes first\n"
    "    otherid=HEX heartbeat debugreply=CODE\n"
    "                      act on it, answer with that id (SPI: result 0) / a\n"
    "                      heartbeat / a debug reply\n"
    "  --emit KIND@PERIOD_MS[*COUNT]   (repeatable) unsolicited frames to --peer:\n"
    "                      heartbeat (0E013214), syslog[=HEX], user=TEXT,\n"
    "                      frame=HEX (message id, then payload)\n"
    "  --emit-start MS     first emission after MS (default 300)\n"
    "  --peer HEX          destination id of unsolicited frames (default 02)\n"
    "  --log FILE          event log, a line an event: RX/TX <hex>, BAD <why>,\n"
    "                      TERMIOS, SPI MODE|SPEED|BITS|CONNECT|DISCONNECT,\n"
    "                      XFERFAIL, RULE, RESET, REQUEST_UPGRADE, ERASE, DUP,\n"
    "                      CRC ok|bad, APP_GO, NOTE, SHIM, DROP, EXIT\n"
    "  --raw FILE          TTY: every received byte; SPI: every non-zero transfer\n"
    "  --exit-after MS     exit after MS (default 0: run until stopped); on SIGTERM\n"
    "                      and SIGINT at once\n"
    "  --help              this text\n";

bool parse_number(const std::string& s, unsigned long long max, unsigned long long* out,
                  bool decimal = true) {
    if (s.empty() || s[0] == '-' ||
        (decimal && s.find_first_not_of("0123456789") != std::string::npos))
        return false;
    errno = 0;
    char* end = nullptr;
    *out = std::strtoull(s.c_str(), &end, 0);
    return errno == 0 && *end == '\0' && *out <= max;
}

bool parse_hex_byte(std::string s, uint8_t* out) {
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X'))
        s = s.substr(2);
    if (s.empty() || s.size() > 2 ||
        s.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return false;
    *out = static_cast<uint8_t>(std::strtoul(s.c_str(), nullptr, 16));
    return true;
}

// Splits "WHAT*N" into WHAT and N (no '*': `dflt`).
bool take_count(std::string* s, int dflt, int* n) {
    const size_t star = s->rfind('*');
    unsigned long long v = 0;
    if (star != std::string::npos && !parse_number(s->substr(star + 1), 1000000000, &v))
        return false;
    *n = star == std::string::npos ? dflt : static_cast<int>(v);
    *s = s->substr(0, star);
    return true;
}

// Splits "NAME=ARG" into NAME and ARG; true when there is an '='.
bool split_arg(const std::string& s, std::string* name, std::string* arg) {
    const size_t eq = s.find('=');
    *name = s.substr(0, eq);
    *arg = eq == std::string::npos ? "" : s.substr(eq + 1);
    return eq != std::string::npos;
}

// The rule actions by name, in the order of enum Action, and the largest
// argument each takes (0: none).
const char* const kActions[] = {
    "",       "silent",  "nak",       "code",       "busy",  "badcrc",  "badsum",
    "biglen", "badseq",  "badsys",    "badcomp",    "lowid", "garbage", "long",
    "short",  "otherid", "heartbeat", "debugreply", "ack",   "noack",   "xferfail"};
// code 255, busy 65535, garbage 1000000, short any, otherid a byte, debugreply any
const unsigned long long kMaxArg[] = {0, 0,       0, 255,        65535, 0, 0,          0, 0, 0, 0,
                                      0, 1000000, 0, UINT32_MAX, 255,   0, UINT32_MAX, 0, 0, 0};
static_assert(std::size(kActions) == std::size(kMaxArg));

bool parse_rule(std::string s, Rule* r) {
    r->text = s;
    const size_t colon = s.find(':');
    uint8_t id = 0;
    if (colon == std::string::npos ||
        (s.substr(0, colon) != "*" && !parse_hex_byte(s.substr(0, colon), &id)))
        return false;
    r->msgid = s[0] == '*' ? -1 : id;
    s = s.substr(colon + 1);
    if (!take_count(&s, 1, &r->remaining))
        return false;
    r->remaining = r->remaining == 0 ? -1 : r->remaining;
    std::string name;
    std::string arg;
    const bool has_arg = split_arg(s, &name, &arg);
    for (size_t i = 1; i < std::size(kActions); ++i) {
        if (name != kActions[i] || has_arg != (kMaxArg[i] > 0))
            continue;
        r->action = static_cast<Action>(i);
        unsigned long long v = 0;
        uint8_t b = 0;
        const bool ok = r->action == Action::kOtherId
                            ? parse_hex_byte(arg, &b) && (v = b, true)
                            : !has_arg || parse_number(arg, kMaxArg[i], &v, false);
        r->arg = static_cast<uint32_t>(v);
        return ok;
    }
    return false;
}

bool parse_emit(const std::string& s, Emit* e) {
    const size_t at = s.rfind('@');
    std::string timing = at == std::string::npos ? "" : s.substr(at + 1);
    std::string kind;
    std::string arg;
    unsigned long long period = 0;
    if (!take_count(&timing, -1, &e->count) || !parse_number(timing, 86400000, &period) ||
        period == 0)
        return false;
    e->period_ms = static_cast<int>(period);
    const bool has_arg = split_arg(s.substr(0, at), &kind, &arg);
    if (kind == "heartbeat" && !has_arg) {
        e->msgid = 208;
        e->payload.assign(std::begin(kHeartbeatPayload), std::end(kHeartbeatPayload));
    } else if (kind == "syslog") {  // by default event code 5, parameters 1, 2, 3, 4
        e->msgid = 229;
        if (!parse_hex(has_arg ? arg : "0500000001000000020000000300000004000000", &e->payload))
            return false;
    } else if (kind == "user" && has_arg) {
        e->msgid = 232;
        e->payload.assign(arg.begin(), arg.end());
    } else if (kind == "frame" && has_arg && parse_hex(arg, &e->payload) && !e->payload.empty()) {
        e->msgid = e->payload[0];
        e->payload.erase(e->payload.begin());
    } else {
        return false;
    }
    return e->payload.size() <= kMaxPayload;
}

}  // namespace

const char* help_text() {
    return kHelp;
}

bool parse_options(int argc, char** argv, Options* opt, bool* help, std::string* err) {
    *help = false;
    const std::string sn = "VMCU-SN-0123456789";
    opt->sn.assign(sn.begin(), sn.end());
    opt->sn.resize(32, 0);

    using Setter = std::function<bool(const std::string&)>;
    auto add = [](auto* list, auto parse) {
        return [list, parse](const std::string& v) {
            list->emplace_back();
            return parse(v, &list->back());
        };
    };
    auto hex = [](Bytes* b) {
        return [b](const std::string& v) { return parse_hex(v, b) && b->size() <= kMaxPayload; };
    };
    auto text = [](std::string* s) { return [s](const std::string& v) { return *s = v, true; }; };
    auto number = [](auto* n, unsigned long long max) {
        return [n, max](const std::string& v) {
            unsigned long long x = 0;
            if (!parse_number(v, max, &x))
                return false;
            *n = x;
            return true;
        };
    };
    const std::map<std::string, Setter> options = {
        {"--spi", text(&opt->spi_socket)},
        {"--peer", [&](const std::string& v) { return parse_hex_byte(v, &opt->peer); }},
        {"--versions", hex(&opt->versions)},
        {"--sn", hex(&opt->sn)},
        {"--timeretry", hex(&opt->timeretry)},
        {"--flash-size", number(&opt->flash_size, UINT32_MAX)},
        {"--emit-start", number(&opt->emit_start_ms, INT_MAX)},
        {"--exit-after", number(&opt->exit_after_ms, INT_MAX)},
        {"--baud", number(&opt->baud, INT_MAX)},
        {"--rule", add(&opt->rules, parse_rule)},
        {"--emit", add(&opt->emits, parse_emit)},
        {"--rx-extra",
         [&](const std::string& v) {
             opt->rx_crc.any = v == "any";
             return opt->rx_crc.any || parse_hex_byte(v, &opt->rx_crc.extra);
         }},
        {"--log", text(&opt->log_path)},
        {"--raw", text(&opt->raw_path)},
        {"--image", text(&opt->image_path)},
    };

    auto fail = [err](const std::string& why) {
        *err = why;
        return false;
    };
    bool have_link = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];  // --NAME VALUE or --NAME=VALUE
        std::string name = word;
        std::string value;
        const bool inline_value = word.rfind("--", 0) == 0 && split_arg(word, &name, &value);
        if ((name == "--help" || name == "-h") && !inline_value) {
            *help = true;
            return true;
        }
        if (name == "--pty" && !inline_value) {
            opt->link = LinkKind::kTty;
            have_link = true;
            continue;
        }
        const auto it = options.find(name);  // the options with a value
        if (it == options.end())
            return fail("unknown option: " + name);
        if (!inline_value && i + 1 >= argc)
            return fail(name + " needs a value");
        if (!inline_value)
            value = argv[++i];
        if (!it->second(value))
            return fail(std::string("bad ").append(name).append(" value: ").append(value));
        if (name == "--spi") {
            opt->link = LinkKind::kSpi;
            have_link = true;
        }
    }
    return have_link || fail("one of --pty or --spi SOCKET is required");
}

}  // namespace vmcu
