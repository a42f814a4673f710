// KxIpclibStream: the send side. Application messages go to the link and are
// counted until their completion; protocol messages go the same way uncounted.

#include <tamsel/ipc/ipclibStream.h>

#include "apps/tamsel/lib/ipc/ipclib/ipclibLink.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibStreamSend";

} // namespace

void streamSendComplete(KxIpclibStream& stream, const std::shared_ptr<KxIpclibMsg>& msg)
{
    stream.onSendComplete(msg);
}

tamsel::expected<std::shared_ptr<KxIpclibMsg>, KxIpcStatusCode> KxIpclibStream::send(uint32_t flags, uint32_t size,
                                                                                     const void* data,
                                                                                     KxIpclibMsgCompletion completion)
{
    using Result = tamsel::expected<std::shared_ptr<KxIpclibMsg>, KxIpcStatusCode>;
    if (data == nullptr || size == 0 || flags != 0 || !completion)
        return Result(tamsel::unexpected<KxIpcStatusCode>(KxIpcStatusInvalidParam));

    Lock lock(m_mutex);
    KXIPC_TRACE(Stream, "> state: {}, streamId: {:#x}", m_state.load(), m_streamId);
    const bool open = m_state == KxIpclibStreamState::Connected ||
                      (m_state == KxIpclibStreamState::Closing && m_closeOrigin == 2);
    if (!open || !m_link) {
        KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId, KxIpcStatusInvalidState);
        return Result(tamsel::unexpected<KxIpcStatusCode>(KxIpcStatusInvalidState));
    }
    auto msg = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, KxIpclibMsgFlagOutstanding, 0, shared_from_this(),
                                             m_streamId, m_peerStreamId, size, data, std::move(completion));
    ++m_outstandingSends;
    // Queued under the stream's lock, so the stream's messages keep their
    // order against its Close; written after it, so that completions, which
    // may run on this thread, never run under it.
    bool writeNow = false;
    const KxIpcStatusCode status = m_link->send(msg, &writeNow);
    KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId, status);
    if (status != KxIpcStatusSuccess) {
        lock.unlock();
        decrementOustandingSends();
        return Result(tamsel::unexpected<KxIpcStatusCode>(status));
    }
    m_bytesSent += size;
    ++m_msgsSent;
    if (writeNow) {
        auto link = m_link;
        lock.unlock();
        link->flushSend();
    }
    return Result(std::move(msg));
}

bool KxIpclibStream::waitForOutstandingSends(uint32_t threshold, std::chrono::milliseconds timeout)
{
    if (m_outstandingSends <= threshold)
        return true;
    Waiter waiter{threshold, {}};
    std::unique_lock<std::mutex> lock(m_waitersMutex);
    m_waiters.push_back(&waiter);
    m_hasWaiters = true;
    const bool reached = waiter.cv.wait_for(lock, timeout, [&] { return m_outstandingSends <= threshold; });
    m_waiters.remove(&waiter);
    m_hasWaiters = !m_waiters.empty();
    return reached;
}

void KxIpclibStream::onSendComplete(const std::shared_ptr<KxIpclibMsg>& msg)
{
    KXIPC_TRACE(Stream, "> state: {}, streamId: {:#x}, msgId: {}, msgType: {}, size: {}", m_state.load(), m_streamId,
                msg->msgId(), msg->msgType(), msg->size());
    if (msg->flags() & KxIpclibMsgFlagOutstanding)
        decrementOustandingSends();
}

void KxIpclibStream::decrementOustandingSends()
{
    const uint32_t count = --m_outstandingSends;
    KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, count: {}", m_state.load(), m_streamId, count);
    if (!m_hasWaiters)
        return;
    std::lock_guard<std::mutex> guard(m_waitersMutex);
    for (Waiter* waiter : m_waiters)
        if (waiter->threshold >= count)
            waiter->cv.notify_all();
}

KxIpcStatusCode KxIpclibStream::sendProto(KxIpclibMsgType type, KxIpcStatusCode status, uint32_t flags)
{
    if (!m_link)
        return KxIpcStatusInvalidState;
    auto msg = std::make_shared<KxIpclibMsg>(type, flags, status, nullptr, m_streamId, m_peerStreamId, 0, nullptr,
                                             [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
    return m_link->send(std::move(msg));
}

} // namespace tamsel::ipc
