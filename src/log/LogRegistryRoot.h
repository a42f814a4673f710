#pragma once
// The settings-store roots a logger can read its settings from.

#include <cstdint>

namespace tolv::log {

enum LogRegistryRoot : int32_t {
    HKEY_LOCAL_MACHINE = 1,
    HKEY_CURRENT_USER = 2,
    HKEY_USERS = 3,
};

} // namespace tolv::log
