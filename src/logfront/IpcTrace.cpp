#include <tolv/log/IpcTrace.h>

#include <tolv/log/LogSink.h>

namespace tolv::log {

const char* IpcTraceLoggerName(IpcTraceLogger logger)
{
    switch (logger) {
    case IpcTraceLogger::Lib:
        return "ipc::lib";
    case IpcTraceLogger::Listener:
        return "ipc::listener";
    case IpcTraceLogger::Link:
        return "ipc::link";
    case IpcTraceLogger::Stream:
        return "ipc::stream";
    case IpcTraceLogger::Msg:
        return "ipc::msg";
    }
    return "ipc::unknown";
}

void IpcTraceWrite(IpcTraceLogger logger, const IpcTraceSite& site, std::string_view text)
{
    LogLine line;
    line.loggerName = IpcTraceLoggerName(logger);
    line.level = kIpcTraceLevel;
    line.functionName = site.function;
    line.file = site.file;
    line.line = site.line;
    line.text = text;
    WriteLogLine(line);
}

} // namespace tolv::log
