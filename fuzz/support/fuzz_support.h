// Shared pieces of the libFuzzer targets: a failure report that stops the
// run, an independent frame CRC and reference parser (written from the wire
// format, not from the tool's code), output capture, the diagnostics sink, a
// frame builder for fake MCU answers and a virtual clock.
#ifndef MCU_FUZZ_SUPPORT_H
#define MCU_FUZZ_SUPPORT_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "mcu_tool2_internal.h"

// ---- failure reports -----------------------------------------------------
[[noreturn]] void fuzz_fail(const char* file, int line, const char* expr, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// Stops the run (abort, so libFuzzer keeps the input) when a property fails.
#define FUZZ_CHECK(cond, ...)                                  \
    do {                                                       \
        if (!(cond))                                           \
            fuzz_fail(__FILE__, __LINE__, #cond, __VA_ARGS__); \
    } while (0)

// ---- independent CRC and extra bytes ---------------------------------------
// CRC-16/MCRF4XX computed bit by bit (reflected polynomial 0x8408).
uint16_t ref_crc16_update(uint16_t crc, uint8_t b);
uint16_t ref_crc16(const uint8_t* p, size_t n, uint16_t crc = 0xFFFF);
// Per-message extra byte, from the protocol's own list of non-zero entries.
uint8_t ref_crc_extra(uint8_t msgid);

// ---- reference parser ------------------------------------------------------
struct RefChecks {
    bool crc = true;
    bool sys = true;
    bool comp = true;
    bool seq = true;
    bool msgid = true;
    uint8_t comp_id = 0;  // expected source of a reply
    uint8_t sys_id = 0;   // expected destination of a reply
    uint8_t tx_seq = 0;   // expected sequence number
    int extra = -1;       // extra byte for every id, or -1 for the per-message table
};

struct RefCounts {
    uint32_t lenFail = 0, sumFail = 0, crcFail = 0, sysFail = 0, compFail = 0, seqFail = 0,
             cmdFail = 0, rxPkts = 0, rxBytes = 0;
};

struct RefFrame {
    int ret = -1;           // 0 when a complete frame passed every enabled check
    bool complete = false;  // a whole frame was found (accepted or not)
    size_t start = 0;       // offset of its start byte
    size_t end = 0;         // offset just past the last byte looked at
    size_t payload_len = 0;
};

// First frame in p[0..n): what the tool's parser must make of the same bytes,
// with the counters it must add.
RefFrame ref_parse(const uint8_t* p, size_t n, const RefChecks& checks, RefCounts* counts);

// The receive counters of the tool's statistics record.
RefCounts stts_counts(const ST_MavlinkStts& st);
// Reports a counter that moved differently from the reference.
void check_counts(const RefCounts& before, const RefCounts& after, const RefCounts& expected,
                  const char* where);

// The 20 bytes a payload handler sees: payload, the two CRC bytes behind it,
// then the zeros of the cleared record.
std::vector<uint8_t> handler_view(const uint8_t* frame, size_t payload_len);
uint32_t le32(const uint8_t* p);

// Expected output of the tool's heartbeat and debug-reply printers.
std::string expect_heartbeat(const uint8_t* v);
// Text, and the result in *ret; *diag gets the (normalised) diagnostic.
std::string expect_debug(const uint8_t* v, int* ret, std::string* diag);
// Expected hexdump lines for len bytes, as the diagnostics sink normalises them.
std::string expect_hexdump(const uint8_t* p, size_t len);

// ---- frame builder -----------------------------------------------------------
std::vector<uint8_t> ref_build_frame(uint8_t msgid, uint8_t seq, uint8_t compid, uint8_t sysid,
                                     const uint8_t* payload, size_t len, uint8_t extra);

// ---- output --------------------------------------------------------------------
// Points the stdout descriptor at /dev/null for good (the engine and the
// actions print a lot); installs the quiet diagnostics sink.
void fuzz_quiet_init(void);

// Diagnostics sink: quiet by default. While collecting, each line is stored
// with its source line number removed ("func 123, msg" becomes "func: msg"),
// so expectations do not depend on line numbers.
void diag_collect(bool on, bool to_stdout = false);
const std::string& diag_text(void);

// Captures everything printed through stdio's stdout between begin and end.
void stdout_capture_begin(void);
std::string stdout_capture_end(void);

// ---- virtual clock -----------------------------------------------------------
// While on, gettimeofday and nanosleep of this process run on a virtual
// clock: a sleep advances it without waiting. When an idle descriptor is set,
// every reading of the clock while no byte is pending on it advances the
// clock by 1 ms (the line is silent, time passes). The service function runs
// at every reading and every sleep (a fake MCU answering in step with the
// tool).
void vclock_on(int idle_fd, void (*service)(void));
void vclock_off(void);

// Bytes waiting to be read on fd.
int pending_bytes(int fd);

#endif  // MCU_FUZZ_SUPPORT_H
