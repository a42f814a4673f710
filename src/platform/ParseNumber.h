#pragma once
// Numbers given as text (settings, writer properties): any base strtoull
// knows (0x hex, leading-zero octal, decimal), up to 32 bits.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace tolv::platform {

// False when the text does not start with a number or the number needs more
// than 32 bits: 4294967296 must not wrap to 0, which means "no limit".
inline bool ParseUnsigned32(const std::string& text, uint32_t& value)
{
    errno = 0;
    char* end = nullptr;
    const unsigned long long parsed = strtoull(text.c_str(), &end, 0);
    if (end == text.c_str() || errno != 0 || parsed > UINT32_MAX)
        return false;
    value = static_cast<uint32_t>(parsed);
    return true;
}

} // namespace tolv::platform
