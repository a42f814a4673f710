#pragma once
// The process-wide logging entry points. Every caller tests
// `CurrentLogLevel >= level` first so that the arguments of a suppressed message
// are never evaluated; the LOG_* macros below do exactly that. The entry points
// leave errno as they found it, so a caller may log before it maps errno.

#include <tolv/log/LogLevel.h>

#include <atomic>
#include <cstdint>

namespace tolv::log {

// The level of the plugged-in back end's started logger, kept in step by it;
// otherwise the front-end level (0 unless SetCurrentLogLevel set it), which
// only a sink sees.
extern std::atomic<int32_t> CurrentLogLevel;

void Log(const char* functionName, int32_t level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// As Log, with "; (errno) text" of the calling thread's errno appended.
void LogWithLastError(const char* functionName, int32_t level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// Sockets report through errno on this platform as well.
void LogWithSocketError(const char* functionName, int32_t level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// As LogWithLastError with an explicit error number.
void LogWithErrorCode(int errorCode, const char* functionName, int32_t level, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Sets the back end's started logger's level, or else the front-end level
// that a sink observes; CurrentLogLevel follows. Without a back end (see
// LogBackEnd.h) the entry points write to the sink only.
void SetCurrentLogLevel(int32_t level);

} // namespace tolv::log

#define LOG_AT(level, functionName, ...)                                 \
    do {                                                                 \
        if (::tolv::log::CurrentLogLevel >= (level))                     \
            ::tolv::log::Log((functionName), (level), __VA_ARGS__);      \
    } while (0)

#define LOG_ERRNO_AT(level, functionName, ...)                                  \
    do {                                                                        \
        if (::tolv::log::CurrentLogLevel >= (level))                            \
            ::tolv::log::LogWithLastError((functionName), (level), __VA_ARGS__); \
    } while (0)

#define LOG_ERROR(functionName, ...) LOG_AT(::tolv::log::LOG_LEVEL_ERROR, functionName, __VA_ARGS__)
#define LOG_WARN(functionName, ...) LOG_AT(::tolv::log::LOG_LEVEL_WARN, functionName, __VA_ARGS__)
#define LOG_INFO(functionName, ...) LOG_AT(::tolv::log::LOG_LEVEL_INFO, functionName, __VA_ARGS__)
#define LOG_DEBUG(functionName, ...) LOG_AT(::tolv::log::LOG_LEVEL_DEBUG, functionName, __VA_ARGS__)
