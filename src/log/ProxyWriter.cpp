#include "log/ProxyWriter.h"

#include "log/LoggingLock.h"
#include "support/LxMutexLock.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace tolv::log {

void ProxyWriter::SetTarget(Target target)
{
    LxMutexLock guard(LoggingLock());
    m_target = target;
}

bool ProxyWriter::Close()
{
    SetTarget(nullptr);
    return true;
}

int32_t ProxyWriter::FormatPrefix(char* buffer, size_t size, const char* functionName, int32_t level)
{
    // A continuation line keeps the common indentation.
    if (!functionName || !*functionName)
        return LogWriter::FormatPrefix(buffer, size, functionName, level);
    if (size == 0)
        return 0;
    const int n = snprintf(buffer, size, "%s%c%s%c", kTag, static_cast<char>('0' + level), functionName, '/');
    if (n < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(n) < size ? n : static_cast<int32_t>(size - 1);
}

bool ProxyWriter::WriteMessage(const RCPtr<LogMessage>& message)
{
    Target target = nullptr;
    {
        LxMutexLock guard(LoggingLock());
        target = m_target;
    }
    if (!target)
        return true;
    const char* text = message->GetText();
    const size_t length = static_cast<size_t>(message->GetLength());
    const size_t tagLength = sizeof kTag - 1;
    if (length >= tagLength && memcmp(text, kTag, tagLength) == 0) {
        if (length == tagLength)
            return true;
        const int32_t level = text[tagLength] - '0';
        const char* name = text + tagLength + 1;
        const char* end = text + length;
        const char* slash = static_cast<const char*>(memchr(name, '/', static_cast<size_t>(end - name)));
        if (!slash)
            return true; // not one of ours after all: nothing to forward
        const std::string functionName(name, slash);
        const std::string rest(slash + 1, end);
        target(functionName.c_str(), level, "%s", rest.c_str());
        return true;
    }
    size_t skip = 0;
    while (skip < length && text[skip] == ' ')
        ++skip;
    const std::string rest(text + skip, text + length);
    target("", 0, "%s", rest.c_str());
    return true;
}

} // namespace tolv::log
