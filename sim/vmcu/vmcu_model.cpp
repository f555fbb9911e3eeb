#include "vmcu_model.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

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
constexpr uint8_t kDebugDevice = 230;
constexpr uint8_t kBusy = 253;
constexpr uint8_t kAck = 254;
constexpr uint8_t kNak = 255;
}  // namespace cmd

Rule* Mcu::take_rule(uint8_t msgid) {
    for (Rule& r : rules_) {
        if (r.remaining != 0 && (r.msgid < 0 || r.msgid == msgid)) {
            r.remaining -= r.remaining > 0 ? 1 : 0;
            return &r;
        }
    }
    return nullptr;
}

Reply Mcu::handle(const Frame& req) {
    Reply reply;
    if (req.compid != kOwnId)
        log_.line("NOTE dest " + hex2(req.compid) + " != id " + hex2(kOwnId));
    const bool poll = req.msgid == cmd::kQueryDevice;
    const Rule* rule = take_rule(req.msgid);
    const Action action = rule != nullptr ? rule->action : Action::kNone;
    const uint32_t arg = rule != nullptr ? rule->arg : 0;
    if (rule != nullptr)
        log_.line("RULE " + hex2(req.msgid) + " " + rule->text);

    // The normal answer: acts on the request (or on the request a poll asks about).
    auto normal = [&]() {
        const std::optional<Frame> asked = poll ? pending_ : std::optional<Frame>(req);
        pending_.reset();
        return asked ? act(*asked, req.seq) : Answer{};
    };
    // The frame sent back, and how an answer fills it in for this link.
    uint8_t seq = req.seq;
    uint8_t dest = req.sysid;
    uint8_t src = kOwnId;
    uint8_t msgid = 0;
    Bytes payload;
    Bytes frame;  // set by the rules that spoil the encoded frame
    auto answer = [&](const Answer& a) {
        const uint8_t code = static_cast<uint8_t>(a.code);
        msgid = a.code < 0 ? a.msgid : spi_ ? spi_result_id(req) : code ? cmd::kNak : cmd::kAck;
        payload = a.code < 0 ? a.payload : spi_ ? Bytes{code} : Bytes{};
    };
    auto encode = [&]() {
        payload.resize(std::min(payload.size(), kMaxPayload));
        return encode_frame(seq, dest, src, msgid, payload);
    };

    switch (action) {
        case Action::kNone:
            answer(normal());
            break;
        case Action::kSilent:
            return reply;
        case Action::kXferFail:  // a TTY has no transfer to fail: as silent
            if (spi_) {
                log_.line("XFERFAIL");
                reply.xfer_fail = true;
            }
            return reply;
        case Action::kNoAck:
            normal();
            return reply;
        case Action::kNak:
            pending_.reset();
            answer(result(1));
            break;
        case Action::kCode:
            if (arg != 0)
                pending_.reset();
            answer(arg != 0 ? result(static_cast<int>(arg)) : normal());
            break;
        case Action::kBusy:  // the request is kept and answered at the next poll
            if (!poll)
                pending_ = req;
            msgid = spi_ ? spi_result_id(req) : cmd::kBusy;
            payload = spi_ ? Bytes{2} : Bytes{};
            put_u16(&payload, static_cast<uint16_t>(arg));
            break;
        case Action::kAck:
            normal();
            answer(result(0));
            break;
        case Action::kHeartbeat:
            normal();
            msgid = cmd::kHeartbeat;
            payload.assign(std::begin(kHeartbeatPayload), std::end(kHeartbeatPayload));
            break;
        case Action::kDebugReply:
            normal();
            msgid = cmd::kDebugDevice;
            payload = debug_payload(arg, req.msgid == cmd::kDebugDevice ? &req : nullptr);
            break;
        case Action::kOtherId:
            answer(normal());
            msgid = static_cast<uint8_t>(arg);
            if (spi_)
                payload.assign(1, 0);
            break;
        case Action::kBadSeq:  // seq, source or destination one too high
        case Action::kBadSys:
        case Action::kBadComp:
            answer(normal());
            ++(action == Action::kBadSeq ? seq : action == Action::kBadSys ? src : dest);
            break;
        case Action::kLowId:
            answer(normal());
            msgid = 207;
            break;
        case Action::kLong:
            answer(normal());
            payload.push_back(0xA5);
            break;
        case Action::kShort:
            answer(normal());
            payload.resize(std::min<size_t>(payload.size(), arg));
            break;
        case Action::kBadCrc:
            answer(normal());
            frame = encode();
            frame[frame.size() - 2] ^= 0xFF;
            break;
        case Action::kBadSum:  // the CRC still matches the wrong checksum
            answer(normal());
            frame = encode();
            frame.resize(frame.size() - 2);
            ++frame[7];
            append_crc(&frame);
            break;
        case Action::kBigLen:  // a length of 64,745 and only a few bytes
            answer(normal());
            frame = {kMagic, 0xE9, 0xFD, seq, dest, src, msgid, 0, 0, 0, 0, 0};
            frame[7] = sum8(frame.data(), 7);
            break;
        case Action::kGarbage: {  // noise without a start byte before the answer
            answer(normal());
            std::uniform_int_distribution<int> dist(0, 255);
            while (frame.size() < arg) {
                const int b = dist(rng_);
                if (b != kMagic)
                    frame.push_back(static_cast<uint8_t>(b));
            }
            const Bytes f = encode();
            frame.insert(frame.end(), f.begin(), f.end());
            break;
        }
    }
    reply.bytes = frame.empty() ? encode() : std::move(frame);
    return reply;
}

uint8_t Mcu::spi_result_id(const Frame& req) {
    // The tool takes any frame with a data request's own id for the data, so
    // a result code for such a request only reaches it as QUERY_DEVICE.
    // Every other request gets its own id back (a poll: QUERY_DEVICE).
    const uint8_t id = req.msgid;
    const bool data = id == cmd::kGetSn || id == cmd::kGetFlashSize || id == cmd::kGetVersions ||
                      id == cmd::kGetTimeRetry;
    return data ? cmd::kQueryDevice : id;
}

Mcu::Answer Mcu::act(const Frame& req, uint8_t answer_seq) {
    const Bytes& p = req.payload;
    auto data = [](uint8_t msgid, const Bytes& payload) { return Answer{-1, msgid, payload}; };
    auto logged = [this](int code, const std::string& event) {
        log_.line(event);
        return result(code);
    };
    switch (req.msgid) {
        case cmd::kGetSn:
            return data(req.msgid, opt_.sn);
        case cmd::kGetFlashSize: {
            Bytes b;
            put_u32(&b, opt_.flash_size);
            return data(req.msgid, b);
        }
        case cmd::kGetVersions:
            return data(req.msgid, opt_.versions);
        case cmd::kGetTimeRetry:
            return data(req.msgid, opt_.timeretry);
        case cmd::kDebugDevice: {
            // Code 0 is the flood test, answered with ACK. On SPI a debug reply
            // of code 0 is the answer the tool can take (its byte 0 reads as
            // result code 0).
            const uint32_t code = get_u32(p, 0);
            if (code == 0)
                return spi_ ? data(cmd::kDebugDevice, Bytes(20, 0)) : result(0);
            return data(cmd::kDebugDevice, debug_payload(code, &req));
        }
        case cmd::kSystemReset:
            if (p.size() != 4 || p[0] != 0xAA || p[1] != 0x55)
                return logged(1, "RESET bad payload " + to_hex(p));
            return logged(0, "RESET " + std::to_string(p[2] | (p[3] << 8)));
        case cmd::kRequestUpgrade:
            return logged(0, "REQUEST_UPGRADE");
        case cmd::kEraseFlash:
            if (p.size() != 4)
                return logged(1, "ERASE bad payload " + to_hex(p));
            if (get_u32(p, 0) > opt_.flash_size)
                return logged(1, "ERASE " + std::to_string(get_u32(p, 0)) +
                                     " refused: flash size " + std::to_string(opt_.flash_size));
            image_.clear();
            expected_size_ = get_u32(p, 0);
            chunk_seq_a_ = chunk_seq_b_ = -1;
            return logged(0, "ERASE " + std::to_string(expected_size_));
        case cmd::kDownloading:
            if (req.seq == chunk_seq_a_ || req.seq == chunk_seq_b_)
                return logged(0, "DUP " + std::to_string(req.seq));
            if (image_.size() + p.size() > opt_.flash_size)
                return logged(1, "NOTE image overflow at " + std::to_string(image_.size()));
            image_.insert(image_.end(), p.begin(), p.end());
            chunk_seq_a_ = req.seq;
            chunk_seq_b_ = answer_seq;
            return result(0);
        case cmd::kCrcCheck: {
            const uint8_t have = crc8(image_.data(), image_.size());
            if (p.size() == 1 && p[0] == have && image_.size() == expected_size_)
                return logged(0, "CRC ok");
            log_.line("CRC bad");
            return logged(1, "NOTE crc got " + to_hex(p) + " image " + hex2(have) + " size " +
                                 std::to_string(image_.size()) + " expected " +
                                 std::to_string(expected_size_));
        }
        case cmd::kAppGo: {
            log_.line("APP_GO " + std::to_string(image_.size()));
            FILE* f = opt_.image_path.empty() ? nullptr : std::fopen(opt_.image_path.c_str(), "wb");
            if (!opt_.image_path.empty() &&
                (f == nullptr || std::fwrite(image_.data(), 1, image_.size(), f) != image_.size()))
                log_.line("NOTE cannot write image " + opt_.image_path);
            if (f != nullptr)
                std::fclose(f);
            return result(0);
        }
        default:
            return result(0);
    }
}

// Debug replies: code, then four parameters. Code 1: 0x11, 0x22; code 2
// echoes the request's first parameter; the link counters (codes 4 to 20)
// read CODE*100+1; cpu and memory usage (32, 33) four figures each.
Bytes Mcu::debug_payload(uint32_t code, const Frame* req) {
    uint32_t prm[4] = {0, 0, 0, 0};
    if (code == 1) {
        prm[0] = 0x11;
        prm[1] = 0x22;
    } else if (code == 2) {
        prm[0] = req != nullptr ? get_u32(req->payload, 4) : 0;
    } else if (code >= 4 && code <= 20) {
        prm[0] = code * 100 + 1;
    } else if (code == 32 || code == 33) {
        for (uint32_t i = 0; i < 4; ++i)
            prm[i] = (code == 32 ? 11 : 55) + 11 * i;
    }
    Bytes b;
    put_u32(&b, code);
    for (uint32_t v : prm)
        put_u32(&b, v);
    return b;
}

}  // namespace vmcu
