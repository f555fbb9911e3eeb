// Event log of the virtual MCU: one line per event, flushed at once so that a
// test can read it while the vmcu is still running. Also the raw capture file.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace vmcu {

class Logger {
public:
    Logger() = default;
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // Empty paths disable the respective output. Returns false (with errno
    // set) when a file cannot be opened.
    bool open(const std::string& log_path, const std::string& raw_path);
    void line(const std::string& text);
    void raw(const uint8_t* data, size_t len);
    void close();

private:
    FILE* log_ = nullptr;
    FILE* raw_ = nullptr;
};

}  // namespace vmcu
