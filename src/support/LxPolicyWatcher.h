#pragma once
// Follows one policy value on a poll thread: a key watcher and a value
// watcher for every key of its search list; when any of them changes, the
// effective value is worked out again and, if it changed, the callback runs
// (on the poll thread).

#include "support/LxPolicyValue.h"
#include "support/LxRegKeyWatcher.h"
#include "support/LxRegValueWatcher.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

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

    const RCPtr<LxPolicyValue> m_value;
    const int32_t m_level;
    const Callback m_onChange;
    std::mutex m_lock; // Start and Stop
    std::vector<WatcherInfo> m_watchers; // guarded by m_lock
    bool m_started = false;              // guarded by m_lock
};
