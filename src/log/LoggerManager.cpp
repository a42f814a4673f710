#include "log/LoggerManager.h"

#include <tolv/log/Log.h>
#include "log/LoggerBackEnd.h"
#include "log/LoggingLock.h"
#include "log/LogWriter.h"
#include "support/LxMutexLock.h"

#include <tolv/log/LogBackEnd.h>

#include <cstdlib>

namespace tolv::log {

std::atomic<LoggerManager*> LoggerManager::s_instance{nullptr};
std::atomic<bool> LoggerManager::s_defaultUsesLocalTime{true};

LoggerManager::LoggerManager() : m_pollThread(MakeRC<LxPollThread>("Logger"))
{
    m_pollThread->SetExternalLock(LoggingLock());
}

LoggerManager* LoggerManager::GetInstance()
{
    static LoggerManager* instance = [] {
        // Never destroyed: loggers may be used until the process ends.
        auto* made = new LoggerManager;
        made->AddRef();
        s_instance.store(made);
        // From now on the entry points reach the default logger.
        LoggerBackEnd::PlugIn();
        return made;
    }();
    return instance;
}

RCPtr<Logger> LoggerManager::CreateLogger(const std::string& name, const std::string& appName, bool makeDefault)
{
    if (name.empty())
        return {};
    LxMutexLock guard(LoggingLock());
    if (m_loggers.count(name))
        return {};
    if (!m_messageManager)
        m_messageManager = MakeRC<LogMessageManager>();
    RCPtr<Logger> logger = MakeRC<Logger>(name, appName, m_messageManager);
    m_loggers.emplace(name, logger);
    if (makeDefault)
        SetDefaultLogger(logger);
    return logger;
}

RCPtr<Logger> LoggerManager::FindLogger(const std::string& name)
{
    LxMutexLock guard(LoggingLock());
    auto it = m_loggers.find(name);
    return it == m_loggers.end() ? RCPtr<Logger>() : it->second;
}

RCPtr<Logger> LoggerManager::GetDefaultLogger()
{
    LxMutexLock guard(LoggingLock());
    return m_defaultLogger;
}

void LoggerManager::SetDefaultLogger(const RCPtr<Logger>& logger)
{
    LxMutexLock guard(LoggingLock());
    m_defaultLogger = logger;
    RefreshCurrentLogLevel();
}

RCPtr<LogMessageManager> LoggerManager::GetMessageManager()
{
    LxMutexLock guard(LoggingLock());
    if (!m_messageManager)
        m_messageManager = MakeRC<LogMessageManager>();
    return m_messageManager;
}

RCPtr<LxPollThread> LoggerManager::GetPollThread()
{
    LxMutexLock guard(LoggingLock());
    if (!m_pollThread->IsSchedulerRunning())
        m_pollThread->StartScheduler();
    return m_pollThread;
}

void LoggerManager::Shutdown()
{
    {
        LxMutexLock guard(LoggingLock());
        m_shuttingDown.store(true);
    }
    // The scheduler takes the logging lock each round, so it is stopped
    // without it.
    m_pollThread->StopScheduler();
    m_pollThread->RemoveAllItems(false);
    std::map<std::string, RCPtr<Logger>> loggers;
    {
        LxMutexLock guard(LoggingLock());
        loggers.swap(m_loggers);
        m_defaultLogger.reset();
        RefreshCurrentLogLevel();
    }
    for (auto& entry : loggers)
        entry.second->Shutdown();
}

RCPtr<Logger> LoggerManager::PeekDefaultLogger()
{
    LoggerManager* instance = s_instance.load();
    return instance ? instance->GetDefaultLogger() : RCPtr<Logger>();
}

bool LoggerManager::IsShuttingDownNow()
{
    LoggerManager* instance = s_instance.load();
    return instance && instance->IsShuttingDown();
}

void LoggerManager::RefreshCurrentLogLevel()
{
    LxMutexLock guard(LoggingLock());
    LoggerManager* instance = s_instance.load();
    Logger* logger = instance ? instance->m_defaultLogger.get() : nullptr;
    s_defaultUsesLocalTime.store(logger ? logger->UsesLocalTime() : true);
    CurrentLogLevel.store(logger && logger->IsStarted() ? logger->GetLevel() : FrontEndLogLevel());
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

} // namespace tolv::log
