// Shared pieces of the unit tests: a fixture that puts the module state back
// to its start values around every test, a print function that collects the
// diagnostics, a settable wall clock, and a frame builder for parser input.
#ifndef MCU_UNIT_SUPPORT_H
#define MCU_UNIT_SUPPORT_H

#include <gtest/gtest.h>

#include <stdint.h>

#include <string>
#include <vector>

#include "mcu_tool2_internal.h"

namespace unit {

// Diagnostics collected by capture_print since the last clear_diag().
const std::string& diag();
void clear_diag();
// printf-like sink for pfn_print.
int capture_print(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// diag() with the source line numbers replaced by '#': "mcu_recv 123, x"
// reads "mcu_recv #, x" (also behind a "<sec.usec> " trace stamp).
std::string diag_lines();

// The wall clock seen by the module. While fixed, gettimeofday reports the
// given time; otherwise the real clock.
void fix_clock(int64_t sec, int64_t usec);
void fix_clock_ms(int64_t ms);
void advance_clock_ms(int64_t ms);
void release_clock();

// One frame as the MCU would send it: header sum over the first seven bytes,
// CRC-16 over bytes 1..7+N and then `extra` (by default msg_crcs[msgid]).
std::vector<uint8_t> make_frame(uint8_t seq, uint8_t compid, uint8_t sysid, uint8_t msgid,
                                const std::vector<uint8_t>& payload = {}, int extra = -1);

// The first n bytes of the transmit record.
std::vector<uint8_t> tx_bytes(int n);

// Resets the module and utils state before and after every test: checks on,
// debug level 0, diagnostics captured, statistics cleared, extra byte 0,
// target 1 / own id 2, sequence 0, SPI link kind (mcu_recv scans buffers).
class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // Runs fn with standard output captured and returns what it printed.
    template <typename Fn>
    std::string stdout_of(Fn fn) {
        ::testing::internal::CaptureStdout();
        fn();
        return ::testing::internal::GetCapturedStdout();
    }
};

}  // namespace unit

#endif  // MCU_UNIT_SUPPORT_H
