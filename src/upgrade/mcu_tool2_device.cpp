// The target and the link around each action (bring-up clears statistics and
// opens the device; take-down closes it and prints the statistics), the
// identity queries and the reset.
#include <stdio.h>
#include <string.h>

#include "mcu_tool2_internal.h"

uint8_t m_comp_id = DEV_NONE;
uint8_t m_sys_id = 0;

namespace {

// Every identity or reset exchange: 500 ms per attempt, two retransmissions.
constexpr int kCmdTimeoutMs = 500;
constexpr int kCmdRetries = 2;

// The four versions: software, bootloader, hardware, protocol.
int query_versions(ST_Version versions[4]) {
    memset(versions, 0, 4 * sizeof(ST_Version));
    return mcu_sendrecv(CMD_GET_VERSIONS, nullptr, 0, reinterpret_cast<uint8_t*>(versions),
                        4 * sizeof(ST_Version), kCmdTimeoutMs, kCmdRetries);
}

}  // namespace

int set_comp_id(uint8_t id) {
    m_comp_id = id;
    m_sys_id = (id == DEV_RC) ? DEV_DSP_RC : DEV_DSP;
    m_serial_dev = "/dev/ttyS2";
    if (id == DEV_MOVIDIUS_1 || id == DEV_MOVIDIUS_2 || id == DEV_MOVIDIUS_3)
        m_serial_dev = "/dev/ttyACM0";
    LOG_DBG("m_sys_id = 0x%02x\n", m_sys_id);
    LOG_DBG("m_comp_id = 0x%02x\n", m_comp_id);
    LOG_DBG("m_serial_dev = %s\n", m_serial_dev);
    return 0;
}

int comp_id_is_set(void) {
    return m_comp_id != DEV_NONE ? 1 : 0;
}

int mcu_init(void) {
    clear_stts(&m_stts);
    m_serial_fd = mcu_open(m_serial_dev, m_serial_speed);
    if (m_serial_fd < 0) {
        LOG_ERR("mcu_open fail\n");
        return -1;
    }
    m_tx_seq = 0;
    return 0;
}

int link_up(const char* func, const char* no_target) {
    if (!comp_id_is_set()) {
        LOG_ERR_AS(func, "%s\n", no_target);
        return -1;
    }
    if (mcu_init() < 0) {
        LOG_ERR_AS(func, "mcu_init fail\n");
        return -1;
    }
    return 0;
}

void link_release(void) {
    mcu_close(m_serial_fd);
    m_serial_fd = -1;
}

void mcu_uninit(void) {
    link_release();
    print_stts(&m_stts);
}

int version_to_string(ST_Version* v, char* buf, int len) {
    if (v == nullptr || buf == nullptr || len <= 0) {
        LOG_ERR("invalid params\n");
        return -1;
    }
    snprintf(buf, static_cast<size_t>(len), "%u.%u.%u.%u", v->debug, v->patch, v->minor, v->major);
    return 0;
}

// The parameter types are those of the public header, which other programs
// link against. NOLINTNEXTLINE(readability-non-const-parameter)
int print_version(char* type, ST_Version* v) {
    if (v == nullptr) {
        LOG_ERR("null param\n");
        return -1;
    }
    char text[128] = {};
    version_to_string(v, text, sizeof text);
    printf("%s: V%s\n", type != nullptr ? type : " - ", text);
    fflush(stdout);
    return 0;
}

int mcu_version(void) {
    if (link_up(__func__, "comp_id not set") < 0)
        return -1;
    ST_Version versions[4];
    int ret = query_versions(versions);
    if (ret < 0) {
        LOG_ERR("mcu_sendrecv fail\n");
    } else {
        char software[] = "Software";
        char bootloader[] = "Bootloader";
        char hardware[] = "Hardware";
        char protocol[] = "Protocol";
        print_version(software, &versions[0]);
        print_version(bootloader, &versions[1]);
        print_version(hardware, &versions[2]);
        print_version(protocol, &versions[3]);
    }
    mcu_uninit();
    return ret;
}

int mcu_get_softver(uint8_t comp_id, char* buf, int len) {
    if (buf == nullptr || len <= 0) {
        LOG_ERR("invalid params\n");
        return -1;
    }
    set_comp_id(comp_id);
    if (mcu_init() < 0) {
        LOG_ERR("mcu_init fail\n");
        return -1;
    }
    ST_Version versions[4];
    int ret = query_versions(versions);
    if (ret == 0)
        version_to_string(&versions[0], buf, len);
    else
        LOG_ERR("mcu_sendrecv fail\n");
    mcu_uninit();
    return ret;
}

int mcu_serial(void) {
    if (link_up(__func__, "comp_id not set") < 0)
        return -1;
    uint8_t sn[32] = {};
    int ret = mcu_sendrecv(CMD_GET_SN, nullptr, 0, sn, sizeof sn, kCmdTimeoutMs, kCmdRetries);
    if (ret < 0)
        LOG_ERR("mcu_sendrecv fail\n");
    else
        hexdump(sn, sizeof sn);
    mcu_uninit();
    return ret;
}

int reset_exchange(uint16_t reset_type, int timeout) {
    ST_ResetCmd cmd;
    cmd.confirm_code = 0x55AA;
    cmd.reset_type = reset_type;
    return mcu_sendrecv(CMD_SYSTEM_RESET, reinterpret_cast<uint8_t*>(&cmd), sizeof cmd, nullptr, 0,
                        timeout, kCmdRetries);
}

int mcu_reset(uint16_t reset_type) {
    if (link_up(__func__, "comp_id not set") < 0)
        return -1;
    int ret = reset_exchange(reset_type, kCmdTimeoutMs);
    if (ret < 0)
        LOG_ERR("mcu_sendrecv fail\n");
    mcu_uninit();
    return ret;
}
