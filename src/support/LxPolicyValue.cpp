#include "support/LxPolicyValue.h"

#include "log/Log.h"

#include <string.h>
#include <strings.h>

namespace {

constexpr const char* kPolicyPart = "\\Software\\Policies\\";
constexpr const char* kLocalPart = "\\Software\\";
constexpr const char* kLegacySwitch = "FallbackToLegacyGPO";

bool Contains(const std::string& text, const char* part)
{
    return strcasestr(text.c_str(), part) != nullptr;
}

// `key` with its first `from` replaced by `to` (matched without regard to case).
std::string Exchange(const std::string& key, const char* from, const char* to)
{
    const char* at = strcasestr(key.c_str(), from);
    if (!at)
        return key;
    const size_t pos = static_cast<size_t>(at - key.c_str());
    return key.substr(0, pos) + to + key.substr(pos + strlen(from));
}

bool UnderUser(const std::string& key)
{
    return strncasecmp(key.c_str(), "HKCU\\", 5) == 0 || strncasecmp(key.c_str(), "HKEY_CURRENT_USER\\", 18) == 0;
}

std::string MachineVariant(const std::string& key)
{
    const size_t split = key.find('\\');
    return "HKLM\\" + key.substr(split + 1);
}

bool ReadLegacySwitch()
{
    for (const char* key : {"HKLM\\Software\\Policies\\Corvanta\\Veltrane", "HKLM\\Software\\Corvanta\\Veltrane"}) {
        LxRegValue value(MakeRC<LxRegKey>(key), kLegacySwitch);
        value.Load(LOG_LEVEL_VERBOSE);
        if (value.Exists())
            return value.AsBool(false);
    }
    return false;
}

} // namespace

LxPolicyValue::LxPolicyValue(std::string keyText, std::string valueName, int32_t mode, int32_t includeLegacyKeys)
    : m_passedKey(std::move(keyText)),
      m_valueName(std::move(valueName)),
      m_name(m_passedKey + "\\" + m_valueName),
      m_requestedMode(mode),
      m_mode(mode)
{
    DetermineKeyOrder(includeLegacyKeys);
}

const char* LxPolicyValue::ModeName(int32_t mode)
{
    static const char* const kNames[] = {
        "PolicyOverridesLocal", "LocalOverridesPolicy", "CheckPolicyKeysOnly", "CheckLocalKeysOnly",
        "CheckPassedKeyOnly",   "CheckPassedTypeOnly",  "CheckPassedTypeFirst", "PreferenceReader",
    };
    return mode >= 0 && mode < 8 ? kNames[mode] : "Unknown";
}

bool LxPolicyValue::IsPolicyKey(const std::string& key)
{
    return Contains(key, kPolicyPart);
}

bool LxPolicyValue::IsLocalKey(const std::string& key)
{
    return !IsPolicyKey(key) && Contains(key, kLocalPart);
}

std::string LxPolicyValue::LegacyKey(const std::string& key)
{
    if (!IsPolicyKey(key) || !Contains(key, "\\Corvanta"))
        return {};
    return Exchange(key, "\\Corvanta", "\\Pelloran");
}

void LxPolicyValue::DetermineKeyOrder(int32_t includeLegacyKeys)
{
    const char* function = "LxPolicyValue::DetermineKeyOrder()";
    const bool policy = IsPolicyKey(m_passedKey);
    const bool local = IsLocalKey(m_passedKey);
    if (m_mode < 0 || m_mode > 7) {
        LOG_WARN(function, "%s: policy mode %s not expected", m_name.c_str(), std::to_string(m_mode).c_str());
        m_mode = CheckPassedKeyOnly;
    }
    if (!policy && !local)
        m_mode = CheckPassedKeyOnly;
    else if (m_mode == CheckPassedTypeOnly)
        m_mode = policy ? CheckPolicyKeysOnly : CheckLocalKeysOnly;
    else if (m_mode == CheckPassedTypeFirst)
        m_mode = policy ? PolicyOverridesLocal : LocalOverridesPolicy;
    else if (m_mode == PreferenceReader)
        m_mode = policy ? PolicyOverridesLocal : CheckPassedKeyOnly;

    m_includeLegacyKeys = includeLegacyKeys < 0 ? ReadLegacySwitch() : includeLegacyKeys != 0;
    LOG_AT(LOG_LEVEL_DEBUG, function, "%s: includeLegacyKeys(%s)", m_name.c_str(),
           m_includeLegacyKeys ? "TRUE" : "FALSE");

    const std::string policyKey = policy ? m_passedKey : Exchange(m_passedKey, kLocalPart, kPolicyPart);
    const std::string localKey = policy ? Exchange(m_passedKey, kPolicyPart, kLocalPart) : m_passedKey;
    std::vector<std::string> policyKeys, localKeys;
    if (UnderUser(policyKey))
        policyKeys = {MachineVariant(policyKey), policyKey};
    else
        policyKeys = {policyKey};
    if (UnderUser(localKey))
        localKeys = {localKey, MachineVariant(localKey)};
    else
        localKeys = {localKey};

    std::vector<std::string> keys;
    auto addPolicy = [&] {
        for (const std::string& key : policyKeys) {
            keys.push_back(key);
            if (!m_includeLegacyKeys)
                continue;
            const std::string legacy = LegacyKey(key);
            if (legacy.empty()) {
                LOG_AT(LOG_LEVEL_DEBUG, function, "Mapping -: \"%s\"", key.c_str());
            } else {
                LOG_AT(LOG_LEVEL_DEBUG, function, "Mapping %d: \"%s\" -> \"%s\"", 1, key.c_str(), legacy.c_str());
                keys.push_back(legacy);
            }
        }
    };
    auto addLocal = [&] { keys.insert(keys.end(), localKeys.begin(), localKeys.end()); };
    switch (m_mode) {
    case PolicyOverridesLocal:
        addPolicy();
        addLocal();
        break;
    case LocalOverridesPolicy:
        addLocal();
        addPolicy();
        break;
    case CheckPolicyKeysOnly:
        addPolicy();
        break;
    case CheckLocalKeysOnly:
        addLocal();
        break;
    default:
        keys.push_back(m_passedKey);
        break;
    }
    LOG_AT(LOG_LEVEL_DEBUG, function, "%s: Pass in: %s", m_name.c_str(), m_passedKey.c_str());
    LOG_AT(LOG_LEVEL_DEBUG, function, "%s: PolicyMode: %s", m_name.c_str(), ModeName(m_mode));
    m_searchList.clear();
    for (size_t i = 0; i < keys.size(); ++i) {
        LOG_AT(LOG_LEVEL_DEBUG, function, "%s: %d) %s", m_name.c_str(), static_cast<int>(i + 1), keys[i].c_str());
        m_searchList.push_back(MakeRC<LxRegValue>(MakeRC<LxRegKey>(keys[i]), m_valueName));
    }
    LOG_AT(LOG_LEVEL_DEBUG, function, "%s: %zd key%s in search list", m_name.c_str(), m_searchList.size(),
           m_searchList.size() == 1 ? "" : "s");
}

std::vector<std::string> LxPolicyValue::GetSearchKeys() const
{
    std::vector<std::string> keys;
    for (const auto& value : m_searchList)
        keys.push_back(value->GetKey()->GetLocation());
    return keys;
}

bool LxPolicyValue::UpdateValue()
{
    const char* function = "LxPolicyValue::UpdateValue()";
    // Loads log, so they run outside the lock; updates come from one thread
    // at a time (the watcher's poll thread, or the caller before it starts).
    RCPtr<LxRegValue> found;
    for (const auto& value : m_searchList) {
        value->Load(LOG_LEVEL_VERBOSE);
        if (!found && value->Exists())
            found = value;
    }
    const std::string text = found ? found->AsString() : std::string();
    const std::string location = found ? found->GetLocation() : std::string();
    const uint32_t type = found ? found->GetType() : 0;
    RCPtr<LxRegValue> copy;
    if (found) {
        copy = MakeRC<LxRegValue>(found->GetKey(), m_valueName);
        copy->CopyFrom(*found);
    }
    bool had = false;
    bool changed = false;
    std::string before;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        had = static_cast<bool>(m_effective);
        changed = had != static_cast<bool>(found) ||
                  (found && (text != m_effectiveText || location != m_effectiveLocation || type != m_effectiveType));
        before = m_effectiveText;
        m_effective = copy;
        m_effectiveText = text;
        m_effectiveLocation = location;
        m_effectiveType = type;
    }
    if (!changed)
        LOG_AT(LOG_LEVEL_DEBUG, function, "%s: no change", m_name.c_str());
    else if (found)
        LOG_AT(LOG_LEVEL_DEBUG, function, "%s: %s -> %s", m_name.c_str(), had ? before.c_str() : "(none)",
               text.c_str());
    else
        LOG_AT(LOG_LEVEL_DEBUG, function, "%s: deleted", m_name.c_str());
    return changed;
}

void LxPolicyValue::ResetValue()
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_effective.reset();
    m_effectiveText.clear();
    m_effectiveLocation.clear();
}

bool LxPolicyValue::Exists()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return static_cast<bool>(m_effective);
}

std::string LxPolicyValue::GetString()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_effectiveText;
}

std::string LxPolicyValue::GetSourceLocation()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_effectiveLocation;
}

bool LxPolicyValue::GetBool(bool defaultValue)
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_effective ? m_effective->AsBool(defaultValue) : defaultValue;
}
