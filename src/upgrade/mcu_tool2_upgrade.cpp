// Firmware upgrade: load the image file whole, then walk the bootloader
// through eight numbered steps, each with a banner and a verdict on standard
// output. The first failed step ends the run; nothing is undone on the MCU.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "mcu_tool2_internal.h"

namespace {

constexpr int kStepAttempts = 4;
constexpr uint32_t kRetryPauseMs = 500;
constexpr uint32_t kBeforeFlashSizePauseMs = 100;
constexpr uint32_t kBootloaderStartPauseMs = 1000;

void out(const char* text) {
    fputs(text, stdout);
    fflush(stdout);
}

// The verdict of a failed request: a time-out or any other failure.
void verdict(int ret) {
    out(ret == -3 ? "TIMEOUT\n" : "FAIL\n");
}

// The verdict of one single-attempt step: `ok` after success; true when the
// procedure goes on.
bool step_done(int ret, const char* ok) {
    if (ret < 0) {
        verdict(ret);
        return false;
    }
    out(ok);
    return true;
}

uint32_t seconds_ms(uint16_t seconds) {
    return static_cast<uint32_t>(seconds) * 1000u;
}

}  // namespace

int mcu_upgradeFirmare(uint8_t* firmware, int length) {
    if (firmware == nullptr) {
        LOG_ERR("null pointer\n");
        return -1;
    }
    if (length == 0) {
        LOG_ERR("invalid length\n");
        return -1;
    }
    ST_TimeRetryCmd cmd;
    uint32_t flashsize = 0;

    // Step 0: the MCU's upgrade parameters; after four failures the low
    // bounds are used.
    for (int failures = 0;;) {
        out("step 0: get firmware program info ... ");
        memset(&cmd, 0, sizeof cmd);
        int ret = mcu_getMcuUpgradeParam(&cmd);
        if (ret == 0) {
            printf("msg->timems: %d, program->timems: %d, retry: %d, pksize: %d\n",
                   cmd.message_timeoutms, cmd.program_timeoutms, cmd.program_retrys,
                   cmd.program_pksize);
            printf("\terases: %d, crcs: %d, apps: %d, boots: %d\n\n", cmd.erase_timeouts,
                   cmd.checkcrc_timeouts, cmd.runapp_timeouts, cmd.bootload_timeouts);
            fflush(stdout);
            break;
        }
        verdict(ret);
        if (++failures == kStepAttempts) {
            memset(&cmd, 0, sizeof cmd);
            break;
        }
        pause_ms(kRetryPauseMs);
    }
    mcu_limit_upgrade_param(&cmd);

    if (m_upgrade_type == UPGRADE_TYPE_NORMAL) {
        pause_ms(kBeforeFlashSizePauseMs);
        // Step 1: the application flash size, up to four attempts.
        for (int failures = 0;;) {
            out("step 1: get app flash size ... ");
            int ret = mcu_getFlashSize(&flashsize, cmd.message_timeoutms);
            if (ret == 0) {
                printf(" %u bytes\n", flashsize);
                fflush(stdout);
                break;
            }
            verdict(ret);
            if (++failures == kStepAttempts)
                return -1;
            pause_ms(kRetryPauseMs);
        }
        // Nothing on the MCU has changed yet: refuse an image that cannot fit.
        if (static_cast<uint32_t>(length) > flashsize) {
            LOG_ERR("firmware too large %d > %u\n", length, flashsize);
            return -1;
        }
        // Step 2: reset into the bootloader, then give it time to start.
        out("step 2: enter bootload ... ");
        if (!step_done(mcu_enterBootloader(seconds_ms(cmd.bootload_timeouts)), "OK\n"))
            return -1;
        pause_ms(kBootloaderStartPauseMs);
    }

    // Step 3: ask the bootloader for the upgrade.
    out("step 3: request upgrade ... ");
    if (!step_done(mcu_requestUpgrade(cmd.message_timeoutms), "OK\n"))
        return -1;

    // Step 4: erase the application area for the image's length.
    out("step 4: erase flash ... ");
    if (!step_done(mcu_eraseFlash(static_cast<uint32_t>(length), seconds_ms(cmd.erase_timeouts)),
                   "OK\n"))
        return -1;

    // Step 5: the image, chunk by chunk, with the progress figure.
    out("step 5: program flash ... ");
    if (!step_done(mcu_programFlash(firmware, length, cmd.program_timeoutms, cmd.program_retrys,
                                    cmd.program_pksize),
                   " OK\n"))
        return -1;

    // Step 6: the MCU checks the CRC-8 of what it programmed.
    out("step 6: check CRC ... ");
    if (!step_done(mcu_requestCrcCheck(firmware, length, seconds_ms(cmd.checkcrc_timeouts)),
                   " OK\n"))
        return -1;

    // Step 7: start the new application.
    out("step 7: jump to app ... ");
    if (!step_done(mcu_runApp(seconds_ms(cmd.runapp_timeouts)), "OK\n"))
        return -1;
    return 0;
}

int mcu_upgrade(const char* filename) {
    // 1-3. File name, target, link.
    if (filename == nullptr) {
        LOG_ERR("null pointer\n");
        return -1;
    }
    if (link_up(__func__, "component not specified") < 0)
        return -1;
    uint8_t* image = nullptr;
    int ret = -1;
    // 4-7. The image, read whole into a buffer of exactly its size.
    int size = file_size(filename);
    if (size == -1 || size == 0) {
        LOG_ERR("file_size %s fail\n", filename);
    } else {
        printf("file %s size %d bytes\n", filename, size);
        fflush(stdout);
        image = static_cast<uint8_t*>(malloc(static_cast<size_t>(size)));
        if (image == nullptr) {
            LOG_ERR("malloc %d fail\n", size);
        } else {
            int got = read_file(filename, image, size);
            if (got < 0) {
                LOG_ERR("read fail ret = %d\n", got);
                ret = got;
            } else if (got != size) {
                LOG_ERR("read %d byte except %d byte\n", got, size);
            } else if (mcu_upgradeFirmare(image, size) < 0) {
                // 8. The eight steps.
                LOG_ERR("mcu_upgradeFirmare fail\n");
            } else {
                printf("upgrade %s successfully\n", filename);
                fflush(stdout);
                ret = 0;
            }
        }
    }
    // 9. Every path from here releases the image and takes the link down.
    free(image);
    mcu_uninit();
    return ret;
}
