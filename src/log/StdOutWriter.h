#pragma once
// Log lines on standard output, written by the logging thread at once unless
// buffering is switched on.

#include "log/LogWriter.h"

namespace tolv::log {

class StdOutWriter final : public LogWriter {
public:
    StdOutWriter() : LogWriter(kStdOutWriter) {}
    bool Open() override { return true; }
    bool WriteMessage(const RCPtr<LogMessage>& message) override;
    bool Close() override { return true; }
};

} // namespace tolv::log
