#pragma once
// One setting looked up across group-policy and local keys in the order a
// policy mode gives; the first key that holds the value decides.
//
// Within the policy keys HKLM comes before HKCU (the machine's policy wins);
// within the local keys HKCU comes before HKLM (the user's choice wins). The
// keys of the former company are searched right after each policy key when
// "FallbackToLegacyGPO" is true (the policy key's value wins over the local
// one); they are the same paths with "Pelloran" for "Corvanta".

#include "support/LxRegValue.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <mutex>
#include <string>
#include <vector>

class LxPolicyValue : public RCObject {
public:
    enum Mode : int32_t {
        PolicyOverridesLocal = 0,
        LocalOverridesPolicy = 1,
        CheckPolicyKeysOnly = 2,
        CheckLocalKeysOnly = 3,
        CheckPassedKeyOnly = 4,
        CheckPassedTypeOnly = 5,
        CheckPassedTypeFirst = 6,
        PreferenceReader = 7,
    };

    // `includeLegacyKeys`: -1 reads "FallbackToLegacyGPO", 0 and 1 decide.
    LxPolicyValue(std::string keyText, std::string valueName, int32_t mode = PolicyOverridesLocal,
                  int32_t includeLegacyKeys = -1);

    static const char* ModeName(int32_t mode);
    static bool IsPolicyKey(const std::string& key);
    static bool IsLocalKey(const std::string& key);
    // The legacy form of a policy key; empty when there is none.
    static std::string LegacyKey(const std::string& key);

    // Loads every key of the search list; true when the effective value
    // changed (appeared, went, or differs).
    bool UpdateValue();
    // Forgets the effective value, so the next update reports it afresh.
    void ResetValue();

    int32_t GetRequestedMode() const { return m_requestedMode; }
    int32_t GetMode() const { return m_mode; }
    const std::string& GetName() const { return m_name; }
    std::vector<std::string> GetSearchKeys() const;
    const std::string& GetValueName() const { return m_valueName; }
    bool Exists();
    std::string GetString();
    std::string GetSourceLocation();
    bool GetBool(bool defaultValue);

private:
    void DetermineKeyOrder(int32_t includeLegacyKeys);

    const std::string m_passedKey;
    const std::string m_valueName;
    const std::string m_name; // "<key>\<value>" for messages
    const int32_t m_requestedMode;
    int32_t m_mode;
    bool m_includeLegacyKeys = false;
    std::vector<RCPtr<LxRegValue>> m_searchList;
    std::mutex m_lock;
    RCPtr<LxRegValue> m_effective; // guarded by m_lock: a copy of the value that decided, or null
    std::string m_effectiveText;    // guarded by m_lock
    std::string m_effectiveLocation; // guarded by m_lock
    uint32_t m_effectiveType = 0;    // guarded by m_lock
};
