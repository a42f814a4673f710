#pragma once
// What a test can see of its own process from outside the code under test:
// open descriptors, and a condition that other threads make true.

#include <dirent.h>

#include <chrono>
#include <cstddef>
#include <thread>

inline size_t OpenDescriptors()
{
    size_t count = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    while (dirent* entry = ::readdir(dir))
        count += entry->d_name[0] != '.';
    ::closedir(dir);
    return count;
}

// For states nothing signals (a descriptor closed by another thread): looks
// again every millisecond until `pred` holds or the generous deadline passes.
template <typename Pred>
bool WaitUntil(Pred pred, std::chrono::seconds deadline = std::chrono::seconds(30))
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
