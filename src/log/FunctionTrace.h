#pragma once
// Logs entry to and exit from a scope: "Enter" on construction, "Exit" (with
// the elapsed time when timing is on, or an exit text set on the way) when it
// goes. Nothing is formatted for a level the logger does not admit.

#include "log/Logger.h"
#include "support/LxElapsedTimer.h"
#include "support/RCPtr.h"

#include <cstdint>

namespace tolv::log {

class FunctionTrace {
public:
    static constexpr size_t kTextSize = 1024;

    // `logger` null: the default logger. `format` null: no entry text.
    FunctionTrace(int32_t level, const char* functionName, RCPtr<Logger> logger = {}, const char* format = nullptr,
                  ...) __attribute__((format(printf, 5, 6)));
    ~FunctionTrace();
    FunctionTrace(const FunctionTrace&) = delete;
    FunctionTrace& operator=(const FunctionTrace&) = delete;

    // The text of the exit line, at `level`, when the logger admits it.
    void SetExitText(int32_t level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void SetTiming(bool timing) { m_timing = timing; }

private:
    void Write(int32_t level, const char* format, ...) __attribute__((format(printf, 3, 4)));

    const char* m_functionName;
    char m_exitText[kTextSize] = {};
    int32_t m_enterLevel;
    int32_t m_exitLevel;
    bool m_timing = false;
    LxElapsedTimer m_timer;
    RCPtr<Logger> m_logger;
};

} // namespace tolv::log
