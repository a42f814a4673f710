#include "log/Log.h"

#include "log/LogSink.h"
#include "log/Logger.h"
#include "log/LoggerManager.h"
#include "log/LogWriter.h"
#include "log/LoggingLock.h"
#include "platform/ErrnoText.h"
#include "support/LxMutexLock.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

std::atomic<int32_t> CurrentLogLevel{LOG_LEVEL_ALWAYS};

namespace {

// A log call made while another one runs (a writer that logs its own failure)
// is dropped, not nested.
std::atomic<int32_t> g_reentrancy{0};
LogSink* g_sink = nullptr; // guarded by LoggingLock()

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
    va_copy(copy, args);
    vsnprintf(text.data(), text.size(), format, copy);
    va_end(copy);
    text.resize(static_cast<size_t>(needed));
    return text;
}

// The default logger gets every call and applies its own gate; without one a
// call does nothing. The sink (a test's capture) sees lines at or below
// CurrentLogLevel beside the logger.
template <typename ToLogger, typename MakeText>
void Dispatch(const LogLine& base, ToLogger&& toLogger, MakeText&& makeText)
{
    const int savedErrno = errno;
    {
        LxMutexLock guard(LoggingLock());
        if (g_reentrancy.fetch_add(1) == 0) {
            if (RCPtr<Logger> logger = LoggerManager::PeekDefaultLogger())
                toLogger(*logger);
            if (g_sink && base.level <= CurrentLogLevel.load()) {
                std::string text = makeText();
                if (!text.empty() && text.back() == '\n')
                    text.pop_back();
                LogLine line = base;
                line.text = text;
                g_sink->Write(line);
            }
        }
        g_reentrancy.fetch_sub(1);
    }
    errno = savedErrno;
}

LogLine MakeLine(const char* functionName, int32_t level)
{
    LogLine line;
    line.level = level;
    line.functionName = functionName ? functionName : "";
    return line;
}

void DispatchWithError(int errorCode, const char* functionName, int32_t level, const char* format, va_list args)
{
    Dispatch(
        MakeLine(functionName, level),
        [&](Logger& logger) {
            va_list copy;
            va_copy(copy, args);
            logger.LogWithError(errorCode, functionName, level, format, copy);
            va_end(copy);
        },
        [&] {
            std::string text = FormatV(format, args);
            if (!text.empty() && text.back() == '\n')
                text.pop_back();
            char suffix[512];
            snprintf(suffix, sizeof suffix, "; (%d) %s", errorCode, platform::ErrnoText(errorCode).c_str());
            return text + suffix;
        });
}

} // namespace

void Log(const char* functionName, int32_t level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    Dispatch(
        MakeLine(functionName, level),
        [&](Logger& logger) {
            va_list copy;
            va_copy(copy, args);
            logger.Log(functionName, level, format, copy);
            va_end(copy);
        },
        [&] { return FormatV(format, args); });
    va_end(args);
}

void LogWithLastError(const char* functionName, int32_t level, const char* format, ...)
{
    const int err = errno;
    va_list args;
    va_start(args, format);
    DispatchWithError(err, functionName, level, format, args);
    va_end(args);
}

void LogWithSocketError(const char* functionName, int32_t level, const char* format, ...)
{
    const int err = errno;
    va_list args;
    va_start(args, format);
    DispatchWithError(err, functionName, level, format, args);
    va_end(args);
}

void LogWithErrorCode(int errorCode, const char* functionName, int32_t level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    DispatchWithError(errorCode, functionName, level, format, args);
    va_end(args);
}

void SetCurrentLogLevel(int32_t level)
{
    LxMutexLock guard(LoggingLock());
    RCPtr<Logger> logger = LoggerManager::PeekDefaultLogger();
    if (logger && logger->IsStarted())
        logger->SetLevel(level);
    else
        LoggerManager::SetFrontEndLevel(level);
}

LogSink* SetLogSink(LogSink* sink)
{
    LxMutexLock guard(LoggingLock());
    LogSink* previous = g_sink;
    g_sink = sink;
    return previous;
}

bool LogToStandardError(const char* appName, int32_t level)
{
    RCPtr<Logger> logger = LoggerManager::GetInstance()->CreateLogger(std::string(appName) + "StdErrLogger", appName, true);
    if (!logger || !logger->GetWriter(LogWriter::kStdErrWriter))
        return false;
    logger->SetLevel(level);
    if (!logger->Start())
        return false;
    // Lines still queued are written and the logging thread stops before the
    // statics it uses go.
    std::atexit([] { LoggerManager::GetInstance()->Shutdown(); });
    return true;
}

void WriteLogLine(const LogLine& line)
{
    Dispatch(
        line,
        [&](Logger& logger) {
            // Named trace loggers write through the default logger's writers,
            // their name in front of the function.
            std::string function = line.loggerName ? std::string(line.loggerName) + " " : std::string();
            function += line.functionName ? line.functionName : "";
            logger.LogText(function.c_str(), line.level, line.text.data(), static_cast<int32_t>(line.text.size()));
        },
        [&] { return std::string(line.text); });
}
