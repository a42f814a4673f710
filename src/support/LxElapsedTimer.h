#pragma once
// The stopwatch on the monotonic clock, in nanosecond ticks. It starts running
// when it is made.

#include "support/LxTimer.h"

class LxElapsedTimer final : public LxTimer {
public:
    LxElapsedTimer() { Start(); }

    uint64_t GetTicks() const override;
    uint64_t GetFrequency() const override { return 1000000000ull; }
};
