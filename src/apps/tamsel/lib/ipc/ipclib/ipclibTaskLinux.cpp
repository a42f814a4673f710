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
    auto inner = tamsel::task::LinuxThreadPoolExecutor::create(m_options);
    if (!inner) {
        KXIPC_TRACE(Lib, "< status: {}", KxIpcStatusUnexpected);
        return KxIpcStatusUnexpected;
    }
    auto release = std::make_shared<Release>();
    // Shares the executor without owning it: its deleter only reports.
    m_executor = std::shared_ptr<tamsel::task::TaskExecutor>(inner.get(), [release](tamsel::task::TaskExecutor*) {
        std::shared_ptr<tamsel::task::TaskExecutor> abandoned;
        {
            std::lock_guard<std::mutex> guard(release->mutex);
            release->done = true;
            abandoned = std::move(release->abandoned);
        }
        release->released.notify_all();
    });
    m_inner = std::move(inner);
    m_release = std::move(release);
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
    auto inner = std::move(m_inner);
    m_inner.reset();
    auto release = std::move(m_release);
    m_release.reset();
    lock.unlock();
    KXIPC_TRACE(Lib, "Waiting for group callbacks to complete");
    // No time-out: a task left running would outlive the library. From one of
    // the executor's own callbacks, that callback is not waited for.
    if (inner)
        inner->closeAllTasks();
    executor.reset();
    if (release) {
        std::lock_guard<std::mutex> guard(release->mutex);
        if (!release->done) {
            KXIPC_TRACE(Lib, "- executor still held; its last holder ends it");
            release->abandoned = std::move(inner);
        }
    }
    KXIPC_TRACE(Lib, "Destroying threadpool environment");
    inner.reset();  // drains the executor here, outside the library's lock
    lock.lock();
    KXIPC_TRACE(Lib, "< ");
}

} // namespace tamsel::ipc
