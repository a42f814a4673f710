#pragma once
#include <cstdint>
#include <string_view>

namespace tolv::log {

// A lower number is more important. A message of level L is written when L is
// at most the current level.
enum LogLevel : int32_t {
    LOG_LEVEL_ALWAYS = 0,
    LOG_LEVEL_ERROR = 1,
    LOG_LEVEL_WARN = 2,
    LOG_LEVEL_INFO = 3,
    LOG_LEVEL_DEBUG = 4,
    LOG_LEVEL_TRACE = 5,
    LOG_LEVEL_VERBOSE = 6,
    LOG_LEVEL_NEVER = 7,
};

// 'A'..'N' from "AEWIDTVN"; '?' outside 0..7.
char LogLevelLetter(int32_t level);
// "ALWAYS".."NEVER"; "UNKNOWN" outside 0..7.
const char* LogLevelName(int32_t level);
// Case-insensitive match against "always".."never"; an unknown name gives
// `fallback`, and a fallback outside 0..7 becomes INFO.
int32_t ParseLogLevel(std::string_view name, int32_t fallback);

} // namespace tolv::log
