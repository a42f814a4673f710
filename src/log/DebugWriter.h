#pragma once
// Log lines for an attached debugger. Linux has no debugger output channel,
// so while a tracer is attached (TracerPid in /proc/self/status) the lines go
// to standard error, where the debugger shows the program's output; without
// one they are dropped. Whether a tracer is attached is looked up again at
// most once a second.

#include "log/LogWriter.h"
#include "support/LxElapsedTimer.h"

#include <string_view>

namespace tolv::log {

class DebugWriter final : public LogWriter {
public:
    // Tells whether a debugger is attached; replaceable for tests.
    using AttachedQuery = bool (*)();

    DebugWriter();
    bool Open() override { return true; }
    bool WriteMessage(const RCPtr<LogMessage>& message) override;
    bool Close() override { return true; }

    void SetAttachedQuery(AttachedQuery query);

    // The process's own tracer, from /proc/self/status.
    static bool DebuggerAttached();
    // The tracer's pid in the text of a /proc/<pid>/status file; 0 when none.
    static long TracerPidIn(std::string_view status);

private:
    static constexpr uint64_t kRecheckMs = 1000;

    AttachedQuery m_query = &DebuggerAttached;
    LxElapsedTimer m_sinceCheck; // guarded by the logging lock
    bool m_checked = false;      // guarded by the logging lock
    bool m_attached = false;     // guarded by the logging lock
};

} // namespace tolv::log
