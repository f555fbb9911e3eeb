// Frames: the encoder builds one frame in place in m_tx_msg (next sequence
// number, target and own ids, header sum, CRC-16 with m_crc_extra) and
// mcu_send writes it to a TTY; the parser assembles one frame from a TTY
// byte by byte, or from the first frame in an SPI block, checks and counts it.
#include <string.h>

#include "mcu_tool2_internal.h"

ST_MavlinkMsg m_tx_msg;
ST_MavlinkMsg m_rx_msg;
uint8_t m_tx_seq = 0;

namespace {

enum EN_ParseState {
    STATE_MAGIC = 0,
    STATE_LEN = 1,
    STATE_LEN_H = 2,
    STATE_SEQ = 3,
    STATE_SYSID = 4,
    STATE_COMPID = 5,
    STATE_MSGID = 6,
    STATE_CSUM = 7,
    STATE_DATA = 8,
    STATE_CRC_L = 9,
    STATE_CRC_H = 10,
    STATE_INVALID = 255,
};

constexpr int kHeaderLen = 8;

// Most bytes one TTY parse takes in without completing a frame.
constexpr int kMaxScanBytes = 2 * (MAVLINK_MAX_PAYLOAD + MAVLINK_FRAME_OVERHEAD);

// The parser's helpers report as the parser.
constexpr const char* kRecv = "mcu_recv";

// Parse context of one mcu_recv call.
struct ParseContext {
    uint8_t state = STATE_MAGIC;
    uint16_t rxlen = 0;
    int cnt = 0;
    uint16_t crc = 0;
};

// Feeds one byte; true once a whole frame has been assembled into msg.
bool parse_byte(ParseContext& ctx, ST_MavlinkMsg* msg, uint8_t b) {
    switch (ctx.state) {
        case STATE_MAGIC:
            if (b == 0xFD) {
                ctx.cnt = 0;
                ctx.rxlen = 0;
                memset(msg, 0, sizeof *msg);
                msg->magic = b;
                crc_init(&ctx.crc);
                ctx.state = STATE_LEN;
            }
            return false;
        case STATE_LEN:
            msg->len = b;
            crc_accumulate(b, &ctx.crc);
            ctx.state = STATE_LEN_H;
            return false;
        case STATE_LEN_H:
            msg->len_h = b;
            ctx.rxlen = static_cast<uint16_t>(msg->len + 256 * msg->len_h);
            if (ctx.rxlen > MAVLINK_MAX_PAYLOAD) {
                m_stts.lenFail++;
                ctx.state = STATE_MAGIC;
                return false;
            }
            crc_accumulate(b, &ctx.crc);
            ctx.state = STATE_SEQ;
            return false;
        case STATE_SEQ:
            msg->seq = b;
            crc_accumulate(b, &ctx.crc);
            ctx.state = STATE_COMPID;
            return false;
        case STATE_COMPID:
            msg->compid = b;
            crc_accumulate(b, &ctx.crc);
            ctx.state = STATE_SYSID;
            return false;
        case STATE_SYSID:
            msg->sysid = b;
            crc_accumulate(b, &ctx.crc);
            ctx.state = STATE_MSGID;
            return false;
        case STATE_MSGID:
            msg->msgid = b;
            crc_accumulate(b, &ctx.crc);
            ctx.state = STATE_CSUM;
            return false;
        case STATE_CSUM:
            msg->csum = sum_u8(wire_bytes(msg), 7);
            if (msg->csum != b) {
                LOG_DBG_AS(kRecv, "csum 0x%02x != 0x%02x\n", msg->csum, b);
                m_stts.sumFail++;
                ctx.state = STATE_MAGIC;
                return false;
            }
            crc_accumulate(b, &ctx.crc);
            ctx.state = ctx.rxlen == 0 ? STATE_CRC_L : STATE_DATA;
            return false;
        case STATE_DATA:
            msg->data[ctx.cnt++] = b;
            crc_accumulate(b, &ctx.crc);
            if (ctx.cnt >= ctx.rxlen)
                ctx.state = STATE_CRC_L;
            return false;
        case STATE_CRC_L:
            msg->crc = b;
            wire_bytes(msg)[kHeaderLen + ctx.cnt++] = b;
            ctx.state = STATE_CRC_H;
            return false;
        case STATE_CRC_H:
            msg->crc = static_cast<uint16_t>(msg->crc | (b << 8));
            wire_bytes(msg)[kHeaderLen + ctx.cnt++] = b;
            ctx.state = STATE_MAGIC;
            return true;
        default:
            return false;
    }
}

// Trace, dump, extra byte and the enabled checks of a complete frame; counts
// the outcome. 0 when every enabled check passed.
int finish_frame(ParseContext& ctx, ST_MavlinkMsg* msg) {
    link_trace(kRecv, __LINE__, "RX", wire_bytes(msg), ctx.rxlen + MAVLINK_FRAME_OVERHEAD);
    crc_accumulate(msg_crcs[msg->msgid], &ctx.crc);
    bool bad = false;
    if (m_crc_check && msg->crc != ctx.crc) {
        LOG_DBG_AS(kRecv, "crc 0x%04x != calc 0x%04x\n", msg->crc, ctx.crc);
        m_stts.crcFail++;
        bad = true;
    }
    if (m_sys_id_check && msg->sysid != m_comp_id) {
        LOG_DBG_AS(kRecv, "sysid %d != %d\n", msg->sysid, m_comp_id);
        m_stts.sysFail++;
        bad = true;
    }
    if (m_comp_id_check && msg->compid != m_sys_id) {
        LOG_DBG_AS(kRecv, "compid %d != %d\n", msg->compid, m_sys_id);
        m_stts.compFail++;
        bad = true;
    }
    if (m_seq_check && msg->seq != m_tx_seq) {
        LOG_DBG_AS(kRecv, "seq %d != %d\n", msg->seq, m_tx_seq);
        m_stts.seqFail++;
        bad = true;
    }
    if (m_msgid_check && msg->msgid <= 207) {
        LOG_DBG_AS(kRecv, "msgid %d error\n", msg->msgid);
        m_stts.cmdFail++;
        bad = true;
    }
    if (bad)
        return -1;
    m_stts.rxBytes += ctx.rxlen;
    m_stts.rxPkts++;
    m_stts.rxCnt[msg->msgid]++;
    return 0;
}

// Steps 1-10 of building a frame; the frame length or -1.
int build_frame(uint8_t msgid, const uint8_t* sendbuf, int len, const char* func) {
    if (len < 0 || len > MAVLINK_MAX_PAYLOAD) {
        LOG_ERR_AS(func, "illegal buf or length %d\n", len);
        return -1;
    }
    memset(&m_tx_msg, 0, sizeof m_tx_msg);
    m_tx_msg.magic = 0xFD;
    m_tx_msg.len = static_cast<uint8_t>(len & 0xFF);
    m_tx_msg.len_h = static_cast<uint8_t>(len >> 8);
    m_tx_seq++;
    m_tx_msg.seq = m_tx_seq;
    m_tx_msg.sysid = m_sys_id;
    m_tx_msg.compid = m_comp_id;
    m_tx_msg.msgid = msgid;
    m_tx_msg.csum = sum_u8(wire_bytes(&m_tx_msg), 7);
    // A null payload with a positive length leaves len zero bytes.
    if (sendbuf != nullptr && len > 0)
        memcpy(m_tx_msg.data, sendbuf, static_cast<size_t>(len));
    uint8_t* wire = wire_bytes(&m_tx_msg);
    uint16_t crc = crc_calculate(wire + 1, static_cast<uint16_t>(len + 7));
    crc_accumulate(m_crc_extra, &crc);
    wire[kHeaderLen + len] = static_cast<uint8_t>(crc & 0xFF);
    wire[kHeaderLen + len + 1] = static_cast<uint8_t>(crc >> 8);
    return len + MAVLINK_FRAME_OVERHEAD;
}

}  // namespace

int mcu_package(uint8_t msgid, uint8_t* sendbuf, int len) {
    return build_frame(msgid, sendbuf, len, __func__);
}

int mcu_send(uint8_t msgid, uint8_t* sendbuf, int len) {
    if (m_serial_type != SERIAL_TYPE_TTY) {
        LOG_ERR("illegal serial device type %d\n", m_serial_type);
        return -1;
    }
    if (build_frame(msgid, sendbuf, len, __func__) < 0)
        return -1;
    if (mcu_write(m_serial_fd, wire_bytes(&m_tx_msg), len + MAVLINK_FRAME_OVERHEAD, nullptr) < 0) {
        LOG_ERR("send %d bytes fail\n", len + MAVLINK_FRAME_OVERHEAD);
        m_stts.txFail++;
        return -1;
    }
    m_stts.txBytes += static_cast<uint32_t>(len);
    m_stts.txPkts++;
    m_stts.txCnt[msgid]++;
    return 0;
}

int mcu_recv(ST_MavlinkMsg* msg, uint8_t* buf, int length) {
    if (msg == nullptr) {
        LOG_ERR("null pointer\n");
        return -1;
    }
    return link_ops().recv(msg, buf, length);
}

int spi_recv(ST_MavlinkMsg* msg, uint8_t* buf, int length) {
    if (buf == nullptr) {
        LOG_ERR_AS(kRecv, "null input buffer pointer\n");
        return -1;
    }
    ParseContext ctx;
    for (int offset = 0; offset < length; offset++) {
        if (parse_byte(ctx, msg, buf[offset]))
            return finish_frame(ctx, msg);
    }
    return -1;
}

int tty_recv(ST_MavlinkMsg* msg, uint8_t* /*buf*/, int /*length*/) {
    // A line that never falls silent and never completes a frame (noise, a
    // wrong rate) would keep this loop going for ever; two frames' worth of
    // bytes without one is enough to give up and let the caller look at its
    // clock.
    ParseContext ctx;
    for (int taken = 0; taken < kMaxScanBytes; taken++) {
        uint8_t data;
        if (mcu_read(m_serial_fd, &data, 1) < 0)
            return -1;
        if (parse_byte(ctx, msg, data))
            return finish_frame(ctx, msg);
    }
    LOG_ERR_AS(kRecv, "no frame within %d bytes\n", kMaxScanBytes);
    return -1;
}
