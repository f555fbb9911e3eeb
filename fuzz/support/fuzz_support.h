// Shared pieces of the libFuzzer targets: a property check that stops the
// run, quiet output with a count of what was printed, the check that an
// accepted frame passes every receive check the parser states, and a virtual
// clock (this process's own gettimeofday and nanosleep) so that pauses and
// time-outs cost no real time.
#ifndef MCU_FUZZ_SUPPORT_H
#define MCU_FUZZ_SUPPORT_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "mcu_tool2_internal.h"

// Stops the run (abort, so libFuzzer keeps the input) when a property fails.
#define FUZZ_CHECK(cond)                                                                \
    do {                                                                                \
        if (!(cond)) {                                                                  \
            fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #cond); \
            abort();                                                                    \
        }                                                                               \
    } while (0)

// Standard output to /dev/null; diagnostics counted, not printed.
void fuzz_quiet_init(void);
// Bytes of diagnostics since the last call.
size_t fuzz_diag_bytes(void);
// An accepted frame holds the header sum, the CRC with the message's extra
// byte, and the source, destination, sequence and id the enabled checks ask.
void fuzz_check_accepted(const ST_MavlinkMsg& m);

#endif  // MCU_FUZZ_SUPPORT_H
