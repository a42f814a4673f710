#include "log/LogSystemInfo.h"

#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>

namespace tolv::log {

namespace logsys {

std::string LoggingModulePath()
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&LoggingModulePath), &info) == 0 || !info.dli_fname)
        return {};
    char resolved[PATH_MAX];
    if (realpath(info.dli_fname, resolved))
        return resolved;
    return info.dli_fname;
}

std::string ProcessImagePath()
{
    char path[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0)
        return {};
    return std::string(path, static_cast<size_t>(n));
}

std::string TimeZoneText()
{
    const time_t now = time(nullptr);
    struct tm parts {};
    localtime_r(&now, &parts);
    const long offset = parts.tm_gmtoff; // seconds east of UTC
    const char sign = offset < 0 ? '-' : '+';
    const long magnitude = offset < 0 ? -offset : offset;
    const long hours = magnitude / 3600;
    const long minutes = (magnitude % 3600) / 60;
    const char* name = parts.tm_zone && *parts.tm_zone ? parts.tm_zone : "UTC";
    char text[128];
    if (minutes == 0)
        snprintf(text, sizeof text, "%s (UTC %c%ld)", name, sign, hours);
    else
        snprintf(text, sizeof text, "%s (UTC %c%ld:%02ld)", name, sign, hours, minutes);
    return text;
}

} // namespace logsys

} // namespace tolv::log
