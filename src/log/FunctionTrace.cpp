#include "log/FunctionTrace.h"

#include "log/LoggerManager.h"

#include <cstdarg>
#include <cstdio>

namespace tolv::log {

FunctionTrace::FunctionTrace(int32_t level, const char* functionName, RCPtr<Logger> logger, const char* format, ...)
    : m_functionName(functionName), m_enterLevel(level), m_exitLevel(level), m_logger(std::move(logger))
{
    if (!m_logger)
        m_logger = LoggerManager::PeekDefaultLogger();
    if (!m_logger || !m_logger->Admits(level))
        return;
    if (!format) {
        Write(level, "Enter\n");
        return;
    }
    char text[kTextSize];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    Write(level, "Enter - %s", text);
}

FunctionTrace::~FunctionTrace()
{
    if (!m_logger)
        return;
    if (m_exitText[0] == '\0') {
        if (!m_logger->Admits(m_enterLevel))
            return;
        if (m_timing) {
            char elapsed[64];
            snprintf(elapsed, sizeof elapsed, "(%dms)", static_cast<int>(m_timer.ElapsedMs()));
            Write(m_enterLevel, "Exit%s\n", elapsed);
        } else {
            Write(m_enterLevel, "Exit\n");
        }
        return;
    }
    if (m_timing) {
        char elapsed[64];
        snprintf(elapsed, sizeof elapsed, "(%dms)", static_cast<int>(m_timer.ElapsedMs()));
        Write(m_exitLevel, "Exit%s - %s", elapsed, m_exitText);
    } else {
        Write(m_exitLevel, "Exit - %s", m_exitText);
    }
}

void FunctionTrace::SetExitText(int32_t level, const char* format, ...)
{
    if (!m_logger || !m_logger->Admits(level))
        return;
    m_exitLevel = level;
    va_list args;
    va_start(args, format);
    vsnprintf(m_exitText, sizeof m_exitText, format, args);
    va_end(args);
}

void FunctionTrace::Write(int32_t level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    m_logger->Log(m_functionName, level, format, args);
    va_end(args);
}

} // namespace tolv::log
