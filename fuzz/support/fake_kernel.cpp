// The fuzz targets' stand-in for the kernel calls: no device is ever touched.
// SPI transfers reach a fake MCU that answers each request in the next
// transfer with a result code the fuzz input chose (or not at all), and
// keeps the firmware chunks it took, in order, once each.

#include "fuzz_support.h"

const unsigned int kTtyCbaudMask = 0;
const unsigned int kTtyBotherFlag = 0;

FakeMcu g_fake_mcu;

int tty_set_custom_rate(int, int) {
    return -1;
}
bool tty_hung_up(int) {
    return false;
}
int spi_configure(int, uint8_t, uint32_t, uint8_t, const char**) {
    return 0;
}

int spi_transfer(int, const uint8_t* tx, uint8_t* rx) {
    FakeMcu& f = g_fake_mcu;
    memcpy(rx, f.pending, SPI_BLOCK_SIZE);
    memset(f.pending, 0, SPI_BLOCK_SIZE);
    const ST_MavlinkMsg* req = reinterpret_cast<const ST_MavlinkMsg*>(tx);
    if (req->magic != 0xFD)
        return SPI_BLOCK_SIZE;  // a listening transfer
    uint8_t choice = f.pos < f.script.size() ? f.script[f.pos++] : 0;
    if (choice >= 250)
        return choice == 255 ? -1 : SPI_BLOCK_SIZE;  // a failed transfer, or silence
    uint8_t code = choice < 230 ? RESULT_SUCCESS : choice % RESULT_CODE_MAX;
    int len = frame_payload_len(req);
    bool fresh = req->seq != f.last_seq;
    // Success and busy both take the request (busy answers it at a later poll).
    bool taken = code == RESULT_SUCCESS || code == RESULT_BUSY;
    if (taken && req->msgid == CMD_DOWNLOADING && fresh)
        f.received.insert(f.received.end(), req->data, req->data + len);
    if (taken && req->msgid == CMD_DOWNLOADING)
        f.last_seq = req->seq;
    if (choice >= 240 && choice < 245)
        return SPI_BLOCK_SIZE;  // acted on, answer lost
    uint8_t* a = f.pending;
    const uint8_t head[] = {0xFD, 1, 0, req->seq, req->sysid, req->compid, req->msgid};
    memcpy(a, head, sizeof head);
    a[7] = sum_u8(a, 7);
    a[8] = code;
    uint16_t crc = crc_calculate(a + 1, 8);
    crc_accumulate(msg_crcs[req->msgid], &crc);
    a[9] = static_cast<uint8_t>(crc);
    a[10] = static_cast<uint8_t>(crc >> 8);
    return SPI_BLOCK_SIZE;
}
