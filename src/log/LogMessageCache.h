#pragma once
// The pool of log messages: blocks of 100 messages, grown on demand and
// released by a minute tick once they have been entirely free for ten minutes
// (never the last one). The cache reports its own size through a pending text
// that rides in front of the next message, so it never re-enters the logger.
//
// Lock order: logging lock -> cache lock. The cache lock is never held while
// logging or while touching the poll thread.

#include "log/BlockReleaseTimer.h"
#include "log/LogMessage.h"
#include "log/LogMessageBlock.h"
#include "support/LxMutex.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <cstdint>
#include <list>

namespace tolv::log {

class LogMessageCache final : public RCObject {
public:
    static constexpr int32_t kPendingTextSize = 1024;
    static constexpr uint64_t kDefaultIdleReleaseMs = 600000;

    LogMessageCache();
    ~LogMessageCache() override;
    LogMessageCache(const LogMessageCache&) = delete;
    LogMessageCache& operator=(const LogMessageCache&) = delete;

    // A message from a block, growing the pool when every block is in use.
    RCPtr<LogMessage> NewMessage();
    // Moves the cache's own report lines, if any, into `message`.
    void MovePendingTextInto(LogMessage& message);
    // Called by a message whose last reference went.
    void Recycle(LogMessageBlock& block, LogMessage* message);
    // The minute tick: drops idle blocks.
    void OnBlockReleaseTimer();

    int32_t GetBlockCount();
    bool HasReleaseTimer();
    // How long a block must have been entirely free before the tick drops it.
    void SetIdleReleaseMs(uint64_t ms);

private:
    void RecordPendingLine(const char* function, int32_t level, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    int32_t NextReportLevel();

    LxMutex m_lock;
    std::list<RCPtr<LogMessageBlock>> m_blocks; // guarded by m_lock
    RCPtr<BlockReleaseTimer> m_releaseTimer;    // guarded by m_lock
    int32_t m_sizeReports = 0;                  // guarded by m_lock
    uint64_t m_idleReleaseMs = kDefaultIdleReleaseMs;
    char m_pendingText[kPendingTextSize] = {};  // guarded by m_lock
    int32_t m_pendingLength = 0;
};

} // namespace tolv::log
