// KxIpclibStream: the receive side. Rebuilds messages from the link's blocks,
// queues them, and delivers them in order to the receive function and the
// protocol steps.

#include <tamsel/ipc/ipclibStream.h>

#include "apps/tamsel/lib/ipc/ipclib/ipclibLink.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include "platform/LittleEndian.h"

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibStreamRecv";

// What a valid "Open" carries: a name of at least one UTF-16 unit that lies
// inside the message.
bool ValidOpenPayload(const KxIpclibMsg& msg)
{
    if (msg.size() < 5 || msg.data() == nullptr)
        return false;
    const uint32_t nameLength = tolv::platform::LoadLe<uint32_t>(msg.data());
    return nameLength >= 2 && nameLength <= msg.size() - 4;
}

} // namespace

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

// Queueing for delivery (m_mutex held).

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

void KxIpclibStream::addIncomingMessage(std::shared_ptr<KxIpclibMsg> msg)
{
    msg->setStream(shared_from_this());
    m_undeliveredBytes += msg->size();
    m_incoming.push_back(std::move(msg));
}

// Delivery (without the lock on entry).

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

} // namespace tamsel::ipc
