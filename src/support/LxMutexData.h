#pragma once
// The state behind LxMutex handles: a recursive, robust pthread mutex, its own
// or adopted (a holder
// that ends without releasing leaves it "abandoned", and the next taker is
// told), the wrapper's own depth and the last thread that took it from depth 0.

#include "support/RCObject.h"

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

class LxMutexData final : public RCObject {
public:
    // How long an infinite acquire waits before it warns of a possible deadlock.
    static constexpr uint32_t kDefaultDeadlockWarningMs = 30000;

    explicit LxMutexData(std::string name);
    // Wraps `adopted`, a robust recursive mutex that outlives this object and
    // is not destroyed with it (the logging lock, which its owner keeps).
    LxMutexData(pthread_mutex_t& adopted, std::string name);
    ~LxMutexData() override;
    LxMutexData(const LxMutexData&) = delete;
    LxMutexData& operator=(const LxMutexData&) = delete;

    bool IsValid() const { return m_valid; }

    pthread_mutex_t* m_handle = &m_own;
    pthread_mutex_t m_own;
    bool m_owned = true;
    bool m_valid = false;
    // Label only: a name has no cross-process meaning here.
    const std::string m_name;
    // Read by waiters for their warnings while another thread holds the mutex.
    std::atomic<uint32_t> m_ownerThreadId{0};
    std::atomic<int32_t> m_depth{0};
    std::atomic<uint32_t> m_deadlockWarningMs{kDefaultDeadlockWarningMs};
};
