#pragma once
// One value of a watched key: reloaded whenever its key watcher reports a
// change, and its callback called when the value really changed. The value
// needs a key object of its own: the key watcher's is opened and closed on
// the poll thread.

#include "support/LxRegValue.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"
#include "support/WkPtr.h"

#include <functional>
#include <mutex>
#include <string>

class LxRegKeyWatcher;

class LxRegValueWatcher : public RCObject {
public:
    using Callback = std::function<void(LxRegValueWatcher&)>;

    LxRegValueWatcher(RCPtr<LxRegValue> value, Callback onChange = {}, int32_t level = 5);
    ~LxRegValueWatcher() override;

    // Attaches to `keyWatcher` and loads the value once.
    bool Start(const RCPtr<LxRegKeyWatcher>& keyWatcher);
    bool Stop();

    // From the key watcher, on its poll thread.
    virtual bool OnKeyChanged();
    virtual void OnValueChanged();

    std::string GetName() const;
    // Runs `fn` on a copy of the value as last loaded, under a lock that is
    // never held while anything logs, so readers may hold the logging lock.
    template <typename Fn>
    auto WithValue(Fn&& fn)
    {
        std::lock_guard<std::mutex> guard(m_valueLock);
        return fn(*m_snapshot);
    }

private:
    // Loads the value (logging as it goes) and publishes the copy.
    bool Reload();

    const RCPtr<LxRegValue> m_value; // loaded by Start and then on the poll thread only
    const RCPtr<LxRegValue> m_snapshot; // guarded by m_valueLock
    const Callback m_onChange;
    const int32_t m_level;
    std::mutex m_valueLock;
    std::mutex m_attachLock;
    WkPtr<LxRegKeyWatcher> m_keyWatcher; // guarded by m_attachLock
};
