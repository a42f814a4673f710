#pragma once
// The one logger manager of the process: the loggers by name, the default
// logger, the shared message factory and the "Logger" poll thread that drains
// every writer. It is made on first use and lives until the process ends.
//
// Its maps and the default logger are guarded by the logging lock. The poll
// thread uses the logging lock as its own; the scheduler is stopped without it.

#include "log/LogMessageManager.h"
#include "log/Logger.h"
#include "support/LxPollThread.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

namespace tolv::log {

class LoggerManager final : public RCObject {
public:
    static LoggerManager* GetInstance();

    // Null for an empty name or a name already in use.
    RCPtr<Logger> CreateLogger(const std::string& name, const std::string& appName, bool makeDefault);
    RCPtr<Logger> FindLogger(const std::string& name);
    RCPtr<Logger> GetDefaultLogger();
    void SetDefaultLogger(const RCPtr<Logger>& logger);
    // Starts the scheduler when it does not run yet.
    RCPtr<LxPollThread> GetPollThread();
    RCPtr<LogMessageManager> GetMessageManager();
    bool IsShuttingDown() const { return m_shuttingDown.load(); }
    // Stops the poll thread and shuts every logger down, in name order. Call
    // it without the logging lock.
    void Shutdown();

    // The default logger, without making the manager.
    static RCPtr<Logger> PeekDefaultLogger();
    static bool DefaultUsesLocalTime() { return s_defaultUsesLocalTime.load(); }
    static bool IsShuttingDownNow();
    // CurrentLogLevel: the default logger's level while it is started, else
    // the front end's level (0 unless a tool or test set it).
    static void RefreshCurrentLogLevel();

private:
    LoggerManager();

    RCPtr<Logger> m_defaultLogger;
    std::map<std::string, RCPtr<Logger>> m_loggers;
    RCPtr<LogMessageManager> m_messageManager;
    RCPtr<LxPollThread> m_pollThread;
    std::atomic<bool> m_shuttingDown{false};

    static std::atomic<LoggerManager*> s_instance;
    static std::atomic<bool> s_defaultUsesLocalTime;
};

// For tools: makes and starts a default logger for `appName` whose one writer
// is standard error, at `level`; it is shut down at exit. False when a logger
// of that name exists or it cannot start.
bool LogToStandardError(const char* appName, int32_t level);

} // namespace tolv::log
