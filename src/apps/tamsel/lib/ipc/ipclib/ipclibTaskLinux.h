#pragma once
// The Linux task holder. Links and listeners keep the executor alive with
// shared references; an executor must never be destroyed on one of its own
// threads while a callback of a task still registered runs there (its end
// waits for that callback). So the holder hands out a reference whose last
// release only reports "everyone let go". uninit waits for every task's
// callbacks and closes the tasks, however long that takes; then it destroys
// the executor itself if everyone let go, or leaves the end to whoever lets
// go last (with no task left, that end has nothing to wait for).

#include <tamsel/ipc/ipclibTask.h>

#include "task/LinuxThreadPoolExecutor.h"

#include <condition_variable>

namespace tamsel::ipc {

class KxIpclibTaskLinux final : public KxIpclibTask {
public:
    explicit KxIpclibTaskLinux(tamsel::task::LinuxThreadPoolExecutor::Options options = {}) : m_options(options) {}
    KxIpcStatusCode init() override;
    void uninit(std::unique_lock<std::mutex>& lock) override;

private:
    struct Release {
        std::mutex mutex;
        std::condition_variable released;
        bool done = false;
        std::shared_ptr<tamsel::task::TaskExecutor> abandoned;  // ended by the last holder instead
    };

    tamsel::task::LinuxThreadPoolExecutor::Options m_options;
    std::shared_ptr<tamsel::task::LinuxThreadPoolExecutor> m_inner;
    std::shared_ptr<Release> m_release;
};

} // namespace tamsel::ipc
