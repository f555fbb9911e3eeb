// Shared pieces of the fuzz targets; see fuzz_support.h.
#include "fuzz_support.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

void fuzz_fail(const char* file, int line, const char* expr, const char* fmt, ...) {
    fflush(stdout);
    fprintf(stderr, "\n==== property violated at %s:%d: %s\n     ", file, line, expr);
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fprintf(stderr, "\n");
    fflush(stderr);
    abort();
}

// ---- CRC ---------------------------------------------------------------------

uint16_t ref_crc16_update(uint16_t crc, uint8_t b) {
    crc = static_cast<uint16_t>(crc ^ b);
    for (int i = 0; i < 8; i++)
        crc = static_cast<uint16_t>((crc & 1) ? (crc >> 1) ^ 0x8408 : crc >> 1);
    return crc;
}

uint16_t ref_crc16(const uint8_t* p, size_t n, uint16_t crc) {
    for (size_t i = 0; i < n; i++)
        crc = ref_crc16_update(crc, p[i]);
    return crc;
}

uint8_t ref_crc_extra(uint8_t msgid) {
    // id, extra: the 61 non-zero entries; every other id has 0.
    static const uint8_t kPairs[][2] = {
        {0, 34},    {1, 187},   {3, 18},    {4, 233},  {15, 142},  {17, 220},  {18, 22},
        {19, 172},  {20, 15},   {24, 128},  {25, 241}, {26, 148},  {27, 46},   {28, 196},
        {29, 142},  {30, 42},   {31, 107},  {32, 163}, {40, 133},  {41, 225},  {42, 76},
        {43, 37},   {44, 5},    {48, 96},   {49, 12},  {50, 194},  {51, 122},  {55, 163},
        {56, 250},  {57, 198},  {60, 147},  {61, 138}, {65, 119},  {66, 122},  {70, 147},
        {71, 162},  {72, 137},  {73, 196},  {74, 190}, {75, 234},  {76, 182},  {77, 32},
        {96, 51},   {97, 142},  {98, 54},   {99, 164}, {100, 65},  {101, 143}, {102, 249},
        {103, 244}, {112, 39},  {113, 60},  {114, 34}, {116, 125}, {117, 173}, {118, 79},
        {144, 225}, {150, 240}, {160, 235}, {161, 95}, {162, 134},
    };
    static_assert(sizeof kPairs / sizeof kPairs[0] == 61, "61 non-zero extra bytes");
    for (const auto& p : kPairs) {
        if (p[0] == msgid)
            return p[1];
    }
    return 0;
}

// ---- reference parser --------------------------------------------------------

RefFrame ref_parse(const uint8_t* p, size_t n, const RefChecks& c, RefCounts* k) {
    RefFrame f;
    size_t i = 0;
    while (i < n) {
        if (p[i] != 0xFD) {
            i++;
            continue;
        }
        size_t s = i;
        // Length: both bytes must be there before it can be judged.
        if (s + 2 >= n)
            break;
        size_t len = static_cast<size_t>(p[s + 1]) | (static_cast<size_t>(p[s + 2]) << 8);
        if (len > 65000) {
            k->lenFail++;
            i = s + 3;
            continue;
        }
        // Header sum over the first seven bytes, start byte included.
        if (s + 7 >= n)
            break;
        uint8_t sum = 0;
        for (size_t j = 0; j < 7; j++)
            sum = static_cast<uint8_t>(sum + p[s + j]);
        if (sum != p[s + 7]) {
            k->sumFail++;
            i = s + 8;
            continue;
        }
        if (s + 10 + len > n)
            break;
        f.complete = true;
        f.start = s;
        f.end = s + 10 + len;
        f.payload_len = len;
        const uint8_t* fr = p + s;
        uint8_t msgid = fr[6];
        uint16_t crc = ref_crc16(fr + 1, 7 + len);
        crc = ref_crc16_update(crc,
                               c.extra >= 0 ? static_cast<uint8_t>(c.extra) : ref_crc_extra(msgid));
        uint16_t got = static_cast<uint16_t>(fr[8 + len] | (fr[9 + len] << 8));
        bool bad = false;
        if (c.crc && got != crc) {
            k->crcFail++;
            bad = true;
        }
        if (c.sys && fr[5] != c.comp_id) {
            k->sysFail++;
            bad = true;
        }
        if (c.comp && fr[4] != c.sys_id) {
            k->compFail++;
            bad = true;
        }
        if (c.seq && fr[3] != c.tx_seq) {
            k->seqFail++;
            bad = true;
        }
        if (c.msgid && msgid < 208) {
            k->cmdFail++;
            bad = true;
        }
        if (!bad) {
            k->rxPkts++;
            k->rxBytes += static_cast<uint32_t>(len);
            f.ret = 0;
        }
        return f;
    }
    f.end = n;
    return f;
}

RefCounts stts_counts(const ST_MavlinkStts& st) {
    RefCounts r;
    r.lenFail = st.lenFail;
    r.sumFail = st.sumFail;
    r.crcFail = st.crcFail;
    r.sysFail = st.sysFail;
    r.compFail = st.compFail;
    r.seqFail = st.seqFail;
    r.cmdFail = st.cmdFail;
    r.rxPkts = st.rxPkts;
    r.rxBytes = st.rxBytes;
    return r;
}

void check_counts(const RefCounts& b, const RefCounts& a, const RefCounts& e, const char* where) {
#define CHECK_COUNTER(f)                                                                     \
    FUZZ_CHECK(a.f - b.f == e.f, "%s: counter " #f " moved by %u, reference says %u", where, \
               a.f - b.f, e.f)
    CHECK_COUNTER(lenFail);
    CHECK_COUNTER(sumFail);
    CHECK_COUNTER(crcFail);
    CHECK_COUNTER(sysFail);
    CHECK_COUNTER(compFail);
    CHECK_COUNTER(seqFail);
    CHECK_COUNTER(cmdFail);
    CHECK_COUNTER(rxPkts);
    CHECK_COUNTER(rxBytes);
#undef CHECK_COUNTER
}

std::vector<uint8_t> handler_view(const uint8_t* frame, size_t payload_len) {
    std::vector<uint8_t> v(frame + 8, frame + 10 + payload_len);
    if (v.size() < 32)
        v.resize(32, 0);
    return v;
}

uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

namespace {

std::string fmt(const char* f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char* f, ...) {
    char buf[256];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

}  // namespace

std::string expect_heartbeat(const uint8_t* v) {
    std::string s = "---------- [HEARBEAT] -----------\n";
    s += fmt("  device type: %d (0x%02x)\n", v[0], v[0]);
    s += fmt("device status: %d (0x%02x)\n", v[1], v[1]);
    s += fmt("    cpu usage: %d (0x%02x)\n", v[2], v[2]);
    s += fmt("    mem usage: %d (0x%02x)\n", v[3], v[3]);
    return s;
}

std::string expect_debug(const uint8_t* v, int* ret, std::string* diag) {
    static const char* const kCounters[] = {
        "RX BYTES:       ", "RX FRAMES:      ", "RX MESSAGES:    ", "RX CRC FAILS:   ",
        "RX LEN FAILS:   ", "RX SUM FAILS:   ", "RX MEM FAILS:   ", "RX DUP SEQ:     ",
        "TX BYTES:       ", "TX FRAMES:      ", "TX MESSAGES:    ", "TX SEND FAILS:  ",
        "TX MEM FAILS:   ", "TX RETRY FAILS: ", "HANDLE FAILS:   ", "RELAY MESSAGES: ",
        "RELAY FAILS:    ",
    };
    uint32_t code = le32(v);
    uint32_t p0 = le32(v + 4), p1 = le32(v + 8), p2 = le32(v + 12), p3 = le32(v + 16);
    *ret = 0;
    diag->clear();
    if (code == 0)
        return "";
    if (code == 1)
        return fmt("TIME SYNC: 0x%08x 0x%08x\n", p1, p0);
    if (code == 2)
        return p0 != 0 ? "Set message loopback: success\n" : "Set message loopback: fail\n";
    if (code == 3)
        return "CLEAR ALL\n";
    if (code >= 4 && code <= 20)
        return std::string(kCounters[code - 4]) + fmt("%d\n", static_cast<int32_t>(p0));
    if (code == 32 || code == 33) {
        const char* u = code == 32 ? "CPU" : "Mem";
        return fmt(
            "%s0 Usage:     %08u\n%s0 Usage Max: %08u\n%s1 Usage:     %08u\n"
            "%s1 Usage Max: %08u\n",
            u, p0, u, p1, u, p2, u, p3);
    }
    *ret = -2;
    *diag = fmt("mcu_debug: msg->debugcode 0x%08x error\n\n", code);
    return "";
}

std::string expect_hexdump(const uint8_t* p, size_t len) {
    std::string s;
    for (size_t ofs = 0; ofs < len; ofs += 16) {
        s += fmt("%03d: ", static_cast<int>(ofs));
        for (size_t i = 0; i < 16; i++)
            s += ofs + i < len ? fmt("%02x ", p[ofs + i]) : std::string("   ");
        s += "  ";
        for (size_t i = 0; i < 16 && ofs + i < len; i++) {
            uint8_t c = p[ofs + i];
            s += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '.';
        }
        s += "\n";
    }
    return s;
}

std::vector<uint8_t> ref_build_frame(uint8_t msgid, uint8_t seq, uint8_t compid, uint8_t sysid,
                                     const uint8_t* payload, size_t len, uint8_t extra) {
    std::vector<uint8_t> f = {0xFD,
                              static_cast<uint8_t>(len & 0xFF),
                              static_cast<uint8_t>(len >> 8),
                              seq,
                              compid,
                              sysid,
                              msgid,
                              0};
    for (size_t j = 0; j < 7; j++)
        f[7] = static_cast<uint8_t>(f[7] + f[j]);
    if (len > 0)
        f.insert(f.end(), payload, payload + len);
    uint16_t crc = ref_crc16_update(ref_crc16(f.data() + 1, f.size() - 1), extra);
    f.push_back(static_cast<uint8_t>(crc & 0xFF));
    f.push_back(static_cast<uint8_t>(crc >> 8));
    return f;
}

// ---- output ----------------------------------------------------------------------

namespace {

bool g_collect = false;
bool g_to_stdout = false;
std::string g_diag;

int diag_sink(const char* f, ...) {
    if (!g_collect)
        return 0;
    va_list ap;
    va_start(ap, f);
    va_list ap2;
    va_copy(ap2, ap);
    int n = vsnprintf(nullptr, 0, f, ap);
    va_end(ap);
    std::string line(static_cast<size_t>(n > 0 ? n : 0), '\0');
    if (n > 0)
        vsnprintf(&line[0], line.size() + 1, f, ap2);
    va_end(ap2);
    // "func 123, rest" -> "func: rest"
    size_t sp = line.find(' ');
    if (sp != std::string::npos && sp > 0) {
        size_t j = sp + 1;
        if (j < line.size() && line[j] == '-')
            j++;
        size_t digits = j;
        while (j < line.size() && line[j] >= '0' && line[j] <= '9')
            j++;
        if (j > digits && j + 1 < line.size() && line[j] == ',' && line[j + 1] == ' ')
            line = line.substr(0, sp) + ":" + line.substr(j + 1);
    }
    if (g_to_stdout)
        fputs(line.c_str(), stdout);
    else
        g_diag += line;
    return n;
}

FILE* g_saved_stdout = nullptr;
char* g_cap_buf = nullptr;
size_t g_cap_len = 0;

}  // namespace

void fuzz_quiet_init(void) {
    fflush(stdout);
    int fd = open("/dev/null", O_WRONLY);
    if (fd >= 0) {
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }
    set_print_fxn(reinterpret_cast<void*>(&diag_sink));
    set_debug_level(DEBUG_LV_NONE);
}

void diag_collect(bool on, bool to_stdout) {
    g_collect = on;
    g_to_stdout = to_stdout;
    g_diag.clear();
}

const std::string& diag_text(void) {
    return g_diag;
}

void stdout_capture_begin(void) {
    fflush(stdout);
    g_saved_stdout = stdout;
    stdout = open_memstream(&g_cap_buf, &g_cap_len);
    FUZZ_CHECK(stdout != nullptr, "open_memstream failed");
}

std::string stdout_capture_end(void) {
    fclose(stdout);
    stdout = g_saved_stdout;
    std::string s(g_cap_buf, g_cap_len);
    free(g_cap_buf);
    g_cap_buf = nullptr;
    g_cap_len = 0;
    return s;
}

int pending_bytes(int fd) {
    int n = 0;
    if (ioctl(fd, FIONREAD, &n) < 0)
        return -1;
    return n;
}
