#pragma once
// Helpers of the support-library tests: a wait for a log line, and a count of
// the process's threads and descriptors.

#include "common/LogCapture.h"
#include "common/ProcessProbe.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

// Generous: the tests wait for events, never for time, so this only bounds a failure.
constexpr auto kTestPatience = std::chrono::seconds(60);

// True once a line containing `part` has been written.
inline bool WaitForLine(const ScopedLogCapture& log, const std::string& part)
{
    return WaitUntil([&] { return log.CountContaining(part) > 0; }, kTestPatience);
}

inline size_t CountEntries(const char* dir)
{
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir), {}));
}

// Threads and descriptors when made, expected again by Check; a thread that has signalled
// its end may still be leaving the kernel's list, so that count is read until it settles.
class ResourceSnapshot {
public:
    ResourceSnapshot()
    {
        // A sanitizer runtime starts a helper thread with the first thread
        // the process makes; have it running before counting.
        std::thread([] {}).join();
        m_fds = CountEntries("/proc/self/fd");
        m_threads = CountEntries("/proc/self/task");
    }
    void Check() const
    {
        WaitUntil([&] { return CountEntries("/proc/self/task") <= m_threads; }, kTestPatience);
        EXPECT_EQ(CountEntries("/proc/self/task"), m_threads) << "a thread was left behind";
        EXPECT_EQ(CountEntries("/proc/self/fd"), m_fds) << "a descriptor was left behind";
    }

private:
    size_t m_fds = 0;
    size_t m_threads = 0;
};
