#include "vmcu_model.h"

#include <algorithm>
#include <cstdio>

namespace vmcu {

namespace {

std::string hex2(unsigned v) {
    char b[8];
    std::snprintf(b, sizeof b, "%02X", v & 0xFFu);
    return b;
}

// Rewrites the CRC after a header byte was changed on purpose.
void reseal(Bytes* f) {
    const size_t body = f->size() - 2;
    uint16_t crc = crc16(f->data() + 1, body - 1);
    crc = crc16_step(0, crc);
    (*f)[body] = static_cast<uint8_t>(crc & 0xFF);
    (*f)[body + 1] = static_cast<uint8_t>(crc >> 8);
}

}  // namespace

Mcu::Mcu(const Options& opt, Logger& log)
    : opt_(opt), log_(log), spi_(opt.link == LinkKind::kSpi), rules_(opt.rules), rng_(opt.seed) {}

const Rule* Mcu::take_rule(uint8_t msgid) {
    for (Rule& r : rules_) {
        if (r.remaining == 0 || (r.msgid >= 0 && r.msgid != msgid)) {
            continue;
        }
        if (r.remaining > 0) {
            --r.remaining;
        }
        return &r;
    }
    return nullptr;
}

Reply Mcu::handle(const Frame& req) {
    Reply reply;
    if (req.compid != opt_.id) {
        if (opt_.strict_dest) {
            log_.line("IGNORED dest " + hex2(req.compid));
            return reply;
        }
        log_.line("NOTE dest " + hex2(req.compid) + " != id " + hex2(opt_.id));
    }
    const bool poll = req.msgid == cmd::kQueryDevice;
    const Rule* rule = take_rule(req.msgid);
    if (rule != nullptr) {
        log_.line("RULE " + hex2(req.msgid) + " " + rule->text);
    }

    // The normal answer: acts on the request (or on the request a poll asks about).
    auto normal = [&]() {
        if (!poll) {
            pending_.reset();
            return act(req, req.seq);
        }
        if (!pending_) {
            return result(0);
        }
        const Frame p = *pending_;
        pending_.reset();
        return act(p, req.seq);
    };

    Answer ans;
    if (rule == nullptr) {
        ans = normal();
    } else {
        switch (rule->action) {
            case Action::kSilent:
                return reply;
            case Action::kXferFail:
                if (spi_) {
                    log_.line("XFERFAIL");
                    reply.xfer_fail = true;
                }
                return reply;
            case Action::kNak:
                pending_.reset();
                ans = result(1);
                break;
            case Action::kCode:
                if (rule->arg == 0) {
                    ans = normal();
                } else {
                    pending_.reset();
                    ans = result(static_cast<uint8_t>(rule->arg));
                }
                break;
            case Action::kBusy: {
                if (!poll) {
                    pending_ = req;
                }
                Bytes payload;
                uint8_t msgid = cmd::kBusy;
                if (spi_) {
                    msgid = spi_result_id(req);
                    payload.push_back(2);
                }
                put_u16(&payload, static_cast<uint16_t>(rule->arg));
                reply.bytes = encode_frame(req.seq, req.sysid, opt_.id, msgid, payload);
                return reply;
            }
            default:
                ans = normal();
                break;
        }
    }

    uint8_t msgid = 0;
    Bytes payload;
    render(ans, req, &msgid, &payload);
    uint8_t seq = req.seq;
    uint8_t dest = req.sysid;
    uint8_t src = opt_.id;
    const Action action = rule != nullptr ? rule->action : Action::kSilent;
    if (rule != nullptr) {
        switch (action) {
            case Action::kBadSeq:
                seq = static_cast<uint8_t>(seq + 1);
                break;
            case Action::kBadSys:
                src = static_cast<uint8_t>(src + 1);
                break;
            case Action::kBadComp:
                dest = static_cast<uint8_t>(dest + 1);
                break;
            case Action::kLowId:
                msgid = 207;
                break;
            case Action::kLong:
                payload.push_back(0xA5);
                break;
            case Action::kShort:
                payload.resize(std::min<size_t>(payload.size(), rule->arg));
                break;
            case Action::kOtherId:
                msgid = static_cast<uint8_t>(rule->arg);
                if (spi_) {
                    payload.assign(1, 0);
                }
                break;
            case Action::kHeartbeat:
                msgid = cmd::kHeartbeat;
                payload = opt_.heartbeat;
                break;
            case Action::kDebugReply:
                msgid = cmd::kDebugDevice;
                payload = debug_payload(rule->arg, req.msgid == cmd::kDebugDevice ? &req : nullptr);
                break;
            case Action::kAck:
                if (spi_) {
                    msgid = spi_result_id(req);
                    payload.assign(1, 0);
                } else {
                    msgid = cmd::kAck;
                    payload.clear();
                }
                break;
            case Action::kNoAck:
                return reply;
            default:
                break;
        }
    }
    if (payload.size() > kMaxPayload) {
        payload.resize(kMaxPayload);
    }
    Bytes frame = encode_frame(seq, dest, src, msgid, payload);
    if (rule != nullptr) {
        switch (action) {
            case Action::kBadCrc:
                frame[frame.size() - 2] ^= 0xFF;
                break;
            case Action::kBadSum:
                frame[7] = static_cast<uint8_t>(frame[7] + 1);
                reseal(&frame);
                break;
            case Action::kBigLen: {
                Bytes big = {kMagic, 0xE9, 0xFD, seq, dest, src, msgid, 0, 0, 0, 0, 0};
                big[7] = sum8(big.data(), 7);
                frame = big;
                break;
            }
            case Action::kGarbage: {
                Bytes g;
                std::uniform_int_distribution<int> dist(0, 255);
                while (g.size() < rule->arg) {
                    const int b = dist(rng_);
                    if (b != kMagic) {
                        g.push_back(static_cast<uint8_t>(b));
                    }
                }
                frame.insert(frame.begin(), g.begin(), g.end());
                break;
            }
            default:
                break;
        }
    }
    reply.bytes = std::move(frame);
    return reply;
}

void Mcu::render(const Answer& a, const Frame& req, uint8_t* msgid, Bytes* payload) const {
    if (!a.result) {
        *msgid = a.msgid;
        *payload = a.payload;
        return;
    }
    if (spi_) {
        *msgid = spi_result_id(req);
        payload->assign(1, a.code);
    } else {
        *msgid = a.code == 0 ? cmd::kAck : cmd::kNak;
        payload->clear();
    }
}

uint8_t Mcu::spi_result_id(const Frame& req) const {
    // The tool takes any frame with a data request's own id for the data, so
    // a result code for such a request only reaches it as QUERY_DEVICE.
    // Every other request gets its own id back (a poll: QUERY_DEVICE).
    switch (req.msgid) {
        case cmd::kGetSn:
        case cmd::kGetFlashSize:
        case cmd::kGetVersions:
        case cmd::kGetTimeRetry:
            return opt_.spi_data_result_own_id ? req.msgid : cmd::kQueryDevice;
        default:
            return req.msgid;
    }
}

bool Mcu::in_bootloader_or_refuse(const char* what) {
    if (!opt_.require_bootloader || bootloader_) {
        return true;
    }
    log_.line(std::string("NOTE ") + what + " refused: not in bootloader");
    return false;
}

Mcu::Answer Mcu::act(const Frame& req, uint8_t answer_seq) {
    const Bytes& p = req.payload;
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
        case cmd::kDebugDevice:
            return debug_answer(req);
        case cmd::kSystemReset: {
            if (p.size() != 4 || p[0] != 0xAA || p[1] != 0x55) {
                log_.line("RESET bad payload " + to_hex(p));
                return result(1);
            }
            const unsigned type = p[2] | (p[3] << 8);
            log_.line("RESET " + std::to_string(type));
            if (type == 2) {
                bootloader_ = true;
            }
            return result(0);
        }
        case cmd::kRequestUpgrade:
            if (!in_bootloader_or_refuse("REQUEST_UPGRADE")) {
                return result(1);
            }
            log_.line("REQUEST_UPGRADE");
            return result(0);
        case cmd::kEraseFlash: {
            if (!in_bootloader_or_refuse("ERASE")) {
                return result(1);
            }
            if (p.size() != 4) {
                log_.line("ERASE bad payload " + to_hex(p));
                return result(1);
            }
            const uint32_t size = get_u32(p, 0);
            if (size > opt_.flash_size) {
                log_.line("ERASE " + std::to_string(size) + " refused: flash size " +
                          std::to_string(opt_.flash_size));
                return result(1);
            }
            image_.clear();
            expected_size_ = size;
            have_chunk_seq_ = false;
            log_.line("ERASE " + std::to_string(size));
            return result(0);
        }
        case cmd::kDownloading: {
            if (!in_bootloader_or_refuse("DOWNLOADING")) {
                return result(1);
            }
            if (have_chunk_seq_ && (req.seq == chunk_seq_a_ || req.seq == chunk_seq_b_)) {
                log_.line("DUP " + std::to_string(req.seq));
                return result(0);
            }
            if (image_.size() + p.size() > opt_.flash_size) {
                log_.line("NOTE image overflow at " + std::to_string(image_.size()));
                return result(1);
            }
            image_.insert(image_.end(), p.begin(), p.end());
            have_chunk_seq_ = true;
            chunk_seq_a_ = req.seq;
            chunk_seq_b_ = answer_seq;
            return result(0);
        }
        case cmd::kCrcCheck: {
            if (!in_bootloader_or_refuse("CRC_CHECK")) {
                return result(1);
            }
            const uint8_t have = crc8(image_.data(), image_.size());
            const bool ok = p.size() == 1 && p[0] == have && image_.size() == expected_size_;
            log_.line(ok ? "CRC ok" : "CRC bad");
            if (!ok) {
                log_.line("NOTE crc got " + to_hex(p) + " image " + hex2(have) + " size " +
                          std::to_string(image_.size()) + " expected " +
                          std::to_string(expected_size_));
            }
            return result(ok ? 0 : 1);
        }
        case cmd::kAppGo: {
            log_.line("APP_GO " + std::to_string(image_.size()));
            if (!opt_.image_path.empty()) {
                FILE* f = std::fopen(opt_.image_path.c_str(), "wb");
                if (f == nullptr ||
                    std::fwrite(image_.data(), 1, image_.size(), f) != image_.size()) {
                    log_.line("NOTE cannot write image " + opt_.image_path);
                }
                if (f != nullptr) {
                    std::fclose(f);
                }
            }
            bootloader_ = false;
            return result(0);
        }
        default:
            return result(0);
    }
}

Mcu::Answer Mcu::debug_answer(const Frame& req) {
    const uint32_t code = get_u32(req.payload, 0);
    if (code == 0) {
        // Flood-test message. On SPI a debug reply of code 0 is the answer the
        // tool can take (its byte 0 also reads as result code 0).
        if (spi_) {
            return data(cmd::kDebugDevice, Bytes(20, 0));
        }
        return result(0);
    }
    return data(cmd::kDebugDevice, debug_payload(code, &req));
}

Bytes Mcu::debug_payload(uint32_t code, const Frame* req) const {
    DebugParams prm{0, 0, 0, 0};
    const auto it = opt_.debug.find(code);
    if (it != opt_.debug.end()) {
        prm = it->second;
    } else if (code == 1) {
        prm = {0x11, 0x22, 0, 0};
    } else if (code == 2) {
        prm[0] = req != nullptr ? get_u32(req->payload, 4) : 0;
    } else if (code >= 4 && code <= 20) {
        prm[0] = code * 100 + 1;
    } else if (code == 32) {
        prm = {11, 22, 33, 44};
    } else if (code == 33) {
        prm = {55, 66, 77, 88};
    }
    Bytes b;
    put_u32(&b, code);
    for (uint32_t v : prm) {
        put_u32(&b, v);
    }
    return b;
}

Bytes Mcu::emit_frame(const Emit& e) {
    const Bytes& payload = e.kind == EmitKind::kHeartbeat ? opt_.heartbeat : e.payload;
    return encode_frame(emit_seq_++, opt_.peer, opt_.id, e.msgid, payload);
}

}  // namespace vmcu
