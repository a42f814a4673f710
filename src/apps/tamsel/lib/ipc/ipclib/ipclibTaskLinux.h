#pragma once
#include "apps/tamsel/lib/ipc/ipclib/ipclibTask.h"

#include "task/LinuxThreadPoolExecutor.h"

namespace tamsel::ipc {

class KxIpclibTaskLinux final : public KxIpclibTask {
public:
    explicit KxIpclibTaskLinux(tamsel::task::LinuxThreadPoolExecutor::Options options = {}) : m_options(options) {}
    KxIpcStatusCode init() override;
    void uninit(std::unique_lock<std::mutex>& lock) override;

private:
    tamsel::task::LinuxThreadPoolExecutor::Options m_options;
};

} // namespace tamsel::ipc
