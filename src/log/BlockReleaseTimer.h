#pragma once
// The message cache's minute tick on the logging poll thread: releases blocks
// that have been entirely free for a while.

#include "support/LxPollItem.h"

namespace tolv::log {

class LogMessageCache;

class BlockReleaseTimer final : public LxPollItem {
public:
    static constexpr int32_t kIntervalMs = 60000;

    // The cache outlives its timer: it owns it and lives as long as the process.
    explicit BlockReleaseTimer(LogMessageCache& cache);
    bool Run(bool signalled) override;

private:
    LogMessageCache& m_cache;
};

} // namespace tolv::log
