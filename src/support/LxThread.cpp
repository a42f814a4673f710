#include "support/LxThread.h"

#include "support/LxMutexLock.h"

#include <unistd.h>

namespace {

// Signals the thread's end however its function is left.
class EndSignal {
public:
    explicit EndSignal(LxEvent event) : m_event(std::move(event)) {}
    ~EndSignal() { m_event.Set(); }
    EndSignal(const EndSignal&) = delete;
    EndSignal& operator=(const EndSignal&) = delete;

private:
    LxEvent m_event;
};

} // namespace

LxThread::LxThread(const std::string& name) : m_data(MakeRC<LxThreadData>(name, this)) {}

LxThread::~LxThread()
{
    m_data->MarkDeleted();
}

bool LxThread::Start(LxThreadCallback callback, void* context, uint32_t intervalMs)
{
    LxThreadData& d = *m_data;
    LxMutexLock guard(d.m_lock);
    if (!callback || d.m_thread)
        return false;
    if (!d.m_exitedEvent.Reset() || !d.m_stopEvent.Reset() || !d.m_wakeEvent.Reset())
        return false;
    // A fresh end signal per run: the last run's is set for good.
    d.m_threadHandleEvent = LxEvent(true, false);
    if (!d.m_threadHandleEvent.IsValid())
        return false;
    d.m_callback = std::move(callback);
    d.m_context = context;
    d.m_interval = intervalMs;

    // std::system_error when the thread cannot be made.
    d.m_thread = std::make_unique<std::thread>(
        [keep = m_data, ended = d.m_threadHandleEvent]() mutable {
            EndSignal endSignal(std::move(ended));
            RCPtr<LxThreadData> data = std::move(keep); // dropped before the end signal
            data->m_threadId = static_cast<uint32_t>(gettid());
            data->m_wakeEvent.Set();
            data->Run();
        });
    d.m_wakeEvent.Wait(LxEvent::kInfinite);
    return true;
}

bool LxThread::Stop(uint32_t timeoutMs)
{
    m_data->m_stopEvent.Set();
    return WaitForStop(timeoutMs);
}

bool LxThread::WaitForStop(uint32_t timeoutMs)
{
    return m_data->WaitForStop(timeoutMs);
}

bool LxThread::Wake()
{
    return m_data->m_wakeEvent.Set();
}

bool LxThread::IsRunning()
{
    return !WaitForStop(0);
}

bool LxThread::IsCurrentThread()
{
    LxMutexLock guard(m_data->m_lock);
    return m_data->m_thread && m_data->m_threadId.load() != 0 &&
           m_data->m_thread->get_id() == std::this_thread::get_id();
}

LxEvent LxThread::GetThreadHandleEvent()
{
    LxMutexLock guard(m_data->m_lock);
    return m_data->m_threadHandleEvent;
}
