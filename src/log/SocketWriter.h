#pragma once
// Sends every line as one datagram to a syslog collector, with the RFC 5424
// header in UTC. Buffered from the start: the queue is drained on the logging
// poll thread, so a slow network never holds a logging thread.
//
// The address and port are fixed once the logger has started; the socket
// lives from Open to Close.

#include "log/LogWriter.h"
#include "log/LxSocket.h"

#include <cstdint>
#include <memory>
#include <string>

namespace tolv::log {

class SocketWriter final : public LogWriter {
public:
    static constexpr uint32_t kDefaultPort = 514;

    SocketWriter();
    ~SocketWriter() override;

    // "remoteAddress" and "remotePort"; refused once the logger has started.
    bool SetProperty(const std::string& name, const std::string& value) override;
    bool GetProperty(const std::string& name, std::string& value) override;
    bool Open() override;
    bool WriteMessage(const RCPtr<LogMessage>& message) override;
    bool Close() override;
    int32_t FormatPrefix(char* buffer, size_t size, const char* functionName, int32_t level) override;

private:
    std::string m_appName;                     // set at Open
    std::string m_remoteAddress = "localhost"; // guarded by the logging lock
    uint32_t m_remotePort = kDefaultPort;      // guarded by the logging lock
    std::unique_ptr<LxSocket> m_socket;
};

} // namespace tolv::log
