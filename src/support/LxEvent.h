#pragma once
// An event handle. Copies share one event, which lives as long as its last
// handle. Set makes it signalled; a manual-reset event stays so until Reset, an
// auto-reset event releases one waiter and clears itself. Because every event
// is a descriptor, an event can also wrap a descriptor of another kind and be
// waited on with the others.
//
// Set, Reset and the waits are safe from any thread. A wait is a wake-up, not
// a memory fence for data of the caller: guard shared data with a lock.

#include "support/LxEventData.h"
#include "support/RCPtr.h"

#include <cstdint>
#include <string>
#include <vector>

class LxEvent {
public:
    static constexpr uint32_t kInfinite = 0xFFFFFFFF;
    // Wait results.
    static constexpr int32_t kTimeout = -1;
    static constexpr int32_t kFailed = -2;
    static constexpr int32_t kAlerted = -3; // a signal arrived during an alertable wait
    // At most this many events in one wait.
    static constexpr size_t kMaxWaitObjects = 64;

    // An empty event: not valid, every operation fails.
    LxEvent() = default;
    // A new eventfd-backed event. The name is only a label here.
    LxEvent(bool manualReset, bool initiallySignalled, const std::string& name = {});
    // Wraps `fd`: signalled while it is readable. With `ownsHandle` it is closed
    // with the last handle.
    LxEvent(int fd, bool ownsHandle);

    bool Set() const;
    bool Reset() const;
    // 0 when signalled, kTimeout, or kFailed (no handle, a failed call).
    int32_t Wait(uint32_t timeoutMs = kInfinite) const;

    bool IsValid() const { return m_data && m_data->Handle() >= 0; }
    // The descriptor, or -1.
    int GetHandle() const { return m_data ? m_data->Handle() : -1; }

    // Waits until one of `events` is signalled (the lowest index wins when
    // several are) or, with `waitAll`, until all are at once. Returns the index
    // (0 for wait-all), kTimeout, kAlerted (only when `alertable`) or kFailed:
    // a null or empty event, more than kMaxWaitObjects, a failed call.
    // Wait-all takes auto-reset events one after another, not atomically; an
    // event taken by somebody else midway puts the others back.
    static int32_t WaitForMultiple(const std::vector<LxEvent*>& events, bool waitAll, uint32_t timeoutMs,
                                   bool alertable = false);

    bool operator==(const LxEvent& other) const { return m_data == other.m_data; }

private:
    RCPtr<LxEventData> m_data;
};
