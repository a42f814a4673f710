#pragma once
// Writes one whole log text to a standard stream and flushes it, so console
// lines keep their order with what the program prints itself.

#include <cstdint>
#include <cstdio>

namespace tolv::log {

inline bool WriteConsoleText(FILE* stream, const char* text, int32_t length)
{
    if (length <= 0)
        return true;
    const size_t written = fwrite(text, 1, static_cast<size_t>(length), stream);
    return fflush(stream) == 0 && written == static_cast<size_t>(length);
}

} // namespace tolv::log
