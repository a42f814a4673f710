#include "log/LogRegKeyWatcher.h"

#include "log/LoggingLock.h"
#include "log/RegSettingsReader.h"
#include "support/LxMutexLock.h"

namespace tolv::log {

LogRegKeyWatcher::LogRegKeyWatcher(RCPtr<LxRegKey> key, RegSettingsReader& reader)
    : LxRegKeyWatcher(std::move(key)), m_reader(reader)
{
}

bool LogRegKeyWatcher::OnKeyChanged()
{
    LxMutexLock guard(LoggingLock());
    m_reader.ApplyToLogger();
    return true;
}

} // namespace tolv::log
