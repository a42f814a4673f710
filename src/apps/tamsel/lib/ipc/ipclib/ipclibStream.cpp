// KxIpclibStream: construction, the accessors and the stream's state machine:
// the open/accept/reject handshake, close and shutdown, the close timer, and
// the peer's "Close"/"CloseAck". Sending is in ipclibStreamSend.cpp, receiving
// and delivery in ipclibStreamRecv.cpp.

#include <tamsel/ipc/ipclibStream.h>

#include "apps/tamsel/lib/ipc/ipclib/ipclibLink.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include "platform/LittleEndian.h"

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibStream";
std::atomic<int64_t> g_closeTimeoutNs{KxIpclibStream::kCloseTimeout.count()};

// Bits 0..15 of a flags word are the block's own and never travel as stream flags.
constexpr uint32_t kStreamFlagsMask = 0xFFFF0000u;

} // namespace

void KxIpclibStream::setCloseTimeoutForTesting(std::chrono::nanoseconds timeout)
{
    g_closeTimeoutNs = timeout.count();
}

KxIpclibStream::KxIpclibStream(std::shared_ptr<KxIpclibLink> link, std::weak_ptr<tamsel::task::TaskExecutor> executor,
                               std::u16string name, Flags<KxIpclibStreamFlag> flags, uint64_t peerStreamId,
                               KxIpclibStreamState state)
    : KxIpclibStream(std::move(link), std::move(executor), std::move(name), flags, peerStreamId, state, false)
{
}

KxIpclibStream::KxIpclibStream(std::shared_ptr<KxIpclibLink> link, std::weak_ptr<tamsel::task::TaskExecutor> executor,
                               std::u16string name, Flags<KxIpclibStreamFlag> flags, uint64_t peerStreamId,
                               KxIpclibStreamState state, bool isControl)
    : m_state(state),
      m_streamId(nextStreamId()),
      m_isControl(isControl),
      m_name(std::move(name)),
      m_flags(flags),
      m_peerStreamId(peerStreamId),
      m_executor(std::move(executor)),
      m_link(std::move(link))
{
    KXIPC_TRACE(Stream, "- state: {}, streamId: {:#x}", m_state.load(), m_streamId);
}

KxIpclibStream::~KxIpclibStream()
{
    KXIPC_TRACE(Stream, "- state: {}, streamId: {:#x}", m_state.load(), m_streamId);
    // Closing a task waits for its running callback, which may be this very
    // call (the last reference released inside it): the executor allows that.
    if (auto executor = m_executor.lock()) {
        if (m_closeTimer)
            executor->closeTimerTask(m_closeTimer);
        if (m_dispatchTask)
            executor->closeWorkTask(m_dispatchTask.context());
    }
}

KxIpcStatusCode KxIpclibStream::accept(Flags<KxIpclibStreamFlag> flags, KxIpclibRecvFunction onRecv)
{
    Lock lock(m_mutex);
    KXIPC_TRACE(Stream, "> state: {}, streamId: {:#x}", m_state.load(), m_streamId);
    if (m_state != KxIpclibStreamState::Init) {
        KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId, KxIpcStatusInvalidState);
        return KxIpcStatusInvalidState;
    }
    const KxIpcStatusCode status = connectedInit();
    if (status != KxIpcStatusSuccess) {
        KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId, status);
        return status;
    }
    if (m_onAcceptSendOpenAck)
        sendProto(KxIpclibMsgType::OpenAck, KxIpcStatusSuccess, m_flags.value() & kStreamFlagsMask);
    m_state = KxIpclibStreamState::Connected;
    m_accepted = true;
    m_flags |= flags;
    m_onRecv = std::move(onRecv);
    KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId, KxIpcStatusSuccess);
    return KxIpcStatusSuccess;
}

KxIpcStatusCode KxIpclibStream::reject(KxIpcStatusCode reason)
{
    Lock lock(m_mutex);
    KXIPC_TRACE(Stream, "> state: {}, streamId: {:#x}", m_state.load(), m_streamId);
    KxIpcStatusCode status = KxIpcStatusInvalidState;
    if (m_state == KxIpclibStreamState::Init) {
        m_rejectStatus = reason;
        m_state = KxIpclibStreamState::Closed;
        status = KxIpcStatusSuccess;
    }
    KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId, status);
    return status;
}

KxIpcStatusCode KxIpclibStream::close(std::chrono::milliseconds timeout)
{
    Lock lock(m_mutex);
    KXIPC_TRACE(Stream, "> state: {}, streamId: {:#x}", m_state.load(), m_streamId);
    KxIpcStatusCode status = KxIpcStatusSuccess;
    if (m_state == KxIpclibStreamState::Closed) {
        // nothing to do
    } else if (m_connectWait == 1) {
        completeConnectExistingLink(KxIpcStatusStreamClosed, 0, 0, 2);
    } else if (m_state == KxIpclibStreamState::Closing && m_closeOrigin == 2) {
        sendProto(KxIpclibMsgType::CloseAck, KxIpcStatusSuccess, 0);
        m_state = KxIpclibStreamState::Closed;
    } else if (m_state == KxIpclibStreamState::Connected) {
        m_closeOrigin = 1;
        m_state = KxIpclibStreamState::Closing;
        if (sendProto(KxIpclibMsgType::Close, KxIpcStatusSuccess, 0) != KxIpcStatusSuccess) {
            // The link refused: complete the close as if the peer had acknowledged it.
            auto ack = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::CloseAck, 0, 0, nullptr, m_peerStreamId,
                                                     m_streamId, 0, nullptr, KxIpclibMsgCompletion());
            addIncomingMessage(std::move(ack));
            queueDispatch();
        } else if (timeout != std::chrono::milliseconds::max()) {
            startCloseTimer();
        }
    } else {
        status = KxIpcStatusInvalidState;
    }
    KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId, status);
    return status;
}

uint32_t KxIpclibStream::peerProcessId()
{
    Lock lock(m_mutex);
    return m_link ? m_link->peerProcessId() : 0;
}

std::shared_ptr<KxIpclibLink> KxIpclibStream::link()
{
    Lock lock(m_mutex);
    return m_link;
}

std::u16string KxIpclibStream::name()
{
    Lock lock(m_mutex);
    return m_name;
}

uint64_t KxIpclibStream::peerStreamId()
{
    Lock lock(m_mutex);
    return m_peerStreamId;
}

Flags<KxIpclibStreamFlag> KxIpclibStream::flags()
{
    Lock lock(m_mutex);
    return m_flags;
}

KxIpclibStreamState KxIpclibStream::state()
{
    Lock lock(m_mutex);
    return m_state;
}

KxIpcStatusCode KxIpclibStream::rejectStatus()
{
    Lock lock(m_mutex);
    return m_rejectStatus;
}

void KxIpclibStream::setOnAcceptSendOpenAck(bool value)
{
    Lock lock(m_mutex);
    m_onAcceptSendOpenAck = value;
}

KxIpcStatusCode KxIpclibStream::setPeerStreamId(uint64_t peerStreamId)
{
    Lock lock(m_mutex);
    if (m_state != KxIpclibStreamState::Init)
        return KxIpcStatusInvalidState;
    m_peerStreamId = peerStreamId;
    return KxIpcStatusSuccess;
}

tamsel::expected<std::shared_ptr<KxIpclibStream>, KxIpcStatusCode> KxIpclibStream::open(
    const std::shared_ptr<KxIpclibLink>& link, const std::shared_ptr<tamsel::task::TaskExecutor>& executor,
    const std::u16string& name, Flags<KxIpclibStreamFlag> flags, KxIpclibRecvFunction onRecv,
    std::chrono::milliseconds timeout)
{
    using Result = tamsel::expected<std::shared_ptr<KxIpclibStream>, KxIpcStatusCode>;
    if (!link || !executor || name.empty() || !onRecv || name.size() > (UINT32_MAX - 4) / 2)
        return Result(tamsel::unexpected<KxIpcStatusCode>(KxIpcStatusInvalidParam));
    auto stream = std::make_shared<KxIpclibStream>(link, executor, name, flags, 0, KxIpclibStreamState::Connecting);
    {
        Lock lock(stream->m_mutex);
        stream->m_connectWait = 1;
        stream->m_onRecv = std::move(onRecv);
        // Not accepted yet: what arrives between the "OpenAck" and the wake-up
        // below waits in m_incoming until the stream is ours to hand out.
        const KxIpcStatusCode status = stream->connectedInit();
        if (status != KxIpcStatusSuccess)
            return Result(tamsel::unexpected<KxIpcStatusCode>(status));
    }
    KxIpcStatusCode status = link->addStream(stream);
    if (status != KxIpcStatusSuccess) {
        stream->shutdown();
        return Result(tamsel::unexpected<KxIpcStatusCode>(status));
    }

    // "Open" payload: the name's byte length, then the name in UTF-16LE. The
    // bytes live in the completion, which the message keeps until it is sent.
    auto payload = std::make_shared<std::vector<uint8_t>>(4 + 2 * name.size());
    tolv::platform::StoreLe<uint32_t>(payload->data(), static_cast<uint32_t>(2 * name.size()));
    for (size_t i = 0; i < name.size(); ++i)
        tolv::platform::StoreLe<uint16_t>(payload->data() + 4 + 2 * i, name[i]);
    auto msg = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Open, flags.value() & kStreamFlagsMask, 0, nullptr,
                                             stream->m_streamId, 0, static_cast<uint32_t>(payload->size()),
                                             payload->data(),
                                             [payload](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
    status = link->send(std::move(msg));
    Lock lock(stream->m_mutex);
    if (status != KxIpcStatusSuccess) {
        stream->completeConnectExistingLink(status, 0, 0, 2);
        return Result(tamsel::unexpected<KxIpcStatusCode>(status));
    }
    if (!stream->m_connectCv.wait_for(lock, timeout, [&] { return stream->m_connectWait != 1; }))
        stream->completeConnectExistingLink(KxIpcStatusStreamClosed, 0, 0, 2);
    if (stream->m_connectStatus != KxIpcStatusSuccess)
        return Result(tamsel::unexpected<KxIpcStatusCode>(stream->m_connectStatus));
    // Acknowledged, but shut down (the link went away) before we woke.
    if (stream->m_state != KxIpclibStreamState::Connecting)
        return Result(tamsel::unexpected<KxIpcStatusCode>(KxIpcStatusStreamClosed));
    // The acknowledgement leaves the state alone; the stream is connected from
    // here, and a "Close" queued meanwhile is delivered now, in order.
    stream->m_state = KxIpclibStreamState::Connected;
    stream->m_accepted = true;
    stream->queueDispatch();
    return Result(std::move(stream));
}

void KxIpclibStream::shutdown()
{
    Lock lock(m_mutex);
    KXIPC_TRACE(Stream, "> state: {}, streamId: {:#x}", m_state.load(), m_streamId);
    if (m_state == KxIpclibStreamState::Init)
        m_state = KxIpclibStreamState::Closed;
    else if (m_state == KxIpclibStreamState::Connecting || m_state == KxIpclibStreamState::Connected ||
             (m_state == KxIpclibStreamState::Closing && m_closeOrigin == 1))
        closeStream();
    KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}", m_state.load(), m_streamId);
}

// Internal steps (m_mutex held).

KxIpcStatusCode KxIpclibStream::connectedInit()
{
    auto executor = m_executor.lock();
    if (!executor) {
        m_state = KxIpclibStreamState::Closed;
        return KxIpcStatusUnexpected;
    }
    m_executorHold = executor;
    m_dispatchTask = tamsel::task::CreateWorkTask<void(std::shared_ptr<KxIpclibStream>)>(
        executor, [](std::shared_ptr<KxIpclibStream> stream) { stream->dispatch(); });
    if (!m_dispatchTask) {
        m_state = KxIpclibStreamState::Closed;
        return KxIpcStatusOutOfMemory;
    }
    m_deliveryState = 1;
    queueDispatch();
    return KxIpcStatusSuccess;
}

void KxIpclibStream::startCloseTimer()
{
    auto executor = m_executor.lock();
    if (!executor)
        return;
    if (!m_closeTimer) {
        std::weak_ptr<KxIpclibStream> weak = weak_from_this();
        m_closeTimer = executor->createTimerTask([weak] {
            if (auto stream = weak.lock())
                stream->onCloseTimerExpired();
        });
        if (!m_closeTimer)
            return;
    }
    executor->setTimer(m_closeTimer, std::chrono::nanoseconds(g_closeTimeoutNs.load()), std::chrono::nanoseconds(0));
}

void KxIpclibStream::cancelCloseTimer()
{
    // Disarm only: the task is closed by the destructor, never under the lock
    // that its callback takes.
    if (!m_closeTimer)
        return;
    if (auto executor = m_executor.lock())
        executor->cancelTimer(m_closeTimer);
}

void KxIpclibStream::closeStream()
{
    const KxIpclibStreamState old = m_state;
    m_state = KxIpclibStreamState::Closed;
    if (old == KxIpclibStreamState::Connecting) {
        shutdownStream();
        if (m_connectWait == 1) {
            m_connectWait = 2;
            m_connectStatus = KxIpcStatusStreamClosed;
            m_connectCv.notify_all();
        }
    } else {
        queueEmptyMsg();
    }
}

void KxIpclibStream::shutdownStream()
{
    // No more deliveries: queued runs are dropped. The lock is safe to hold:
    // past the opener's wait, the only caller is the delivery of the
    // end-of-stream, and the close does not wait for its own run.
    if (m_dispatchTask) {
        auto task = std::move(m_dispatchTask);
        m_dispatchTask = {};
        task.close();
    }
    cancelCloseTimer();
    m_partial.reset();
    // Nothing queued will be delivered now, and each message holds the
    // stream: kept, they would keep it forever (an open refused after data
    // for it had arrived, say).
    std::deque<std::shared_ptr<KxIpclibMsg>> dropped = std::move(m_incoming);
    m_incoming.clear();
    for (const auto& msg : dropped)
        m_undeliveredBytes -= msg->size();
    auto link = std::move(m_link);
    m_link.reset();
    if (link)
        link->removeStream(shared_from_this());
}

void KxIpclibStream::completeConnectExistingLink(KxIpcStatusCode status, uint32_t flags, uint64_t peerId,
                                                 uint32_t newWait)
{
    if (m_connectWait != 1)
        return;
    if (status != KxIpcStatusSuccess) {
        m_state = KxIpclibStreamState::Closed;
        shutdownStream();
    } else {
        m_peerStreamId = peerId;
        m_flags |= Flags<KxIpclibStreamFlag>(flags & kStreamFlagsMask);
    }
    m_connectStatus = status;
    m_connectWait = newWait;
    m_connectCv.notify_all();
}

// The peer's side of a close, and its time-out (without the lock on entry).

void KxIpclibStream::onProtoClose()
{
    Lock lock(m_mutex);
    if (m_state == KxIpclibStreamState::Connected) {
        m_state = KxIpclibStreamState::Closing;
        m_closeOrigin = 2;
        queueEmptyMsg();
    } else if (m_state == KxIpclibStreamState::Closing && m_closeOrigin == 1) {
        cancelCloseTimer();
        m_closeOrigin = 4;
        closeStream();
    }
}

void KxIpclibStream::onProtoCloseAck()
{
    Lock lock(m_mutex);
    if (m_state == KxIpclibStreamState::Closing && m_closeOrigin == 1) {
        cancelCloseTimer();
        m_closeOrigin = 4;
        closeStream();
    }
}

void KxIpclibStream::onCloseTimerExpired()
{
    Lock lock(m_mutex);
    if (m_state == KxIpclibStreamState::Closing && m_closeOrigin == 1) {
        m_closeOrigin = 3;
        closeStream();
    }
}

} // namespace tamsel::ipc
