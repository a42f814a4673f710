#pragma once
// A block of 100 messages built in place with a free list. Everything but the
// cache pointer is guarded by the cache lock. Messages in use keep their block;
// the cache keeps every block and outlives them.

#include "log/LogMessage.h"
#include "support/LxElapsedTimer.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <cstdint>

namespace tolv::log {

class LogMessageCache;

class LogMessageBlock final : public RCObject {
public:
    static constexpr int32_t kMessageCount = 100;

    explicit LogMessageBlock(LogMessageCache& cache);
    LogMessageBlock(const LogMessageBlock&) = delete;
    LogMessageBlock& operator=(const LogMessageBlock&) = delete;

    LogMessageCache& GetCache() const { return *m_cache; }

    // Under the cache lock.
    LogMessage* TakeFree();
    void PutFree(LogMessage* message);
    int32_t GetFreeCount() const { return m_freeCount; }
    // Milliseconds since the block last became entirely free.
    uint64_t IdleMs() { return m_idleTimer.ElapsedMs(); }

private:
    LogMessage m_messages[kMessageCount];
    LogMessage* m_freeHead = nullptr;
    LogMessage* m_freeTail = nullptr;
    int32_t m_freeCount = 0;
    LxElapsedTimer m_idleTimer;
    LogMessageCache* m_cache; // the cache owns its blocks
};

} // namespace tolv::log
