#include "log/BlockReleaseTimer.h"

#include "log/LogMessageCache.h"

namespace tolv::log {

BlockReleaseTimer::BlockReleaseTimer(LogMessageCache& cache)
    : LxPollItem("LogMessageCache::BlockReleaseTimer", kIntervalMs), m_cache(cache)
{
}

bool BlockReleaseTimer::Run(bool /*signalled*/)
{
    m_cache.OnBlockReleaseTimer();
    return true;
}

} // namespace tolv::log
