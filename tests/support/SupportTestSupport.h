#pragma once
// Helpers of the support-library tests: a log capture that can be waited on,
// and a count of the process's threads and descriptors.

#include "common/LogCapture.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Generous: the tests wait for events, never for time, so this only bounds a failure.
constexpr auto kTestPatience = std::chrono::seconds(60);

class WaitableLogCapture final : public LogSink {
public:
    explicit WaitableLogCapture(int32_t level = LOG_LEVEL_NEVER) : m_savedLevel(CurrentLogLevel.load())
    {
        m_previous = SetLogSink(this);
        SetCurrentLogLevel(level);
    }
    ~WaitableLogCapture() override
    {
        SetCurrentLogLevel(m_savedLevel);
        SetLogSink(m_previous);
    }

    void Write(const LogLine& line) override
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.push_back({line.level, "", line.functionName, std::string(line.text)});
        m_changed.notify_all();
    }
    std::vector<CapturedLine> Lines() const
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines;
    }
    // Lines equal to `text`, or containing it when `part`.
    size_t Count(const std::string& text, bool part = false) const
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        return CountLocked(text, part);
    }
    // True once such a line has been written.
    bool WaitFor(const std::string& text, bool part = false)
    {
        std::unique_lock<std::mutex> guard(m_mutex);
        return m_changed.wait_for(guard, kTestPatience, [&] { return CountLocked(text, part) > 0; });
    }

private:
    size_t CountLocked(const std::string& text, bool part) const
    {
        size_t n = 0;
        for (const CapturedLine& l : m_lines)
            n += part ? l.text.find(text) != std::string::npos : l.text == text;
        return n;
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<CapturedLine> m_lines;
    LogSink* m_previous = nullptr;
    int32_t m_savedLevel;
};

inline size_t CountEntries(const char* dir)
{
    size_t n = 0;
    if (DIR* d = opendir(dir)) {
        while (dirent* e = readdir(d))
            n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

// Threads and descriptors of the process when it is made; Check expects the
// same again. A thread that has signalled its end may still be leaving the
// kernel's list for a moment, so the thread count is read until it settles.
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
        const auto deadline = std::chrono::steady_clock::now() + kTestPatience;
        while (CountEntries("/proc/self/task") > m_threads && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        EXPECT_EQ(CountEntries("/proc/self/task"), m_threads) << "a thread was left behind";
        EXPECT_EQ(CountEntries("/proc/self/fd"), m_fds) << "a descriptor was left behind";
    }

private:
    size_t m_fds = 0;
    size_t m_threads = 0;
};
