#include "platform/ErrnoText.h"

#include <string.h>

namespace tolv::platform {

namespace {
// strerror_r has two signatures; these overloads accept whichever the C library declares.
[[maybe_unused]] const char* Pick(int result, const char* buffer) { return result == 0 ? buffer : "Unknown error"; }
[[maybe_unused]] const char* Pick(const char* result, const char*) { return result; }
} // namespace

std::string ErrnoText(int err)
{
    char buffer[256] = {};
    return Pick(strerror_r(err, buffer, sizeof buffer), buffer);
}

} // namespace tolv::platform
