// vmcu: a virtual MCU that answers mcu_tool2 over a pseudo-terminal or an
// emulated spidev, for end-to-end tests. See --help for the options.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "vmcu_link.h"

int main(int argc, char** argv) {
    vmcu::Options opt;
    bool help = false;
    std::string err;
    if (!vmcu::parse_options(argc, argv, &opt, &help, &err)) {
        std::fprintf(stderr, "vmcu: %s\n(see vmcu --help)\n", err.c_str());
        return 2;
    }
    if (help) {
        std::fputs(vmcu::help_text(), stdout);
        return 0;
    }
    vmcu::Logger log;
    if (!log.open(opt.log_path, opt.raw_path)) {
        std::fprintf(stderr, "vmcu: cannot open log: %s\n", std::strerror(errno));
        return 1;
    }
    vmcu::Runtime rt(opt);
    if (!rt.init()) {
        std::fprintf(stderr, "vmcu: cannot take the stop signals: %s\n", std::strerror(errno));
        return 1;
    }
    vmcu::Mcu mcu(opt, log);
    return opt.link == vmcu::LinkKind::kTty ? vmcu::run_pty(opt, mcu, log, rt)
                                            : vmcu::run_spi(opt, mcu, log, rt);
}
