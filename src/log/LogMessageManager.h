#pragma once
// The one message factory of the process, owned by the logger manager and
// shared with every logger.

#include "log/LogMessage.h"
#include "log/LogMessageCache.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <cstdint>

namespace tolv::log {

class LogMessageManager final : public RCObject {
public:
    LogMessageManager();

    // A message of `level` that starts with the cache's pending report lines,
    // if any, then `text` (when given) ending in a line feed.
    RCPtr<LogMessage> NewMessage(int32_t level, const char* text = nullptr, int32_t length = -1);

    LogMessageCache& GetCache() { return *m_cache; }

private:
    RCPtr<LogMessageCache> m_cache;
};

} // namespace tolv::log
