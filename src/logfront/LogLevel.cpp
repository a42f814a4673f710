#include <tolv/log/LogLevel.h>

#include <strings.h>

#include <array>

namespace tolv::log {

namespace {
constexpr std::array<const char*, 8> kNames = {"ALWAYS", "ERROR", "WARN", "INFO", "DEBUG", "TRACE", "VERBOSE", "NEVER"};
constexpr char kLetters[] = "AEWIDTVN";
} // namespace

char LogLevelLetter(int32_t level)
{
    return level >= 0 && level <= LOG_LEVEL_NEVER ? kLetters[level] : '?';
}

const char* LogLevelName(int32_t level)
{
    return level >= 0 && level <= LOG_LEVEL_NEVER ? kNames[level] : "UNKNOWN";
}

int32_t ParseLogLevel(std::string_view name, int32_t fallback)
{
    for (size_t i = 0; i < kNames.size(); ++i) {
        const std::string_view candidate = kNames[i];
        if (candidate.size() == name.size() && strncasecmp(candidate.data(), name.data(), name.size()) == 0)
            return static_cast<int32_t>(i);
    }
    return fallback >= 0 && fallback <= LOG_LEVEL_NEVER ? fallback : LOG_LEVEL_INFO;
}

} // namespace tolv::log
