#include "log/RegSettingsReader.h"

#include <tolv/log/Log.h>
#include "log/LogRegKeyWatcher.h"
#include "log/Logger.h"
#include "log/LoggerManager.h"

#include <strings.h>

namespace tolv::log {

namespace {

// Every value the logger reads; each gets a watcher on the settings key.
constexpr const char* kSettingNames[] = {
    "logLevel",         "useLocalTime",         "enableBuffering",        "logEnabled",
    "logDirectory",     "logMaxDaysKept",       "logMaxNumFiles",         "logMinAgeInHours",
    "logMaxFileSizeMB", "logMaxRollingFiles",   "logDiskThresholdLowMB",  "logDiskThresholdHighMB",
    "logToSyslog",      "logRemoteAddress",     "logRemotePort",          "logToDebugView",
    "logToStdout",      "logToStderr",
};

} // namespace

RegSettingsReader::RegSettingsReader(Logger* logger, const std::string& location)
    : m_logger(logger), m_location(location)
{
    RCPtr<LxRegKey> key = MakeRC<LxRegKey>(location);
    m_keyWatcher = MakeRC<LogRegKeyWatcher>(key, *this);
    for (const char* name : kSettingNames) {
        // A key object of its own: values load on the poll thread beside the
        // watcher's open key.
        auto watcher = MakeRC<LxRegValueWatcher>(MakeRC<LxRegValue>(MakeRC<LxRegKey>(location), name),
                                                 LxRegValueWatcher::Callback(), LOG_LEVEL_VERBOSE);
        watcher->Start(m_keyWatcher);
        m_values.emplace(name, watcher);
    }
    RCPtr<LxPollThread> thread = LoggerManager::GetInstance()->GetPollThread();
    m_keyWatcher->Start(thread);

    auto policy = MakeRC<LxPolicyValue>(kRedactPolicy, kRedactValue, LxPolicyValue::PolicyOverridesLocal);
    m_redactPolicyWatcher = MakeRC<LxPolicyWatcher>(policy, LOG_LEVEL_INFO, [this](LxPolicyWatcher& watcher) {
        OnRedactPolicyChanged(watcher);
    });
    m_redactPolicyWatcher->Start(thread);
    // The policy as it stands now.
    OnRedactPolicyChanged(*m_redactPolicyWatcher);
}

RegSettingsReader::~RegSettingsReader()
{
    Stop();
}

void RegSettingsReader::Stop()
{
    {
        std::lock_guard<std::mutex> guard(m_stopLock);
        if (m_stopped)
            return;
        m_stopped = true;
    }
    // Both wait for a run in progress on the poll thread, which may need the
    // logging lock: never called with it held.
    m_keyWatcher->Stop();
    for (auto& [name, watcher] : m_values)
        watcher->Stop();
    m_redactPolicyWatcher->Stop();
}

template <typename Read>
bool RegSettingsReader::WithValue(const std::string& name, Read&& read)
{
    for (auto& [known, watcher] : m_values)
        if (strcasecmp(known.c_str(), name.c_str()) == 0)
            return watcher->WithValue([&](LxRegValue& value) { return value.Exists() && read(value); });
    LxRegValue value(MakeRC<LxRegKey>(m_location), name);
    value.Load(LOG_LEVEL_VERBOSE);
    return value.Exists() && read(value);
}

bool RegSettingsReader::ReadString(const std::string& name, std::string& text)
{
    return WithValue(name, [&](LxRegValue& value) {
        text = value.AsString();
        return true;
    });
}

bool RegSettingsReader::ReadUInt32(const std::string& name, uint32_t& number)
{
    return WithValue(name, [&](LxRegValue& value) { return value.AsUInt32(number); });
}

bool RegSettingsReader::ReadBool(const std::string& name, bool& flag)
{
    return WithValue(name, [&](LxRegValue& value) {
        flag = value.AsBool(true);
        return true;
    });
}

std::string RegSettingsReader::GetLocation(const std::string& name) const
{
    return m_location + "\\" + name;
}

void RegSettingsReader::ApplyToLogger()
{
    m_logger->ApplySettings(*this);
}

void RegSettingsReader::OnRedactPolicyChanged(LxPolicyWatcher& watcher)
{
    const bool enabled = watcher.GetValue()->GetBool(true);
    if (enabled == m_logger->IsRedactEnabled())
        return;
    LOG_AT(watcher.GetLevel(), "RegSettingsReader::OnRedactPolicyChanged()", "%s is now %sabled",
           watcher.GetValue()->GetName().c_str(), enabled ? "en" : "dis");
    m_logger->SetRedactEnabled(enabled);
}

} // namespace tolv::log
