#pragma once
// A recursive mutex handle. Copies share one mutex, which lives as long as its
// last handle. An infinite Acquire that has waited the deadlock-warning time
// (30 s unless set otherwise) logs "Possible deadlock ..." once and waits on.
// The logging lock is the only mutex of the process that is meant to be taken
// recursively; other users take it once.

#include "support/LxMutexData.h"
#include "support/RCPtr.h"

#include <pthread.h>

#include <cstdint>
#include <string>

class LxMutex {
public:
    static constexpr uint32_t kInfinite = 0xFFFFFFFF;

    // Creates the mutex; when `initiallyOwned`, the caller holds it on return.
    explicit LxMutex(bool initiallyOwned = false, const std::string& name = {});
    // A handle on `adopted`, a robust recursive mutex that lives as long as the
    // process; others may take it directly as well.
    LxMutex(pthread_mutex_t& adopted, const std::string& name);

    // True once taken (depth + 1). A finite time-out that passes gives false
    // without a log line; other failures give false with a WARN line.
    bool Acquire(uint32_t timeoutMs = kInfinite);
    // Drops one level of the caller's hold; false when the caller holds none.
    bool Release();

    bool IsValid() const { return m_data && m_data->IsValid(); }
    // The depth of the current hold (0 when free); meaningful to the holder.
    int32_t GetDepth() const { return m_data ? m_data->m_depth.load() : 0; }
    // Kernel id of the last thread that took the mutex from depth 0.
    uint32_t GetOwnerThreadId() const { return m_data ? m_data->m_ownerThreadId.load() : 0; }
    // How long an infinite Acquire waits before it warns.
    void SetDeadlockWarningMs(uint32_t ms);

    bool operator==(const LxMutex& other) const { return m_data == other.m_data; }

private:
    RCPtr<LxMutexData> m_data;
};
