#pragma once
// One scheduler thread ("LxPoll-" + name) serving a list of LxPollItem jobs.
// Each round it waits in one multi-event wait for: its stop event (slot 0), the
// dirty event (slot 1, the item set or a time-out changed), a due timed item
// and the items' events, then runs one item and moves it behind the others.
//
// Ordering: the wait reports the lowest signalled slot and slots follow the
// item list, so a due timed item runs before every event item behind it and
// after a signalled event item in front of it. Among timed items the one with
// the least time left runs first (the earlier in the list on a tie).
//
// Lock order: the poll lock (its own or the owner's external lock) guards the
// list and every item field. It is never held during the wait or a Run, so Run
// may add, remove or re-time items, itself included. Taken under it: the
// scheduler thread's own lock, the registry lock, the logging lock and the
// reference-count lock, all leaves.
//
// Lifetime: the scheduler holds a reference while it runs and ends when it
// holds the last one, when StopScheduler is called, or when a wait fails.

#include "support/LxElapsedTimer.h"
#include "support/LxEvent.h"
#include "support/LxMutex.h"
#include "support/LxMutexLock.h"
#include "support/LxPollItem.h"
#include "support/LxThread.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class LxPollThread : public RCObject {
public:
    explicit LxPollThread(std::string name);
    ~LxPollThread() override;

    // True when the scheduler runs (or was started now).
    bool StartScheduler();
    // Stops the scheduler and waits for it; from an item's Run it only asks,
    // and the scheduler ends after that run.
    void StopScheduler();
    bool IsSchedulerRunning();

    bool AddItem(const RCPtr<LxPollItem>& item);
    // With `wait`, a run of the item in progress ends first.
    bool RemoveItem(const RCPtr<LxPollItem>& item, bool wait);
    void RemoveAllItems(bool wait);
    // Waits for the run of `item` (null: of any item) in progress, if any;
    // returns at once on the scheduler thread.
    void WaitForItemToComplete(const LxPollItem* item);
    // The item list, one line per item, at `level`.
    void LogAllItems(int32_t level);

    // Settings; set them before the first item is added.
    void SetAutoStart(bool autoStart);
    void SetAlertable(bool alertable);
    void SetLogLevel(int32_t level);
    // The owner's mutex replaces the thread's own; false once items exist or
    // the scheduler runs.
    bool SetExternalLock(const LxMutex& lock);

    const std::string& GetName() const { return m_name; }
    uint64_t GetId() const { return m_id; }
    size_t GetItemCount();
    // Signalled once the scheduler thread of the last start has ended for good.
    LxEvent GetSchedulerEndEvent() { return m_thread.GetThreadHandleEvent(); }

    // The poll thread of `id`, while anybody holds it.
    static RCPtr<LxPollThread> FindById(uint64_t id);

protected:
    // The scheduler loops while anybody but itself holds the object; the
    // release that leaves it alone wakes it.
    void OnReleasedTo(int32_t count) const override;

private:
    friend class LxPollItem;

    LxMutex& Lock() { return m_externalLock ? *m_externalLock : m_lock; }
    void SignalDirty() const { m_dirtyEvent.Set(); }
    static bool SchedulerThreadCB(void* context, LxThread* owner);
    void Scheduler();
    // One round's wait: its events, the item of each slot, the timed item
    // with the least time left and the slot of the first due one.
    struct Round;
    void BuildRound(Round& round, uint64_t now);
    void RunItem(const RCPtr<LxPollItem>& item, bool signalled, int32_t slot, LxMutexLock& guard);
    // Under the lock held by `guard`, which it steps out of while it waits and
    // holds again on return, so a caller can act before the scheduler runs
    // the item again.
    void WaitForItemToCompleteLocked(const LxPollItem* item, LxMutexLock& guard);
    // Under the lock: finds and removes `item`; logs the outcome.
    bool RemoveItemLocked(const RCPtr<LxPollItem>& item, const char* function);
    int32_t RemainingMs(LxPollItem& item, uint64_t now) const;

    const std::string m_name;
    LxThread m_thread;
    LxMutex m_lock;
    LxEvent m_dirtyEvent{false, false};
    // Always signalled: the wait slot of a due timed item.
    LxEvent m_dueEvent{true, true};
    std::optional<LxMutex> m_externalLock;
    RCPtr<LxPollItem> m_currentItem;
    bool m_autoStart = false;
    bool m_alertable = false;
    int32_t m_logLevel = 7;
    std::vector<RCPtr<LxPollItem>> m_items;
    const uint64_t m_id;
    LxElapsedTimer m_clock;
};
