#pragma once
// UTF-16 <-> UTF-8. Paths, stream names and executable paths are UTF-16 inside
// the system and become UTF-8 only at a system call. Invalid text (a lone
// surrogate, an overlong or truncated UTF-8 sequence, a code point past
// U+10FFFF) is refused, never repaired.

#include <optional>
#include <string>
#include <string_view>

namespace tolv::platform {

std::optional<std::string> Utf16ToUtf8(std::u16string_view text);
std::optional<std::u16string> Utf8ToUtf16(std::string_view text);

} // namespace tolv::platform
