#include "support/LxElapsedTimer.h"

#include <time.h>

uint64_t LxElapsedTimer::GetTicks() const
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}
