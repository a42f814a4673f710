#include "support/LxTimer.h"

uint64_t LxTimer::Elapsed(Op op)
{
    const uint64_t now = NonZero(GetTicks());
    const uint64_t elapsed = (m_pausedAt ? m_pausedAt : now) - m_start;
    switch (op) {
    case OpNone:
        break;
    case OpRestart:
        m_start = now;
        if (m_pausedAt)
            m_pausedAt = now;
        break;
    case OpResume:
        if (m_pausedAt) {
            m_start += now - m_pausedAt;
            m_pausedAt = 0;
        }
        break;
    case OpPause:
        if (!m_pausedAt)
            m_pausedAt = now;
        break;
    case OpResetAndRun:
        m_start = now;
        m_pausedAt = 0;
        break;
    case OpResetAndPause:
        m_start = now;
        m_pausedAt = now;
        break;
    }
    return elapsed;
}

uint64_t LxTimer::TicksToMs(uint64_t ticks) const
{
    const uint64_t frequency = GetFrequency();
    // 128 bits: nanosecond ticks times 1000 leave 64 bits after 213 days.
    const unsigned __int128 scaled = static_cast<unsigned __int128>(ticks) * 1000 + frequency / 2;
    return static_cast<uint64_t>(scaled / frequency);
}

uint64_t LxTimer::ElapsedMs(Op op)
{
    return TicksToMs(Elapsed(op));
}

double LxTimer::ElapsedSeconds(Op op)
{
    return static_cast<double>(Elapsed(op)) / static_cast<double>(GetFrequency());
}
