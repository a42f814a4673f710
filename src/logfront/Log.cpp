#include <tolv/log/Log.h>

#include <tolv/log/LogBackEnd.h>
#include <tolv/log/LogSink.h>
#include "platform/ErrnoText.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace tolv::log {

std::atomic<int32_t> CurrentLogLevel{LOG_LEVEL_ALWAYS};

namespace {

// A log call made while another one runs (a writer that logs its own failure)
// is dropped, not nested.
std::atomic<int32_t> g_reentrancy{0};
LogSink* g_sink = nullptr;          // guarded by LoggingMutex()
LogBackEnd* g_backEnd = nullptr;    // guarded by LoggingMutex()
std::atomic<int32_t> g_frontEndLevel{LOG_LEVEL_ALWAYS};

// Holds LoggingMutex(). A holder that died leaves it to the next taker, who
// marks it usable again: what it guarded is at worst one torn log line.
class FrontLock {
public:
    FrontLock()
    {
        if (pthread_mutex_lock(&LoggingMutex()) == EOWNERDEAD)
            pthread_mutex_consistent(&LoggingMutex());
    }
    ~FrontLock() { pthread_mutex_unlock(&LoggingMutex()); }
    FrontLock(const FrontLock&) = delete;
    FrontLock& operator=(const FrontLock&) = delete;
};

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

// The back end gets every call and applies its own gate. The sink (a test's
// capture) sees lines at or below CurrentLogLevel beside it.
template <typename ToBackEnd, typename MakeText>
void Dispatch(const LogLine& base, ToBackEnd&& toBackEnd, MakeText&& makeText)
{
    const int savedErrno = errno;
    {
        FrontLock guard;
        if (g_reentrancy.fetch_add(1) == 0) {
            if (g_backEnd)
                toBackEnd(*g_backEnd);
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
        [&](LogBackEnd& backEnd) {
            va_list copy;
            va_copy(copy, args);
            backEnd.WriteWithError(errorCode, functionName, level, format, copy);
            va_end(copy);
        },
        [&] {
            std::string text = FormatV(format, args);
            if (!text.empty() && text.back() == '\n')
                text.pop_back();
            char suffix[512];
            snprintf(suffix, sizeof suffix, "; (%d) %s", errorCode, tolv::platform::ErrnoText(errorCode).c_str());
            return text + suffix;
        });
}

} // namespace

pthread_mutex_t& LoggingMutex()
{
    // Never destroyed: threads may log while statics are torn down.
    static pthread_mutex_t* mutex = [] {
        auto* made = new pthread_mutex_t;
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
        pthread_mutex_init(made, &attr);
        pthread_mutexattr_destroy(&attr);
        return made;
    }();
    return *mutex;
}

LogBackEnd* PlugLogBackEnd(LogBackEnd* backEnd)
{
    FrontLock guard;
    LogBackEnd* previous = g_backEnd;
    g_backEnd = backEnd;
    return previous;
}

int32_t FrontEndLogLevel()
{
    return g_frontEndLevel.load();
}

void Log(const char* functionName, int32_t level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    Dispatch(
        MakeLine(functionName, level),
        [&](LogBackEnd& backEnd) {
            va_list copy;
            va_copy(copy, args);
            backEnd.Write(functionName, level, format, copy);
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
    FrontLock guard;
    if (g_backEnd && g_backEnd->SetLevel(level))
        return;
    g_frontEndLevel.store(level);
    CurrentLogLevel.store(level);
}

LogSink* SetLogSink(LogSink* sink)
{
    FrontLock guard;
    LogSink* previous = g_sink;
    g_sink = sink;
    return previous;
}

void WriteLogLine(const LogLine& line)
{
    Dispatch(
        line, [&](LogBackEnd& backEnd) { backEnd.WriteLine(line); }, [&] { return std::string(line.text); });
}

} // namespace tolv::log
