#pragma once
// Writer properties arrive as text: names compare without regard to case and
// numbers take any base strtoull knows (0x hex, leading-zero octal, decimal).

#include <strings.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

inline bool PropertyNameIs(const std::string& name, const char* expected)
{
    return strcasecmp(name.c_str(), expected) == 0;
}

// The value cut to 32 bits; false when the text does not start with a number.
inline bool ParseUnsignedProperty(const std::string& text, uint32_t& value)
{
    errno = 0;
    char* end = nullptr;
    const unsigned long long parsed = strtoull(text.c_str(), &end, 0);
    if (end == text.c_str() || errno != 0)
        return false;
    value = static_cast<uint32_t>(parsed);
    return true;
}
