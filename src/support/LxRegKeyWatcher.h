#pragma once
// Watches one key of the settings store on a poll thread and tells the value
// watchers attached to it when the key changed. On Linux the notification is
// inotify on the key's folder; its descriptor is the item's event. inotify
// watches one folder, so a watcher of the sub-tree watches every sub-key's
// folder as well, and takes in the ones that appear later (a change of the
// folders below the key rescans them). A key that cannot be watched yet (it
// does not exist) is tried again every 2 seconds, and its values are reloaded
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
#include <set>
#include <string>
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
    struct Notifications {
        bool keyGone = false;        // the key's own folder went or moved
        bool subKeysChanged = false; // a folder below it came, went or moved
    };

    bool WatchRegKey();
    // Watches every folder below the key and drops the watches of folders
    // that left it; false when one could not be watched.
    bool WatchSubKeys();
    void Unwatch();
    // Reads every pending notification.
    Notifications DrainNotifications();

    const RCPtr<LxRegKey> m_key;
    const bool m_watchSubtree;
    const int m_inotify; // owned by m_event
    std::atomic<int> m_watch{-1}; // changed on the poll thread, and by Start and Stop around it
    std::set<int> m_subWatches;   // as m_watch: the watches of the folders below the key
    std::string m_watchedPath;    // as m_watch: the key's folder while watched
    LxMutex m_listLock;
    std::vector<WkPtr<LxRegValueWatcher>> m_valueWatchers; // guarded by m_listLock
};
