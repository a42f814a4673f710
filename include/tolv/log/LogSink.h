#pragma once
// An observer of finished log lines beside the loggers: tests capture lines
// through it. The sink is called under the process-wide logging lock, one line
// at a time, with every line at or below CurrentLogLevel, and must not log
// itself (a nested log call is dropped, not written). Nothing else writes a
// line that no default logger takes.

#include <cstdint>
#include <string_view>

namespace tolv::log {

struct LogLine {
    const char* loggerName = nullptr;   // null for the default logger
    int32_t level = 0;
    const char* functionName = "";
    const char* file = nullptr;         // trace lines only
    int line = 0;
    std::string_view text;              // without the trailing line feed
};

class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void Write(const LogLine& line) = 0;
};

// Installs `sink` (null: none) and returns the previous one (null when none).
LogSink* SetLogSink(LogSink* sink);

// Writes a finished line to the sink under the logging lock, with the same
// level gate and re-entrancy rule as Log.
void WriteLogLine(const LogLine& line);

// "%04d-%02d-%02d %02d:%02d:%02d.%03d" in local time, or the 'T'/'Z' form in UTC.
// Truncates to `size`, always terminates, returns the characters written.
int FormatLogTimeStamp(char* buffer, int size, bool utc);

// The calling thread's kernel id, cached per thread.
uint32_t LogThreadId();

} // namespace tolv::log
