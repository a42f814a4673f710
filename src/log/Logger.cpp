#include "log/Logger.h"

#include "log/DebugWriter.h"
#include "log/FileWriter.h"
#include "log/ProxyWriter.h"
#include "log/RegSettingsReader.h"
#include "log/SocketWriter.h"
#include "log/StdErrWriter.h"
#include "log/StdOutWriter.h"
#include <tolv/log/Log.h>
#include <tolv/log/LogLevel.h>
#include <tolv/log/LogSink.h>
#include "log/LogSystemInfo.h"
#include "support/ProcessUtils.h"
#include "log/LoggerManager.h"
#include "log/LoggingLock.h"
#include "platform/ErrnoText.h"
#include "support/LxMutexLock.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tolv::log {

namespace {
// The caller's text of an error variant is cut at this many bytes.
constexpr size_t kErrorTextBuffer = 10240;

#ifdef NDEBUG
constexpr const char* kBuildType = "release";
#else
constexpr const char* kBuildType = "debug";
#endif
} // namespace

Logger::Logger(std::string name, std::string appName, RCPtr<LogMessageManager> messageManager)
    : m_name(std::move(name)), m_appName(std::move(appName)), m_messageManager(std::move(messageManager))
{
}

Logger::~Logger()
{
    for (auto& reader : m_settingsReaders)
        reader->Stop();
    for (auto& entry : m_writers)
        entry.second->SetLogger(nullptr);
}

bool Logger::AddRegistrySettings(const std::string& keyPath, LogRegistryRoot root)
{
    const char* prefix = root == HKEY_LOCAL_MACHINE ? "HKLM\\" : root == HKEY_CURRENT_USER ? "HKCU\\" : nullptr;
    if (!prefix || keyPath.empty())
        return false;
    // Made outside the lock: the reader starts watching on the poll thread.
    auto reader = MakeRC<RegSettingsReader>(this, prefix + keyPath);
    LxMutexLock guard(LoggingLock());
    m_settingsLocations.push_back(prefix + keyPath);
    m_settingsReaders.push_back(RCPtr<SettingsReader>(reader));
    return true;
}

RCPtr<LogWriter> Logger::FindWriter(int32_t type)
{
    LxMutexLock guard(LoggingLock());
    auto it = m_writers.find(type);
    return it == m_writers.end() ? RCPtr<LogWriter>() : it->second;
}

RCPtr<LogWriter> Logger::GetWriter(int32_t type)
{
    LxMutexLock guard(LoggingLock());
    auto it = m_writers.find(type);
    if (it != m_writers.end())
        return it->second;
    RCPtr<LogWriter> writer;
    switch (type) {
    case LogWriter::kDebugWriter:
        writer = MakeRC<DebugWriter>();
        break;
    case LogWriter::kFileWriter:
        writer = MakeRC<FileWriter>();
        break;
    case LogWriter::kProxyWriter:
        writer = MakeRC<ProxyWriter>(); // the host sets its target
        break;
    case LogWriter::kSocketWriter:
        writer = MakeRC<SocketWriter>();
        break;
    case LogWriter::kStdOutWriter:
        writer = MakeRC<StdOutWriter>();
        break;
    case LogWriter::kStdErrWriter:
        writer = MakeRC<StdErrWriter>();
        break;
    default:
        return {};
    }
    writer->SetLogger(this);
    m_writers.emplace(type, writer);
    return writer;
}

namespace {
const char* OnOff(bool value)
{
    return value ? "TRUE" : "FALSE";
}

// The change messages go through the front end at level 0, named after the
// reader. They only matter to the writers of a running logger; before the
// start they would reach standard error through the front end's fallback.
void ChangeMessage(SettingsReader& reader, const char* format, ...) __attribute__((format(printf, 2, 3)));
void ChangeMessage(SettingsReader& reader, const char* format, ...)
{
    RCPtr<Logger> logger = LoggerManager::PeekDefaultLogger();
    if (!logger || !logger->IsStarted())
        return;
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    tolv::log::Log(reader.GetName().c_str(), LOG_LEVEL_ALWAYS, "%s", text);
}
} // namespace

RCPtr<LogWriter> Logger::ApplyWriterSwitch(SettingsReader& reader, int32_t type, const char* group,
                                           const char* switchName)
{
    RCPtr<LogWriter> writer = FindWriter(type);
    if (!writer && !m_neverStarted)
        return {}; // no writer is made once the logger has started
    bool on = false;
    if (!reader.ReadBool(switchName, on))
        return writer;
    if (on && !writer)
        writer = GetWriter(type);
    if (writer && writer->IsEnabled() != on) {
        // The message reaches the writer either way: on before it, off after.
        if (on)
            writer->SetEnabled(true);
        if (IsStarted())
            ChangeMessage(reader, "%s - %s changed to %s", group, switchName, OnOff(on));
        if (!on)
            writer->SetEnabled(false);
    }
    return writer;
}

void Logger::ApplySettings(SettingsReader& reader)
{
    LxMutexLock guard(LoggingLock());
    const bool started = IsStarted();

    // General.
    m_levelSource = reader.GetLocation("logLevel");
    std::string text;
    int32_t level = -1;
    if (reader.ReadString("logLevel", text)) {
        const int32_t parsed = ParseLogLevel(text, LOG_LEVEL_NEVER);
        if (parsed != LOG_LEVEL_NEVER || started)
            level = parsed;
    } else if (started) {
        level = LOG_LEVEL_INFO;
    }
    if (level >= 0 && level != GetLevel()) {
        SetLevel(level);
        ChangeMessage(reader, "%s changed to %s", "logLevel", GetLevelName(level));
    }
    bool flag = true;
    if ((reader.ReadBool("useLocalTime", flag) || started) && flag != UsesLocalTime()) {
        SetUseLocalTime(flag);
        ChangeMessage(reader, "%s changed to %s", "useLocalTime", OnOff(flag));
    }
    flag = true;
    if (reader.ReadBool("enableBuffering", flag) || started) {
        for (auto& entry : m_writers) {
            if (entry.second->IsBufferingEnabled() != flag) {
                entry.second->SetBufferingEnabled(flag);
                ChangeMessage(reader, "%s changed to %s", "enableBuffering", OnOff(flag));
            }
        }
    }

    // FILE.
    if (RCPtr<LogWriter> file = ApplyWriterSwitch(reader, LogWriter::kFileWriter, "FILE", "logEnabled")) {
        if (!started && reader.ReadString("logDirectory", text))
            file->SetProperty("folderPath", text);
        static const struct {
            const char* setting;
            const char* property;
        } kLimits[] = {
            {"logMaxDaysKept", "maxDaysKept"},
            {"logMaxNumFiles", "maxNumFiles"},
            {"logMinAgeInHours", "minAgeInHours"},
            {"logMaxFileSizeMB", "maxFileSizeMB"},
            {"logMaxRollingFiles", "maxRollingFiles"},
            {"logDiskThresholdLowMB", "diskThresholdLowMB"},
            {"logDiskThresholdHighMB", "diskThresholdHighMB"},
        };
        for (const auto& limit : kLimits) {
            uint32_t wanted = 0;
            if (!reader.ReadUInt32(limit.setting, wanted))
                continue;
            std::string current;
            file->GetProperty(limit.property, current);
            if (strtoul(current.c_str(), nullptr, 0) == wanted)
                continue;
            if (file->SetProperty(limit.property, std::to_string(wanted)) && started)
                ChangeMessage(reader, "FILE - %s changed to %u", limit.setting, wanted);
        }
    }

    // SOCKET: the address and port only before the first start, silently.
    if (RCPtr<LogWriter> socket = ApplyWriterSwitch(reader, LogWriter::kSocketWriter, "SOCKET", "logToSyslog")) {
        uint32_t port = 0;
        if (!started && reader.ReadString("logRemoteAddress", text))
            socket->SetProperty("remoteAddress", text);
        if (!started && reader.ReadUInt32("logRemotePort", port))
            socket->SetProperty("remotePort", std::to_string(port));
    }

    ApplyWriterSwitch(reader, LogWriter::kDebugWriter, "DEBUG", "logToDebugView");
    ApplyWriterSwitch(reader, LogWriter::kStdOutWriter, "STDOUT", "logToStdout");
    ApplyWriterSwitch(reader, LogWriter::kStdErrWriter, "STDERR", "logToStderr");
}

void Logger::SetLevel(int32_t level)
{
    LxMutexLock guard(LoggingLock());
    m_level.store(level);
    LoggerManager::RefreshCurrentLogLevel();
}

void Logger::SetUseLocalTime(bool useLocalTime)
{
    LxMutexLock guard(LoggingLock());
    m_useLocalTime.store(useLocalTime);
    LoggerManager::RefreshCurrentLogLevel();
}

const char* Logger::GetLevelName(int32_t level)
{
    return LogLevelName(level);
}

bool Logger::Start()
{
    LxMutexLock guard(LoggingLock());
    if (m_started.load())
        return true;
    for (auto& reader : m_settingsReaders)
        ApplySettings(*reader);
    if (m_writers.empty())
        return false;
    int started = 0;
    for (auto& entry : m_writers)
        started += entry.second->Start() ? 1 : 0;
    if (started == 0)
        return false;
    m_neverStarted = false;
    m_started.store(true);
    LoggerManager::RefreshCurrentLogLevel();
    LogStartupInfo();
    return true;
}

void Logger::Shutdown()
{
    std::map<int32_t, RCPtr<LogWriter>> writers;
    std::vector<RCPtr<SettingsReader>> readers;
    {
        LxMutexLock guard(LoggingLock());
        readers.swap(m_settingsReaders);
        m_settingsLocations.clear();
    }
    // First the readers: a change seen now would apply to writers going away.
    for (auto& reader : readers)
        reader->Stop();
    {
        LxMutexLock guard(LoggingLock());
        writers.swap(m_writers);
    }
    // Outside the lock: a writer waits for its drain on the poll thread.
    for (auto& entry : writers) {
        entry.second->Shutdown();
        entry.second->SetLogger(nullptr);
    }
}

template <typename Fill>
void Logger::FanOut(const char* functionName, int32_t level, Fill&& fill)
{
    LxMutexLock guard(LoggingLock());
    if (!Admits(level))
        return;
    RCPtr<LogMessage> message;
    for (auto& entry : m_writers) {
        LogWriter& writer = *entry.second;
        if (!writer.IsActive())
            continue;
        if (!message) {
            message = m_messageManager->NewMessage(level);
            const char* name = functionName ? functionName : "";
            message->Reserve(static_cast<int32_t>(strlen(name)) + 160);
            int32_t space = 0;
            char* tail = message->GetTail(space);
            message->Commit(writer.FormatPrefix(tail, static_cast<size_t>(space) + 1, name, level));
            fill(*message);
        }
        writer.Write(message);
    }
}

void Logger::Log(const char* functionName, int32_t level, const char* format, va_list args)
{
    FanOut(functionName, level, [&](LogMessage& message) { message.AppendFormat(format, args, true); });
}

void Logger::LogText(const char* functionName, int32_t level, const char* text, int32_t length)
{
    FanOut(functionName, level, [&](LogMessage& message) { message.Append(text, length, true); });
}

void Logger::LogWithError(int errorCode, const char* functionName, int32_t level, const char* format, va_list args)
{
    if (!Admits(level))
        return;
    static thread_local char buffer[kErrorTextBuffer];
    va_list copy;
    va_copy(copy, args);
    int n = vsnprintf(buffer, sizeof buffer, format, copy);
    va_end(copy);
    if (n < 0)
        n = 0;
    size_t length = static_cast<size_t>(n) < sizeof buffer ? static_cast<size_t>(n) : sizeof buffer - 1;
    if (length > 0 && buffer[length - 1] == '\n')
        --length;
    const std::string systemText = tolv::platform::ErrnoText(errorCode);
    const int extra =
        snprintf(buffer + length, sizeof buffer - length, "; (%d) %s", errorCode, systemText.c_str());
    if (extra > 0)
        length = length + static_cast<size_t>(extra) < sizeof buffer ? length + static_cast<size_t>(extra)
                                                                       : sizeof buffer - 1;
    LogText(functionName, level, buffer, static_cast<int32_t>(length));
}

namespace {
void LogLine0(Logger& logger, const char* functionName, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void LogLine0(Logger& logger, const char* functionName, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    logger.Log(functionName, LOG_LEVEL_ALWAYS, format, args);
    va_end(args);
}
} // namespace

void Logger::LogStartupInfo()
{
    const std::string module = logsys::LoggingModulePath();
    const std::string image = logsys::ProcessImagePath();
    const std::string moduleField = module.empty() ? std::string("Logger::LogStartupInfo()") : module;
    char session[32];
    snprintf(session, sizeof session, ", sessionId=%d",
             static_cast<int>(ProcessUtils::GetSessionID(false, ProcessUtils::kNoSession)));
    LogLine0(*this, moduleField.c_str(), "%s%s\n", ProcessUtils::GetModuleVersionText(module).c_str(),
             (std::string(", buildtype=") + kBuildType + "/x64" + session).c_str());
    if (!image.empty() && image != module)
        LogLine0(*this, image.c_str(), "%s\n", ProcessUtils::GetModuleVersionText(image).c_str());
    LogLine0(*this, "OS Version", "%s%s\n", ProcessUtils::GetOSVersionText().c_str(), "");
    char other[64];
    FormatLogTimeStamp(other, sizeof other, UsesLocalTime());
    LogLine0(*this, "Time Zone", "%s, %s time is %s\n", logsys::TimeZoneText().c_str(),
             UsesLocalTime() ? "UTC" : "Local", other);
    LogLine0(*this, "Log Level", "%s (read from %s)\n", GetLevelName(GetLevel()), m_levelSource.c_str());
}

} // namespace tolv::log
