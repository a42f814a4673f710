#pragma once
// The logging framework's back end for the front-end entry points: each call
// goes to the default logger, which applies its own level. Plugged in once,
// when the logger manager is made; it lives as long as the process.

#include <tolv/log/LogBackEnd.h>

namespace tolv::log {

class LoggerBackEnd final : public LogBackEnd {
public:
    static void PlugIn();

    void Write(const char* functionName, int32_t level, const char* format, va_list args) override;
    void WriteWithError(int errorCode, const char* functionName, int32_t level, const char* format,
                        va_list args) override;
    void WriteLine(const LogLine& line) override;
    bool SetLevel(int32_t level) override;

private:
    LoggerBackEnd() = default;
};

} // namespace tolv::log
