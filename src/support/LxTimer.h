#pragma once
// A stopwatch over an abstract tick source. Every read takes an operation that
// is applied after the elapsed time is taken, so "restart and tell me how long
// it was" is one call.
//
// Not thread-safe: the owner guards it (the poll thread's items are read under
// the poll thread's lock).

#include <cstdint>

class LxTimer {
public:
    enum Op : int32_t {
        OpNone = 0,
        OpRestart = 1,       // start = now; a paused timer stays paused at now
        OpResume = 2,        // a paused timer runs on from where it stopped
        OpPause = 3,         // a running timer stops at now
        OpResetAndRun = 4,   // start = now, running
        OpResetAndPause = 5, // start = now, paused
    };

    virtual ~LxTimer() = default;

    // Elapsed ticks before `op` is applied.
    uint64_t Elapsed(Op op = OpNone);
    // Rounded to the nearest millisecond.
    uint64_t ElapsedMs(Op op = OpNone);
    double ElapsedSeconds(Op op = OpNone);

    uint64_t Restart() { return Elapsed(OpRestart); }
    uint64_t Resume() { return Elapsed(OpResume); }
    uint64_t Pause() { return Elapsed(OpPause); }
    bool IsPaused() const { return m_pausedAt != 0; }
    // Elapsed ticks at a tick read earlier (the poll scheduler reads one per round).
    uint64_t ElapsedAt(uint64_t now) const
    {
        const uint64_t end = m_pausedAt ? m_pausedAt : NonZero(now);
        return end > m_start ? end - m_start : 0;
    }

    // Milliseconds of `ticks` at this timer's frequency, rounded.
    uint64_t TicksToMs(uint64_t ticks) const;

    virtual uint64_t GetTicks() const = 0;
    virtual uint64_t GetFrequency() const = 0;

protected:
    // Derived classes start the watch once their tick source is ready.
    void Start() { m_start = NonZero(GetTicks()); }

private:
    // 0 is the "running" mark of m_pausedAt, so no reading may be 0.
    static uint64_t NonZero(uint64_t ticks) { return ticks ? ticks : 1; }

    uint64_t m_start = 0;
    uint64_t m_pausedAt = 0; // 0 = running
};
