// Frame parser, TTY mode, and what the tool does with the frames it accepts.
//
// Input: flags (bits 0-4: CRC, source, destination, sequence and message-id
// checks; bit 5: also run the monitor; bit 6: also run one exchange of the
// request/response engine; bit 7: that exchange has no reply buffer), target
// id, last transmitted sequence number, monitor filter / request id, request
// and reply sizes, exchange time-out and retry count; then the byte stream the
// MCU sends.
//
// Properties:
// - the stream is fed through a pipe and mcu_recv is called until the bytes
//   run out: every call gives the reference parser's result, moves the
//   counters as the reference says, reads no byte past the frame it returns,
//   and yields the same frame and result as the SPI-mode scan of the same
//   remaining bytes (the two input paths agree);
// - every accepted payload printed by the heartbeat and debug-reply handlers
//   gives exactly the expected text and result;
// - the monitor, over the whole stream, prints exactly the expected blocks
//   (system log, user string, heartbeat, diagnostic line and hex dump) for the
//   frames that pass its checks and filter, in order, and reads every byte;
// - one exchange of the engine over a socket pair, on a virtual clock, gives
//   the result of an independent replay of the exchange rules (ACK, NAK,
//   BUSY with its poll, data replies, inbound heartbeats and debug replies,
//   retransmissions after the time-out), copies exactly the reply payload,
//   and writes exactly the expected request, retransmission and poll frames.
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "fuzz_support.h"

namespace {

constexpr size_t kConfigLen = 6;
// Stays below the pipe's capacity, so one write never blocks.
constexpr size_t kMaxStream = 60000;

ST_MavlinkMsg g_spi_msg;

struct Config {
    RefChecks checks;
    bool monitor, engine, null_rxbuf;
    uint8_t id_byte, tx_seq;
    int txlen, rxlen, timeout, retry;
};

void apply_checks(const RefChecks& c) {
    m_crc_check = c.crc;
    m_sys_id_check = c.sys;
    m_comp_id_check = c.comp;
    m_seq_check = c.seq;
    m_msgid_check = c.msgid;
}

bool is_data_reply(uint8_t id) {
    return id == CMD_GET_SN || id == CMD_GET_APP_FLASHSIZE || id == CMD_GET_VERSIONS ||
           id == CMD_GET_TIMERETRY;
}

void check_handlers(const uint8_t* frame, size_t len) {
    std::vector<uint8_t> v = handler_view(frame, len);
    int want_debug;
    std::string want_diag;
    std::string want = expect_heartbeat(v.data()) + expect_debug(v.data(), &want_debug, &want_diag);
    diag_collect(true);
    stdout_capture_begin();
    int r1 = mcu_heartbeat(reinterpret_cast<ST_HeartBeat*>(m_rx_msg.data));
    int r2 = mcu_debug(reinterpret_cast<ST_DebugCmd*>(m_rx_msg.data));
    std::string got = stdout_capture_end();
    std::string diag = diag_text();
    diag_collect(false);
    FUZZ_CHECK(r1 == 0, "mcu_heartbeat returned %d", r1);
    FUZZ_CHECK(r2 == want_debug, "mcu_debug returned %d, expected %d", r2, want_debug);
    FUZZ_CHECK(got == want, "handler output\n--- got ---\n%s--- expected ---\n%s", got.c_str(),
               want.c_str());
    FUZZ_CHECK(diag == want_diag, "handler diagnostics '%s', expected '%s'", diag.c_str(),
               want_diag.c_str());
}

// Phase 1: successive mcu_recv calls over the stream, TTY and SPI paths.
void run_recv(std::vector<uint8_t>& s, const RefChecks& checks) {
    int fds[2];
    FUZZ_CHECK(pipe(fds) == 0, "pipe");
    if (!s.empty())
        FUZZ_CHECK(write(fds[1], s.data(), s.size()) == static_cast<ssize_t>(s.size()), "write");
    close(fds[1]);
    m_serial_fd = fds[0];
    size_t pos = 0;
    for (;;) {
        RefCounts want;
        RefFrame ref = ref_parse(s.data() + pos, s.size() - pos, checks, &want);

        m_serial_type = SERIAL_TYPE_SPI;
        RefCounts b0 = stts_counts(m_stts);
        int sret = mcu_recv(&g_spi_msg, s.data() + pos, static_cast<int>(s.size() - pos));
        RefCounts b1 = stts_counts(m_stts);
        check_counts(b0, b1, want, "spi path");

        m_serial_type = SERIAL_TYPE_TTY;
        uint32_t pkts = m_stts.rxPkts;
        int tret = mcu_recv(&m_rx_msg, nullptr, 0);
        check_counts(b1, stts_counts(m_stts), want, "tty path");
        FUZZ_CHECK(tret == ref.ret && sret == ref.ret, "tty %d, spi %d, reference %d", tret, sret,
                   ref.ret);
        FUZZ_CHECK((m_stts.rxPkts - pkts == 1) == (tret == 0), "rxPkts against the result");
        size_t left = s.size() - (pos + ref.end);
        int pending = pending_bytes(fds[0]);
        FUZZ_CHECK(pending == static_cast<int>(left), "%d bytes left in the line, expected %zu",
                   pending, left);
        if (!ref.complete)
            break;
        size_t flen = ref.payload_len + 10;
        const uint8_t* fr = s.data() + pos + ref.start;
        FUZZ_CHECK(memcmp(&m_rx_msg, fr, flen) == 0, "tty record differs from the frame");
        FUZZ_CHECK(memcmp(&g_spi_msg, fr, flen) == 0, "spi record differs from the frame");
        if (ref.ret == 0)
            check_handlers(fr, ref.payload_len);
        pos += ref.end;
    }
    close(fds[0]);
    m_serial_fd = -1;
}

// Phase 2: the monitor over the whole stream.
void run_monitor(std::vector<uint8_t>& s, const Config& cfg) {
    RefChecks mon;
    mon.crc = cfg.checks.crc;
    mon.sys = mon.comp = mon.seq = mon.msgid = false;
    uint8_t filter = cfg.id_byte;
    std::string want = "monitor ";
    char hex[8];
    snprintf(hex, sizeof hex, "0x%02x\n", filter);
    want += hex;
    for (size_t pos = 0;;) {
        RefCounts unused;
        RefFrame f = ref_parse(s.data() + pos, s.size() - pos, mon, &unused);
        if (!f.complete)
            break;
        const uint8_t* fr = s.data() + pos + f.start;
        size_t len = f.payload_len;
        pos += f.end;
        if (f.ret != 0 || (filter != 0xFF && fr[6] != filter))
            continue;
        std::vector<uint8_t> v = handler_view(fr, len);
        char line[160];
        switch (fr[6]) {
            case CMD_SYSLOG:
                want += "---------- [SYSLOG] -----------\n";
                snprintf(line, sizeof line, "[%08d]: 0x%08x, 0x%08x, 0x%08x, 0x%08x\n",
                         static_cast<int32_t>(le32(&v[0])), le32(&v[4]), le32(&v[8]), le32(&v[12]),
                         le32(&v[16]));
                want += line;
                break;
            case CMD_USER_STRING: {
                want += "---------- [USER_STRING] -----------\n";
                const uint8_t* end = std::find(fr + 8, fr + 8 + len, 0);
                want.append(reinterpret_cast<const char*>(fr + 8),
                            static_cast<size_t>(end - fr - 8));
                want += "\n";
                break;
            }
            case CMD_HEARBEAT:
                want += expect_heartbeat(v.data());
                break;
            default:
                snprintf(line, sizeof line, "mcu_monitor: msgid 0x%02x\n", fr[6]);
                want += line;
                want += expect_hexdump(fr, len + 10);
                break;
        }
    }

    int fds[2];
    FUZZ_CHECK(pipe(fds) == 0, "pipe");
    if (!s.empty())
        FUZZ_CHECK(write(fds[1], s.data(), s.size()) == static_cast<ssize_t>(s.size()), "write");
    close(fds[1]);
    m_serial_fd = fds[0];
    m_serial_type = SERIAL_TYPE_TTY;
    apply_checks(cfg.checks);
    diag_collect(true, true);
    stdout_capture_begin();
    vclock_on(fds[0], nullptr);
    int ret = mcu_monitor(filter, 5);
    vclock_off();
    std::string got = stdout_capture_end();
    diag_collect(false);
    FUZZ_CHECK(ret == 0, "mcu_monitor returned %d", ret);
    FUZZ_CHECK(pending_bytes(fds[0]) == 0, "monitor left bytes unread");
    FUZZ_CHECK(!m_seq_check && !m_sys_id_check && !m_comp_id_check && !m_msgid_check &&
                   m_crc_check == cfg.checks.crc,
               "monitor check switches");
    FUZZ_CHECK(got == want, "monitor output\n--- got ---\n%s--- expected ---\n%s", got.c_str(),
               want.c_str());
    close(fds[0]);
    m_serial_fd = -1;
}

// Phase 3: one exchange of the engine, replayed independently.
void run_engine(std::vector<uint8_t>& s, const Config& cfg, const uint8_t* txbuf) {
    uint8_t msgid = cfg.id_byte;
    RefChecks checks = cfg.checks;
    uint8_t cur = static_cast<uint8_t>(cfg.tx_seq + 1);
    std::vector<uint8_t> want_tx;
    auto sent = [&](uint8_t id, const uint8_t* p, size_t len) {
        std::vector<uint8_t> f = ref_build_frame(id, cur, m_comp_id, m_sys_id, p, len, m_crc_extra);
        want_tx.insert(want_tx.end(), f.begin(), f.end());
    };
    uint8_t want_rx[64];
    memset(want_rx, 0xA5, sizeof want_rx);
    RefCounts want_counts;
    int want = -3;
    {
        int64_t t = 0, tick0 = 0;
        int resent = 0;
        size_t pos = 0;
        sent(msgid, txbuf, static_cast<size_t>(cfg.txlen));
        while (resent < cfg.retry) {
            if (t - tick0 >= cfg.timeout) {
                sent(msgid, txbuf, static_cast<size_t>(cfg.txlen));
                resent++;
                tick0 = t;
            }
            checks.tx_seq = cur;
            RefFrame f = ref_parse(s.data() + pos, s.size() - pos, checks, &want_counts);
            const uint8_t* fr = s.data() + pos + f.start;
            pos += f.end;
            if (f.ret != 0) {
                t += 10;
                continue;
            }
            uint8_t id = fr[6];
            size_t len = f.payload_len;
            if (id == CMD_ACK) {
                want = 0;
                break;
            }
            if (id == CMD_NAK) {
                want = -2;
                break;
            }
            if (id == CMD_BUSY) {
                int delay = fr[8] | (fr[9] << 8);
                t += delay == 0 ? 200 : delay;
                cur++;
                sent(CMD_QUERY_DEVICE, nullptr, 0);
                tick0 = t;
                continue;
            }
            if (is_data_reply(id)) {
                if (cfg.null_rxbuf || static_cast<size_t>(cfg.rxlen) < len) {
                    want = -1;
                } else {
                    memcpy(want_rx, fr + 8, len);
                    want = 0;
                }
                break;
            }
            if (id == CMD_DEBUG_DEVICE) {
                std::vector<uint8_t> v = handler_view(fr, len);
                std::string unused;
                expect_debug(v.data(), &want, &unused);
                break;
            }
            if (id == CMD_HEARBEAT) {
                want = 0;
                break;
            }
        }
    }

    int sv[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0, "socketpair");
    if (!s.empty())
        FUZZ_CHECK(write(sv[1], s.data(), s.size()) == static_cast<ssize_t>(s.size()), "write");
    shutdown(sv[1], SHUT_WR);
    m_serial_fd = sv[0];
    m_serial_type = SERIAL_TYPE_TTY;
    apply_checks(cfg.checks);
    m_tx_seq = cfg.tx_seq;
    uint8_t rxbuf[64];
    memset(rxbuf, 0xA5, sizeof rxbuf);
    RefCounts before = stts_counts(m_stts);
    vclock_on(-1, nullptr);
    int ret = mcu_sendrecv(msgid, const_cast<uint8_t*>(txbuf), cfg.txlen,
                           cfg.null_rxbuf ? nullptr : rxbuf, cfg.rxlen, cfg.timeout, cfg.retry);
    vclock_off();
    FUZZ_CHECK(ret == want, "mcu_sendrecv returned %d, replay says %d", ret, want);
    check_counts(before, stts_counts(m_stts), want_counts, "engine");
    FUZZ_CHECK(memcmp(rxbuf, want_rx, sizeof rxbuf) == 0, "reply buffer content");
    std::vector<uint8_t> got_tx(want_tx.size() + 1024);
    fcntl(sv[1], F_SETFL, O_NONBLOCK);
    size_t got = 0;
    for (;;) {
        ssize_t r = read(sv[1], got_tx.data() + got, got_tx.size() - got);
        if (r <= 0)
            break;
        got += static_cast<size_t>(r);
        if (got == got_tx.size())
            break;
    }
    FUZZ_CHECK(
        got == want_tx.size() && (got == 0 || memcmp(got_tx.data(), want_tx.data(), got) == 0),
        "frames written: %zu bytes, expected %zu", got, want_tx.size());
    close(sv[0]);
    close(sv[1]);
    m_serial_fd = -1;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kConfigLen)
        return 0;
    Config cfg;
    cfg.checks.crc = data[0] & 1;
    cfg.checks.sys = data[0] & 2;
    cfg.checks.comp = data[0] & 4;
    cfg.checks.seq = data[0] & 8;
    cfg.checks.msgid = data[0] & 16;
    cfg.monitor = data[0] & 32;
    cfg.engine = data[0] & 64;
    cfg.null_rxbuf = data[0] & 128;
    set_comp_id(data[1]);
    cfg.checks.comp_id = m_comp_id;
    cfg.checks.sys_id = m_sys_id;
    cfg.tx_seq = data[2];
    cfg.checks.tx_seq = data[2];
    cfg.id_byte = data[3];
    cfg.txlen = data[4] % 7;
    cfg.rxlen = data[4] >> 3;
    cfg.timeout = 100 * (1 + (data[5] & 15));
    cfg.retry = (data[5] >> 4) & 3;
    std::vector<uint8_t> s(data + kConfigLen, data + std::min(size, kConfigLen + kMaxStream));

    set_crc_extra(0);
    m_tx_seq = cfg.tx_seq;
    apply_checks(cfg.checks);
    run_recv(s, cfg.checks);
    if (cfg.monitor)
        run_monitor(s, cfg);
    if (cfg.engine)
        run_engine(s, cfg, data);
    return 0;
}
