#pragma once
// One setting looked up across group-policy and local keys in the order a
// policy mode gives; the first key that holds the value decides.
//
// Within the policy keys HKLM comes before HKCU (the machine's policy wins);
// within the local keys HKCU comes before HKLM (the user's choice wins). The
// keys of the former company are searched right after each policy key when
// "FallbackToLegacyGPO" is true (the policy key's value wins over the local
// one). The former company kept the product in a folder of its own name
// below its company folder, so both folders are exchanged:
// "Software\Policies\Corvanta\Veltrane\X" was
// "Software\Policies\Pelloran, Inc.\Pelloran Orvik\X".

#include "support/LxRegValue.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <atomic>
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

    // Where "FallbackToLegacyGPO" is read, the policy key first.
    static constexpr const char* kLegacySwitchName = "FallbackToLegacyGPO";
    static constexpr const char* kLegacySwitchKeys[2] = {"HKLM\\Software\\Policies\\Corvanta\\Veltrane",
                                                         "HKLM\\Software\\Corvanta\\Veltrane"};

    // `includeLegacyKeys`: -1 reads "FallbackToLegacyGPO", 0 and 1 decide.
    LxPolicyValue(std::string keyText, std::string valueName, int32_t mode = PolicyOverridesLocal,
                  int32_t includeLegacyKeys = -1);

    static const char* ModeName(int32_t mode);
    static bool IsPolicyKey(const std::string& key);
    static bool IsLocalKey(const std::string& key);
    // The legacy form of a policy key; empty when there is none. `mapping`
    // gets the number of the mapping used (0 for none).
    static std::string LegacyKey(const std::string& key, int* mapping = nullptr);

    // Builds the search list again (reading "FallbackToLegacyGPO" afresh
    // unless the caller decided); true when the list of keys changed.
    bool DetermineKeyOrder();
    // True when "FallbackToLegacyGPO" decides whether legacy keys are searched.
    bool FollowsLegacySwitch() const { return m_includeLegacyRequest < 0; }
    bool IncludesLegacyKeys() const { return m_includeLegacyKeys.load(); }

    // Loads every key of the search list; true when the effective value
    // changed (appeared, went, or differs).
    bool UpdateValue();
    // Forgets the effective value, so the next update reports it afresh.
    void ResetValue();

    int32_t GetRequestedMode() const { return m_requestedMode; }
    int32_t GetMode() const { return m_mode; }
    const std::string& GetName() const { return m_name; }
    std::vector<std::string> GetSearchKeys();
    const std::string& GetValueName() const { return m_valueName; }
    bool Exists();
    std::string GetString();
    std::string GetSourceLocation();
    bool GetBool(bool defaultValue);

private:
    static int32_t EffectiveMode(const std::string& name, const std::string& key, int32_t mode);

    const std::string m_passedKey;
    const std::string m_valueName;
    const std::string m_name; // "<key>\<value>" for messages
    const int32_t m_requestedMode;
    const int32_t m_mode;
    const int32_t m_includeLegacyRequest;
    std::atomic<bool> m_includeLegacyKeys{false};
    std::mutex m_lock; // never held while anything logs
    std::vector<RCPtr<LxRegValue>> m_searchList; // guarded by m_lock; loaded by one thread at a time
    RCPtr<LxRegValue> m_effective; // guarded by m_lock: a copy of the value that decided, or null
    std::string m_effectiveText;    // guarded by m_lock
    std::string m_effectiveLocation; // guarded by m_lock
    uint32_t m_effectiveType = 0;    // guarded by m_lock
};
