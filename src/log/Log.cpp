#include "log/Log.h"

#include "log/LogSink.h"
#include "platform/ErrnoText.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

std::atomic<int32_t> CurrentLogLevel{LOG_LEVEL_INFO};

namespace {

// The one process-wide logging lock. It is recursive because a sink may call
// back into code that logs; such nested calls are dropped by the counter below.
std::recursive_mutex& LoggingLock()
{
    static std::recursive_mutex lock;
    return lock;
}

std::atomic<int> g_reentrancy{0};
LogSink* g_sink = nullptr; // guarded by LoggingLock()
int32_t g_level = LOG_LEVEL_INFO; // guarded by LoggingLock()

// Error variant: the caller's text is cut at this many bytes.
constexpr size_t kErrorTextBuffer = 10240;

std::string FormatV(const char* format, va_list args)
{
    char small[512];
    va_list copy;
    va_copy(copy, args);
    const int needed = vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (needed < 0)
        return {};
    if (static_cast<size_t>(needed) < sizeof small)
        return std::string(small, static_cast<size_t>(needed));
    std::string text(static_cast<size_t>(needed) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, args);
    text.resize(static_cast<size_t>(needed));
    return text;
}

void StripLineFeed(std::string& text)
{
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
}

// Gating, the lock and the re-entrancy rule shared by every entry point.
template <typename WriteFn>
void UnderLoggingLock(int32_t level, WriteFn&& write)
{
    const int savedErrno = errno;
    {
        std::lock_guard<std::recursive_mutex> guard(LoggingLock());
        if (g_reentrancy.fetch_add(1) == 0 && level <= g_level)
            write(g_sink ? *g_sink : StdErrLogSink());
        g_reentrancy.fetch_sub(1);
    }
    errno = savedErrno;
}

template <typename MakeText>
void Emit(const char* functionName, int32_t level, MakeText&& makeText)
{
    UnderLoggingLock(level, [&](LogSink& sink) {
        std::string text = makeText();
        StripLineFeed(text);
        LogLine line;
        line.level = level;
        line.functionName = functionName ? functionName : "";
        line.text = text;
        sink.Write(line);
    });
}

void EmitWithError(int errorCode, const char* functionName, int32_t level, const char* format, va_list args)
{
    Emit(functionName, level, [&] {
        std::string text = FormatV(format, args);
        if (text.size() > kErrorTextBuffer - 1)
            text.resize(kErrorTextBuffer - 1);
        StripLineFeed(text);
        char suffix[512];
        snprintf(suffix, sizeof suffix, "; (%d) %s", errorCode, platform::ErrnoText(errorCode).c_str());
        text += suffix;
        if (text.size() > kErrorTextBuffer - 1)
            text.resize(kErrorTextBuffer - 1);
        return text;
    });
}

} // namespace

void Log(const char* functionName, int32_t level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    Emit(functionName, level, [&] { return FormatV(format, args); });
    va_end(args);
}

void LogWithLastError(const char* functionName, int32_t level, const char* format, ...)
{
    const int err = errno;
    va_list args;
    va_start(args, format);
    EmitWithError(err, functionName, level, format, args);
    va_end(args);
}

void LogWithSocketError(const char* functionName, int32_t level, const char* format, ...)
{
    const int err = errno;
    va_list args;
    va_start(args, format);
    EmitWithError(err, functionName, level, format, args);
    va_end(args);
}

void LogWithErrorCode(int errorCode, const char* functionName, int32_t level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    EmitWithError(errorCode, functionName, level, format, args);
    va_end(args);
}

void SetCurrentLogLevel(int32_t level)
{
    std::lock_guard<std::recursive_mutex> guard(LoggingLock());
    g_level = level;
    CurrentLogLevel = level;
}

LogSink* SetLogSink(LogSink* sink)
{
    std::lock_guard<std::recursive_mutex> guard(LoggingLock());
    LogSink* previous = g_sink ? g_sink : &StdErrLogSink();
    g_sink = sink;
    return previous;
}

void WriteLogLine(const LogLine& line)
{
    UnderLoggingLock(line.level, [&](LogSink& sink) { sink.Write(line); });
}
