#include "unit_support.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <regex>
#include <sstream>

namespace {

std::string g_diag;

bool g_clock_fixed = false;
int64_t g_clock_usec = 0;  // fixed time in microseconds since the epoch

}  // namespace

// The module reads the wall clock through gettimeofday only; this definition
// takes the place of the C library's in the test program, so a test can put
// the clock anywhere, including just before the 32-bit millisecond wrap.
extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict tz) __THROW {
    (void)tz;
    if (g_clock_fixed) {
        tv->tv_sec = static_cast<time_t>(g_clock_usec / 1000000);
        tv->tv_usec = static_cast<suseconds_t>(g_clock_usec % 1000000);
        return 0;
    }
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = static_cast<suseconds_t>(ts.tv_nsec / 1000);
    return 0;
}

namespace unit {

const std::string& diag() {
    return g_diag;
}

void clear_diag() {
    g_diag.clear();
}

int capture_print(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    va_list again;
    va_copy(again, ap);
    int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    if (n > 0) {
        std::string text(static_cast<size_t>(n) + 1, '\0');
        vsnprintf(&text[0], text.size(), fmt, again);
        text.resize(static_cast<size_t>(n));
        g_diag += text;
    }
    va_end(again);
    return n;
}

std::string diag_lines() {
    static const std::regex kPrefix(R"(^(<\d+\.\d{6}> )?(\w+) \d+, )");
    std::string out;
    std::istringstream in(g_diag);
    std::string line;
    while (std::getline(in, line)) {
        out +=
            std::regex_replace(line, kPrefix, "$1$2 #, ", std::regex_constants::format_first_only);
        out += '\n';
    }
    return out;
}

void fix_clock(int64_t sec, int64_t usec) {
    g_clock_fixed = true;
    g_clock_usec = sec * 1000000 + usec;
}

void fix_clock_ms(int64_t ms) {
    fix_clock(ms / 1000, (ms % 1000) * 1000);
}

void advance_clock_ms(int64_t ms) {
    g_clock_usec += ms * 1000;
}

void release_clock() {
    g_clock_fixed = false;
}

std::vector<uint8_t> make_frame(uint8_t seq, uint8_t compid, uint8_t sysid, uint8_t msgid,
                                const std::vector<uint8_t>& payload, int extra) {
    const size_t n = payload.size();
    std::vector<uint8_t> f = {
        0xFD, static_cast<uint8_t>(n & 0xFF), static_cast<uint8_t>(n >> 8), seq, compid, sysid,
        msgid};
    uint8_t sum = 0;
    for (uint8_t b : f)
        sum = static_cast<uint8_t>(sum + b);
    f.push_back(sum);
    f.insert(f.end(), payload.begin(), payload.end());
    uint16_t crc = crc_calculate(f.data() + 1, static_cast<uint16_t>(f.size() - 1));
    crc_accumulate(static_cast<uint8_t>(extra < 0 ? msg_crcs[msgid] : extra), &crc);
    f.push_back(static_cast<uint8_t>(crc & 0xFF));
    f.push_back(static_cast<uint8_t>(crc >> 8));
    return f;
}

std::vector<uint8_t> tx_bytes(int n) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&m_tx_msg);
    return std::vector<uint8_t>(p, p + n);
}

namespace {

void reset_module() {
    m_seq_check = 1;
    m_crc_check = 1;
    m_sys_id_check = 1;
    m_comp_id_check = 1;
    m_msgid_check = 1;
    m_crc_extra = 0;
    set_debug_level(DEBUG_LV_NONE);
    pfn_print = printf;
    set_comp_id(1);
    m_tx_seq = 0;
    clear_stts(&m_stts);
    g_diag.clear();
}

}  // namespace

void ModuleTest::SetUp() {
    release_clock();
    reset_module();
    set_print_fxn(reinterpret_cast<void*>(&capture_print));
    m_serial_type = SERIAL_TYPE_SPI;
}

void ModuleTest::TearDown() {
    release_clock();
    reset_module();
    m_serial_type = SERIAL_TYPE_TTY;
}

}  // namespace unit
