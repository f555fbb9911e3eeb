// Behaviour of the virtual MCU: what it answers to each request, its fault
// rules, the image it is sent and its unsolicited messages. Independent of the
// link; the link code only moves the bytes this produces.
#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <string>

#include "vmcu_frame.h"
#include "vmcu_options.h"
#include "vmcu_runtime.h"

namespace vmcu {

// What to do with one received request.
struct Reply {
    Bytes bytes;             // to send (may be empty: no answer)
    bool xfer_fail = false;  // SPI: fail the transfer that carried the request
};

class Mcu {
public:
    Mcu(const Options& opt, Logger& log)
        : opt_(opt), log_(log), spi_(opt.link == LinkKind::kSpi), rules_(opt.rules) {}

    Reply handle(const Frame& req);
    // Builds the next unsolicited frame of an --emit entry.
    Bytes emit_frame(const Emit& e) {
        return encode_frame(emit_seq_++, opt_.peer, kOwnId, e.msgid, e.payload);
    }

    static constexpr uint8_t kOwnId = 0x0A;

private:
    // The answer a well-behaved MCU gives: a result code (TTY: ACK or NAK;
    // SPI: a frame carrying the code) when code >= 0, else msgid and payload.
    struct Answer {
        int code = 0;
        uint8_t msgid = 0;
        Bytes payload;
    };

    static Answer result(int code) { return Answer{code, 0, {}}; }
    Rule* take_rule(uint8_t msgid);
    // Acts on the request and returns its normal answer.
    Answer act(const Frame& req, uint8_t answer_seq);
    static Bytes debug_payload(uint32_t code, const Frame* req);
    // Message id of an SPI result-code answer to `req`.
    static uint8_t spi_result_id(const Frame& req);

    const Options& opt_;
    Logger& log_;
    bool spi_;
    std::vector<Rule> rules_;
    std::optional<Frame> pending_;  // request answered with BUSY, awaiting a poll
    uint8_t emit_seq_ = 0;
    std::mt19937 rng_{1};  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same noise every run

    // Bootloader model.
    Bytes image_;
    uint32_t expected_size_ = 0;
    int chunk_seq_a_ = -1;  // seq of the frame that carried the last stored chunk
    int chunk_seq_b_ = -1;  // seq of the frame it was answered under (a busy poll)
};

}  // namespace vmcu
