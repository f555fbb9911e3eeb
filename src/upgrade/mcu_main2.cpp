// mcu_tool2 command line: one left-to-right pass over the options. Settings
// take effect the moment they are met, device-free actions run at once and
// end the process, and every device action option only records the action
// (the last one wins); the recorded action runs once after the pass.
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "mcu_tool2_internal.h"

namespace {

// Option values and recorded actions.
enum EN_Operation {
    OP_NONE = 0,
    OP_SET_ID = 1,
    OP_SET_DEV = 2,
    OP_SET_SPEED = 3,
    OP_RESET = 4,
    OP_UPGRADE = 5,
    OP_UPGRADE_FW = 6,
    OP_VERSION = 7,
    OP_SENDRAW = 8,
    OP_WRITERAW = 9,
    OP_EXTRA_CRC = 10,
    OP_CALC_CRC16 = 11,
    OP_CALC_CRC32 = 12,
    OP_HEXDUMP = 13,
    OP_DATE = 14,
    OP_HELP = 15,
    OP_DEBUG = 16,
    OP_DUMP = 17,
    OP_GET_SN = 18,
    OP_GET_STTS = 19,
    OP_CLEAR_STTS = 20,
    OP_LOOPBACK = 21,
    OP_MONITOR = 22,
    OP_SENDRAW_MONITOR = 23,
    OP_SET_TIMEOUT = 24,
    OP_FLOOD_TEST = 25,
    OP_SET_LENGTH = 26,
    OP_SET_INTERVAL = 27,
    OP_SET_PATTERN = 28,
    OP_IGNORE_SEQ = 29,
    OP_GET_TIMEOUT_INTERVAL = 30,
    OP_MAX_VALUE = 31,
};

const char* const kToolVersion = "V1.3.01";

// Every row returns its EN_Operation value (null flag pointer).
const struct option long_options[] = {
    {"id", required_argument, nullptr, OP_SET_ID},
    {"dev", required_argument, nullptr, OP_SET_DEV},
    {"speed", required_argument, nullptr, OP_SET_SPEED},
    {"reset", required_argument, nullptr, OP_RESET},
    {"upgrade", required_argument, nullptr, OP_UPGRADE},
    {"upgrade-fw", required_argument, nullptr, OP_UPGRADE_FW},
    {"version", no_argument, nullptr, OP_VERSION},
    {"sendraw", required_argument, nullptr, OP_SENDRAW},
    {"writeraw", required_argument, nullptr, OP_WRITERAW},
    {"extra-crc", required_argument, nullptr, OP_EXTRA_CRC},
    {"calc-crc16", required_argument, nullptr, OP_CALC_CRC16},
    {"calc-crc32", required_argument, nullptr, OP_CALC_CRC32},
    {"hex-dump", required_argument, nullptr, OP_HEXDUMP},
    {"date", required_argument, nullptr, OP_DATE},
    {"help", no_argument, nullptr, OP_HELP},
    {"dd", no_argument, nullptr, OP_DEBUG},
    {"ddd", no_argument, nullptr, OP_DUMP},
    {"get-sn", no_argument, nullptr, OP_GET_SN},
    {"get-stts", no_argument, nullptr, OP_GET_STTS},
    {"clear-stts", no_argument, nullptr, OP_CLEAR_STTS},
    {"loopback", required_argument, nullptr, OP_LOOPBACK},
    {"monitor", required_argument, nullptr, OP_MONITOR},
    {"timeout", required_argument, nullptr, OP_SET_TIMEOUT},
    {"flood-test", required_argument, nullptr, OP_FLOOD_TEST},
    {"length", required_argument, nullptr, OP_SET_LENGTH},
    {"interval", required_argument, nullptr, OP_SET_INTERVAL},
    {"pattern", required_argument, nullptr, OP_SET_PATTERN},
    {"ignore-seq", no_argument, nullptr, OP_IGNORE_SEQ},
    {"get-timeretry", no_argument, nullptr, OP_GET_TIMEOUT_INTERVAL},
    {nullptr, 0, nullptr, 0},
};
static_assert(sizeof(long_options) / sizeof(long_options[0]) == 30,
              "29 long options and the terminator");

long hex_arg(const char* s) {
    return strtol(s, nullptr, 16);
}

// --get-timeretry: query the MCU's upgrade parameters and print three of
// them as received. The only action whose failure sets the exit status.
int get_timeretry(void) {
    if (link_up(__func__, "no target specified") < 0)
        return -1;
    ST_TimeRetryCmd cmd;
    memset(&cmd, 0, sizeof cmd);
    int ret = mcu_getMcuUpgradeParam(&cmd);
    if (ret == 0) {
        printf("get timeout: %d, retrys: %d, pksize: %d\n", cmd.program_timeoutms,
               cmd.program_retrys, cmd.program_pksize);
    } else if (ret == -3) {
        printf("get MCU upgrade param TIMEOUT\n");
    } else {
        printf("get MCU upgrade param FAIL\n");
    }
    fflush(stdout);
    mcu_uninit();
    return ret == 0 ? 0 : -1;
}

}  // namespace

void show_version(void) {
    printf("%s Build %s %s\n", kToolVersion, __DATE__, __TIME__);
    fflush(stdout);
}

void usage(const char* progname) {
    static const char* const lines[] = {
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
    printf("usage: \n");
    for (const char* line : lines)
        printf(line, progname);
    fflush(stdout);
}

int main(int argc, char** argv) {
    // Every line reaches a pipe or a log collector as it is printed, not when
    // stdio's buffer fills, so a reader sees the monitor and the traces live
    // and a killed tool loses nothing it printed.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    int action = OP_NONE;
    int timeout = 10;
    int loopback = 0;
    int count = 10000;
    int length = 80;
    int interval = 10;
    int pattern = 0x55;
    int msgid = 0xff;
    int reset_type = RESET_TYPE_DRYRUN;
    const char* firmware_filename = nullptr;
    const char* str_arg = nullptr;

    for (;;) {
        // A setter that refuses its value ends the run with the usage text.
        bool refused = false;
        int option_index = 0;
        int c = getopt_long_only(argc, argv, "vu:r:hd", long_options, &option_index);
        if (c == -1)
            break;
        switch (c) {
            case OP_SET_ID:
                refused = set_comp_id(static_cast<uint8_t>(hex_arg(optarg))) < 0;
                break;
            case OP_SET_DEV:
                refused = set_serial_dev(optarg) < 0;
                break;
            case OP_SET_SPEED:
                refused = set_serial_speed(atoi(optarg)) < 0;
                break;
            case 'r':
            case OP_RESET:
                reset_type = atoi(optarg);
                action = OP_RESET;
                break;
            case 'u':
            case OP_UPGRADE:
                action = OP_UPGRADE;
                set_upgrade_type(UPGRADE_TYPE_NORMAL);
                firmware_filename = optarg;
                break;
            case OP_UPGRADE_FW:
                action = OP_UPGRADE;
                set_upgrade_type(UPGRADE_TYPE_FW_ONLY);
                firmware_filename = optarg;
                break;
            case 'v':
            case OP_VERSION:
                action = OP_VERSION;
                break;
            case OP_SENDRAW:
                action = OP_SENDRAW;
                str_arg = optarg;
                break;
            case OP_WRITERAW:
                action = OP_WRITERAW;
                str_arg = optarg;
                break;
            case OP_EXTRA_CRC:
                refused = set_crc_extra(static_cast<uint8_t>(hex_arg(optarg))) < 0;
                break;
            case OP_CALC_CRC16:
                if (mcu_crc16(optarg) < 0)
                    usage(argv[0]);
                return 0;
            case OP_CALC_CRC32:
                if (mcu_crc32(optarg) < 0)
                    usage(argv[0]);
                return 0;
            case OP_HEXDUMP:
                hexdump(reinterpret_cast<const unsigned char*>(optarg),
                        static_cast<unsigned short>(strlen(optarg)));
                return 0;
            case OP_DATE:
                mcu_date(atoi(optarg));
                return 0;
            case '?':
            case 'h':
            case OP_HELP:
                show_version();
                usage(argv[0]);
                return 0;
            case 'd':
                set_debug_level(DEBUG_LV_DEBUG);
                break;
            case OP_DEBUG:
                set_debug_level(DEBUG_LV_DUMP);
                break;
            case OP_DUMP:
                set_debug_level(DEBUG_LV_FULLDUMP);
                break;
            case OP_GET_SN:
                action = OP_GET_SN;
                break;
            case OP_GET_STTS:
                action = OP_GET_STTS;
                break;
            case OP_CLEAR_STTS:
                action = OP_CLEAR_STTS;
                break;
            case OP_LOOPBACK:
                action = OP_LOOPBACK;
                loopback = atoi(optarg);
                break;
            case OP_MONITOR:
                action = (action == OP_SENDRAW) ? OP_SENDRAW_MONITOR : OP_MONITOR;
                msgid = static_cast<int>(hex_arg(optarg));
                break;
            case OP_SET_TIMEOUT:
                timeout = atoi(optarg);
                break;
            case OP_FLOOD_TEST:
                action = OP_FLOOD_TEST;
                count = atoi(optarg);
                break;
            case OP_SET_LENGTH:
                length = atoi(optarg);
                break;
            case OP_SET_INTERVAL:
                interval = atoi(optarg);
                break;
            case OP_SET_PATTERN:
                pattern = static_cast<int>(hex_arg(optarg));
                break;
            case OP_IGNORE_SEQ:
                set_seq_check(0);
                break;
            case OP_GET_TIMEOUT_INTERVAL:
                action = OP_GET_TIMEOUT_INTERVAL;
                break;
            case 0:
                break;
            default:
                printf("?? getopt returned character code 0%o ??\n", static_cast<unsigned>(c));
                break;
        }
        if (refused) {
            usage(argv[0]);
            return 0;
        }
    }

    if (optind < argc) {
        printf("non-option ARGV-elements: ");
        while (optind < argc)
            printf("%s ", argv[optind++]);
        printf("\n");
        fflush(stdout);
    }

    switch (action) {
        case OP_NONE:
            show_version();
            break;
        case OP_RESET:
            mcu_reset(static_cast<uint16_t>(reset_type));
            break;
        case OP_UPGRADE:
            mcu_upgrade(firmware_filename);
            break;
        case OP_VERSION:
            mcu_version();
            break;
        case OP_SENDRAW:
            mcu_sendraw(str_arg);
            break;
        case OP_WRITERAW:
            mcu_writeraw(str_arg);
            break;
        case OP_GET_SN:
            mcu_serial();
            break;
        case OP_GET_STTS:
            mcu_debug_get_stts();
            break;
        case OP_CLEAR_STTS:
            mcu_debug_clear_stts();
            break;
        case OP_LOOPBACK:
            mcu_debug_set_message_loopback(loopback);
            break;
        case OP_MONITOR:
            mcu_monitor_message(static_cast<uint8_t>(msgid), timeout);
            break;
        case OP_SENDRAW_MONITOR:
            mcu_sendraw_then_monitor(str_arg, static_cast<uint8_t>(msgid), timeout);
            break;
        case OP_FLOOD_TEST:
            mcu_debug_message_send_test(count, length, interval, static_cast<uint8_t>(pattern));
            break;
        case OP_GET_TIMEOUT_INTERVAL:
            if (get_timeretry() < 0)
                return -1;
            break;
        default:
            break;
    }
    return 0;
}
