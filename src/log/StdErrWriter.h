#pragma once
// Log lines on standard error, written by the logging thread at once unless
// buffering is switched on.

#include "log/LogWriter.h"

namespace tolv::log {

class StdErrWriter final : public LogWriter {
public:
    StdErrWriter() : LogWriter(kStdErrWriter) {}
    bool Open() override { return true; }
    bool WriteMessage(const RCPtr<LogMessage>& message) override;
    bool Close() override { return true; }
};

} // namespace tolv::log
