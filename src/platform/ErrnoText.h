#pragma once
#include <string>

namespace platform {

// Text of a system error number, as strerror_r gives it; never fails.
std::string ErrnoText(int err);

} // namespace platform
