// Link statistics of one action and the protocol switches: the transmit CRC
// extra byte, the upgrade type and the parser's receive-check flags.
#include <stdio.h>
#include <string.h>

#include "mcu_tool2_internal.h"

ST_MavlinkStts m_stts;
uint8_t m_crc_extra = 0;
uint8_t m_upgrade_type = UPGRADE_TYPE_NORMAL;
uint8_t m_seq_check = 1;
uint8_t m_crc_check = 1;
uint8_t m_sys_id_check = 1;
uint8_t m_comp_id_check = 1;
uint8_t m_msgid_check = 1;

void clear_stts(ST_MavlinkStts* st) {
    if (st == nullptr)
        return;
    memset(st, 0, sizeof *st);
    st->msStart = Time_GetMs();
}

namespace {

void print_line(const char* fmt, uint32_t value) {
    printf(fmt, value);
    fflush(stdout);
}

}  // namespace

int print_stts(ST_MavlinkStts* st) {
    if (st == nullptr) {
        LOG_ERR("null pointer\n");
        return -1;
    }
    // Elapsed time in 32-bit arithmetic, right across the clock's wrap.
    int32_t e = static_cast<int32_t>(static_cast<uint32_t>(Time_GetMs()) -
                                     static_cast<uint32_t>(st->msStart));
    auto line = [](const char* text) {
        fputs(text, stdout);
        fflush(stdout);
    };
    auto counts = [](const uint32_t* cnt) {
        for (int id = 0; id < CMD_NUM_MAX; id++) {
            if (cnt[id] == 0)
                continue;
            printf("   [0x%02x]    %8u\n", id, cnt[id]);
            fflush(stdout);
        }
    };
    line("=============================\n");
    printf("Fenlink statistics: elapse %d.%03d s\n", e / 1000, e % 1000);
    fflush(stdout);
    print_line("TX Bytes:    %8u\n", st->txBytes);
    print_line("TX Packets:  %8u\n", st->txPkts);
    print_line("TX Fail:     %8u\n", st->txFail);
    line("TX messages:\n");
    counts(st->txCnt);
    print_line("RX Bytes:    %8u\n", st->rxBytes);
    print_line("RX Packets:  %8u\n", st->rxPkts);
    print_line("RX CRC Fail: %8u\n", st->crcFail);
    print_line("RX Len Fail: %8u\n", st->lenFail);
    print_line("RX Sum Fail: %8u\n", st->sumFail);
    if (m_seq_check)
        print_line("RX Seq Fail: %8u\n", st->seqFail);
    if (m_sys_id_check)
        print_line("RX Sys Fail: %8u\n", st->sysFail);
    if (m_comp_id_check)
        print_line("RX Dst Fail: %8u\n", st->compFail);
    if (m_msgid_check)
        print_line("RX Cmd Fail: %8u\n", st->cmdFail);
    line("RX messages:\n");
    counts(st->rxCnt);
    line("=============================\n");
    return 0;
}

int set_crc_extra(uint8_t val) {
    m_crc_extra = val;
    LOG_DBG("m_crc_extra = 0x%02x\n", m_crc_extra);
    return 0;
}

int set_upgrade_type(uint8_t val) {
    m_upgrade_type = val;
    LOG_DBG("m_upgrade_type = 0x%02x\n", m_upgrade_type);
    return 0;
}

int set_seq_check(uint8_t val) {
    m_seq_check = val;
    LOG_DBG("m_seq_check = 0x%02x\n", m_seq_check);
    return 0;
}
