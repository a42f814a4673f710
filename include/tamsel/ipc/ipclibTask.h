#pragma once
// The IPC library's task holder: owns the executor that every listener and
// link of one library object runs its tasks on.

#include <tamsel/ipc/ipclibTypes.h>

#include <tamsel/task/TaskExecutor.h>

#include <memory>
#include <mutex>

namespace tamsel::ipc {

class KxIpclibTask {
public:
    static std::unique_ptr<KxIpclibTask> create();
    virtual ~KxIpclibTask() = default;

    virtual KxIpcStatusCode init() = 0;
    // Called with the library's lock held; releases it while the executor
    // drains (callbacks may need it) and returns with it held again. Throws
    // std::system_error (operation not permitted) when the lock is not owned.
    virtual void uninit(std::unique_lock<std::mutex>& lock) = 0;

    // Empty until init succeeds and again after uninit.
    const std::shared_ptr<tamsel::task::TaskExecutor>& executor() const { return m_executor; }

protected:
    std::shared_ptr<tamsel::task::TaskExecutor> m_executor;
};

} // namespace tamsel::ipc
