#include "support/LxPolicyWatcher.h"

#include "log/Log.h"
#include "support/LxPollThread.h"

LxPolicyWatcher::LxPolicyWatcher(RCPtr<LxPolicyValue> value, int32_t level, Callback onChange)
    : m_value(std::move(value)), m_level(level), m_onChange(std::move(onChange))
{
}

LxPolicyWatcher::~LxPolicyWatcher()
{
    Stop();
}

bool LxPolicyWatcher::Start(const RCPtr<LxPollThread>& pollThread)
{
    const char* function = "LxPolicyWatcher::Start()";
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_started) {
        LOG_AT(m_level, function, "%s: already started", GetName().c_str());
        return false;
    }
    m_value->UpdateValue();
    // The value watchers call back through a weak reference: a watcher that
    // is going is not kept by its own callbacks.
    WkPtr<LxPolicyWatcher> self(this);
    bool ok = true;
    for (const std::string& key : m_value->GetSearchKeys()) {
        WatcherInfo info;
        info.keyWatcher = MakeRC<LxRegKeyWatcher>(MakeRC<LxRegKey>(key));
        info.valueWatcher = MakeRC<LxRegValueWatcher>(
            MakeRC<LxRegValue>(MakeRC<LxRegKey>(key), m_value->GetValueName()), [self](LxRegValueWatcher&) {
                if (RCPtr<LxPolicyWatcher> watcher = self.Lock())
                    watcher->OnValueChanged();
            });
        if (!info.keyWatcher->Start(pollThread)) {
            LOG_ERROR(function, "Failed to start key watcher for %s", key.c_str());
            ok = false;
        } else if (!info.valueWatcher->Start(info.keyWatcher)) {
            LOG_ERROR(function, "Failed to start value watcher for %s", key.c_str());
            ok = false;
        }
        m_watchers.push_back(std::move(info));
    }
    m_started = true;
    return ok;
}

bool LxPolicyWatcher::Stop()
{
    const char* function = "LxPolicyWatcher::Stop()";
    std::vector<WatcherInfo> watchers;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_started) {
            LOG_AT(LOG_LEVEL_VERBOSE, function, "%s: already stopped", GetName().c_str());
            return false;
        }
        m_started = false;
        watchers.swap(m_watchers);
    }
    bool ok = true;
    for (auto& info : watchers) {
        const std::string key = info.keyWatcher->GetKey()->GetLocation();
        info.valueWatcher->Stop();
        if (!info.keyWatcher->Stop()) {
            LOG_ERROR(function, "Failed to stop key watcher for %s", key.c_str());
            ok = false;
        }
    }
    return ok;
}

void LxPolicyWatcher::OnValueChanged()
{
    if (m_value->UpdateValue())
        OnPolicyChanged();
}

void LxPolicyWatcher::OnPolicyChanged()
{
    if (m_onChange)
        m_onChange(*this);
}
