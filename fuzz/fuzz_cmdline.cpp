// Command lines through the option parser and the device-free actions.
// Input: up to 24 arguments separated by zero bytes. A vector is skipped when
// it could name a target, a device or a file (an option name that is a prefix
// of id, dev, upgrade, upgrade-fw or calc-crc32, or a short-option cluster
// with 'u'), so every device action refuses before it opens anything.
// Properties: main returns 0, or -1 (status 255) for --get-timeretry; the
// link never comes up; diagnostics stay bounded.
#include <getopt.h>

#include "fuzz_support.h"

int mcu_tool2_main(int argc, char** argv);

static bool unsafe(const std::string& arg) {
    size_t i = arg.find_first_not_of('-');
    std::string name = i == std::string::npos ? "" : arg.substr(i, arg.find('=', i) - i);
    for (const char* g : {"id", "dev", "upgrade", "upgrade-fw", "calc-crc32"})
        if (!name.empty() && strncmp(g, name.c_str(), name.size()) == 0)
            return true;
    return i == 1 && name.find('u') != std::string::npos;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> args = {"mcu_tool2"};
    for (size_t i = 0; i < size; i += args.back().size() + 1) {
        args.emplace_back(reinterpret_cast<const char*>(data + i),
                          strnlen(reinterpret_cast<const char*>(data + i), size - i));
        if (args.size() > 25 || unsafe(args.back()))
            return 0;
    }
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    optind = 0;  // what a previous run changed
    opterr = 0;  // the option parser's complaints, which would drown the fuzzer's report
    set_comp_id(DEV_NONE);
    set_serial_speed(115200);
    set_crc_extra(0);
    set_upgrade_type(UPGRADE_TYPE_NORMAL);
    set_seq_check(1);
    set_debug_level(DEBUG_LV_NONE);
    m_stts.msStart = 0x5A5A5A5A;
    int ret = mcu_tool2_main(static_cast<int>(args.size()), argv.data());
    FUZZ_CHECK(ret == 0 || ret == -1);
    FUZZ_CHECK(m_serial_fd == -1 && m_stts.msStart == 0x5A5A5A5A);  // no mcu_init ran
    set_debug_level(DEBUG_LV_NONE);
    FUZZ_CHECK(fuzz_diag_bytes() <= 16384 + 64 * size);
    return 0;
}
