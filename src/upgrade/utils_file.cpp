// File and shell helpers: size, whole-file read, write, append, MD5 digest
// through md5sum, and a formatted shell command. One line per failure.
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "utils.h"

namespace {

// Files created by write_file/append_file: rw for the owner, r for others,
// as the process's umask allows.
constexpr mode_t kCreateMode = 0644;

// The last command run by my_system, kept until the next call.
char m_system_cmd[16384];

// The characters a shell word holds as they are (ASCII letters and digits
// whatever the locale).
constexpr const char* kPlain =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+,:@%=";

// Appends text to the text in buf (cap bytes in all), cut to fit.
void append(char* buf, size_t cap, const char* text) {
    size_t used = strlen(buf);
    snprintf(buf + used, cap - used, "%s", text);
}

int write_with_flags(const char* filepath, uint8_t* buf, int len, int flags, const char* func) {
    int fd = open(filepath, flags, kCreateMode);
    if (fd < 0) {
        LOG_ERR_AS(func, "open %s fail : %s\n", filepath, strerror(errno));
        return -1;
    }
    int ret = static_cast<int>(write(fd, buf, static_cast<size_t>(len)));
    if (ret < len) {
        LOG_ERR_AS(func, "write %s fail len = %d ret = %d : %s\n", filepath, len, ret,
                   strerror(errno));
    }
    close(fd);
    return ret;
}

}  // namespace

int file_size(const char* filepath) {
    if (filepath == nullptr || filepath[0] == '\0') {
        LOG_ERR("null pointer\n");
        return -1;
    }
    struct stat st;
    if (stat(filepath, &st) != 0) {
        LOG_ERR("stat %s fail : %s\n", filepath, strerror(errno));
        return -1;
    }
    return static_cast<int>(st.st_size);
}

int read_file(const char* filepath, uint8_t* buf, int len) {
    // Negative counts are refused like zero: they cannot describe a buffer.
    if (filepath == nullptr || buf == nullptr || len <= 0) {
        LOG_ERR("params wrong\n");
        return -1;
    }
    int fd = open(filepath, O_RDONLY);
    if (fd < 0) {
        LOG_ERR("open %s fail : %s\n", filepath, strerror(errno));
        return -1;
    }
    memset(buf, 0, static_cast<size_t>(len));
    int ret = static_cast<int>(read(fd, buf, static_cast<size_t>(len)));
    if (ret < 0)
        LOG_ERR("read %s fail : %s\n", filepath, strerror(errno));
    close(fd);
    return ret;
}

int write_file(const char* filepath, uint8_t* buf, int len) {
    if (filepath == nullptr || buf == nullptr || len <= 0) {
        LOG_ERR("params wrong\n");
        return -1;
    }
    return write_with_flags(filepath, buf, len, O_WRONLY | O_CREAT | O_TRUNC, __func__);
}

int append_file(const char* filepath, uint8_t* buf, int len) {
    if (filepath == nullptr || buf == nullptr || len <= 0) {
        LOG_ERR("params wrong\n");
        return -1;
    }
    return write_with_flags(filepath, buf, len, O_WRONLY | O_CREAT | O_APPEND, __func__);
}

// The parameter types are those of the public header, which other programs
// link against. NOLINTNEXTLINE(readability-non-const-parameter)
int calc_md5sum(char* filepath, uint8_t* buf, int len) {
    if (filepath == nullptr || filepath[0] == '\0' || buf == nullptr || len <= 0) {
        LOG_ERR("params wrong\n");
        return -1;
    }
    // The name reaches the shell as one word: as it is when it holds nothing
    // the shell reads specially, else single-quoted, each ' in it closed,
    // escaped and reopened ('\''). Cut to 63 characters, the command keeps a
    // prefix of the quoted name: a shorter name (or an open quote, which the
    // shell refuses), never text outside the quotes.
    char cmd[64];
    bool plain = true;
    for (const char* p = filepath; *p != '\0'; p++)
        plain = plain && strchr(kPlain, *p) != nullptr;
    snprintf(cmd, sizeof cmd, "md5sum %s", plain ? filepath : "'");
    for (const char* p = filepath; !plain && *p != '\0'; p++) {
        const char one[2] = {*p, '\0'};
        append(cmd, sizeof cmd, *p == '\'' ? "'\\''" : one);
    }
    if (!plain)
        append(cmd, sizeof cmd, "'");
    FILE* fp = popen(cmd, "r");
    if (fp == nullptr) {
        LOG_ERR("popen %s fail : %s\n", cmd, strerror(errno));
        return -1;
    }
    size_t got = fread(buf, 1, static_cast<size_t>(len - 1), fp);
    int count = 0;
    while (static_cast<size_t>(count) < got && isxdigit(buf[count]))
        count++;
    buf[count] = '\0';
    pclose(fp);
    return count;
}

int my_system(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(m_system_cmd, sizeof m_system_cmd, fmt, ap);
    va_end(ap);
    if (system(m_system_cmd) < 0) {
        LOG_ERR("system %s fail : %s\n", m_system_cmd, strerror(errno));
        return -1;
    }
    return 0;
}
