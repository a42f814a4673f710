#pragma once
// A named logger: its writers (at most one of each type), its level and time
// base, and the fan-out of one log call to every active writer. The message of
// a call is formatted once, by the first active writer in type order, and
// shared by all writers.
//
// Every field is guarded by the logging lock, except the level, time base and
// redaction switch, which writers read from the poll thread and are atomic.

#include "log/LogMessage.h"
#include "log/LogMessageManager.h"
#include "log/LogRegistryRoot.h"
#include "log/LogWriter.h"
#include "log/SettingsReader.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tolv::log {

class Logger final : public RCObject {
public:
    Logger(std::string name, std::string appName, RCPtr<LogMessageManager> messageManager);
    ~Logger() override;
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // Reads and watches the settings under "HKLM\\<keyPath>" or
    // "HKCU\\<keyPath>" from now on; they are applied at Start and on every
    // change. Call without the logging lock.
    bool AddRegistrySettings(const std::string& keyPath, LogRegistryRoot root);
    // Applies every setting `reader` has, in the order general, FILE, SOCKET,
    // DEBUG, STDOUT, STDERR. Takes the logging lock.
    void ApplySettings(SettingsReader& reader);
    const std::vector<std::string>& GetSettingsLocations() const { return m_settingsLocations; }

    // The writer of `type` (LogWriter::Type), made when there is none yet;
    // null for an unknown type.
    RCPtr<LogWriter> GetWriter(int32_t type);
    RCPtr<LogWriter> FindWriter(int32_t type);

    bool Start();
    // Takes every writer out and shuts it down. Call without the logging lock.
    void Shutdown();

    // Writes `format` at `level` to every active writer.
    void Log(const char* functionName, int32_t level, const char* format, va_list args);
    // As Log, with "; (code) text" of `errorCode` appended.
    void LogWithError(int errorCode, const char* functionName, int32_t level, const char* format, va_list args);
    // A finished text (no format).
    void LogText(const char* functionName, int32_t level, const char* text, int32_t length);
    void LogStartupInfo();

    static const char* GetLevelName(int32_t level);

    const std::string& GetName() const { return m_name; }
    const std::string& GetAppName() const { return m_appName; }
    int32_t GetLevel() const { return m_level.load(); }
    void SetLevel(int32_t level);
    bool Admits(int32_t level) const { return m_started.load() && level <= m_level.load(); }
    bool IsStarted() const { return m_started.load(); }
    bool NeverStarted() const { return m_neverStarted; }
    bool UsesLocalTime() const { return m_useLocalTime.load(); }
    void SetUseLocalTime(bool useLocalTime);
    bool IsRedactEnabled() const { return m_redactEnabled.load(); }
    void SetRedactEnabled(bool enabled) { m_redactEnabled.store(enabled); }
    const std::string& GetLevelSource() const { return m_levelSource; }
    void SetLevelSource(const std::string& source) { m_levelSource = source; }
    RCPtr<LogMessageManager> GetMessageManager() const { return m_messageManager; }

private:
    // Formats into one message on first need and hands it to each active writer.
    template <typename Fill>
    void FanOut(const char* functionName, int32_t level, Fill&& fill);

    // One writer group of ApplySettings: the on/off switch, then the rest.
    RCPtr<LogWriter> ApplyWriterSwitch(SettingsReader& reader, int32_t type, const char* group,
                                       const char* switchName);

    std::map<int32_t, RCPtr<LogWriter>> m_writers;
    std::vector<std::string> m_settingsLocations;
    std::vector<RCPtr<SettingsReader>> m_settingsReaders;
    const std::string m_name;
    const std::string m_appName;
    std::atomic<int32_t> m_level{3};
    std::string m_levelSource = "default";
    std::atomic<bool> m_useLocalTime{true};
    std::atomic<bool> m_started{false};
    bool m_neverStarted = true;
    std::atomic<bool> m_redactEnabled{true};
    const RCPtr<LogMessageManager> m_messageManager;
};

} // namespace tolv::log
