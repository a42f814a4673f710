#include <tolv/log/LogSink.h>

#include <tolv/log/LogLevel.h>

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

namespace tolv::log {

uint32_t LogThreadId()
{
    thread_local const uint32_t id = static_cast<uint32_t>(syscall(SYS_gettid));
    return id;
}

int FormatLogTimeStamp(char* buffer, int size, bool utc)
{
    if (size <= 0)
        return 0;
    struct timeval now {};
    gettimeofday(&now, nullptr);
    struct tm parts {};
    if (utc)
        gmtime_r(&now.tv_sec, &parts);
    else
        localtime_r(&now.tv_sec, &parts);
    const int n = snprintf(buffer, static_cast<size_t>(size), "%04d-%02d-%02d%c%02d:%02d:%02d.%03d%s",
                           parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, utc ? 'T' : ' ', parts.tm_hour,
                           parts.tm_min, parts.tm_sec, static_cast<int>(now.tv_usec / 1000), utc ? "Z" : "");
    if (n < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return n < size ? n : size - 1;
}

} // namespace tolv::log
