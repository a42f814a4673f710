#include "support/LxRegValueWatcher.h"

#include <tolv/log/Log.h>
#include "support/LxRegKeyWatcher.h"

using namespace tolv::log;

LxRegValueWatcher::LxRegValueWatcher(RCPtr<LxRegValue> value, Callback onChange, int32_t level)
    : m_value(std::move(value)),
      m_snapshot(MakeRC<LxRegValue>(m_value->GetKey(), m_value->GetName())),
      m_onChange(std::move(onChange)),
      m_level(level)
{
}

bool LxRegValueWatcher::Reload()
{
    const bool changed = m_value->Load(m_level);
    std::lock_guard<std::mutex> guard(m_valueLock);
    m_snapshot->CopyFrom(*m_value);
    return changed;
}

LxRegValueWatcher::~LxRegValueWatcher() = default;

std::string LxRegValueWatcher::GetName() const
{
    return "LxRegValueWatcher(" + m_value->GetLocation() + ")";
}

bool LxRegValueWatcher::Start(const RCPtr<LxRegKeyWatcher>& keyWatcher)
{
    const char* function = "LxRegValueWatcher::Start()";
    if (!keyWatcher) {
        LOG_ERROR(function, "%s - regKeyWatcher == NULL", GetName().c_str());
        return false;
    }
    {
        std::lock_guard<std::mutex> guard(m_attachLock);
        if (RCPtr<LxRegKeyWatcher> current = m_keyWatcher.Lock()) {
            if (current != keyWatcher) {
                LOG_WARN(function, "%s - already attached to another LxRegKeyWatcher", GetName().c_str());
                return false;
            }
        }
        m_keyWatcher = WkPtr<LxRegKeyWatcher>(keyWatcher);
    }
    Reload();
    if (!keyWatcher->Attach(RCPtr<LxRegValueWatcher>(this))) {
        LOG_WARN(function, "%s - failed to attach to %s", GetName().c_str(), keyWatcher->GetName().c_str());
        return false;
    }
    return true;
}

bool LxRegValueWatcher::Stop()
{
    RCPtr<LxRegKeyWatcher> keyWatcher;
    {
        std::lock_guard<std::mutex> guard(m_attachLock);
        keyWatcher = m_keyWatcher.Lock();
        m_keyWatcher = WkPtr<LxRegKeyWatcher>();
    }
    if (!keyWatcher) {
        LOG_AT(LOG_LEVEL_VERBOSE, "LxRegValueWatcher::Stop()", "%s - already detached", GetName().c_str());
        return false;
    }
    return keyWatcher->Detach(RCPtr<LxRegValueWatcher>(this));
}

bool LxRegValueWatcher::OnKeyChanged()
{
    const bool changed = Reload();
    if (changed) {
        LOG_AT(m_level, "LxRegValueWatcher::OnKeyChanged()", "%s - value changed", GetName().c_str());
        OnValueChanged();
    } else {
        LOG_AT(m_level, "LxRegValueWatcher::OnKeyChanged()", "%s - value not changed", GetName().c_str());
    }
    return changed;
}

void LxRegValueWatcher::OnValueChanged()
{
    if (m_onChange)
        m_onChange(*this);
}
