// Behaviour of the virtual MCU: what it answers to each request, its fault
// rules, its bootloader state and its unsolicited messages. Independent of the
// link; the link code only moves the bytes this produces.
#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <string>

#include "vmcu_frame.h"
#include "vmcu_log.h"
#include "vmcu_options.h"

namespace vmcu {

namespace cmd {
constexpr uint8_t kHeartbeat = 208;
constexpr uint8_t kSystemReset = 209;
constexpr uint8_t kGetSn = 213;
constexpr uint8_t kGetFlashSize = 214;
constexpr uint8_t kRequestUpgrade = 215;
constexpr uint8_t kEraseFlash = 216;
constexpr uint8_t kDownloading = 217;
constexpr uint8_t kGetVersions = 219;
constexpr uint8_t kCrcCheck = 220;
constexpr uint8_t kAppGo = 221;
constexpr uint8_t kGetTimeRetry = 222;
constexpr uint8_t kQueryDevice = 224;
constexpr uint8_t kSyslog = 229;
constexpr uint8_t kDebugDevice = 230;
constexpr uint8_t kUserString = 232;
constexpr uint8_t kBusy = 253;
constexpr uint8_t kAck = 254;
constexpr uint8_t kNak = 255;
}  // namespace cmd

// What to do with one received request.
struct Reply {
    Bytes bytes;             // to send (may be empty: no answer)
    bool xfer_fail = false;  // SPI: fail the transfer that carried the request
};

class Mcu {
public:
    Mcu(const Options& opt, Logger& log);

    Reply handle(const Frame& req);
    // Builds the next unsolicited frame of an --emit entry.
    Bytes emit_frame(const Emit& e);

private:
    // The answer a well-behaved MCU gives, before rules change it.
    struct Answer {
        bool result = true;  // a plain result (TTY: ACK/NAK; SPI: code frame)
        uint8_t code = 0;    // result code when `result`
        uint8_t msgid = 0;   // data/debug answers
        Bytes payload;
    };

    const Rule* take_rule(uint8_t msgid);
    // Acts on the request and returns its normal answer.
    Answer act(const Frame& req, uint8_t answer_seq);
    Answer debug_answer(const Frame& req);
    Bytes debug_payload(uint32_t code, const Frame* req) const;
    bool in_bootloader_or_refuse(const char* what);
    // Message id of an SPI result-code answer to `req`.
    uint8_t spi_result_id(const Frame& req) const;
    // Turns an answer into (msgid, payload) for this link.
    void render(const Answer& a, const Frame& req, uint8_t* msgid, Bytes* payload) const;
    static Answer result(uint8_t code) {
        Answer a;
        a.code = code;
        return a;
    }
    static Answer data(uint8_t msgid, Bytes payload) {
        Answer a;
        a.result = false;
        a.msgid = msgid;
        a.payload = std::move(payload);
        return a;
    }

    const Options& opt_;
    Logger& log_;
    bool spi_;
    std::vector<Rule> rules_;
    std::optional<Frame> pending_;  // request answered with BUSY, awaiting a poll
    uint8_t emit_seq_ = 0;
    std::mt19937 rng_;

    // Bootloader model.
    bool bootloader_ = false;
    Bytes image_;
    uint32_t expected_size_ = 0;
    bool have_chunk_seq_ = false;
    uint8_t chunk_seq_a_ = 0;  // seq of the frame that carried the last stored chunk
    uint8_t chunk_seq_b_ = 0;  // seq of the frame it was answered under (a busy poll)
};

}  // namespace vmcu
