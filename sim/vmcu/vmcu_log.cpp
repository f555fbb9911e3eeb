#include "vmcu_log.h"

namespace vmcu {

Logger::~Logger() {
    close();
}

bool Logger::open(const std::string& log_path, const std::string& raw_path) {
    if (!log_path.empty()) {
        log_ = std::fopen(log_path.c_str(), "w");
        if (log_ == nullptr) {
            return false;
        }
    }
    if (!raw_path.empty()) {
        raw_ = std::fopen(raw_path.c_str(), "wb");
        if (raw_ == nullptr) {
            return false;
        }
    }
    return true;
}

void Logger::line(const std::string& text) {
    if (log_ == nullptr) {
        return;
    }
    std::fputs(text.c_str(), log_);
    std::fputc('\n', log_);
    std::fflush(log_);
}

void Logger::raw(const uint8_t* data, size_t len) {
    if (raw_ == nullptr || len == 0) {
        return;
    }
    std::fwrite(data, 1, len, raw_);
    std::fflush(raw_);
}

void Logger::close() {
    if (log_ != nullptr) {
        std::fclose(log_);
        log_ = nullptr;
    }
    if (raw_ != nullptr) {
        std::fclose(raw_);
        raw_ = nullptr;
    }
}

}  // namespace vmcu
