// Command lines through the option parser and the device-free actions. Input: up to 24
// arguments separated by zero bytes; skipped when one could name a target, a device or a file (an
// option name that is a prefix of id, dev, upgrade, upgrade-fw or calc-crc32, or a short-option
// cluster with 'u'), so every device action refuses before it opens anything.
// Properties: main returns 0 or -1; the link never comes up; diagnostics stay bounded.
#include <getopt.h>

#include <string>

#include "fuzz.h"

int mcu_tool2_main(int argc, char** argv);

static bool unsafe(const std::string& arg) {
    size_t i = arg.find_first_not_of('-');
    std::string name = i == std::string::npos ? "" : arg.substr(i, arg.find('=', i) - i);
    for (const char* g : {"id", "dev", "upgrade", "upgrade-fw", "calc-crc32"})
        if (!name.empty() && strncmp(g, name.c_str(), name.size()) == 0)
            return true;
    return i == 1 && name.find('u') != std::string::npos;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);  // ends in a zero byte
    std::vector<char*> argv = {const_cast<char*>("mcu_tool2")};
    for (char* arg = text.data(); arg < text.data() + size; arg += strlen(arg) + 1) {
        if (argv.size() > 24 || unsafe(arg))
            return 0;
        argv.push_back(arg);
    }
    argv.push_back(nullptr);
    optind = 0;  // what a previous run changed
    opterr = 0;  // the option parser's complaints, which would drown the fuzzer's report
    set_comp_id(DEV_NONE);
    set_debug_level(DEBUG_LV_NONE);
    m_stts.msStart = 0x5A5A5A5A;  // what bringing the link up would set
    int ret = mcu_tool2_main(static_cast<int>(argv.size() - 1), argv.data());
    FUZZ_CHECK((ret == 0 || ret == -1) && m_serial_fd == -1 && m_stts.msStart == 0x5A5A5A5A);
    FUZZ_CHECK(std::exchange(g_diag, 0) <= 16384 + 64 * size);
    return 0;
}
