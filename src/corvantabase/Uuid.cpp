#include "corvantabase/Uuid.h"

#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

int HexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The 32 digits of the text, or false when it has none of the accepted shapes.
bool CollectDigits(std::string_view text, char (&digits)[32])
{
    if (text.size() >= 2 && text.front() == '{' && text.back() == '}')
        text = text.substr(1, text.size() - 2);
    size_t n = 0;
    if (text.size() == 32) {
        for (char c : text)
            digits[n++] = c;
    } else if (text.size() == 36) {
        for (size_t i = 0; i < text.size(); ++i) {
            const bool dashPlace = i == 8 || i == 13 || i == 18 || i == 23;
            if (dashPlace != (text[i] == '-'))
                return false;
            if (!dashPlace)
                digits[n++] = text[i];
        }
    } else {
        return false;
    }
    for (char c : digits) {
        if (HexValue(c) < 0)
            return false;
    }
    return true;
}

uint64_t Field(const char* digits, size_t count)
{
    uint64_t value = 0;
    for (size_t i = 0; i < count; ++i)
        value = value << 4 | static_cast<uint64_t>(HexValue(digits[i]));
    return value;
}

} // namespace

bool UUID_ConvertPackedToBin(void* bin, const char* text)
{
    if (!bin || !text)
        return false;
    char digits[32];
    if (!CollectDigits(text, digits))
        return false;

    const uint32_t data1 = static_cast<uint32_t>(Field(digits, 8));
    const uint16_t data2 = static_cast<uint16_t>(Field(digits + 8, 4));
    const uint16_t data3 = static_cast<uint16_t>(Field(digits + 12, 4));
    uint8_t out[16];
    std::memcpy(out, &data1, 4);
    std::memcpy(out + 4, &data2, 2);
    std::memcpy(out + 6, &data3, 2);
    for (size_t i = 0; i < 8; ++i)
        out[8 + i] = static_cast<uint8_t>(Field(digits + 16 + 2 * i, 2));
    std::memcpy(bin, out, sizeof out);
    return true;
}
