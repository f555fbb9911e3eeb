// Upgrade parameters and the chunked image download.
//
// Input: a 16-byte parameter record as the MCU sends it; a flags byte (bit 0:
// hand the record's raw values to the download instead of the limited ones,
// with the raw time-out and retry count taken modulo 4000 and 8; bits 1-2:
// how many transmissions of one chunk the fake MCU leaves unanswered); the
// index of that chunk (8 or more: none); the sequence number before the first
// chunk; then the image (at most 8 chunks and 16 KiB).
//
// Properties:
// - the limit step leaves every field within its bounds, leaves a field that
//   was within them unchanged, and prints one line exactly for each changed
//   field, in order, with the received value and the bound;
// - the download, against a fake MCU on a socket pair that acknowledges every
//   CMD_DOWNLOADING frame (except the chosen drops) on a virtual clock:
//   succeeds exactly when no chunk lost all of its transmissions, and then
//   the chunks received concatenate to the image; chunks are pksize bytes
//   except the last; a retransmission repeats its chunk with the same
//   sequence number; the output is the guard lines, "   " and the progress
//   pieces "\b\b\b%02d%%", whose figure never decreases and reaches 100 only
//   when every byte was acknowledged; a time-out reports the bytes
//   acknowledged before the lost chunk.
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "fuzz_support.h"

namespace {

constexpr size_t kHeader = 19;
constexpr size_t kMaxChunks = 8;
constexpr size_t kMaxImage = 16384;

struct Field {
    size_t offset;
    uint16_t low, high;
    const char* low_line;
    const char* high_line;
};

// In the order the limit step examines them.
const Field kFields[] = {
    {14, 500, 1500, "low message timeout ms: %d, using default: %d\n",
     "large message timeout ms: %d, using default: %d\n"},
    {0, 1000, 3000, "low program timeout ms: %d, using default: %d\n",
     "large program timeout ms: %d, using default: %d\n"},
    {2, 2, 6, "low program retry: %d, using default: %d\n",
     "large program retry: %d, using default: %d\n"},
    {4, 240, 65000, "low program pksize: %d, using default: %d\n",
     "large program szie: %d, using default: %d\n"},
    {6, 20, 60, "low erase timeouts: %d, using default: %d\n",
     "large erase timeouts: %d, using default: %d\n"},
    {8, 2, 6, "low check crc timeouts: %d, using default: %d\n",
     "large check crc timeouts: %d, using default: %d\n"},
    {10, 2, 6, "low runapp timeouts: %d, using default: %d\n",
     "large runapp timeouts: %d, using default: %d\n"},
    {12, 2, 6, "low bootloader timeouts: %d, using default: %d\n",
     "large bootloader timeouts: %d, using default: %d\n"},
};

uint16_t le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

std::string line(const char* f, int a, int b) {
    char buf[128];
    snprintf(buf, sizeof buf, f, a, b);
    return buf;
}

// ---- the fake MCU ---------------------------------------------------------------
struct FakeMcu {
    int fd = -1;
    std::vector<uint8_t> in;
    std::vector<std::vector<uint8_t>> chunks;
    std::vector<int> sends;  // transmissions per chunk
    int last_seq = -1;
    size_t drop_chunk = 0;
    int drops = 0;
    bool bad_frame = false;
    bool bad_repeat = false;
};
FakeMcu g_mcu;

void mcu_service(void) {
    uint8_t buf[4096];
    for (;;) {
        ssize_t r = read(g_mcu.fd, buf, sizeof buf);
        if (r <= 0)
            break;
        g_mcu.in.insert(g_mcu.in.end(), buf, buf + r);
    }
    RefChecks c;
    c.sys = c.comp = c.seq = c.msgid = false;
    c.extra = 0;
    for (;;) {
        RefCounts unused;
        RefFrame f = ref_parse(g_mcu.in.data(), g_mcu.in.size(), c, &unused);
        if (!f.complete)
            break;
        const uint8_t* fr = g_mcu.in.data() + f.start;
        std::vector<uint8_t> payload(fr + 8, fr + 8 + f.payload_len);
        uint8_t seq = fr[3];
        if (f.ret != 0 || f.start != 0 || fr[6] != CMD_DOWNLOADING || fr[4] != m_comp_id ||
            fr[5] != m_sys_id)
            g_mcu.bad_frame = true;
        if (seq == g_mcu.last_seq) {
            if (g_mcu.chunks.empty() || g_mcu.chunks.back() != payload)
                g_mcu.bad_repeat = true;
            g_mcu.sends.back()++;
        } else {
            g_mcu.chunks.push_back(payload);
            g_mcu.sends.push_back(1);
            g_mcu.last_seq = seq;
        }
        g_mcu.in.erase(g_mcu.in.begin(), g_mcu.in.begin() + static_cast<long>(f.end));
        bool drop =
            g_mcu.chunks.size() - 1 == g_mcu.drop_chunk && g_mcu.sends.back() <= g_mcu.drops;
        if (!drop) {
            std::vector<uint8_t> ack =
                ref_build_frame(CMD_ACK, seq, m_sys_id, m_comp_id, nullptr, 0, 0);
            FUZZ_CHECK(write(g_mcu.fd, ack.data(), ack.size()) == static_cast<ssize_t>(ack.size()),
                       "fake MCU write");
        }
    }
}

void check_limits(const uint8_t* rec, ST_TimeRetryCmd* cmd) {
    memcpy(cmd, rec, sizeof *cmd);
    std::string want;
    for (const Field& f : kFields) {
        uint16_t v = le16(rec + f.offset);
        if (v < f.low)
            want += line(f.low_line, v, f.low);
        else if (v > f.high)
            want += line(f.high_line, v, f.high);
    }
    stdout_capture_begin();
    mcu_limit_upgrade_param(cmd);
    std::string got = stdout_capture_end();
    FUZZ_CHECK(got == want, "limit lines\n--- got ---\n%s--- expected ---\n%s", got.c_str(),
               want.c_str());
    const uint8_t* out = reinterpret_cast<const uint8_t*>(cmd);
    for (const Field& f : kFields) {
        uint16_t v = le16(rec + f.offset), w = le16(out + f.offset);
        FUZZ_CHECK(w >= f.low && w <= f.high, "field at %zu is %u", f.offset, w);
        if (v >= f.low && v <= f.high)
            FUZZ_CHECK(w == v, "field at %zu changed from %u to %u", f.offset, v, w);
        else
            FUZZ_CHECK(w == (v < f.low ? f.low : f.high), "field at %zu not set to its bound",
                       f.offset);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kHeader)
        return 0;
    ST_TimeRetryCmd cmd;
    check_limits(data, &cmd);

    bool raw = data[16] & 1;
    int drops = (data[16] >> 1) & 3;
    size_t drop_chunk = data[17];
    uint8_t seq0 = data[18];
    // Raw time-outs and retry counts stay small enough to keep a run short;
    // the download guards only their low ends.
    int timeoutms = raw ? le16(data + 0) % 4000 : cmd.program_timeoutms;
    int retrys = raw ? le16(data + 2) % 8 : cmd.program_retrys;
    int pksize = raw ? le16(data + 4) : cmd.program_pksize;
    std::string want;
    if (timeoutms < 1000)
        want += line("low timeout: %d, using default: %d\n", timeoutms, 1000);
    if (retrys < 2)
        want += line("low retry: %d, using default: %d\n", retrys, 2);
    if (pksize < 240)
        want += line("low pksize: %d, using default: %d\n", pksize, 240);
    int pk = std::max(pksize, 240);
    int tries = std::max(retrys, 2) + 1;
    size_t len = std::min({size - kHeader, kMaxChunks * static_cast<size_t>(pk), kMaxImage});
    std::vector<uint8_t> image(data + kHeader, data + kHeader + len);
    size_t nchunks = (len + static_cast<size_t>(pk) - 1) / static_cast<size_t>(pk);

    // What must happen.
    bool lost = drop_chunk < nchunks && drops >= tries;
    size_t acked_chunks = lost ? drop_chunk : nchunks;
    want += "   ";
    int64_t last = 0;
    size_t count = 0;
    for (size_t k = 0; k < acked_chunks; k++) {
        count += std::min(static_cast<size_t>(pk), len - count);
        int64_t pct = static_cast<int64_t>(count) * 100 / static_cast<int64_t>(len);
        if (pct > last) {
            char piece[16];
            snprintf(piece, sizeof piece, "\b\b\b%02d%%", static_cast<int>(pct));
            want += piece;
            last = pct;
        }
    }

    int sv[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0, "socketpair");
    fcntl(sv[0], F_SETFL, O_NONBLOCK);
    fcntl(sv[1], F_SETFL, O_NONBLOCK);
    g_mcu = FakeMcu();
    g_mcu.fd = sv[1];
    g_mcu.drop_chunk = drop_chunk;
    g_mcu.drops = drops;
    set_comp_id(DEV_BATTERY);
    set_crc_extra(0);
    m_crc_check = m_sys_id_check = m_comp_id_check = m_seq_check = m_msgid_check = 1;
    m_serial_type = SERIAL_TYPE_TTY;
    m_serial_fd = sv[0];
    m_tx_seq = seq0;

    diag_collect(true);
    stdout_capture_begin();
    vclock_on(-1, mcu_service);
    int ret = mcu_programFlash(image.data(), static_cast<int>(len), timeoutms, retrys, pksize);
    vclock_off();
    std::string got = stdout_capture_end();
    std::string diag = diag_text();
    diag_collect(false);
    close(sv[0]);
    close(sv[1]);
    m_serial_fd = -1;

    FUZZ_CHECK(ret == (lost ? -3 : 0), "mcu_programFlash returned %d, expected %d", ret,
               lost ? -3 : 0);
    FUZZ_CHECK(got == want, "download output\n--- got ---\n%s\n--- expected ---\n%s", got.c_str(),
               want.c_str());
    // The progress figure, read back from the output: never decreasing,
    // 100 only when everything was acknowledged.
    int prev = 0;
    for (size_t at = got.find("\b\b\b"); at != std::string::npos; at = got.find("\b\b\b", at + 3)) {
        int pct = atoi(got.c_str() + at + 3);
        FUZZ_CHECK(pct >= prev, "progress went from %d to %d", prev, pct);
        FUZZ_CHECK(pct != 100 || ret == 0, "100%% without every byte acknowledged");
        prev = pct;
    }
    FUZZ_CHECK(!g_mcu.bad_frame, "the fake MCU got a frame that is not a chunk");
    FUZZ_CHECK(!g_mcu.bad_repeat, "a retransmission differs from its chunk");
    std::vector<uint8_t> joined;
    for (size_t k = 0; k < g_mcu.chunks.size(); k++) {
        const std::vector<uint8_t>& c = g_mcu.chunks[k];
        FUZZ_CHECK(k + 1 == g_mcu.chunks.size()
                       ? (c.size() > 0 && c.size() <= static_cast<size_t>(pk))
                       : c.size() == static_cast<size_t>(pk),
                   "chunk %zu has %zu bytes, pksize %d", k, c.size(), pk);
        joined.insert(joined.end(), c.begin(), c.end());
    }
    size_t sent = lost ? std::min(len, (drop_chunk + 1) * static_cast<size_t>(pk)) : len;
    FUZZ_CHECK(
        joined.size() == sent && (sent == 0 || memcmp(joined.data(), image.data(), sent) == 0),
        "chunks received: %zu bytes, expected the image's first %zu", joined.size(), sent);
    if (lost) {
        FUZZ_CHECK(g_mcu.sends.back() == tries, "lost chunk sent %d times, expected %d",
                   g_mcu.sends.back(), tries);
        char l[96];
        snprintf(l, sizeof l, "mcu_programFlash: mcu_sendrecv %zu / %zu timeout\n", count, len);
        FUZZ_CHECK(
            diag.size() >= strlen(l) && diag.compare(diag.size() - strlen(l), strlen(l), l) == 0,
            "time-out report missing: %s", diag.c_str());
    } else {
        FUZZ_CHECK(diag.find("mcu_programFlash") == std::string::npos, "unexpected report: %s",
                   diag.c_str());
    }
    return 0;
}
