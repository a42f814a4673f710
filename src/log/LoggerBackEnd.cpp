#include "log/LoggerBackEnd.h"

#include "log/Logger.h"
#include "log/LoggerManager.h"

#include <string>

namespace tolv::log {

void LoggerBackEnd::PlugIn()
{
    // Never destroyed: the front end may call it until the process ends.
    static LoggerBackEnd* backEnd = [] {
        auto* made = new LoggerBackEnd;
        PlugLogBackEnd(made);
        return made;
    }();
    (void)backEnd;
}

void LoggerBackEnd::Write(const char* functionName, int32_t level, const char* format, va_list args)
{
    if (RCPtr<Logger> logger = LoggerManager::PeekDefaultLogger())
        logger->Log(functionName, level, format, args);
}

void LoggerBackEnd::WriteWithError(int errorCode, const char* functionName, int32_t level, const char* format,
                                   va_list args)
{
    if (RCPtr<Logger> logger = LoggerManager::PeekDefaultLogger())
        logger->LogWithError(errorCode, functionName, level, format, args);
}

void LoggerBackEnd::WriteLine(const LogLine& line)
{
    RCPtr<Logger> logger = LoggerManager::PeekDefaultLogger();
    if (!logger)
        return;
    // Named trace loggers write through the default logger's writers, their
    // name in front of the function.
    std::string function = line.loggerName ? std::string(line.loggerName) + " " : std::string();
    function += line.functionName ? line.functionName : "";
    logger->LogText(function.c_str(), line.level, line.text.data(), static_cast<int32_t>(line.text.size()));
}

bool LoggerBackEnd::SetLevel(int32_t level)
{
    RCPtr<Logger> logger = LoggerManager::PeekDefaultLogger();
    if (!logger || !logger->IsStarted())
        return false;
    logger->SetLevel(level);
    return true;
}

} // namespace tolv::log
