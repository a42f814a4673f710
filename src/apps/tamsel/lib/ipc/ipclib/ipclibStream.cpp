#include <tamsel/ipc/ipclibStream.h>

#include "apps/tamsel/lib/ipc/ipclib/ipclibLink.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include "platform/LittleEndian.h"

#include <algorithm>

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibStream";
std::atomic<int64_t> g_closeTimeoutNs{KxIpclibStream::kCloseTimeout.count()};

// Bits 0..15 of a flags word are the block's own and never travel as stream flags.
constexpr uint32_t kStreamFlagsMask = 0xFFFF0000u;

// What a valid "Open" carries: a name of at least one UTF-16 unit that lies
// inside the message.
bool ValidOpenPayload(const KxIpclibMsg& msg)
{
    if (msg.size() < 5 || msg.data() == nullptr)
        return false;
    const uint32_t nameLength = platform::LoadLe<uint32_t>(msg.data());
    return nameLength >= 2 && nameLength <= msg.size() - 4;
}

} // namespace

void streamSendComplete(KxIpclibStream& stream, const std::shared_ptr<KxIpclibMsg>& msg)
{
    stream.onSendComplete(msg);
}

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
    platform::StoreLe<uint32_t>(payload->data(), static_cast<uint32_t>(2 * name.size()));
    for (size_t i = 0; i < name.size(); ++i)
        platform::StoreLe<uint16_t>(payload->data() + 4 + 2 * i, name[i]);
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

KxIpcStatusCode KxIpclibStream::recvBlock(const KxIpclibBlockHeader& header, const uint8_t* payload)
{
    return recvBlock(header, payload, nullptr);
}

KxIpcStatusCode KxIpclibStream::recvBlock(const KxIpclibBlockHeader& header, const uint8_t* payload,
                                          KxIpclibRecvStorage* storage)
{
    Lock lock(m_mutex);
    KXIPC_TRACE(Stream, "> state: {}, streamId: {:#x}", m_state.load(), m_streamId);
    auto fail = [&](KxIpcStatusCode status) {
        // A refused block leaves no half-built message behind.
        if (status == KxIpcStatusProtocolError)
            m_partial.reset();
        KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId, status);
        return status;
    };
    const bool receiving = m_state == KxIpclibStreamState::Connecting ||
                           m_state == KxIpclibStreamState::Connected ||
                           (m_state == KxIpclibStreamState::Closing && m_closeOrigin == 1);
    if (!receiving)
        return fail(KxIpcStatusInvalidState);
    // The control stream has no peer stream to be closed, acknowledged or
    // shut down by, and an empty message would end it: the peer could then
    // open nothing more, with nobody told. Each is a protocol violation.
    if (m_isControl && (header.msgType != static_cast<uint32_t>(KxIpclibMsgType::Open) &&
                        (header.msgType != static_cast<uint32_t>(KxIpclibMsgType::Msg) ||
                         (header.first() && header.totalSize == 0))))
        return fail(KxIpcStatusProtocolError);

    if (storage != nullptr && storage->buffer && header.first() && header.last() && !m_partial &&
        header.msgType == static_cast<uint32_t>(KxIpclibMsgType::Msg) && header.payloadLength >= kBorrowBytes &&
        header.totalSize == header.payloadLength) {
        auto msg = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, header.flags, header.status,
                                                 header.srcStreamId, header.destStreamId, header.payloadLength,
                                                 payload, storage->buffer);
        storage->lent = true;
        m_blockBytesReceived += KxIpclibFirstBlockHeaderSize + header.payloadLength;
        m_bytesReceived += header.payloadLength;
        ++m_msgsReceived;
        addIncomingMessage(std::move(msg));
        KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId,
                    KxIpcStatusSuccess);
        return KxIpcStatusSuccess;
    }
    uint32_t headerLength = KxIpclibNextBlockHeaderSize;
    if (header.first()) {
        if (m_partial || header.totalSize < header.payloadLength)
            return fail(KxIpcStatusProtocolError);
        m_partial = std::make_shared<KxIpclibMsg>(static_cast<KxIpclibMsgType>(header.msgType), header.flags,
                                                  header.status, header.srcStreamId, header.destStreamId,
                                                  header.totalSize);
        headerLength = KxIpclibFirstBlockHeaderSize;
    } else if (!m_partial) {
        return fail(KxIpcStatusProtocolError);
    }
    m_blockBytesReceived += headerLength;
    const auto type = m_partial->msgType();
    if (header.payloadLength != 0) {
        if (m_partial->appendData(header.payloadLength, payload) != KxIpcStatusSuccess)
            return fail(KxIpcStatusProtocolError);
        if (type == KxIpclibMsgType::Msg)
            m_bytesReceived += header.payloadLength;
        m_blockBytesReceived += header.payloadLength;
    }
    if (header.last()) {
        if (m_partial->remaining() != 0)
            return fail(KxIpcStatusProtocolError);
        if (type == KxIpclibMsgType::OpenAck) {
            completeConnectExistingLink(static_cast<KxIpcStatusCode>(header.status), header.flags, header.srcStreamId,
                                        3);
        } else {
            if (type == KxIpclibMsgType::Open && !ValidOpenPayload(*m_partial))
                return fail(KxIpcStatusProtocolError);
            if (type == KxIpclibMsgType::Msg)
                ++m_msgsReceived;
            addIncomingMessage(std::move(m_partial));
        }
        m_partial.reset();
    }
    KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId, KxIpcStatusSuccess);
    return KxIpcStatusSuccess;
}

void KxIpclibStream::deferredDispatch()
{
    Lock lock(m_mutex);
    queueDispatch();
}

void KxIpclibStream::dispatchInline()
{
    Lock lock(m_mutex);
    if (!m_accepted || m_incoming.empty() || m_dispatchState != 0 || !m_dispatchTask)
        return;
    // Taken as if the task were queued: a pass on another thread meanwhile
    // only adds to m_incoming, and the loop in dispatch delivers it in order.
    m_dispatchState = 1;
    lock.unlock();
    dispatch();
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

void KxIpclibStream::queueDispatch()
{
    if (m_accepted && !m_incoming.empty() && m_dispatchState == 0 && m_dispatchTask) {
        m_dispatchState = 1;
        m_dispatchTask.submit(shared_from_this());
    }
}

void KxIpclibStream::queueEmptyMsg()
{
    auto eos = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, 0, 0, nullptr, m_streamId, m_peerStreamId, 0,
                                             nullptr, KxIpclibMsgCompletion());
    addIncomingMessage(std::move(eos));
    m_deliveryState = 2;
    queueDispatch();
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

void KxIpclibStream::addIncomingMessage(std::shared_ptr<KxIpclibMsg> msg)
{
    msg->setStream(shared_from_this());
    m_undeliveredBytes += msg->size();
    m_incoming.push_back(std::move(msg));
}

KxIpcStatusCode KxIpclibStream::sendProto(KxIpclibMsgType type, KxIpcStatusCode status, uint32_t flags)
{
    if (!m_link)
        return KxIpcStatusInvalidState;
    auto msg = std::make_shared<KxIpclibMsg>(type, flags, status, nullptr, m_streamId, m_peerStreamId, 0, nullptr,
                                             [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
    return m_link->send(std::move(msg));
}

// Tasks (without the lock on entry).

void KxIpclibStream::dispatch()
{
    Lock lock(m_mutex);
    if (m_dispatchState != 1)
        return;
    while (!m_incoming.empty()) {
        m_dispatchState = 2;
        auto batch = std::move(m_incoming);
        m_incoming.clear();
        uint64_t batchBytes = 0;
        for (const auto& msg : batch)
            batchBytes += msg->size();
        auto link = m_link;
        lock.unlock();
        // However delivery ends, the batch no longer counts as backlog, and a
        // link that paused for it may take transfers again.
        struct Delivered {
            KxIpclibStream& stream;
            uint64_t bytes;
            const std::shared_ptr<KxIpclibLink>& link;
            ~Delivered()
            {
                stream.m_undeliveredBytes -= bytes;
                if (link && link->recvPaused())
                    link->resumeRecv();
            }
        } delivered{*this, batchBytes, link};
        size_t next = 0;
        try {
            deliver(batch, next);
        } catch (...) {
            // A receive function that throws (the control stream does, on a
            // peer's protocol violation) loses only the message it was given:
            // those behind it go back in front of anything newer and are
            // delivered by the next run, so a hostile message cannot swallow
            // an "Open" that shared its transfer. The executor logs the
            // exception.
            lock.lock();
            for (size_t i = batch.size(); i > next && m_dispatchTask; --i) {
                delivered.bytes -= batch[i - 1]->size();
                m_incoming.push_front(batch[i - 1]);
            }
            m_dispatchState = 0;
            queueDispatch();
            throw;
        }
        lock.lock();
    }
    m_dispatchState = 0;
}

void KxIpclibStream::deliver(const std::deque<std::shared_ptr<KxIpclibMsg>>& batch, size_t& next)
{
    while (next < batch.size()) {
        const auto& msg = batch[next++];
        switch (msg->msgType()) {
        case KxIpclibMsgType::Open:
        case KxIpclibMsgType::Msg:
            onProtoMsg(msg);
            break;
        case KxIpclibMsgType::Close:
            onProtoClose();
            break;
        case KxIpclibMsgType::CloseAck:
            onProtoCloseAck();
            break;
        case KxIpclibMsgType::Shutdown:
            shutdown();
            break;
        default:
            break;
        }
    }
}

void KxIpclibStream::onProtoMsg(const std::shared_ptr<KxIpclibMsg>& msg)
{
    m_onRecv(KxIpcStatusSuccess, msg);  // an empty receive function throws std::bad_function_call
    if (msg->size() == 0) {
        Lock lock(m_mutex);
        m_deliveryState = 3;
        shutdownStream();
    }
}

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
