#include "apps/tamsel/lib/ipc/ipclib/ipclibTaskLinux.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include <cerrno>
#include <system_error>

namespace tamsel::ipc {

namespace {
constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibTaskLinux";
} // namespace

std::unique_ptr<KxIpclibTask> KxIpclibTask::create()
{
    return std::make_unique<KxIpclibTaskLinux>();
}

KxIpcStatusCode KxIpclibTaskLinux::init()
{
    KXIPC_TRACE(Lib, "> ");
    auto executor = tamsel::task::LinuxThreadPoolExecutor::create(m_options);
    if (!executor) {
        KXIPC_TRACE(Lib, "< status: {}", KxIpcStatusUnexpected);
        return KxIpcStatusUnexpected;
    }
    m_executor = std::move(executor);
    KXIPC_TRACE(Lib, "< status: {}", KxIpcStatusSuccess);
    return KxIpcStatusSuccess;
}

void KxIpclibTaskLinux::uninit(std::unique_lock<std::mutex>& lock)
{
    KXIPC_TRACE(Lib, "> ");
    if (!lock.owns_lock())
        throw std::system_error(std::make_error_code(std::errc::operation_not_permitted));
    auto executor = std::move(m_executor);
    m_executor.reset();
    lock.unlock();
    // When this was the last reference, the executor drains its tasks here,
    // outside the library's lock.
    KXIPC_TRACE(Lib, "Waiting for group callbacks to complete");
    executor.reset();
    KXIPC_TRACE(Lib, "Destroying threadpool environment");
    lock.lock();
    KXIPC_TRACE(Lib, "< ");
}

} // namespace tamsel::ipc
