// The MCU's upgrade parameters and the bootloader command set: one engine
// exchange per command, and the chunked image download with its progress
// figure. Each returns the engine's result (0, -2 refused, -3 time-out, -1).
#include <stdio.h>
#include <string.h>

#include "mcu_tool2_internal.h"

namespace {

constexpr int kParamTimeoutMs = 500;
constexpr int kBootRetries = 2;
// Floors of the chunk download's own arguments.
constexpr int kProgramMinTimeoutMs = 1000;
constexpr int kProgramMinRetries = 2;
constexpr int kProgramMinPksize = 240;
constexpr uint32_t kChunkPauseMs = 10;

void out_line(const char* fmt, int value, int bound) {
    printf(fmt, value, bound);
    fflush(stdout);
}

// One field of the limit step: raised to its low bound or cut to its high
// bound, with the field's line; a value equal to a bound stays.
void limit_field(uint16_t* field, uint16_t low, uint16_t high, const char* low_line,
                 const char* high_line) {
    if (*field < low) {
        out_line(low_line, *field, low);
        *field = low;
    } else if (*field > high) {
        out_line(high_line, *field, high);
        *field = high;
    }
}

}  // namespace

int mcu_getMcuUpgradeParam(ST_TimeRetryCmd* cmd) {
    return mcu_sendrecv(CMD_GET_TIMERETRY, nullptr, 0, reinterpret_cast<uint8_t*>(cmd), sizeof *cmd,
                        kParamTimeoutMs, kBootRetries);
}

void mcu_limit_upgrade_param(ST_TimeRetryCmd* cmd) {
    limit_field(&cmd->message_timeoutms, 500, 1500,
                "low message timeout ms: %d, using default: %d\n",
                "large message timeout ms: %d, using default: %d\n");
    limit_field(&cmd->program_timeoutms, 1000, 3000,
                "low program timeout ms: %d, using default: %d\n",
                "large program timeout ms: %d, using default: %d\n");
    limit_field(&cmd->program_retrys, 2, 6, "low program retry: %d, using default: %d\n",
                "large program retry: %d, using default: %d\n");
    limit_field(&cmd->program_pksize, 240, MAVLINK_MAX_PAYLOAD,
                "low program pksize: %d, using default: %d\n",
                "large program szie: %d, using default: %d\n");
    limit_field(&cmd->erase_timeouts, 20, 60, "low erase timeouts: %d, using default: %d\n",
                "large erase timeouts: %d, using default: %d\n");
    limit_field(&cmd->checkcrc_timeouts, 2, 6, "low check crc timeouts: %d, using default: %d\n",
                "large check crc timeouts: %d, using default: %d\n");
    limit_field(&cmd->runapp_timeouts, 2, 6, "low runapp timeouts: %d, using default: %d\n",
                "large runapp timeouts: %d, using default: %d\n");
    limit_field(&cmd->bootload_timeouts, 2, 6, "low bootloader timeouts: %d, using default: %d\n",
                "large bootloader timeouts: %d, using default: %d\n");
}

int mcu_getFlashSize(uint32_t* flash_size, uint32_t timeoutms) {
    return mcu_sendrecv(CMD_GET_APP_FLASHSIZE, nullptr, 0, reinterpret_cast<uint8_t*>(flash_size),
                        sizeof *flash_size, static_cast<int>(timeoutms), kBootRetries);
}

int mcu_enterBootloader(uint32_t timeoutms) {
    return reset_exchange(RESET_TYPE_BOOTLOADER, static_cast<int>(timeoutms));
}

int mcu_requestUpgrade(uint32_t timeoutms) {
    return mcu_sendrecv(CMD_REQUEST_UPGRADE, nullptr, 0, nullptr, 0, static_cast<int>(timeoutms),
                        kBootRetries);
}

int mcu_eraseFlash(uint32_t firmware_size, uint32_t timeoutms) {
    // The image length, little-endian like every wire field.
    return mcu_sendrecv(CMD_ERASE_APP_FLASH, reinterpret_cast<uint8_t*>(&firmware_size),
                        sizeof firmware_size, nullptr, 0, static_cast<int>(timeoutms),
                        kBootRetries);
}

int mcu_programFlash(uint8_t* firmware, int length, int timeoutms, int retrys, int pksize) {
    // 1. Floors of the arguments.
    if (timeoutms < kProgramMinTimeoutMs) {
        out_line("low timeout: %d, using default: %d\n", timeoutms, kProgramMinTimeoutMs);
        timeoutms = kProgramMinTimeoutMs;
    }
    if (retrys < kProgramMinRetries) {
        out_line("low retry: %d, using default: %d\n", retrys, kProgramMinRetries);
        retrys = kProgramMinRetries;
    }
    if (pksize < kProgramMinPksize) {
        out_line("low pksize: %d, using default: %d\n", pksize, kProgramMinPksize);
        pksize = kProgramMinPksize;
    }
    // 2. The field the progress figure overwrites.
    printf("   ");
    fflush(stdout);
    // 3. The chunks, in order, each after the previous one was acknowledged.
    int count = 0;
    int64_t last_percent = 0;
    while (count < length) {
        int chunk = length - count < pksize ? length - count : pksize;
        int ret =
            mcu_sendrecv(CMD_DOWNLOADING, firmware + count, chunk, nullptr, 0, timeoutms, retrys);
        if (ret < 0) {
            if (ret == -3)
                LOG_ERR("mcu_sendrecv %d / %d timeout\n", count, length);
            else
                LOG_ERR("mcu_sendrecv %d / %d fail\n", count, length);
            return ret;
        }
        count += chunk;
        LOG_DBG("mcu_sendrecv %d / %d\n", count, length);
        // Wide enough for count * 100 of any image.
        int64_t percent = static_cast<int64_t>(count) * 100 / length;
        if (percent > last_percent) {
            printf("\b\b\b%02d%%", static_cast<int>(percent));
            fflush(stdout);
            last_percent = percent;
        }
        pause_ms(kChunkPauseMs);
    }
    // 4. Every byte acknowledged.
    return 0;
}

int mcu_requestCrcCheck(uint8_t* firmware, int length, uint32_t timeoutms) {
    uint8_t crc = calc_crc8(0, firmware, length);
    return mcu_sendrecv(CMD_CRC_CHECK, &crc, 1, nullptr, 0, static_cast<int>(timeoutms),
                        kBootRetries);
}

int mcu_runApp(uint32_t timeoutms) {
    return mcu_sendrecv(CMD_APP_GO, nullptr, 0, nullptr, 0, static_cast<int>(timeoutms),
                        kBootRetries);
}
