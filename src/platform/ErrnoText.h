#pragma once
#include <string>

namespace tolv::platform {

// Text of a system error number, as strerror_r gives it; never fails.
std::string ErrnoText(int err);

} // namespace tolv::platform
