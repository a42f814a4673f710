#pragma once
// Trace lines of the IPC library, written through its five named loggers at
// level 6 with fmt-style placeholders. When trace is off a call costs one
// comparison and formats nothing.

#include <tolv/log/Log.h>

#include <fmt/format.h>

#include <string_view>
#include <utility>

namespace tolv::log {

enum class IpcTraceLogger { Lib, Listener, Link, Stream, Msg };

inline constexpr int32_t kIpcTraceLevel = LOG_LEVEL_VERBOSE;

// "ipc::lib", "ipc::listener", "ipc::link", "ipc::stream", "ipc::msg".
const char* IpcTraceLoggerName(IpcTraceLogger logger);

struct IpcTraceSite {
    const char* file;     // e.g. "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibStream"
    int line;
    const char* function; // e.g. "recvBlock", "~KxIpclibStream"
};

void IpcTraceWrite(IpcTraceLogger logger, const IpcTraceSite& site, std::string_view text);

template <typename... Args>
inline void IpcTrace(IpcTraceLogger logger, const IpcTraceSite& site, fmt::format_string<Args...> format,
                     Args&&... args)
{
    if (CurrentLogLevel < kIpcTraceLevel)
        return;
    IpcTraceWrite(logger, site, fmt::format(format, std::forward<Args>(args)...));
}

} // namespace tolv::log
