#include "support/LxPolicyValue.h"

#include <tolv/log/Log.h>

#include <string.h>
#include <strings.h>

using namespace tolv::log;

namespace {

constexpr const char* kPolicyPart = "\\Software\\Policies\\";
constexpr const char* kLocalPart = "\\Software\\";

// Current policy folders and the folders the former company used for them.
// Numbered from 1 in messages.
struct LegacyMapping {
    const char* current;
    const char* legacy;
};
constexpr LegacyMapping kLegacyMappings[] = {
    {"\\Software\\Policies\\Corvanta\\Veltrane", "\\Software\\Policies\\Pelloran, Inc.\\Pelloran Orvik"},
};

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
    for (const char* key : LxPolicyValue::kLegacySwitchKeys) {
        LxRegValue value(MakeRC<LxRegKey>(key), LxPolicyValue::kLegacySwitchName);
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
      m_mode(EffectiveMode(m_name, m_passedKey, mode)),
      m_includeLegacyRequest(includeLegacyKeys)
{
    DetermineKeyOrder();
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

std::string LxPolicyValue::LegacyKey(const std::string& key, int* mapping)
{
    if (mapping)
        *mapping = 0;
    for (size_t i = 0; i < sizeof kLegacyMappings / sizeof kLegacyMappings[0]; ++i) {
        const char* current = kLegacyMappings[i].current;
        const char* at = strcasestr(key.c_str(), current);
        // Whole folder names only: "VeltraneX" is another product.
        if (!at || (at[strlen(current)] != '\0' && at[strlen(current)] != '\\'))
            continue;
        if (mapping)
            *mapping = static_cast<int>(i + 1);
        const size_t pos = static_cast<size_t>(at - key.c_str());
        return key.substr(0, pos) + kLegacyMappings[i].legacy + key.substr(pos + strlen(current));
    }
    return {};
}

int32_t LxPolicyValue::EffectiveMode(const std::string& name, const std::string& key, int32_t mode)
{
    const bool policy = IsPolicyKey(key);
    const bool local = IsLocalKey(key);
    if (mode < 0 || mode > 7) {
        LOG_WARN("LxPolicyValue::DetermineKeyOrder()", "%s: policy mode %s not expected", name.c_str(),
                 std::to_string(mode).c_str());
        mode = CheckPassedKeyOnly;
    }
    if (!policy && !local)
        return CheckPassedKeyOnly;
    if (mode == CheckPassedTypeOnly)
        return policy ? CheckPolicyKeysOnly : CheckLocalKeysOnly;
    if (mode == CheckPassedTypeFirst)
        return policy ? PolicyOverridesLocal : LocalOverridesPolicy;
    if (mode == PreferenceReader)
        return policy ? PolicyOverridesLocal : CheckPassedKeyOnly;
    return mode;
}

bool LxPolicyValue::DetermineKeyOrder()
{
    const char* function = "LxPolicyValue::DetermineKeyOrder()";
    const bool policy = IsPolicyKey(m_passedKey);
    const bool includeLegacyKeys = m_includeLegacyRequest < 0 ? ReadLegacySwitch() : m_includeLegacyRequest != 0;
    m_includeLegacyKeys = includeLegacyKeys;
    LOG_AT(LOG_LEVEL_DEBUG, function, "%s: includeLegacyKeys(%s)", m_name.c_str(),
           includeLegacyKeys ? "TRUE" : "FALSE");

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
            if (!includeLegacyKeys)
                continue;
            int mapping = 0;
            const std::string legacy = LegacyKey(key, &mapping);
            if (legacy.empty()) {
                LOG_AT(LOG_LEVEL_DEBUG, function, "Mapping -: \"%s\"", key.c_str());
            } else {
                LOG_AT(LOG_LEVEL_DEBUG, function, "Mapping %d: \"%s\" -> \"%s\"", mapping, key.c_str(),
                       legacy.c_str());
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
    std::vector<RCPtr<LxRegValue>> searchList;
    for (size_t i = 0; i < keys.size(); ++i) {
        LOG_AT(LOG_LEVEL_DEBUG, function, "%s: %d) %s", m_name.c_str(), static_cast<int>(i + 1), keys[i].c_str());
        searchList.push_back(MakeRC<LxRegValue>(MakeRC<LxRegKey>(keys[i]), m_valueName));
    }
    LOG_AT(LOG_LEVEL_DEBUG, function, "%s: %zd key%s in search list", m_name.c_str(), searchList.size(),
           searchList.size() == 1 ? "" : "s");
    const bool changed = keys != GetSearchKeys();
    std::lock_guard<std::mutex> guard(m_lock);
    m_searchList.swap(searchList);
    return changed;
}

std::vector<std::string> LxPolicyValue::GetSearchKeys()
{
    std::lock_guard<std::mutex> guard(m_lock);
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
    std::vector<RCPtr<LxRegValue>> searchList;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        searchList = m_searchList;
    }
    RCPtr<LxRegValue> found;
    for (const auto& value : searchList) {
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
