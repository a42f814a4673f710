#pragma once
// Writer properties arrive as text: names compare without regard to case, and
// numbers parse with tolv::platform::ParseUnsigned32.

#include "platform/ParseNumber.h"

#include <strings.h>

#include <cstdint>
#include <string>

namespace tolv::log {

inline bool PropertyNameIs(const std::string& name, const char* expected)
{
    return strcasecmp(name.c_str(), expected) == 0;
}

} // namespace tolv::log
