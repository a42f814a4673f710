#include "support/LxPollItem.h"

#include <tolv/log/Log.h>
#include "support/DurationText.h"
#include "support/LxMutexLock.h"
#include "support/LxPollThread.h"

using namespace tolv::log;

LxPollItem::LxPollItem(std::string name, int32_t timeoutMs)
    : m_name(std::move(name)), m_timeoutMs(timeoutMs), m_timeoutText(TimeoutText(timeoutMs))
{
}

bool LxPollItem::Run(bool /*signalled*/)
{
    return false;
}

std::string LxPollItem::TimeoutText(int32_t timeoutMs)
{
    return timeoutMs == -1 ? "INFINITE" : DurationText(timeoutMs / 1000.0, 3);
}

RCPtr<LxPollThread> LxPollItem::GetPollThread() const
{
    const uint64_t id = m_ownerId.load();
    if (id == 0)
        return {};
    RCPtr<LxPollThread> owner = LxPollThread::FindById(id);
    if (!owner)
        LOG_AT(LOG_LEVEL_DEBUG, "LxPollItem::GetPollThread()", "%s: LxPollThread 0x%llx has been deleted",
               m_name.c_str(), static_cast<unsigned long long>(id));
    return owner;
}

template <typename Fn>
void LxPollItem::UnderOwnerLock(Fn&& fn) const
{
    RCPtr<LxPollThread> owner = GetPollThread();
    if (!owner) {
        fn(static_cast<LxPollThread*>(nullptr), static_cast<LxMutexLock*>(nullptr));
        return;
    }
    LxMutexLock guard(owner->Lock());
    fn(owner.get(), &guard);
}

int32_t LxPollItem::GetTimeoutMS() const
{
    int32_t value = 0;
    UnderOwnerLock([&](LxPollThread*, LxMutexLock*) { value = m_timeoutMs; });
    return value;
}

int32_t LxPollItem::GetDisableCount() const
{
    int32_t value = 0;
    UnderOwnerLock([&](LxPollThread*, LxMutexLock*) { value = m_disableCount; });
    return value;
}

void LxPollItem::SetTimeoutMS(int32_t timeoutMs, bool resetTimer)
{
    UnderOwnerLock([&](LxPollThread* owner, LxMutexLock*) {
        if (timeoutMs == m_timeoutMs && !resetTimer)
            return;
        std::string note;
        if (resetTimer) {
            m_lastRun.Restart();
            note = "timer reset";
        } else {
            note = "timer at " + DurationText(m_lastRun.ElapsedSeconds(), 3);
        }
        m_timeoutMs = timeoutMs;
        m_timeoutText = TimeoutText(timeoutMs);
        if (owner)
            owner->SignalDirty();
        LOG_AT(owner ? owner->m_logLevel : LOG_LEVEL_VERBOSE, "LxPollItem::SetTimeoutMS()",
               "%s: Item %s timeout set to %s (%s)", owner ? owner->m_name.c_str() : "---", m_name.c_str(),
               m_timeoutText.c_str(), note.c_str());
    });
}

void LxPollItem::SetEvent(const LxEvent& event)
{
    UnderOwnerLock([&](LxPollThread* owner, LxMutexLock*) {
        m_event = event;
        const char* thread = owner ? owner->m_name.c_str() : "---";
        const int32_t level = owner ? owner->m_logLevel : LOG_LEVEL_VERBOSE;
        if (m_event.IsValid())
            LOG_AT(level, "LxPollItem::SetEvent()", "%s: Item %s event set to 0x%lx", thread, m_name.c_str(),
                   static_cast<unsigned long>(m_event.GetHandle()));
        else
            LOG_AT(level, "LxPollItem::SetEvent()", "%s: Item %s event set to NULL", thread, m_name.c_str());
        if (owner)
            owner->SignalDirty();
    });
}

void LxPollItem::Disable(bool waitForCompletion)
{
    UnderOwnerLock([&](LxPollThread* owner, LxMutexLock* guard) {
        // Disabled before the lock is given up again, so the run just waited
        // for is the last one.
        if (waitForCompletion && owner)
            owner->WaitForItemToCompleteLocked(this, *guard);
        if (++m_disableCount != 1)
            return;
        if (owner)
            owner->SignalDirty();
        LOG_AT(owner ? owner->m_logLevel : LOG_LEVEL_DEBUG, "LxPollItem::Disable()", "%s: Item %s disabled",
               owner ? owner->m_name.c_str() : "---", m_name.c_str());
    });
}

void LxPollItem::Enable()
{
    UnderOwnerLock([&](LxPollThread* owner, LxMutexLock*) {
        if (--m_disableCount != 0)
            return;
        if (owner)
            owner->SignalDirty();
        LOG_AT(owner ? owner->m_logLevel : LOG_LEVEL_DEBUG, "LxPollItem::Enable()", "%s: Item %s enabled",
               owner ? owner->m_name.c_str() : "---", m_name.c_str());
    });
}
