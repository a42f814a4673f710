#include "support/LxThreadData.h"

#include <tolv/log/Log.h>
#include "support/LxMutexLock.h"
#include "support/ProcessUtils.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstring>
#include <system_error>

namespace {

// The file name of the module that holds this code: the program itself, or
// the shared library it was linked into.
std::string ModuleFileName()
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&ModuleFileName), &info) == 0 || !info.dli_fname)
        return "unknown";
    const char* slash = strrchr(info.dli_fname, '/');
    return slash ? slash + 1 : info.dli_fname;
}

} // namespace

LxThreadData::LxThreadData(std::string name, LxThread* owner) : m_name(std::move(name)), m_owner(owner)
{
}

void LxThreadData::Run()
{
    const std::string module = ModuleFileName();
    ProcessUtils::SetThreadName(ProcessUtils::kNoSession, (module + "!" + m_name).c_str());
    LOG_INFO("LxThreadData::Run()", "Thread %s started", m_name.c_str());

    const char* reason = "exited";
    bool signalStop = true;
    LxMutexLock guard(m_lock);
    for (;;) {
        LxThread* owner = m_owner;
        guard.Unlock();
        // The callback is fixed while the thread runs; Start refuses to
        // replace it before the thread has been joined.
        const bool again = m_callback(m_context, owner);
        guard.Lock();
        if (m_deleted) {
            reason = "was deleted";
            break;
        }
        if (!again) {
            reason = "exited by callback";
            break;
        }
        const uint32_t waitMs = m_interval;
        guard.Unlock();
        const int32_t rc = LxEvent::WaitForMultiple({&m_stopEvent, &m_wakeEvent}, false, waitMs);
        guard.Lock();
        if (rc == 0 || rc == LxEvent::kFailed) {
            signalStop = false;
            break;
        }
        // A handle that went while we waited woke us: the next cycle is the
        // last one, and its callback sees no owner.
    }
    if (signalStop)
        m_stopEvent.Set();
    m_threadId = 0;
    m_exitedEvent.Set();
    guard.Unlock();
    LOG_INFO("LxThreadData::Run()", "Thread %s %s", m_name.c_str(), reason);
}

bool LxThreadData::WaitForStop(uint32_t timeoutMs)
{
    LxMutexLock guard(m_lock);
    if (!m_thread)
        return true;
    const uint32_t id = m_threadId.load();
    if (id != 0 && id == static_cast<uint32_t>(gettid()))
        return false;
    LxEvent exited = m_exitedEvent;
    LxEvent ended = m_threadHandleEvent;
    guard.Unlock();
    const int32_t rc = LxEvent::WaitForMultiple({&exited, &ended}, false, timeoutMs);
    guard.Lock();
    if (rc == LxEvent::kTimeout)
        return false;
    if (rc == 1) {
        LOG_DEBUG("LxThread::WaitForStop()", "Thread %s(0x%04X) exited unexpectedly", m_name.c_str(),
                  m_threadId.load());
        m_threadId = 0;
        m_stopEvent.Set();
        m_exitedEvent.Set();
    }
    Join();
    return true;
}

void LxThreadData::Join()
{
    if (!m_thread) // another waiter joined it first
        return;
    if (m_thread->get_id() == std::this_thread::get_id())
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur),
                                "LxThreadData::Join()");
    if (!m_thread->joinable())
        LOG_WARN("LxThreadData::Join()", "Thread %s(0x%04X) is not joinable", m_name.c_str(), m_threadId.load());
    else
        m_thread->join();
    m_thread.reset();
}

void LxThreadData::Detach()
{
    if (!m_thread->joinable())
        LOG_WARN("LxThreadData::Detach()", "Thread %s(0x%04X) is not joinable", m_name.c_str(), m_threadId.load());
    else
        m_thread->detach();
    m_thread.reset();
}

void LxThreadData::MarkDeleted()
{
    LxMutexLock guard(m_lock);
    if (m_thread) {
        LOG_DEBUG("LxThread::MarkDeleted()", "Setting deleted flag for thread %s(0x%04X)", m_name.c_str(),
                  m_threadId.load());
        m_deleted = true;
        Detach();
        // End a thread that waits for its next cycle now rather than never.
        m_wakeEvent.Set();
    }
    m_owner = nullptr;
}
