// Included once by each fuzz target (it defines): a property check that aborts (libFuzzer keeps
// the input); standard output to /dev/null, diagnostics counted; a virtual clock; a stand-in for
// the kernel calls that touches no device, its SPI transfers reaching a fake MCU.
#pragma once
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "mcu_tool2_internal.h"

#define FUZZ_CHECK(cond) \
    ((cond) ? (void)0    \
            : (fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond), abort()))

static size_t g_diag = 0;  // bytes of diagnostics
static int64_t g_now_us = 1700000000LL * 1000000;

static int count_print(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    return g_diag += static_cast<size_t>(n > 0 ? n : 0), n;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dup2(open("/dev/null", O_WRONLY), 1);
    pfn_print = count_print;
    return 0;
}

// Each clock reading advances by 1 ms (so every time-out runs out), each pause by its length.
extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) noexcept {
    g_now_us += 1000;
    *tv = {static_cast<time_t>(g_now_us / 1000000), static_cast<suseconds_t>(g_now_us % 1000000)};
    return 0;
}
extern "C" int nanosleep(const struct timespec* req, struct timespec*) {
    g_now_us += static_cast<int64_t>(req->tv_sec) * 1000000 + req->tv_nsec / 1000;
    return 0;
}

const unsigned int kTtyCbaudMask = 0, kTtyBotherFlag = 0;
int tty_set_custom_rate(int, int) {
    return -1;
}
bool tty_hung_up(int) {
    return false;
}
int spi_configure(int, uint8_t, uint32_t, uint8_t, const char**) {
    return 0;
}

// The fake MCU answers each request in the next transfer as its script chooses: <230 success,
// 230-239 a result code, 240-249 acted on but the answer lost, 250-254 silence, 255 a failed
// transfer. It keeps the firmware chunks it took, in order, once each.
struct FakeMcu {
    std::vector<uint8_t> script, received;
    size_t pos = 0;
    int last_seq = -1;
    uint8_t pending[SPI_BLOCK_SIZE] = {};  // the answer for the next transfer
} g_fake_mcu;

int spi_transfer(int, const uint8_t* tx, uint8_t* rx) {
    FakeMcu& f = g_fake_mcu;
    memcpy(rx, f.pending, SPI_BLOCK_SIZE);
    memset(f.pending, 0, SPI_BLOCK_SIZE);
    const ST_MavlinkMsg* req = reinterpret_cast<const ST_MavlinkMsg*>(tx);
    const uint8_t choice = req->magic != 0xFD || f.pos == f.script.size() ? 0 : f.script[f.pos++];
    if (req->magic != 0xFD || choice >= 250)  // a listening transfer, silence, a failed one
        return choice == 255 ? -1 : SPI_BLOCK_SIZE;
    const uint8_t code = choice < 230 ? RESULT_SUCCESS : choice % RESULT_CODE_MAX;
    // Success and busy both take the request (busy answers it at a later poll).
    if ((code == RESULT_SUCCESS || code == RESULT_BUSY) && req->msgid == CMD_DOWNLOADING &&
        std::exchange(f.last_seq, req->seq) != req->seq)
        f.received.insert(f.received.end(), req->data, req->data + frame_payload_len(req));
    if (choice >= 240)
        return SPI_BLOCK_SIZE;
    const uint8_t head[] = {0xFD, 1, 0, req->seq, req->sysid, req->compid, req->msgid};
    memcpy(f.pending, head, sizeof head);
    f.pending[7] = sum_u8(f.pending, 7);
    f.pending[8] = code;
    uint16_t crc = crc_calculate(f.pending + 1, 8);
    crc_accumulate(msg_crcs[req->msgid], &crc);
    memcpy(f.pending + 9, &crc, 2);  // little-endian, like the host
    return SPI_BLOCK_SIZE;
}
