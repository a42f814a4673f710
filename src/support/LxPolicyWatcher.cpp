#include "support/LxPolicyWatcher.h"

#include <tolv/log/Log.h>
#include "support/LxPollThread.h"

using namespace tolv::log;

LxPolicyWatcher::LxPolicyWatcher(RCPtr<LxPolicyValue> value, int32_t level, Callback onChange)
    : m_value(std::move(value)), m_level(level), m_onChange(std::move(onChange))
{
}

LxPolicyWatcher::~LxPolicyWatcher()
{
    Stop();
}

bool LxPolicyWatcher::StartWatchers(const RCPtr<LxPollThread>& pollThread, const std::vector<std::string>& keys,
                                    const std::string& valueName, void (LxPolicyWatcher::*onChange)(),
                                    std::vector<WatcherInfo>& watchers)
{
    const char* function = "LxPolicyWatcher::Start()";
    // The value watchers call back through a weak reference: a watcher that
    // is going is not kept by its own callbacks.
    WkPtr<LxPolicyWatcher> self(this);
    bool ok = true;
    for (const std::string& key : keys) {
        WatcherInfo info;
        info.keyWatcher = MakeRC<LxRegKeyWatcher>(MakeRC<LxRegKey>(key));
        info.valueWatcher = MakeRC<LxRegValueWatcher>(
            MakeRC<LxRegValue>(MakeRC<LxRegKey>(key), valueName), [self, onChange](LxRegValueWatcher&) {
                if (RCPtr<LxPolicyWatcher> watcher = self.Lock())
                    (watcher.get()->*onChange)();
            });
        if (!info.keyWatcher->Start(pollThread)) {
            LOG_ERROR(function, "Failed to start key watcher for %s", key.c_str());
            ok = false;
            continue;
        }
        if (!info.valueWatcher->Start(info.keyWatcher)) {
            LOG_ERROR(function, "Failed to start value watcher for %s", key.c_str());
            info.valueWatcher.reset();
            ok = false;
        }
        watchers.push_back(std::move(info));
    }
    return ok;
}

bool LxPolicyWatcher::StopWatchers(std::vector<WatcherInfo>& watchers)
{
    const char* function = "LxPolicyWatcher::Stop()";
    bool ok = true;
    for (auto& info : watchers) {
        const std::string key = info.keyWatcher->GetKey()->GetLocation();
        if (info.valueWatcher && !info.valueWatcher->Stop()) {
            LOG_ERROR(function, "Failed to stop value watcher for %s", key.c_str());
            ok = false;
        }
        if (!info.keyWatcher->Stop()) {
            LOG_ERROR(function, "Failed to stop key watcher for %s", key.c_str());
            ok = false;
        }
    }
    watchers.clear();
    return ok;
}

bool LxPolicyWatcher::Start(const RCPtr<LxPollThread>& pollThread)
{
    const char* function = "LxPolicyWatcher::Start()";
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_started) {
        LOG_AT(m_level, function, "%s: already started", GetName().c_str());
        return false;
    }
    bool ok = true;
    if (m_value->FollowsLegacySwitch()) {
        // The switch is watched before the search list is read again, so a
        // change in between is not lost; its callback waits for this lock.
        const std::vector<std::string> switchKeys(std::begin(LxPolicyValue::kLegacySwitchKeys),
                                                  std::end(LxPolicyValue::kLegacySwitchKeys));
        ok = StartWatchers(pollThread, switchKeys, LxPolicyValue::kLegacySwitchName,
                           &LxPolicyWatcher::OnLegacySwitchChanged, m_switchWatchers);
        m_value->DetermineKeyOrder();
    }
    m_value->UpdateValue();
    ok = StartWatchers(pollThread, m_value->GetSearchKeys(), m_value->GetValueName(),
                       &LxPolicyWatcher::OnValueChanged, m_watchers) &&
         ok;
    m_pollThread = WkPtr<LxPollThread>(pollThread);
    m_started = true;
    return ok;
}

bool LxPolicyWatcher::Stop()
{
    const char* function = "LxPolicyWatcher::Stop()";
    std::vector<WatcherInfo> watchers;
    std::vector<WatcherInfo> switchWatchers;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_started) {
            LOG_AT(LOG_LEVEL_VERBOSE, function, "%s: already stopped", GetName().c_str());
            return false;
        }
        m_started = false;
        watchers.swap(m_watchers);
        switchWatchers.swap(m_switchWatchers);
        m_pollThread = WkPtr<LxPollThread>();
    }
    // Outside the lock: stopping waits for a run in progress, whose callback
    // may be waiting for the lock.
    const bool switchStopped = StopWatchers(switchWatchers);
    return StopWatchers(watchers) && switchStopped;
}

void LxPolicyWatcher::OnValueChanged()
{
    if (m_value->UpdateValue())
        OnPolicyChanged();
}

void LxPolicyWatcher::OnLegacySwitchChanged()
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_started || !m_value->DetermineKeyOrder())
            return;
        // On the poll thread: the search-list watchers are not running now,
        // so stopping them does not wait.
        RCPtr<LxPollThread> pollThread = m_pollThread.Lock();
        StopWatchers(m_watchers);
        if (pollThread)
            StartWatchers(pollThread, m_value->GetSearchKeys(), m_value->GetValueName(),
                          &LxPolicyWatcher::OnValueChanged, m_watchers);
    }
    OnValueChanged();
}

void LxPolicyWatcher::OnPolicyChanged()
{
    if (m_onChange)
        m_onChange(*this);
}
