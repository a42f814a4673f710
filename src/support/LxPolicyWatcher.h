#pragma once
// Follows one policy value on a poll thread: a key watcher and a value
// watcher for every key of its search list; when any of them changes, the
// effective value is worked out again and, if it changed, the callback runs
// (on the poll thread). A value that follows "FallbackToLegacyGPO" also has
// that switch watched at both its places: turning it on or off builds the
// search list again, and the watchers with it.
//
// Lock order: the watcher's lock, then the poll lock, then the logging lock.
// Callbacks run without the watcher's lock.

#include "support/LxPolicyValue.h"
#include "support/LxRegKeyWatcher.h"
#include "support/LxRegValueWatcher.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"
#include "support/WkPtr.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

class LxPollThread;

class LxPolicyWatcher : public RCObject {
public:
    using Callback = std::function<void(LxPolicyWatcher&)>;

    struct WatcherInfo {
        RCPtr<LxRegKeyWatcher> keyWatcher;
        RCPtr<LxRegValueWatcher> valueWatcher;
    };

    LxPolicyWatcher(RCPtr<LxPolicyValue> value, int32_t level, Callback onChange = {});
    ~LxPolicyWatcher() override;

    bool Start(const RCPtr<LxPollThread>& pollThread);
    bool Stop();

    virtual void OnPolicyChanged();

    const RCPtr<LxPolicyValue>& GetValue() const { return m_value; }
    int32_t GetLevel() const { return m_level; }
    std::string GetName() const { return "Watcher-" + m_value->GetName(); }

private:
    void OnValueChanged();
    void OnLegacySwitchChanged();
    // A key and a value watcher on `pollThread` for each of `keys`; false when
    // one of them could not start (what did start is in `watchers`).
    bool StartWatchers(const RCPtr<LxPollThread>& pollThread, const std::vector<std::string>& keys,
                       const std::string& valueName, void (LxPolicyWatcher::*onChange)(),
                       std::vector<WatcherInfo>& watchers);
    bool StopWatchers(std::vector<WatcherInfo>& watchers);

    const RCPtr<LxPolicyValue> m_value;
    const int32_t m_level;
    const Callback m_onChange;
    std::mutex m_lock; // Start, Stop and rebuilding the search-list watchers
    std::vector<WatcherInfo> m_watchers;       // guarded by m_lock: the search list
    std::vector<WatcherInfo> m_switchWatchers; // guarded by m_lock: "FallbackToLegacyGPO"
    WkPtr<LxPollThread> m_pollThread;          // guarded by m_lock
    bool m_started = false;                    // guarded by m_lock
};
