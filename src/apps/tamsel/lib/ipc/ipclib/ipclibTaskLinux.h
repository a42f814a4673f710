#pragma once
// The Linux task holder. Links and listeners keep the executor alive with
// shared references; an executor must never be destroyed on one of its own
// threads (its end waits for the running callback). So the holder hands out
// a reference whose last release only reports "everyone let go", and uninit
// destroys the executor itself, on the calling thread, once that report came
// (or, after kReleaseWait, leaves the end to whoever lets go last).

#include "apps/tamsel/lib/ipc/ipclib/ipclibTask.h"

#include "task/LinuxThreadPoolExecutor.h"

#include <chrono>
#include <condition_variable>

namespace tamsel::ipc {

class KxIpclibTaskLinux final : public KxIpclibTask {
public:
    static constexpr std::chrono::seconds kReleaseWait{10};

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
    std::shared_ptr<tamsel::task::TaskExecutor> m_inner;
    std::shared_ptr<Release> m_release;
};

} // namespace tamsel::ipc
