#pragma once
// Trace lines of the IPC library: ">" on entry, "<" on exit, "-" for a note,
// through the logger of the calling class, with the operation's name.
// Each source file names itself in kIpclibTraceFile before using the macro.

#include <tolv/log/IpcTrace.h>

#define KXIPC_TRACE(logger, ...)                                                                       \
    ::tolv::log::IpcTrace(::tolv::log::IpcTraceLogger::logger,                                          \
                          ::tolv::log::IpcTraceSite{kIpclibTraceFile, __LINE__, __func__}, __VA_ARGS__)
