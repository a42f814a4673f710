#include "log/LogMessageBlock.h"

#include "log/LogMessageCache.h"

namespace tolv::log {

LogMessageBlock::LogMessageBlock(LogMessageCache& cache) : m_cache(&cache)
{
    for (LogMessage& message : m_messages)
        PutFree(&message);
}

LogMessage* LogMessageBlock::TakeFree()
{
    LogMessage* message = m_freeHead;
    if (!message)
        return nullptr;
    m_freeHead = message->m_nextFree;
    if (!m_freeHead)
        m_freeTail = nullptr;
    message->m_nextFree = nullptr;
    --m_freeCount;
    return message;
}

void LogMessageBlock::PutFree(LogMessage* message)
{
    message->m_nextFree = nullptr;
    if (m_freeTail)
        m_freeTail->m_nextFree = message;
    else
        m_freeHead = message;
    m_freeTail = message;
    if (++m_freeCount == kMessageCount)
        m_idleTimer.Restart();
}

} // namespace tolv::log
