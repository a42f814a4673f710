#include "log/SocketWriter.h"

#include "log/Logger.h"
#include "log/LoggingLock.h"
#include "log/WriterProperty.h"
#include "support/LxMutexLock.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <netinet/in.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace tolv::log {

namespace {

// The host name as a 16-character buffer holds it; "-" (the syslog nil value)
// when it is longer or cannot be had.
std::string HostName()
{
    char name[16] = {};
    if (gethostname(name, sizeof name) != 0 || name[0] == '\0' || memchr(name, '\0', sizeof name) == nullptr)
        return "-";
    return name;
}

} // namespace

SocketWriter::SocketWriter() : LogWriter(kSocketWriter)
{
    InitBuffering(true);
}

SocketWriter::~SocketWriter() = default;

bool SocketWriter::SetProperty(const std::string& name, const std::string& value)
{
    LxMutexLock guard(LoggingLock());
    Logger* logger = GetLogger();
    if ((logger && logger->IsStarted()) || name.empty() || value.empty())
        return false;
    if (PropertyNameIs(name, "remoteAddress")) {
        m_remoteAddress = value;
        return true;
    }
    if (PropertyNameIs(name, "remotePort")) {
        uint32_t port = 0;
        if (!tolv::platform::ParseUnsigned32(value, port))
            return false;
        m_remotePort = port;
        return true;
    }
    return false;
}

bool SocketWriter::GetProperty(const std::string& name, std::string& value)
{
    LxMutexLock guard(LoggingLock());
    if (PropertyNameIs(name, "remoteAddress")) {
        value = m_remoteAddress;
        return true;
    }
    if (PropertyNameIs(name, "remotePort")) {
        value = std::to_string(m_remotePort);
        return true;
    }
    return false;
}

bool SocketWriter::Open()
{
    auto socket = std::make_unique<LxSocket>();
    if (!socket->Init(SOCK_DGRAM, IPPROTO_UDP))
        return false;
    m_socket = std::move(socket);
    if (!m_socket->Connect(m_remoteAddress, m_remotePort))
        return false; // the socket stays until Close
    Logger* logger = GetLogger();
    m_appName = logger && !logger->GetAppName().empty() ? logger->GetAppName() : "-";
    return true;
}

bool SocketWriter::WriteMessage(const RCPtr<LogMessage>& message)
{
    if (!IsActive() || !m_socket)
        return true;
    const int32_t length = message->GetLength();
    return m_socket->SendAll(message->GetText(), length) >= length;
}

bool SocketWriter::Close()
{
    m_socket.reset();
    return true;
}

int32_t SocketWriter::FormatPrefix(char* buffer, size_t size, const char* /*functionName*/, int32_t /*level*/)
{
    if (size == 0)
        return 0;
    struct timeval now {};
    gettimeofday(&now, nullptr);
    struct tm parts {};
    gmtime_r(&now.tv_sec, &parts);
    // Priority 1 (facility 0, severity 1), version 1, no PROCID or MSGID.
    const int n = snprintf(buffer, size, "<1>1 %04d-%02d-%02dT%02d:%02d:%02d.%03dZ %s %s - - ", parts.tm_year + 1900,
                           parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                           static_cast<int>(now.tv_usec / 1000), HostName().c_str(), m_appName.c_str());
    if (n < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(n) < size ? n : static_cast<int32_t>(size - 1);
}

} // namespace tolv::log
