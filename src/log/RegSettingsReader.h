#pragma once
// Reads a logger's settings from one key of the settings store, watches the
// key on the logging poll thread and applies every setting again when it
// changes. It also follows the redaction policy
// "HKLM\Software\Policies\Corvanta\Veltrane\legacyRedactEnabled".
//
// Every known setting has a value watcher on the key watcher, so one change
// notification reloads them all before the settings are applied.

#include "log/SettingsReader.h"
#include "support/LxPolicyWatcher.h"
#include "support/LxRegValueWatcher.h"
#include "support/RCPtr.h"

#include <map>
#include <mutex>
#include <string>

namespace tolv::log {

class Logger;
class LogRegKeyWatcher;

class RegSettingsReader final : public SettingsReader {
public:
    static constexpr const char* kRedactPolicy = "HKLM\\Software\\Policies\\Corvanta\\Veltrane";
    static constexpr const char* kRedactValue = "legacyRedactEnabled";

    // `location`: "HKLM\..." or "HKCU\...". Starts watching at once.
    RegSettingsReader(Logger* logger, const std::string& location);
    ~RegSettingsReader() override;

    std::string GetName() const override { return "RegistryReader"; }
    bool ReadString(const std::string& name, std::string& value) override;
    bool ReadUInt32(const std::string& name, uint32_t& value) override;
    bool ReadBool(const std::string& name, bool& value) override;
    std::string GetLocation(const std::string& name) const override;
    void Stop() override;

    // From the key watcher, under the logging lock.
    void ApplyToLogger();

private:
    void OnRedactPolicyChanged(LxPolicyWatcher& watcher);
    // Runs `read` on the watched value of `name`, or on a fresh load of it
    // when the name is not one of the settings.
    template <typename Read>
    bool WithValue(const std::string& name, Read&& read);

    Logger* const m_logger; // the logger stops this reader before it goes
    const std::string m_location;
    RCPtr<LogRegKeyWatcher> m_keyWatcher;
    std::map<std::string, RCPtr<LxRegValueWatcher>> m_values; // fixed after construction
    RCPtr<LxPolicyWatcher> m_redactPolicyWatcher;
    std::mutex m_stopLock;
    bool m_stopped = false; // guarded by m_stopLock
};

} // namespace tolv::log
