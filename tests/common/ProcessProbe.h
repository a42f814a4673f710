#pragma once
// What a test can see of its own process from outside the code under test:
// open descriptors, and a condition that other threads make true.

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstddef>
#include <string>
#include <thread>

// Open descriptors of this process (only those open on `target`, when given).
inline size_t OpenDescriptors(const std::string& target = {})
{
    size_t count = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    while (dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        char link[PATH_MAX];
        const std::string fd = std::string("/proc/self/fd/") + entry->d_name;
        const ssize_t n = target.empty() ? 0 : ::readlink(fd.c_str(), link, sizeof link);
        count += target.empty() || (n > 0 && target == std::string(link, static_cast<size_t>(n)));
    }
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
