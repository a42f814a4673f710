#pragma once
// Where the logging entry points deliver. The front end (Log, the sink,
// CurrentLogLevel) knows no loggers or writers; a logging framework plugs one
// back end in when it is made, and every call then reaches it. Without one the
// entry points write only to the sink.
//
// The front end owns the one process-wide recursive logging lock and holds it
// around each back-end call; a framework that has locks of its own takes them
// after this one. A call made from inside a back-end call (a writer that logs
// its own failure) is dropped, not nested.

#include <tolv/log/LogSink.h>

#include <pthread.h>

#include <cstdarg>
#include <cstdint>

namespace tolv::log {

class LogBackEnd {
public:
    // Each Write runs under the logging lock and is never nested.
    virtual void Write(const char* functionName, int32_t level, const char* format, va_list args) = 0;
    // As Write, with the text of `errorCode` to be appended.
    virtual void WriteWithError(int errorCode, const char* functionName, int32_t level, const char* format,
                                va_list args) = 0;
    // A finished line (the IPC library's named trace lines).
    virtual void WriteLine(const LogLine& line) = 0;
    // Takes `level` for the back end's own logger and keeps CurrentLogLevel in
    // step; false when it has none that is started, so the front end keeps
    // the level itself.
    virtual bool SetLevel(int32_t level) = 0;

protected:
    ~LogBackEnd() = default;
};

// Plugs `backEnd` in (null: none) and returns the one it replaces. The back end
// must stay valid until it is unplugged.
LogBackEnd* PlugLogBackEnd(LogBackEnd* backEnd);

// The process-wide logging lock: recursive and robust, never destroyed.
pthread_mutex_t& LoggingMutex();

// The level SetCurrentLogLevel last kept in the front end (0 at first):
// CurrentLogLevel while no back-end logger is started.
int32_t FrontEndLogLevel();

} // namespace tolv::log
