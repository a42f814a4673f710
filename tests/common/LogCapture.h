#pragma once
// Captures every log line written while it lives, at the level it is given.

#include <tolv/log/Log.h>
#include <tolv/log/LogSink.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

using namespace tolv::log;

struct CapturedLine {
    int32_t level;
    std::string loggerName;
    std::string function;
    std::string text;
};

class ScopedLogCapture final : public LogSink {
public:
    explicit ScopedLogCapture(int32_t level = LOG_LEVEL_VERBOSE) : m_savedLevel(CurrentLogLevel.load())
    {
        m_previous = SetLogSink(this);
        SetCurrentLogLevel(level);
    }
    ~ScopedLogCapture() override
    {
        SetCurrentLogLevel(m_savedLevel);
        SetLogSink(m_previous);
    }

    void Write(const LogLine& line) override
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.push_back({line.level, line.loggerName ? line.loggerName : "", line.functionName,
                           std::string(line.text)});
    }

    std::vector<CapturedLine> Lines() const
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines;
    }
    // Lines whose text equals `text` (and whose function is `function`, when given).
    size_t Count(const std::string& text, const std::string& function = {}) const
    {
        return CountIf([&](const CapturedLine& l) {
            return l.text == text && (function.empty() || l.function == function);
        });
    }
    size_t CountContaining(const std::string& part) const
    {
        return CountIf([&](const CapturedLine& l) { return l.text.find(part) != std::string::npos; });
    }
    void Clear()
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.clear();
    }

private:
    template <typename Pred>
    size_t CountIf(Pred pred) const
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        return static_cast<size_t>(std::count_if(m_lines.begin(), m_lines.end(), pred));
    }

    mutable std::mutex m_mutex;
    std::vector<CapturedLine> m_lines;
    LogSink* m_previous = nullptr;
    int32_t m_savedLevel;
};
