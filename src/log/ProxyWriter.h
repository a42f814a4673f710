#pragma once
// Hands every line to a callback with the shape of the Log entry point, so the
// lines of one logger re-enter another logging front end with their own
// function name and level. The prefix carries both: "@PROXY/<level><function>/".
// The host supplies the callback; without one, lines go nowhere.

#include "log/LogWriter.h"

#include <cstdint>

namespace tolv::log {

class ProxyWriter final : public LogWriter {
public:
    using Target = void (*)(const char* functionName, int32_t level, const char* format, ...);

    static constexpr char kTag[] = "@PROXY/";

    explicit ProxyWriter(Target target = nullptr) : LogWriter(kProxyWriter), m_target(target) {}

    void SetTarget(Target target);
    bool Open() override { return true; }
    bool WriteMessage(const RCPtr<LogMessage>& message) override;
    bool Close() override;
    int32_t FormatPrefix(char* buffer, size_t size, const char* functionName, int32_t level) override;

private:
    Target m_target; // guarded by the logging lock
};

} // namespace tolv::log
