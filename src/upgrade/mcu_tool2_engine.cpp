// The request/response engine: one command exchange with the target. On a
// TTY the MCU answers with ACK, NAK, BUSY or a data reply; on SPI the tool
// clocks fixed 528-byte blocks and the MCU answers with the request's own id
// and a result code. Silence for `timeout` ms since the last transmission
// brings a retransmission with the same sequence number, at most retry_cnt
// times; then -3.
#include <string.h>

#include "mcu_tool2_internal.h"

namespace {

// Both links' rules report as the exchange.
constexpr const char* kSendrecv = "mcu_sendrecv";

// Pauses of the exchange, in milliseconds.
constexpr int kPauseAfterNoFrame = 10;
constexpr int kPauseAfterNoFrameSpi = 1;
constexpr int kPauseAfterOtherId = 20;
constexpr int kPauseAfterUnknownCode = 10;
constexpr int kPauseAfterFailedResend = 60;
constexpr uint16_t kBusyDefaultMs = 200;
// An SPI busy delay above this gets a surcharge before the poll.
constexpr uint16_t kSpiBusyLongMs = 7999;
constexpr uint16_t kSpiBusySurchargeMs = 2000;

uint16_t payload_u16(const ST_MavlinkMsg* msg, int offset) {
    return static_cast<uint16_t>(msg->data[offset] | (msg->data[offset + 1] << 8));
}

bool is_data_reply(uint8_t id) {
    return id == CMD_GET_SN || id == CMD_GET_APP_FLASHSIZE || id == CMD_GET_VERSIONS ||
           id == CMD_GET_TIMERETRY;
}

// Copies a data reply's payload to the caller's buffer: 0, or -1 when there
// is no buffer or the payload does not fit.
int take_data_reply(uint8_t* rxbuf, int rxlen) {
    int payload_len = frame_payload_len(&m_rx_msg);
    if (rxbuf == nullptr) {
        LOG_ERR_AS(kSendrecv, "null pointer\n");
        return -1;
    }
    if (rxlen < payload_len) {
        LOG_ERR_AS(kSendrecv, "rxlen(%d) < payload_len(%d)\n", rxlen, payload_len);
        return -1;
    }
    memcpy(rxbuf, m_rx_msg.data, static_cast<size_t>(payload_len));
    return 0;
}

void count_spi_request(uint8_t msgid, int txlen) {
    m_stts.txBytes += static_cast<uint32_t>(txlen);
    m_stts.txPkts++;
    m_stts.txCnt[msgid]++;
}

}  // namespace

int tty_sendrecv(uint8_t msgid, uint8_t* txbuf, int txlen, uint8_t* rxbuf, int rxlen, int timeout,
                 int retry_cnt) {
    // 1. Send the request.
    int ret = mcu_send(msgid, txbuf, txlen);
    if (ret < 0) {
        LOG_ERR_AS(kSendrecv, "mcu send fail: %d\n", ret);
        return -1;
    }
    // 2. Start the silence timer.
    int32_t tick0 = Time_GetMs();
    int resent = 0;
    // 3. Cycles until the retransmissions are used up.
    while (resent < retry_cnt) {
        // 3.1 Silent too long: the same frame again, same sequence number. A
        // retransmission that cannot be written counts against the budget,
        // so a link whose writes keep failing still ends the exchange.
        if (elapsed_ms(tick0) >= timeout) {
            m_tx_seq--;
            ret = mcu_send(msgid, txbuf, txlen);
            resent++;
            if (ret < 0) {
                LOG_ERR_AS(kSendrecv, "mcu send fail: %d\n", ret);
                pause_ms(kPauseAfterFailedResend);
                continue;
            }
            tick0 = Time_GetMs();
        }
        // 3.2 One frame from the line.
        if (mcu_recv(&m_rx_msg, nullptr, 0) < 0) {
            pause_ms(kPauseAfterNoFrame);
            continue;
        }
        // 3.3 Acknowledgement, refusal, busy.
        uint8_t id = m_rx_msg.msgid;
        if (id == CMD_ACK) {
            LOG_DBG_AS(kSendrecv, "ACK\n");
            return 0;
        }
        if (id == CMD_NAK) {
            LOG_DBG_AS(kSendrecv, "NAK\n");
            return -2;
        }
        if (id == CMD_BUSY) {
            uint16_t delay = payload_u16(&m_rx_msg, 0);
            if (delay == 0) {
                delay = kBusyDefaultMs;
                LOG_ERR_AS(kSendrecv, "busy timout default %d\n", delay);
            }
            if (delay >= timeout)
                LOG_ERR_AS(kSendrecv, "busy too long %d\n", delay);
            pause_ms(delay);
            // The poll is a new request and takes the next sequence number.
            if (mcu_send(CMD_QUERY_DEVICE, nullptr, 0) < 0) {
                LOG_ERR_AS(kSendrecv, "mcu send CMD_QUERY_DEVICE fail\n");
                return -1;
            }
            tick0 = Time_GetMs();
            continue;
        }
        // 3.4 Data replies and what the MCU sends on its own.
        if (is_data_reply(id))
            return take_data_reply(rxbuf, rxlen);
        if (id == CMD_DEBUG_DEVICE) {
            LOG_ERR_AS(kSendrecv, "CMD_DEBUG_DEVICE: %d\n", id);
            return mcu_debug(reinterpret_cast<ST_DebugCmd*>(m_rx_msg.data));
        }
        if (id == CMD_HEARBEAT) {
            LOG_ERR_AS(kSendrecv, "CMD_HEARBEAT: %d\n", id);
            return mcu_heartbeat(reinterpret_cast<ST_HeartBeat*>(m_rx_msg.data));
        }
    }
    // 4. No conclusive answer.
    return -3;
}

int spi_sendrecv(uint8_t msgid, uint8_t* txbuf, int txlen, uint8_t* rxbuf, int rxlen, int timeout,
                 int retry_cnt) {
    // 1. The whole frame must fit one transfer block; nothing is ever
    //    written beyond it.
    if (txlen < 0 || txlen > SPI_MAX_PAYLOAD) {
        LOG_ERR_AS(kSendrecv, "illegal buf or length %d\n", txlen);
        return -1;
    }
    const bool uav = (m_comp_id == DEV_UAV);
    // 2. Nothing sent yet.
    int count = 0;
    bool payload_flag = false;
    bool query_flag = false;
    // With a DEV_UAV target the poll repeats in every cycle until answered;
    // only the first poll after a busy answer restarts the silence timer, so
    // polling that stays unanswered falls back on the retry budget.
    bool poll_restarts_timer = false;
    int32_t tick0 = Time_GetMs();
    uint8_t tx[SPI_BLOCK_SIZE];
    uint8_t rx[SPI_BLOCK_SIZE];
    // 3. Cycles until the retry budget is spent (none at all with 0).
    while (count < retry_cnt) {
        // 3.1 Silent too long: transmit the request again, same sequence.
        if (elapsed_ms(tick0) >= timeout) {
            query_flag = false;
            payload_flag = false;
            count++;
            m_tx_seq--;
        }
        // 3.2 Fresh blocks.
        memset(tx, 0, sizeof tx);
        memset(rx, 0, sizeof rx);
        // 3.3 The request, a poll, or nothing (a listening transfer).
        if (!payload_flag) {
            payload_flag = true;
            int n = mcu_package(msgid, txbuf, txlen);
            memcpy(tx, &m_tx_msg, static_cast<size_t>(n));
            tick0 = Time_GetMs();
        } else if (query_flag) {
            m_tx_seq--;
            int n = mcu_package(CMD_QUERY_DEVICE, nullptr, 0);
            memcpy(tx, &m_tx_msg, static_cast<size_t>(n));
            if (poll_restarts_timer)
                tick0 = Time_GetMs();
            poll_restarts_timer = false;
            if (!uav)
                query_flag = false;
        }
        // 3.4 One full-duplex transfer.
        int ret = spi_transfer(m_serial_fd, tx, rx);
        if (ret < 1) {
            LOG_ERR_AS(kSendrecv, "spi message ioctl failed: %d\n\n", ret);
            mcu_uninit();
            m_stts.txFail++;
            return -1;
        }
        // 3.5 The first frame in what the MCU clocked out.
        memset(&m_rx_msg, 0, sizeof m_rx_msg);
        if (mcu_recv(&m_rx_msg, rx, SPI_BLOCK_SIZE) < 0) {
            pause_ms(uav ? kPauseAfterNoFrame : kPauseAfterNoFrameSpi);
            continue;
        }
        // 3.6 Only answers to this request or to the poll count.
        uint8_t id = m_rx_msg.msgid;
        if (id != msgid && id != CMD_QUERY_DEVICE) {
            LOG_ERR_AS(kSendrecv, "msgid fail 0x%02x\n", id);
            pause_ms(kPauseAfterOtherId);
            continue;
        }
        // 3.7 Data replies and inbound messages.
        if (is_data_reply(id)) {
            ret = take_data_reply(rxbuf, rxlen);
            if (ret == 0)
                count_spi_request(msgid, txlen);
            return ret;
        }
        if (id == CMD_DEBUG_DEVICE) {
            LOG_ERR_AS(kSendrecv, "CMD_DEBUG_DEVICE: 0x%02x\n", id);
            return mcu_debug(reinterpret_cast<ST_DebugCmd*>(m_rx_msg.data));
        }
        if (id == CMD_HEARBEAT) {
            LOG_ERR_AS(kSendrecv, "CMD_HEARBEAT: 0x%02x\n", id);
            return mcu_heartbeat(reinterpret_cast<ST_HeartBeat*>(m_rx_msg.data));
        }
        if (id == CMD_QUERY_DEVICE && uav)
            query_flag = false;
        // 3.8 The result code.
        uint8_t result = m_rx_msg.data[0];
        if (result == RESULT_SUCCESS) {
            count_spi_request(msgid, txlen);
            return 0;
        }
        if (result == RESULT_BUSY) {
            uint16_t delay = payload_u16(&m_rx_msg, 1);
            if (delay == 0) {
                delay = kBusyDefaultMs;
                LOG_ERR_AS(kSendrecv, "busy timeout default %d\n", delay);
            }
            if (delay > kSpiBusyLongMs) {
                LOG_ERR_AS(kSendrecv, " msgid %02x seq %d busy: delay %d ms\n", id, m_rx_msg.seq,
                           delay);
                delay = static_cast<uint16_t>(delay + kSpiBusySurchargeMs);
            }
            pause_ms(delay);
            query_flag = true;
            poll_restarts_timer = true;
            continue;
        }
        if (result < RESULT_CODE_MAX) {
            LOG_ERR_AS(kSendrecv, "msgid: 0x%02x, seq: %d, result failed: %d\n", id, m_rx_msg.seq,
                       result);
            return -2;
        }
        pause_ms(kPauseAfterUnknownCode);
    }
    // 4. No conclusive answer.
    return -3;
}

int mcu_sendrecv(uint8_t msgid, uint8_t* txbuf, int txlen, uint8_t* rxbuf, int rxlen, int timeout,
                 int retry_cnt) {
    return link_ops().sendrecv(msgid, txbuf, txlen, rxbuf, rxlen, timeout, retry_cnt);
}
