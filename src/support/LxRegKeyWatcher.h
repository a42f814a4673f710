#pragma once
// Watches one key of the settings store on a poll thread and tells the value
// watchers attached to it when the key changed. On Linux the notification is
// inotify on the key's folder (the folder itself, not its sub-keys); its
// descriptor is the item's event. A key that cannot be watched yet (it does
// not exist) is tried again every 2 seconds, and its values are reloaded
// then too. The key's folder is not kept open while watched: that would hold
// back the notice of its deletion.
//
// Lock order: the watcher's list lock is taken alone; value watchers and
// OnKeyChanged run outside it.

#include "support/LxMutex.h"
#include "support/LxPollItem.h"
#include "support/LxRegKey.h"
#include "support/RCPtr.h"
#include "support/WkPtr.h"

#include <atomic>
#include <cstdint>
#include <vector>

class LxPollThread;
class LxRegValueWatcher;

class LxRegKeyWatcher : public LxPollItem {
public:
    static constexpr int32_t kRetryMs = 2000;

    explicit LxRegKeyWatcher(RCPtr<LxRegKey> key, bool watchSubtree = false);
    ~LxRegKeyWatcher() override;

    bool Start(const RCPtr<LxPollThread>& pollThread);
    bool Stop();

    bool Attach(const RCPtr<LxRegValueWatcher>& valueWatcher);
    bool Detach(const RCPtr<LxRegValueWatcher>& valueWatcher);
    size_t WatcherCount();

    bool Run(bool signalled) override;
    // After the value watchers have been told; true to stay on the thread.
    virtual bool OnKeyChanged();

    const RCPtr<LxRegKey>& GetKey() const { return m_key; }
    bool IsWatching() const { return m_watch >= 0; }

private:
    bool WatchRegKey();
    void Unwatch();
    // Reads every pending notification; false when the watched folder went.
    bool DrainNotifications();

    const RCPtr<LxRegKey> m_key;
    const bool m_watchSubtree;
    const int m_inotify; // owned by m_event
    std::atomic<int> m_watch{-1}; // changed on the poll thread, and by Start and Stop around it
    LxMutex m_listLock;
    std::vector<WkPtr<LxRegValueWatcher>> m_valueWatchers; // guarded by m_listLock
};
