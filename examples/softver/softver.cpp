// softver: prints the software version of one MCU component, using the
// mcu_tool2 library instead of the mcu_tool2 program.
//
//   softver ID           mcu_get_softver(): the component's default device
//                        (/dev/ttyACM0 for ids 0x19-0x1b, /dev/ttyS2 otherwise)
//   softver ID DEVICE    set_comp_id() and set_serial_dev(), then
//                        mcu_version(): all four versions, from DEVICE
//
// mcu_get_softver() selects the component itself with set_comp_id(), which
// puts the component's default device back in place, so a device chosen with
// set_serial_dev() beforehand does not reach it. Programs that talk to another
// device use the setters and the actions that run on the current settings.
//
// The library's diagnostics ("<function> <line>, <message>") are routed to
// standard error with a prefix; its results (the "open" line, versions, link
// statistics) go to standard output, as in the mcu_tool2 program.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "mcu_tool2.h"

namespace {

int print_diagnostic(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("softver: mcu_tool2: ", stderr);
    int n = vfprintf(stderr, fmt, ap);
    va_end(ap);
    return n;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s ID [DEVICE]   (ID in hex, e.g. 0xA)\n", argv[0]);
        return 2;
    }
    uint8_t id = static_cast<uint8_t>(strtol(argv[1], nullptr, 16));
    if (id == DEV_NONE) {
        fprintf(stderr, "softver: no component id in '%s'\n", argv[1]);
        return 2;
    }

    set_print_fxn(reinterpret_cast<void*>(&print_diagnostic));

    if (argc == 3) {
        // Order matters: set_comp_id() resets the device path.
        set_comp_id(id);
        if (set_serial_dev(argv[2]) < 0)
            return 2;
        int ret = mcu_version();
        if (ret < 0) {
            fprintf(stderr, "softver: no versions from component 0x%02x (%d)\n", id, ret);
            return 1;
        }
        return 0;
    }

    char version[32] = {};
    int ret = mcu_get_softver(id, version, sizeof version);
    if (ret < 0) {
        fprintf(stderr, "softver: no version from component 0x%02x (%d)\n", id, ret);
        return 1;
    }
    printf("component 0x%02x software version %s\n", id, version);
    return 0;
}
