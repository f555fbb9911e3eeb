// Command lines through the option parser and the device-free actions.
//
// Input: the arguments, separated by zero bytes (at most 24 of them).
//
// Safety: an argument vector is skipped when it could name a device, a target
// or a file: an argument whose name (leading dashes and any "=value" removed)
// is a prefix of id, dev, upgrade, upgrade-fw or calc-crc32, or a single-dash
// argument containing 'u' (which getopt_long_only may take as the short
// upgrade option, in a cluster such as -du). With no target every device
// action then refuses before it opens anything.
//
// Properties:
// - main returns 0, or -1 only for --get-timeretry refused for lack of a
//   target (and then always);
// - the link is never brought up (no descriptor, statistics never cleared);
// - a parser complaint on the standard error is followed by exactly the
//   version line and the usage text, and nothing else is on the standard
//   output;
// - output that ends with the usage text (complete, naming argv[0]) has
//   nothing before it but the version line, or nothing at all when a setting
//   or a CRC-16 string was refused.
#include <getopt.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "fuzz_support.h"

int mcu_tool2_main(int argc, char** argv);

namespace {

constexpr int kMaxArgs = 24;
const char* const kProg = "mcu_tool2";
constexpr int32_t kUntouched = 0x5A5A5A5A;

bool unsafe(const std::string& arg) {
    static const char* const kGuarded[] = {"id", "dev", "upgrade", "upgrade-fw", "calc-crc32"};
    if (arg == "-u")
        return true;
    size_t i = 0;
    while (i < arg.size() && arg[i] == '-')
        i++;
    std::string name = arg.substr(
        i, arg.find('=', i) == std::string::npos ? std::string::npos : arg.find('=', i) - i);
    if (!name.empty()) {
        for (const char* g : kGuarded) {
            if (strncmp(g, name.c_str(), name.size()) == 0)
                return true;
        }
    }
    if (i == 1 && name.find('u') != std::string::npos)
        return true;
    return false;
}

// Grabs what getopt prints on the standard error.
char* g_err_buf = nullptr;
size_t g_err_len = 0;

std::string usage_text(void) {
    std::string u = "usage: \n";
    static const char* const kLines[] = {
        "   Reset component: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --reset [type]\n",
        "     Query version: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --version\n",
        "  Firmware upgrade: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --upgrade | --upgrade-fw "
        "[filename]\n",
        "  Send raw message: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --sendraw [hex_string]\n",
        "    Write raw data: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --writeraw "
        "[hex_string]\n",
        "Message statistics: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --get-stts | "
        "--clear-stts\n",
        "  Message loopback: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --loopback 0 | 1\n",
        "Message flood test: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --flood-test [count] "
        "[length] [interval] [pattern]\n",
        " Monitor component: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --monitor [msgid] "
        "[seconds]\n",
        " Specify extra crc: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --extra-crc [hex_char]\n",
        "   Calc file crc32: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --calc-crc32 "
        "[filename]\n",
        "Calc message crc16: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --calc-crc16 "
        "[hex_string]\n",
        "   hex dump string: %s -id 0xA [-dev /dev/ttyS0] [-speed 115200] --hex-dump "
        "[char_string]\n",
    };
    char line[200];
    for (const char* l : kLines) {
        snprintf(line, sizeof line, l, kProg);
        u += line;
    }
    return u;
}

bool ends_with(const std::string& s, const std::string& tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> args;
    size_t i = 0;
    while (i < size) {
        const char* p = reinterpret_cast<const char*>(data + i);
        size_t l = strnlen(p, size - i);
        args.emplace_back(p, l);
        if (args.size() > kMaxArgs)
            return 0;
        i += l + 1;
    }
    for (const std::string& a : args) {
        if (unsafe(a))
            return 0;
    }
    std::vector<char*> argv;
    std::string prog = kProg;
    argv.push_back(&prog[0]);
    for (std::string& a : args)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);

    // The settings a previous run may have changed.
    optind = 0;
    set_comp_id(DEV_NONE);
    set_serial_dev("/dev/ttyS2");
    set_serial_speed(115200);
    set_crc_extra(0);
    set_upgrade_type(UPGRADE_TYPE_NORMAL);
    set_seq_check(1);
    set_debug_level(DEBUG_LV_NONE);
    m_serial_fd = -1;
    memset(&m_stts, 0, sizeof m_stts);
    m_stts.msStart = kUntouched;

    FILE* saved_err = stderr;
    stderr = open_memstream(&g_err_buf, &g_err_len);
    diag_collect(true);
    stdout_capture_begin();
    int ret = mcu_tool2_main(static_cast<int>(argv.size() - 1), argv.data());
    std::string out = stdout_capture_end();
    fclose(stderr);
    stderr = saved_err;
    std::string err(g_err_buf, g_err_len);
    free(g_err_buf);
    g_err_buf = nullptr;
    std::string diag = diag_text();
    diag_collect(false);
    set_debug_level(DEBUG_LV_NONE);

    // The refusal is the run's last diagnostic (a hex dump or a string in an
    // earlier diagnostic cannot end with this line).
    bool timeretry_refused = ends_with(diag, "get_timeretry: no target specified\n");
    FUZZ_CHECK(ret == 0 || ret == -1, "main returned %d", ret);
    FUZZ_CHECK((ret == -1) == timeretry_refused, "main returned %d, timeretry refusal %d", ret,
               timeretry_refused);
    // mcu_init stamps the statistics; it never ran, so no device was opened.
    FUZZ_CHECK(m_serial_fd == -1 && m_stts.msStart == kUntouched, "the link was brought up");

    const std::string usage = usage_text();
    const std::string version = "V1.3.01 Build ";
    if (!err.empty()) {
        // A complaint ends the parse: the version line, the usage, nothing else.
        FUZZ_CHECK(out.compare(0, version.size(), version) == 0 && ends_with(out, usage) &&
                       out.find('\n') + 1 == out.size() - usage.size(),
                   "parser complaint '%s' without version and usage:\n%s", err.c_str(),
                   out.c_str());
    }
    if (ends_with(out, usage)) {
        // Either help (or a complaint) after the version line, or a refused
        // setting or CRC-16 string with nothing before it.
        std::string before = out.substr(0, out.size() - usage.size());
        if (before.empty())
            FUZZ_CHECK(ends_with(diag, "zero speed\n") ||
                           ends_with(diag, "mcu_crc16: string convert to hex fail\n"),
                       "usage without a reason:\n%s", diag.c_str());
        else
            FUZZ_CHECK(before.compare(0, version.size(), version) == 0 &&
                           before.find('\n') + 1 == before.size(),
                       "usage after unexpected output:\n%s", out.c_str());
    }
    return 0;
}
