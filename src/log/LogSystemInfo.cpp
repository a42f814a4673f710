#include "log/LogSystemInfo.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#ifndef TOLV_VERSION_TEXT
#define TOLV_VERSION_TEXT "0.0.0"
#endif

namespace logsys {

uint32_t SessionId()
{
    std::ifstream in("/proc/self/sessionid");
    unsigned long long id = 0;
    if (!(in >> id) || id == 0xFFFFFFFFull)
        return 0; // unset: a process outside any login session
    return static_cast<uint32_t>(id);
}

std::string OsVersionText()
{
    std::string pretty = "Linux";
    std::ifstream in("/etc/os-release");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("PRETTY_NAME=", 0) != 0)
            continue;
        pretty = line.substr(12);
        if (pretty.size() >= 2 && (pretty.front() == '"' || pretty.front() == '\''))
            pretty = pretty.substr(1, pretty.size() - 2);
        break;
    }
    struct utsname names {};
    const std::string release = uname(&names) == 0 ? names.release : "unknown";
    return pretty + ", kernel " + release + ", 64-bit";
}

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

std::string ModuleVersionText(const std::string& path)
{
    std::string text = "version " TOLV_VERSION_TEXT;
    struct stat st {};
    if (!path.empty() && stat(path.c_str(), &st) == 0) {
        struct tm parts {};
        localtime_r(&st.st_mtime, &parts);
        char stamp[64];
        strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &parts);
        text += ", file time ";
        text += stamp;
    }
    return text;
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
