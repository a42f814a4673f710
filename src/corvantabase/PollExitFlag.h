#pragma once
// The exit flag handed to Poll_Loop. Raising it from any thread (or from a
// poll callback) wakes the loop at once, so the loop never has to look at the
// flag on a clock.

#include <atomic>

class PollExitFlag {
public:
    PollExitFlag() noexcept = default;
    PollExitFlag(const PollExitFlag&) = delete;
    PollExitFlag& operator=(const PollExitFlag&) = delete;

    // Sets the flag and wakes the poll loop.
    void Raise() noexcept;
    bool IsRaised() const noexcept { return m_raised.load(std::memory_order_acquire); }
    // Lowers the flag again, for a loop that is to run once more.
    void Reset() noexcept { m_raised.store(false, std::memory_order_release); }

private:
    std::atomic<bool> m_raised{false};
};
