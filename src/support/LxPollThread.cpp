#include "support/LxPollThread.h"

#include <tolv/log/Log.h>
#include "support/DurationText.h"
#include "support/LxMutexLock.h"
#include "support/WkPtr.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>
#include <system_error>
#include <unordered_map>

using namespace tolv::log;

namespace {

// Scheduler messages print durations with three decimals.
std::string Seconds(double seconds)
{
    return DurationText(seconds, 3);
}

unsigned long long Hex(uint64_t id)
{
    return static_cast<unsigned long long>(id);
}

// Id to poll thread, so the scheduler thread and the items find a thread
// without owning it. The registry lock is a leaf.
struct Registry {
    std::mutex lock;
    std::unordered_map<uint64_t, WkPtr<LxPollThread>> threads;
    std::atomic<uint64_t> nextId{1};
};

Registry& TheRegistry()
{
    // Never destroyed: poll threads may go in static destructors.
    static Registry* registry = new Registry;
    return *registry;
}

constexpr int32_t kWaitCompleteBias = 1000000;

} // namespace

LxPollThread::LxPollThread(std::string name)
    : m_name(std::move(name)), m_thread("LxPoll-" + m_name), m_id(TheRegistry().nextId.fetch_add(1))
{
    {
        Registry& registry = TheRegistry();
        std::lock_guard<std::mutex> guard(registry.lock);
        registry.threads[m_id] = WkPtr<LxPollThread>(this);
    }
    LOG_DEBUG("LxPollThread::LxPollThread()", "%s: 0x%llx", m_name.c_str(), Hex(m_id));
}

LxPollThread::~LxPollThread()
{
    LOG_DEBUG("LxPollThread::~LxPollThread()", "%s: 0x%llx", m_name.c_str(), Hex(m_id));
    StopScheduler();
    RemoveAllItems(false);
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> guard(registry.lock);
    registry.threads.erase(m_id);
}

RCPtr<LxPollThread> LxPollThread::FindById(uint64_t id)
{
    WkPtr<LxPollThread> weak;
    {
        Registry& registry = TheRegistry();
        std::lock_guard<std::mutex> guard(registry.lock);
        auto it = registry.threads.find(id);
        if (it == registry.threads.end())
            return {};
        weak = it->second;
    }
    return weak.Lock();
}

void LxPollThread::OnReleasedTo(int32_t count) const
{
    if (count == 1)
        SignalDirty();
}

bool LxPollThread::StartScheduler()
{
    LOG_AT(m_logLevel, "LxPollThread::StartScheduler()", "%s: 0x%llx", m_name.c_str(), Hex(m_id));
    if (m_thread.IsRunning())
        return true;
    // The scheduler's reference is taken here, not on the new thread, so the
    // object cannot go between the start and the scheduler's first round.
    RCPtr<LxPollThread> self = FindById(m_id);
    bool started = false;
    if (self) {
        try {
            started = m_thread.Start(&LxPollThread::SchedulerThreadCB, self.get(), LxEvent::kInfinite);
        } catch (const std::system_error&) {
            started = false;
        }
    }
    if (!started) {
        LOG_WARN("LxPollThread::StartScheduler()", "%s: Failed to start scheduler thread", m_name.c_str());
        return false;
    }
    (void)self.Detach(); // now the scheduler's
    return true;
}

void LxPollThread::StopScheduler()
{
    LOG_AT(m_logLevel, "LxPollThread::StopScheduler()", "%s: 0x%llx", m_name.c_str(), Hex(m_id));
    if (m_thread.IsRunning())
        m_thread.Stop(LxEvent::kInfinite);
}

bool LxPollThread::IsSchedulerRunning()
{
    return m_thread.IsRunning();
}

void LxPollThread::SetAutoStart(bool autoStart)
{
    LxMutexLock guard(Lock());
    m_autoStart = autoStart;
}

void LxPollThread::SetAlertable(bool alertable)
{
    LxMutexLock guard(Lock());
    m_alertable = alertable;
}

void LxPollThread::SetLogLevel(int32_t level)
{
    LxMutexLock guard(Lock());
    m_logLevel = level;
}

bool LxPollThread::SetExternalLock(const LxMutex& lock)
{
    LxMutexLock guard(m_lock);
    if (!m_items.empty() || m_thread.IsRunning())
        return false;
    m_externalLock = lock;
    return true;
}

size_t LxPollThread::GetItemCount()
{
    LxMutexLock guard(Lock());
    return m_items.size();
}

bool LxPollThread::AddItem(const RCPtr<LxPollItem>& item)
{
    const char* function = "LxPollThread::AddItem()";
    if (!item) {
        LOG_DEBUG(function, "%s: item == NULL", m_name.c_str());
        return false;
    }
    LxMutexLock guard(Lock());
    if (const uint64_t owner = item->m_ownerId.load(); owner != 0) {
        LOG_DEBUG(function, "%s: Item %s already belongs to 0x%llx", m_name.c_str(), item->m_name.c_str(),
                  Hex(owner));
        return false;
    }
    if (m_autoStart && m_items.empty())
        StartScheduler();
    try {
        m_items.push_back(item);
    } catch (const std::bad_alloc&) {
        LOG_DEBUG(function, "%s: Item %s not added", m_name.c_str(), item->m_name.c_str());
        return false;
    }
    item->m_ownerId = m_id;
    item->m_lastRun.Restart();
    SignalDirty();
    LOG_AT(m_logLevel, function, "%s: Item %s added", m_name.c_str(), item->m_name.c_str());
    return true;
}

bool LxPollThread::RemoveItemLocked(const RCPtr<LxPollItem>& item, const char* function)
{
    const uint64_t owner = item->m_ownerId.load();
    if (owner != 0 && owner != m_id) {
        LOG_DEBUG(function, "%s: Item %s belongs to 0x%llx", m_name.c_str(), item->m_name.c_str(), Hex(owner));
        return false;
    }
    auto it = std::find(m_items.begin(), m_items.end(), item);
    if (it == m_items.end()) {
        LOG_DEBUG(function, "%s: Item %s not found", m_name.c_str(), item->m_name.c_str());
        return false;
    }
    m_items.erase(it);
    item->m_ownerId = 0;
    SignalDirty();
    LOG_AT(m_logLevel, function, "%s: Item %s removed", m_name.c_str(), item->m_name.c_str());
    return true;
}

bool LxPollThread::RemoveItem(const RCPtr<LxPollItem>& item, bool wait)
{
    const char* function = "LxPollThread::RemoveItem()";
    if (!item) {
        LOG_DEBUG(function, "%s: item == NULL", m_name.c_str());
        return false;
    }
    LxMutexLock guard(Lock());
    if (wait)
        WaitForItemToCompleteLocked(item.get(), guard);
    return RemoveItemLocked(item, function);
}

void LxPollThread::RemoveAllItems(bool wait)
{
    LxMutexLock guard(Lock());
    if (wait)
        WaitForItemToCompleteLocked(nullptr, guard);
    const std::vector<RCPtr<LxPollItem>> items = m_items;
    for (const RCPtr<LxPollItem>& item : items) {
        const bool removed = item->m_ownerId.load() == m_id &&
                             std::find(m_items.begin(), m_items.end(), item) != m_items.end();
        if (removed) {
            m_items.erase(std::find(m_items.begin(), m_items.end(), item));
            item->m_ownerId = 0;
        }
        LOG_AT(m_logLevel, "LxPollThread::RemoveAllItems()", "%s: Item %s %s", m_name.c_str(),
               item->m_name.c_str(), removed ? "removed" : "not found");
    }
    SignalDirty();
}

void LxPollThread::WaitForItemToComplete(const LxPollItem* item)
{
    LxMutexLock guard(Lock());
    WaitForItemToCompleteLocked(item, guard);
}

void LxPollThread::WaitForItemToCompleteLocked(const LxPollItem* item, LxMutexLock& guard)
{
    const char* function = "LxPollThread::WaitForItemToComplete()";
    if (!m_currentItem || (item && item != m_currentItem.get()))
        return;
    if (m_thread.IsCurrentThread())
        return;
    const std::string itemName = item ? item->m_name : std::string("all items");
    LOG_DEBUG(function, "%s: Waiting for %s to complete", m_name.c_str(), itemName.c_str());

    // Held off so the scheduler does not start them again meanwhile.
    std::vector<RCPtr<LxPollItem>> held;
    if (item)
        held.push_back(m_currentItem);
    else
        held = m_items;
    for (const RCPtr<LxPollItem>& h : held)
        h->m_disableCount += kWaitCompleteBias;
    const LxEvent completed = m_currentItem->m_completedEvent;
    guard.Unlock();
    const int32_t rc = completed.Wait(LxEvent::kInfinite);
    guard.Lock();
    for (const RCPtr<LxPollItem>& h : held)
        h->m_disableCount -= kWaitCompleteBias;
    SignalDirty();
    LOG_DEBUG(function, "%s: %s %s", m_name.c_str(), itemName.c_str(), rc == 0 ? "completed" : "did not complete");
}

void LxPollThread::LogAllItems(int32_t level)
{
    if (CurrentLogLevel < level)
        return;
    LxMutexLock guard(Lock());
    char line[512];
    snprintf(line, sizeof line, "%s - %zd item%s\n", m_name.c_str(), static_cast<ssize_t>(m_items.size()),
             m_items.size() == 1 ? "" : "s");
    std::string text = line;
    for (const RCPtr<LxPollItem>& item : m_items) {
        snprintf(line, sizeof line, "   %s - timeout(%s)  elapsed(%s)  paused(%s)  event(%s)  disabled(%d)\n",
                 item->m_name.c_str(), item->m_timeoutText.c_str(), Seconds(item->m_lastRun.ElapsedSeconds()).c_str(),
                 item->m_lastRun.IsPaused() ? "TRUE" : "FALSE", item->m_event.IsValid() ? "TRUE" : "FALSE",
                 item->m_disableCount);
        text += line;
    }
    Log("LxPollThread::LogAllItems()", level, "%s", text.c_str());
}

int32_t LxPollThread::RemainingMs(LxPollItem& item, uint64_t now) const
{
    const int64_t elapsed = static_cast<int64_t>(item.m_lastRun.TicksToMs(item.m_lastRun.ElapsedAt(now)));
    int64_t remaining = static_cast<int64_t>(item.m_timeoutMs) - elapsed;
    if (remaining == -1)
        remaining = 0;
    return static_cast<int32_t>(std::max<int64_t>(remaining, INT32_MIN));
}

bool LxPollThread::SchedulerThreadCB(void* context, LxThread* /*owner*/)
{
    RCPtr<LxPollThread> self = RCPtr<LxPollThread>::Adopt(static_cast<LxPollThread*>(context));
    self->Scheduler();
    // Runs the destructor here when the scheduler held the last reference.
    self.reset();
    return false;
}

struct LxPollThread::Round {
    std::vector<LxEvent> events;
    std::vector<RCPtr<LxPollItem>> items; // parallel to events; null for slots 0 and 1
    RCPtr<LxPollItem> nextTimed;
    int32_t nextRemaining = 0;
    int32_t dueSlot = -1;
};

void LxPollThread::BuildRound(Round& round, uint64_t now)
{
    for (const RCPtr<LxPollItem>& item : m_items) {
        if (item->m_disableCount > 0)
            continue;
        if (item->m_timeoutMs != -1 && !item->m_lastRun.IsPaused()) {
            const int32_t remaining = RemainingMs(*item, now);
            if (!round.nextTimed || remaining < round.nextRemaining) {
                round.nextTimed = item;
                round.nextRemaining = remaining;
            }
            if (remaining < 1 && round.dueSlot < 0) {
                // Placed where the item stands, so event items in front of it
                // still come first.
                round.dueSlot = static_cast<int32_t>(round.events.size());
                round.events.push_back(m_dueEvent);
                round.items.push_back(item);
            }
        }
        if (item->m_event.IsValid()) {
            round.events.push_back(item->m_event);
            round.items.push_back(item);
        }
    }
}

void LxPollThread::RunItem(const RCPtr<LxPollItem>& item, bool signalled, int32_t slot, LxMutexLock& guard)
{
    const char* function = "LxPollThread::Scheduler()";
    LOG_AT(m_logLevel, function, "%s: Item %s %s(%d); last run %s ago", m_name.c_str(), item->m_name.c_str(),
           signalled ? "signaled" : "timed out", slot, Seconds(item->m_lastRun.ElapsedSeconds()).c_str());
    m_currentItem = item;
    item->m_completedEvent.Reset();
    LxElapsedTimer took;
    guard.Unlock();
    const bool keep = item->Run(signalled);
    guard.Lock();
    m_currentItem.reset();
    item->m_completedEvent.Set();
    LOG_AT(m_logLevel, function, "%s: Item %s took %s", m_name.c_str(), item->m_name.c_str(),
           Seconds(took.ElapsedSeconds()).c_str());
    // Removed during its own run: not queued again.
    if (item->m_ownerId.load() != m_id)
        return;
    if (!keep) {
        RemoveItemLocked(item, function);
        return;
    }
    // Behind the items that did not run; its time-out counts from now.
    auto it = std::find(m_items.begin(), m_items.end(), item);
    if (it != m_items.end())
        std::rotate(it, it + 1, m_items.end());
    item->m_lastRun.Restart();
}

void LxPollThread::Scheduler()
{
    const char* function = "LxPollThread::Scheduler()";
    LOG_AT(m_logLevel, function, "%s: 0x%llx", m_name.c_str(), Hex(m_id));
    LxMutexLock guard(Lock());
    const LxEvent exitEvent = m_thread.GetStopEvent();

    while (GetRefCount() > 1) {
        Round round;
        round.events = {exitEvent, m_dirtyEvent};
        round.items.resize(2);
        BuildRound(round, m_clock.GetTicks());
        if (round.dueSlot >= 0)
            LOG_AT(m_logLevel, function, "%s: Prioritized timed item %s @ %d", m_name.c_str(),
                   round.items[static_cast<size_t>(round.dueSlot)]->m_name.c_str(), round.dueSlot);

        uint32_t timeoutMs = LxEvent::kInfinite;
        if (round.nextTimed)
            timeoutMs = static_cast<uint32_t>(std::max(0, RemainingMs(*round.nextTimed, m_clock.GetTicks())));
        if (CurrentLogLevel >= m_logLevel) {
            if (round.nextTimed)
                Log(function, m_logLevel, "%s: Waiting for %s (%s)", m_name.c_str(),
                    round.nextTimed->m_name.c_str(), Seconds(timeoutMs / 1000.0).c_str());
            else
                Log(function, m_logLevel, "%s: Waiting for %s", m_name.c_str(), "INFINITE");
            LogAllItems(m_logLevel);
        }

        std::vector<LxEvent*> waitOn;
        waitOn.reserve(round.events.size());
        for (LxEvent& event : round.events)
            waitOn.push_back(&event);
        const bool alertable = m_alertable;
        guard.Unlock();
        const int32_t rc = LxEvent::WaitForMultiple(waitOn, false, timeoutMs, alertable);
        guard.Lock();

        RCPtr<LxPollItem> selected;
        bool signalled = false;
        int32_t slot = -1;
        if (rc == LxEvent::kFailed) {
            LOG_AT(LOG_LEVEL_ERROR, function, "%s: Error while waiting", m_name.c_str());
            break;
        } else if (rc == 0) {
            LOG_AT(m_logLevel, function, "%s: Exit event signaled", m_name.c_str());
            break;
        } else if (rc == 1) {
            LOG_AT(m_logLevel, function, "%s: Dirty event signaled", m_name.c_str());
            continue;
        } else if (rc == LxEvent::kAlerted) {
            LOG_AT(m_logLevel, function, "%s: alertable signaled", m_name.c_str());
            continue;
        } else if (rc == LxEvent::kTimeout) {
            selected = round.nextTimed;
        } else if (rc == round.dueSlot) {
            selected = round.nextTimed;
            slot = rc;
        } else {
            selected = round.items[static_cast<size_t>(rc)];
            signalled = true;
            slot = rc;
        }
        // It may have been disabled, paused or removed while we waited.
        if (selected && selected->m_disableCount <= 0 && !selected->m_lastRun.IsPaused() &&
            selected->m_ownerId.load() == m_id)
            RunItem(selected, signalled, slot, guard);
    }
    if (GetRefCount() <= 1)
        LOG_AT(m_logLevel, function, "%s: I'm the last reference", m_name.c_str());
}
