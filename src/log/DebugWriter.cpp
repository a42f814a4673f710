#include "log/DebugWriter.h"

#include "log/ConsoleText.h"
#include "log/LoggingLock.h"
#include "platform/SysCall.h"
#include "support/LxMutexLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

namespace tolv::log {

DebugWriter::DebugWriter() : LogWriter(kDebugWriter) {}

void DebugWriter::SetAttachedQuery(AttachedQuery query)
{
    LxMutexLock guard(LoggingLock());
    m_query = query ? query : &DebuggerAttached;
    m_checked = false;
}

bool DebugWriter::WriteMessage(const RCPtr<LogMessage>& message)
{
    bool attached = false;
    {
        // The poll thread may drain while a logging thread writes another
        // writer: the cached answer is shared under the logging lock.
        LxMutexLock guard(LoggingLock());
        if (!m_checked || m_sinceCheck.ElapsedMs() >= kRecheckMs) {
            m_attached = m_query();
            m_checked = true;
            m_sinceCheck.Restart();
        }
        attached = m_attached;
    }
    if (attached)
        WriteConsoleText(stderr, message->GetText(), message->GetLength());
    return true;
}

long DebugWriter::TracerPidIn(std::string_view status)
{
    constexpr std::string_view kField = "TracerPid:";
    size_t at = 0;
    while (at < status.size()) {
        const size_t end = std::min(status.find('\n', at), status.size());
        const std::string_view line = status.substr(at, end - at);
        if (line.substr(0, kField.size()) == kField) {
            std::string_view value = line.substr(kField.size());
            while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
                value.remove_prefix(1);
            long pid = 0;
            for (char c : value) {
                if (c < '0' || c > '9')
                    break;
                pid = pid * 10 + (c - '0');
                if (pid > 0x7FFFFFFF)
                    return 0;
            }
            return pid;
        }
        at = end + 1;
    }
    return 0;
}

bool DebugWriter::DebuggerAttached()
{
    // Plain reads into a stack buffer: no allocation, so a forked child may
    // ask as well.
    const int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char text[8192];
    size_t length = 0;
    while (length < sizeof text) {
        const ssize_t n = tolv::platform::RetryOnEintr([&] { return read(fd, text + length, sizeof text - length); });
        if (n <= 0)
            break;
        length += static_cast<size_t>(n);
    }
    close(fd);
    return TracerPidIn(std::string_view(text, length)) != 0;
}

} // namespace tolv::log
