#include "support/LxRegKeyWatcher.h"

#include <tolv/log/Log.h>
#include "support/LxMutexLock.h"
#include "support/LxPollThread.h"
#include "support/LxRegValueWatcher.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

using namespace tolv::log;

namespace {

constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO |
                                IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

std::string ItemName(const RCPtr<LxRegKey>& key)
{
    return "LxRegKeyWatcher(" + key->GetLocation() + ")";
}

} // namespace

LxRegKeyWatcher::LxRegKeyWatcher(RCPtr<LxRegKey> key, bool watchSubtree)
    : LxPollItem(ItemName(key), kRetryMs),
      m_key(std::move(key)),
      m_watchSubtree(watchSubtree),
      m_inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
    if (m_inotify >= 0)
        SetEvent(LxEvent(m_inotify, true));
    else
        LogWithLastError("LxRegKeyWatcher::LxRegKeyWatcher()", LOG_LEVEL_ERROR, "inotify_init1(%s) failed",
                         m_key->GetLocation().c_str());
}

LxRegKeyWatcher::~LxRegKeyWatcher() = default;

bool LxRegKeyWatcher::WatchRegKey()
{
    if (m_watch >= 0)
        return true;
    if (m_inotify < 0 || m_key->OpenKey() != 0)
        return false;
    m_watch = inotify_add_watch(m_inotify, m_key->GetPath().c_str(), kWatchMask);
    if (m_watch < 0) {
        LogWithLastError("LxRegKeyWatcher::WatchRegKey()", LOG_LEVEL_ERROR, "RegNotifyChangeKeyValue(%s) failed",
                         m_key->GetLocation().c_str());
        m_key->CloseKey();
        return false;
    }
    // The watch is the handle here. An open folder would hold back the
    // notice that the key was deleted until the folder is closed.
    m_watchedPath = m_key->GetPath();
    m_key->CloseKey();
    if (m_watchSubtree && !WatchSubKeys()) {
        Unwatch();
        return false;
    }
    return true;
}

bool LxRegKeyWatcher::WatchSubKeys()
{
    namespace fs = std::filesystem;
    const std::string& root = m_watchedPath;
    std::set<int> watches;
    std::vector<fs::path> folders{root};
    while (!folders.empty()) {
        const fs::path folder = std::move(folders.back());
        folders.pop_back();
        std::error_code error;
        // A folder that went meanwhile is no failure: its parent's notice
        // brings another scan.
        for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
            std::error_code statusError;
            if (!fs::is_directory(it->symlink_status(statusError)))
                continue;
            const std::string path = it->path().string();
            const int watch = inotify_add_watch(m_inotify, path.c_str(), kWatchMask | IN_DONT_FOLLOW);
            if (watch < 0) {
                if (errno == ENOENT || errno == ENOTDIR)
                    continue;
                std::string location = m_key->GetLocation() + path.substr(root.size());
                for (char& c : location)
                    c = c == '/' ? '\\' : c;
                LogWithLastError("LxRegKeyWatcher::WatchRegKey()", LOG_LEVEL_ERROR,
                                 "RegNotifyChangeKeyValue(%s) failed", location.c_str());
                return false;
            }
            if (watch != m_watch)
                watches.insert(watch);
            folders.push_back(it->path());
        }
    }
    for (int watch : m_subWatches)
        if (!watches.count(watch))
            inotify_rm_watch(m_inotify, watch);
    m_subWatches.swap(watches);
    return true;
}

void LxRegKeyWatcher::Unwatch()
{
    for (int watch : m_subWatches)
        inotify_rm_watch(m_inotify, watch);
    m_subWatches.clear();
    if (m_watch >= 0)
        inotify_rm_watch(m_inotify, m_watch);
    m_watch = -1;
    m_key->CloseKey();
}

LxRegKeyWatcher::Notifications LxRegKeyWatcher::DrainNotifications()
{
    Notifications result;
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t n = read(m_inotify, buffer, sizeof buffer);
        if (n <= 0)
            break;
        for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            if (event->wd == m_watch && (event->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)))
                result.keyGone = true;
            else if (event->mask & IN_IGNORED)
                m_subWatches.erase(event->wd);
            // A lost notice may have been a new folder.
            if (event->mask & IN_Q_OVERFLOW ||
                (event->mask & IN_ISDIR && event->mask & (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO)))
                result.subKeysChanged = true;
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    return result;
}

bool LxRegKeyWatcher::Start(const RCPtr<LxPollThread>& pollThread)
{
    const char* function = "LxRegKeyWatcher::Start()";
    if (!pollThread) {
        LOG_ERROR(function, "%s: pollThread == NULL", GetName().c_str());
        return false;
    }
    SetTimeoutMS(WatchRegKey() ? -1 : kRetryMs, true);
    if (!pollThread->AddItem(RCPtr<LxPollItem>(this))) {
        LOG_ERROR(function, "Failed to add %s to %s", GetName().c_str(), pollThread->GetName().c_str());
        return false;
    }
    return true;
}

bool LxRegKeyWatcher::Stop()
{
    RCPtr<LxPollThread> thread = GetPollThread();
    if (thread && !thread->RemoveItem(RCPtr<LxPollItem>(this), true)) {
        LOG_ERROR("LxRegKeyWatcher::Stop()", "Failed to remove %s", GetName().c_str());
        return false;
    }
    Unwatch();
    return true;
}

bool LxRegKeyWatcher::Attach(const RCPtr<LxRegValueWatcher>& valueWatcher)
{
    const char* function = "LxRegKeyWatcher::Attach()";
    if (!valueWatcher) {
        LOG_ERROR(function, "%s - valueWatcher == NULL", GetName().c_str());
        return false;
    }
    LxMutexLock guard(m_listLock);
    for (const auto& entry : m_valueWatchers) {
        if (entry.Lock() == valueWatcher) {
            LOG_WARN(function, "%s - %s already being watched", GetName().c_str(), valueWatcher->GetName().c_str());
            return false;
        }
    }
    m_valueWatchers.emplace_back(valueWatcher);
    LOG_AT(LOG_LEVEL_VERBOSE, function, "%s - %s added, %zd watcher%s in list", GetName().c_str(),
           valueWatcher->GetName().c_str(), m_valueWatchers.size(), m_valueWatchers.size() == 1 ? "" : "s");
    return true;
}

bool LxRegKeyWatcher::Detach(const RCPtr<LxRegValueWatcher>& valueWatcher)
{
    const char* function = "LxRegKeyWatcher::Detach()";
    if (!valueWatcher) {
        LOG_ERROR(function, "%s - valueWatcher == NULL", GetName().c_str());
        return false;
    }
    LxMutexLock guard(m_listLock);
    for (auto it = m_valueWatchers.begin(); it != m_valueWatchers.end(); ++it) {
        if (it->Lock() == valueWatcher) {
            m_valueWatchers.erase(it);
            LOG_AT(LOG_LEVEL_VERBOSE, function, "%s - %s removed, %zd watcher%s in list", GetName().c_str(),
                   valueWatcher->GetName().c_str(), m_valueWatchers.size(), m_valueWatchers.size() == 1 ? "" : "s");
            return true;
        }
    }
    LOG_WARN(function, "%s - %s not found", GetName().c_str(), valueWatcher->GetName().c_str());
    return false;
}

size_t LxRegKeyWatcher::WatcherCount()
{
    LxMutexLock guard(m_listLock);
    return m_valueWatchers.size();
}

bool LxRegKeyWatcher::Run(bool signalled)
{
    const char* function = "LxRegKeyWatcher::Run()";
    if (signalled) {
        const Notifications notifications = DrainNotifications();
        if (notifications.keyGone)
            Unwatch(); // the folder went: look for it again
        else if (notifications.subKeysChanged && m_watchSubtree && m_watch >= 0 && !WatchSubKeys())
            Unwatch();
    }
    const bool watching = WatchRegKey();
    SetTimeoutMS(watching ? -1 : kRetryMs, true);

    std::vector<RCPtr<LxRegValueWatcher>> watchers;
    {
        LxMutexLock guard(m_listLock);
        for (auto it = m_valueWatchers.begin(); it != m_valueWatchers.end();) {
            if (RCPtr<LxRegValueWatcher> watcher = it->Lock()) {
                watchers.push_back(watcher);
                ++it;
            } else {
                LOG_WARN(function, "%s - deleted value watcher found in list", GetName().c_str());
                it = m_valueWatchers.erase(it);
            }
        }
    }
    for (const auto& watcher : watchers) {
        LOG_AT(LOG_LEVEL_VERBOSE, function, "%s - OnKeyChanged()", watcher->GetName().c_str());
        watcher->OnKeyChanged();
    }
    return OnKeyChanged();
}

bool LxRegKeyWatcher::OnKeyChanged()
{
    return true;
}
