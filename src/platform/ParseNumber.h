#pragma once
// Numbers given as text (settings, writer properties): any base strtoull
// knows (0x hex, leading-zero octal, decimal), cut to 32 bits.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace platform {

// False when the text does not start with a number or it overflows 64 bits.
inline bool ParseUnsigned32(const std::string& text, uint32_t& value)
{
    errno = 0;
    char* end = nullptr;
    const unsigned long long parsed = strtoull(text.c_str(), &end, 0);
    if (end == text.c_str() || errno != 0)
        return false;
    value = static_cast<uint32_t>(parsed);
    return true;
}

} // namespace platform
