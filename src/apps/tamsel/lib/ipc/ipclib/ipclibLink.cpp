#include "apps/tamsel/lib/ipc/ipclib/ipclibLink.h"

#include <tamsel/ipc/ipclibLinkListener.h>
#include <tamsel/ipc/ipclibStream.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibStreamCtrl.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

namespace tamsel::ipc {

namespace {
constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibLink";
} // namespace

KxIpclibLink::KxIpclibLink(const _GUID& endpoint, uint32_t linkFlags, const std::u16string& linkName,
                           uint32_t peerProcessId, std::function<void(KxIpclibLink&)> onLinkClosed,
                           const std::shared_ptr<KxIpclibLinkListener>& linkListener)
    : m_linkId(nextLinkId()),
      m_endpoint(endpoint),
      m_linkFlags(linkFlags),
      m_linkName(linkName),
      m_peerProcessId(peerProcessId),
      m_onLinkClosed(std::move(onLinkClosed)),
      m_linkListener(linkListener)
{
    KXIPC_TRACE(Link, "- m_state: {}, linkId: {:#x}", m_state, m_linkId);
}

KxIpclibLink::~KxIpclibLink()
{
    KXIPC_TRACE(Link, "- m_state: {}, linkId: {:#x}", m_state, m_linkId);
    // The tasks hold only weak references, so this runs on a pool thread only
    // from inside a task's own callback, which closing allows.
    if (m_executor) {
        if (m_sendTask)
            m_executor->closeWorkTask(m_sendTask.context());
        if (m_recvTask)
            m_executor->closeWorkTask(m_recvTask.context());
    }
    m_streams.clear();
    m_sendQueue.clear();
    m_linkName.clear();
}

KxIpcStatusCode KxIpclibLink::connecting()
{
    LinkLock lock(m_lock);
    KxIpcStatusCode status = KxIpcStatusInvalidState;
    if (m_state == KxIpclibLinkState::Init) {
        m_state = KxIpclibLinkState::Connecting;
        status = KxIpcStatusSuccess;
    }
    KXIPC_TRACE(Link, "< m_state: {}, linkId: {:#x}, status: {}", m_state, m_linkId, status);
    return status;
}

KxIpcStatusCode KxIpclibLink::start(std::shared_ptr<tamsel::task::TaskExecutor> executor, unsigned int&)
{
    {
        LinkLock lock(m_lock);
        KXIPC_TRACE(Link, "> m_state: {}, linkId: {:#x}", m_state, m_linkId);
        if (m_state != KxIpclibLinkState::Connecting || !executor) {
            KXIPC_TRACE(Link, "< m_state: {}, linkId: {:#x}, status: {}", m_state, m_linkId, KxIpcStatusInvalidState);
            return KxIpcStatusInvalidState;
        }
        m_executor = executor;
    }
    auto control = std::make_shared<KxIpclibStreamCtrl>(shared_from_this(), executor, Flags<KxIpclibStreamFlag>());
    {
        LinkLock lock(m_lock);
        m_controlStream = control;
        m_controlStreamId = control->streamId();
    }
    const KxIpcStatusCode status = control->start();
    if (status != KxIpcStatusSuccess)
        return status;

    auto sendTask = tamsel::task::CreateWorkTask<void(std::weak_ptr<KxIpclibLink>)>(
        executor, [](std::weak_ptr<KxIpclibLink> weak) {
            if (auto link = weak.lock()) {
                LinkLock lock(link->m_lock);
                link->performDeferredSend(lock);
            }
        });
    auto recvTask = tamsel::task::CreateWorkTask<void(std::weak_ptr<KxIpclibLink>)>(
        executor, [](std::weak_ptr<KxIpclibLink> weak) {
            auto link = weak.lock();
            if (!link)
                return;
            KxIpclibStreamMap touched;
            if (link->recv(touched) == KxIpcStatusSuccess)
                for (auto& [id, stream] : touched)  // ascending id order
                    stream->deferredDispatch();
        });
    if (!sendTask || !recvTask)
        return KxIpcStatusOutOfMemory;
    LinkLock lock(m_lock);
    m_sendTask = std::move(sendTask);
    m_recvTask = std::move(recvTask);
    KXIPC_TRACE(Link, "< m_state: {}, linkId: {:#x}, status: {}", m_state, m_linkId, KxIpcStatusSuccess);
    return KxIpcStatusSuccess;
}

KxIpcStatusCode KxIpclibLink::send(std::shared_ptr<KxIpclibMsg> msg, bool* writeNow)
{
    LinkLock lock(m_lock);
    KXIPC_TRACE(Link, "> m_state: {}, linkId: {:#x}, msgId: {}", m_state, m_linkId, msg->msgId());
    if (m_state != KxIpclibLinkState::Connecting && m_state != KxIpclibLinkState::Connected) {
        KXIPC_TRACE(Link, "< m_state: {}, linkId: {:#x}, status: {}", m_state, m_linkId, KxIpcStatusInvalidState);
        return KxIpcStatusInvalidState;
    }
    msg->resetCursor();
    m_sendQueue.push_back(std::move(msg));
    const bool idle = m_sendState == KxIpclibSendIdle;
    // While a transfer waits for the peer, the sender looks whether the peer
    // has freed the buffer meanwhile: the transport does not watch for that
    // while nothing is queued. A writer or a queued task takes it otherwise.
    if (!idle && m_sendState != KxIpclibSendWaitingForPeer)
        return KxIpcStatusSuccess;
    if (writeNow != nullptr && m_sendTask) {
        // Claimed like a queued send task, so no one else starts a write
        // until the caller's flushSend.
        if (idle)
            m_sendState = KxIpclibSendQueued;
        *writeNow = true;
        return KxIpcStatusSuccess;
    }
    if (idle) {
        queueDeferredSend(lock);
    } else if (m_sendTask) {
        auto task = m_sendTask;
        lock.unlock();
        task.submit(weak_from_this());
    }
    return KxIpcStatusSuccess;
}

void KxIpclibLink::flushSend()
{
    LinkLock lock(m_lock);
    performDeferredSend(lock);
}

void KxIpclibLink::queueDeferredSend(LinkLock& lock)
{
    if (!m_sendTask)
        return;  // not started: the transport picks the queue up when it starts
    m_sendState = KxIpclibSendQueued;
    auto task = m_sendTask;
    lock.unlock();
    task.submit(weak_from_this());
}

void KxIpclibLink::queueRecv()
{
    tamsel::task::WorkTask<void(std::weak_ptr<KxIpclibLink>)> task;
    {
        LinkLock lock(m_lock);
        task = m_recvTask;
    }
    if (task)
        task.submit(weak_from_this());
}

KxIpcStatusCode KxIpclibLink::addStream(const std::shared_ptr<KxIpclibStream>& stream)
{
    LinkLock lock(m_lock);
    KXIPC_TRACE(Link, "> m_state: {}, linkId: {:#x}, streamId: {:#x}", m_state, m_linkId, stream->streamId());
    KxIpcStatusCode status = KxIpcStatusSuccess;
    if (m_state == KxIpclibLinkState::Closing || m_state == KxIpclibLinkState::Closed ||
        m_state == KxIpclibLinkState::Error || m_state == KxIpclibLinkState::ShuttingDown)
        status = KxIpcStatusInvalidState;
    else if (!m_streams.emplace(stream->streamId(), stream).second)
        status = KxIpcStatusAlreadyExists;
    KXIPC_TRACE(Link, "< m_state: {}, linkId: {:#x}, status: {}", m_state, m_linkId, status);
    return status;
}

KxIpcStatusCode KxIpclibLink::eraseStream(const std::shared_ptr<KxIpclibStream>& stream)
{
    std::shared_ptr<KxIpclibStream> erased;  // released after the lock
    LinkLock lock(m_lock);
    auto it = m_streams.find(stream->streamId());
    if (it == m_streams.end() || it->second != stream)
        return KxIpcStatusNotFound;
    erased = std::move(it->second);
    m_streams.erase(it);
    lock.unlock();
    if (m_recvPaused)
        resumeRecv();  // the stream's backlog no longer holds the link
    return KxIpcStatusSuccess;
}

KxIpcStatusCode KxIpclibLink::removeStream(const std::shared_ptr<KxIpclibStream>& stream)
{
    if (stream->isControl())
        return KxIpcStatusNotFound;
    std::shared_ptr<KxIpclibStream> removed;  // released after the lock
    LinkLock lock(m_lock);
    KXIPC_TRACE(Link, "> m_state: {}, linkId: {:#x}, streamId: {:#x}", m_state, m_linkId, stream->streamId());
    auto it = m_streams.find(stream->streamId());
    if (it == m_streams.end() || it->second != stream)
        return KxIpcStatusNotFound;
    removed = std::move(it->second);
    m_streams.erase(it);
    shutdownLinkWithCheck(lock);
    if (lock.owns_lock())
        lock.unlock();
    if (m_recvPaused)
        resumeRecv();  // the stream's backlog no longer holds the link
    return KxIpcStatusSuccess;
}

std::shared_ptr<KxIpclibStream> KxIpclibLink::findStream(uint64_t, uint64_t destStreamId,
                                                         KxIpclibStreamMap& streamsTouched)
{
    auto touched = streamsTouched.find(destStreamId);
    if (touched != streamsTouched.end())
        return touched->second;
    LinkLock lock(m_lock);
    if (destStreamId != 0) {
        auto it = m_streams.find(destStreamId);
        if (it == m_streams.end())
            return nullptr;
        streamsTouched.emplace(destStreamId, it->second);
        return it->second;
    }
    if (!m_controlStream)
        return nullptr;
    // Kept under the id 0 the blocks use, so the next block finds it without the lock.
    streamsTouched.emplace(0, m_controlStream);
    return m_controlStream;
}

std::shared_ptr<KxIpclibLinkListener> KxIpclibLink::getLinkListener()
{
    LinkLock lock(m_lock);
    return m_linkListener.lock();
}

void KxIpclibLink::close()
{
    LinkLock lock(m_lock);
    KXIPC_TRACE(Link, "> m_state: {}, linkId: {:#x}", m_state, m_linkId);
    stop(lock);
}

void KxIpclibLink::shutdown()
{
    KXIPC_TRACE(Link, "> linkId: {:#x}", m_linkId);
    linkError();
    KXIPC_TRACE(Link, "< linkId: {:#x}", m_linkId);
}

bool KxIpclibLink::shutdownLinkWithCheck(LinkLock& lock)
{
    const bool closing = m_state == KxIpclibLinkState::Closing;
    const bool shuttingDown = m_state == KxIpclibLinkState::ShuttingDown;
    const bool idle = m_sendQueue.empty() && m_sendState != KxIpclibSendWriting;
    if (!m_streams.empty() || !(closing || shuttingDown) || !idle) {
        KXIPC_TRACE(Link, "m_state: {}, linkId: {:#x}, success: {}", m_state, m_linkId, false);
        return false;
    }
    m_state = KxIpclibLinkState::Closed;
    linkStop(lock);
    KXIPC_TRACE(Link, "m_state: {}, linkId: {:#x}, success: {}", m_state, m_linkId, true);
    auto keep = shared_from_this();  // onLinkClosed may drop the owner's reference
    lock.unlock();
    if (closing)
        stopWorkers();
    if (m_onLinkClosed)
        m_onLinkClosed(*this);
    return true;
}

uint64_t KxIpclibLink::controlStreamId()
{
    LinkLock lock(m_lock);
    return m_controlStreamId;
}

std::shared_ptr<KxIpclibStreamCtrl> KxIpclibLink::controlStream()
{
    LinkLock lock(m_lock);
    return m_controlStream;
}

KxIpclibLinkState KxIpclibLink::state()
{
    LinkLock lock(m_lock);
    return m_state;
}

size_t KxIpclibLink::streamCount()
{
    LinkLock lock(m_lock);
    return m_streams.size();
}

} // namespace tamsel::ipc
