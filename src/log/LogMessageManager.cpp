#include "log/LogMessageManager.h"

namespace tolv::log {

LogMessageManager::LogMessageManager() : m_cache(MakeRC<LogMessageCache>()) {}

RCPtr<LogMessage> LogMessageManager::NewMessage(int32_t level, const char* text, int32_t length)
{
    RCPtr<LogMessage> message = m_cache->NewMessage();
    m_cache->MovePendingTextInto(*message);
    message->SetLevel(level);
    if (text)
        message->Append(text, length, true);
    return message;
}

} // namespace tolv::log
