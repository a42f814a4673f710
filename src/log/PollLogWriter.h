#pragma once
// Drains one writer's queue on the logging poll thread every second.

#include "support/LxPollItem.h"

#include <atomic>

namespace tolv::log {

class LogWriter;

class PollLogWriter final : public LxPollItem {
public:
    // The writer owns this item and removes it from the thread before it goes.
    explicit PollLogWriter(LogWriter& writer);
    bool Run(bool signalled) override;

    // Set while a drain runs; read under the logging lock by batch mode.
    bool IsRunning() const { return m_running.load(); }
    void SetRunning(bool running) { m_running.store(running); }

private:
    LogWriter& m_writer;
    std::atomic<bool> m_running{false};
};

} // namespace tolv::log
