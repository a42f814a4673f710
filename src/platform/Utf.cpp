#include "platform/Utf.h"

#include <cstdint>

namespace tolv::platform {

namespace {

bool IsHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

void AppendUtf8(std::string& out, char32_t cp)
{
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

} // namespace

std::optional<std::string> Utf16ToUtf8(std::u16string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char32_t cp = text[i];
        if (IsHighSurrogate(cp)) {
            if (i + 1 >= text.size() || !IsLowSurrogate(text[i + 1]))
                return std::nullopt;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (IsLowSurrogate(cp)) {
            return std::nullopt;
        }
        AppendUtf8(out, cp);
    }
    return out;
}

std::optional<std::u16string> Utf8ToUtf16(std::string_view text)
{
    std::u16string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<uint8_t>(text[i]);
        char32_t cp;
        size_t extra;
        char32_t minimum;
        if (lead < 0x80) {
            cp = lead;
            extra = 0;
            minimum = 0;
        } else if ((lead & 0xE0) == 0xC0) {
            cp = lead & 0x1F;
            extra = 1;
            minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            cp = lead & 0x0F;
            extra = 2;
            minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            cp = lead & 0x07;
            extra = 3;
            minimum = 0x10000;
        } else {
            return std::nullopt;
        }
        if (extra > text.size() - i - 1)
            return std::nullopt;
        for (size_t k = 1; k <= extra; ++k) {
            const auto cont = static_cast<uint8_t>(text[i + k]);
            if ((cont & 0xC0) != 0x80)
                return std::nullopt;
            cp = (cp << 6) | (cont & 0x3F);
        }
        if (cp < minimum || cp > 0x10FFFF || IsHighSurrogate(cp) || IsLowSurrogate(cp))
            return std::nullopt;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
        i += extra + 1;
    }
    return out;
}

} // namespace tolv::platform
