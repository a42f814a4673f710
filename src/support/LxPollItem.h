#pragma once
// One job of a poll thread: run when its event is signalled or when its
// time-out has passed since it last ran. Run returns true to stay, false to
// leave the thread. Derive from it and override Run.
//
// Every field is read and written under the owning poll thread's lock. An item
// that belongs to no thread has no lock: configure it before adding it, or
// from one thread only.

#include "support/LxElapsedTimer.h"
#include "support/LxEvent.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <atomic>
#include <cstdint>
#include <string>

class LxPollThread;

class LxPollItem : public RCObject {
public:
    explicit LxPollItem(std::string name, int32_t timeoutMs = -1);

    // Called on the scheduler thread without the lock: `signalled` is true when
    // the item's event woke it, false when its time-out did.
    virtual bool Run(bool signalled);

    // The owning thread, or null when there is none (or it is gone).
    RCPtr<LxPollThread> GetPollThread() const;

    // -1: no time-out. `resetTimer` counts the time-out from now; otherwise
    // from the last run.
    void SetTimeoutMS(int32_t timeoutMs, bool resetTimer);
    // The event the item waits on; an empty event makes it a purely timed item.
    // The item holds its own handle, so the event lives at least as long.
    void SetEvent(const LxEvent& event);
    // Counted: the item is skipped while Disable calls outnumber Enable calls.
    // With `waitForCompletion`, a run in progress ends first.
    void Disable(bool waitForCompletion);
    void Enable();

    const std::string& GetName() const { return m_name; }
    uint64_t GetOwnerId() const { return m_ownerId.load(); }
    int32_t GetTimeoutMS() const;
    int32_t GetDisableCount() const;

private:
    friend class LxPollThread;

    // Runs `fn` under the owner's lock (or alone without an owner); returns
    // the owner for its name, level and dirty event.
    template <typename Fn>
    void UnderOwnerLock(Fn&& fn) const;
    static std::string TimeoutText(int32_t timeoutMs);

    const std::string m_name;
    LxEvent m_event;
    // Manual reset; reset when a run starts, set when it ends.
    LxEvent m_completedEvent{true, false};
    LxElapsedTimer m_lastRun;
    int32_t m_timeoutMs;
    int32_t m_disableCount = 0;
    std::string m_timeoutText;
    std::atomic<uint64_t> m_ownerId{0};
};
