#include "log/LogMessageCache.h"

#include <tolv/log/Log.h>
#include <tolv/log/LogLevel.h>
#include <tolv/log/LogSink.h>
#include "log/LoggerManager.h"
#include "support/LxMutexLock.h"
#include "support/LxPollThread.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace tolv::log {

LogMessageCache::LogMessageCache() : m_lock(false, "LogMessageCache") {}

LogMessageCache::~LogMessageCache()
{
    if (m_releaseTimer) {
        if (RCPtr<LxPollThread> thread = m_releaseTimer->GetPollThread())
            thread->RemoveItem(RCPtr<LxPollItem>(m_releaseTimer), true);
    }
}

int32_t LogMessageCache::NextReportLevel()
{
    // The first report is verbose, later ones trace.
    return m_sizeReports++ == 0 ? LOG_LEVEL_VERBOSE : LOG_LEVEL_TRACE;
}

void LogMessageCache::RecordPendingLine(const char* function, int32_t level, const char* format, ...)
{
    if (CurrentLogLevel < level || m_pendingLength >= kPendingTextSize - 1)
        return;
    char line[kPendingTextSize];
    int used = FormatLogTimeStamp(line, sizeof line, !LoggerManager::DefaultUsesLocalTime());
    used += snprintf(line + used, sizeof line - static_cast<size_t>(used), " <%04X> [%04X] %c %s: ", LogThreadId(),
                     static_cast<unsigned>(getpid()), LogLevelLetter(level), function);
    if (used < static_cast<int>(sizeof line) - 1) {
        va_list args;
        va_start(args, format);
        const int n = vsnprintf(line + used, sizeof line - static_cast<size_t>(used), format, args);
        va_end(args);
        if (n > 0)
            used += n;
    }
    if (used > static_cast<int>(sizeof line) - 2)
        used = static_cast<int>(sizeof line) - 2;
    line[used++] = '\n';
    const int room = kPendingTextSize - 1 - m_pendingLength;
    const int take = used < room ? used : room;
    memcpy(m_pendingText + m_pendingLength, line, static_cast<size_t>(take));
    m_pendingLength += take;
    m_pendingText[m_pendingLength] = '\0';
}

RCPtr<LogMessage> LogMessageCache::NewMessage()
{
    RCPtr<BlockReleaseTimer> timerToAdd;
    RCPtr<LogMessage> result;
    {
        LxMutexLock guard(m_lock);
        LogMessageBlock* block = nullptr;
        for (auto it = m_blocks.rbegin(); it != m_blocks.rend(); ++it) {
            if ((*it)->GetFreeCount() > 0) {
                block = it->get();
                break;
            }
        }
        if (!block) {
            if (m_blocks.size() == 1 && !m_releaseTimer && !LoggerManager::IsShuttingDownNow()) {
                m_releaseTimer = MakeRC<BlockReleaseTimer>(*this);
                timerToAdd = m_releaseTimer;
            }
            m_blocks.push_back(MakeRC<LogMessageBlock>(*this));
            block = m_blocks.back().get();
            RecordPendingLine("LogMessageCache::NewMessage()", NextReportLevel(), "Log message cache size is %d",
                              static_cast<int>(m_blocks.size()) * LogMessageBlock::kMessageCount);
        }
        LogMessage* message = block->TakeFree();
        message->m_block = RCPtr<LogMessageBlock>(block);
        result = RCPtr<LogMessage>(message);
    }
    // The poll thread takes the logging lock, which ranks above this one.
    if (timerToAdd) {
        if (RCPtr<LxPollThread> thread = LoggerManager::GetInstance()->GetPollThread())
            thread->AddItem(RCPtr<LxPollItem>(timerToAdd));
    }
    return result;
}

void LogMessageCache::MovePendingTextInto(LogMessage& message)
{
    LxMutexLock guard(m_lock);
    if (m_pendingLength == 0)
        return;
    message.Append(m_pendingText, m_pendingLength, true);
    m_pendingLength = 0;
    m_pendingText[0] = '\0';
}

void LogMessageCache::Recycle(LogMessageBlock& block, LogMessage* message)
{
    LxMutexLock guard(m_lock);
    block.PutFree(message);
}

void LogMessageCache::OnBlockReleaseTimer()
{
    for (;;) {
        RCPtr<LogMessageBlock> released;
        int32_t remaining = 0;
        int32_t level = 0;
        {
            LxMutexLock guard(m_lock);
            if (m_blocks.size() <= 1)
                return;
            for (auto it = m_blocks.begin(); it != m_blocks.end(); ++it) {
                if ((*it)->GetFreeCount() == LogMessageBlock::kMessageCount && (*it)->IdleMs() >= m_idleReleaseMs) {
                    released = std::move(*it);
                    m_blocks.erase(it);
                    break;
                }
            }
            if (!released)
                return;
            remaining = static_cast<int32_t>(m_blocks.size()) * LogMessageBlock::kMessageCount;
            level = NextReportLevel();
        }
        released.reset();
        LOG_AT(level, "LogMessageCache::OnBlockReleaseTimer()", "Log message cache size is %d", remaining);
    }
}

int32_t LogMessageCache::GetBlockCount()
{
    LxMutexLock guard(m_lock);
    return static_cast<int32_t>(m_blocks.size());
}

bool LogMessageCache::HasReleaseTimer()
{
    LxMutexLock guard(m_lock);
    return static_cast<bool>(m_releaseTimer);
}

void LogMessageCache::SetIdleReleaseMs(uint64_t ms)
{
    LxMutexLock guard(m_lock);
    m_idleReleaseMs = ms;
}

} // namespace tolv::log
