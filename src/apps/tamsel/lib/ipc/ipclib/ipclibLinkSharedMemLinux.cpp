#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkSharedMemLinux.h"

#include <tamsel/ipc/ipclibStream.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibStreamCtrl.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"
#include <tamsel/ipc/ipclibTransfer.h>

#include <tolv/log/Log.h>
#include "platform/LittleEndian.h"

#include <exception>

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibLinkSharedMemLinux";

bool Usable(KxIpclibLinkState state)
{
    return state == KxIpclibLinkState::Connecting || state == KxIpclibLinkState::Connected ||
           state == KxIpclibLinkState::Closing;
}

} // namespace

KxIpclibLinkSharedMemLinux::KxIpclibLinkSharedMemLinux(const _GUID& endpoint, uint32_t linkFlags,
                                                       const std::u16string& linkName, uint32_t peerProcessId,
                                                       std::function<void(KxIpclibLink&)> onLinkClosed,
                                                       const std::shared_ptr<KxIpclibLinkListener>& linkListener,
                                                       uint32_t sectionSize, tolv::platform::UniqueFd peerProcess,
                                                       tolv::platform::UniqueFd peerPipe)
    : KxIpclibLink(endpoint, linkFlags, linkName, peerProcessId, std::move(onLinkClosed), linkListener),
      m_sectionSize(sectionSize),
      m_peerProcess(std::move(peerProcess)),
      m_peerPipe(std::move(peerPipe))
{
}

KxIpclibLinkSharedMemLinux::~KxIpclibLinkSharedMemLinux()
{
    // Wait callbacks hold only weak references: this runs on a pool thread
    // only from inside one of them, which closing allows.
    if (m_executor) {
        for (auto* wait : {&m_recvWait, &m_bufferFreeWait, &m_peerErrorWait, &m_peerStopWait, &m_peerExitWait})
            if (*wait)
                m_executor->closeWaitTask(*wait);
    }
}

int KxIpclibLinkSharedMemLinux::create(int& errorCode)
{
    KXIPC_TRACE(Link, "> m_state: {}, linkId: {:#x}", m_state, m_linkId);
    auto send = std::make_shared<KxIpclibLinkChannelSharedMemLinux>(m_sectionSize);
    auto recv = std::make_shared<KxIpclibLinkChannelSharedMemLinux>(m_sectionSize);
    if (send->create(errorCode) != 0 || recv->create(errorCode) != 0)
        return 1;
    m_sendChannel = std::move(send);
    m_recvChannel = std::move(recv);
    KXIPC_TRACE(Link, "< m_state: {}, linkId: {:#x}, status: {}", m_state, m_linkId, KxIpcStatusSuccess);
    return 0;
}

int KxIpclibLinkSharedMemLinux::attach(KxIpclibLinkChannelResourceLinux sendToPeer,
                                       KxIpclibLinkChannelResourceLinux recvFromPeer, int& errorCode)
{
    auto send = std::make_shared<KxIpclibLinkChannelSharedMemLinux>(m_sectionSize);
    auto recv = std::make_shared<KxIpclibLinkChannelSharedMemLinux>(m_sectionSize);
    if (send->attach(std::move(sendToPeer), errorCode) != 0 || recv->attach(std::move(recvFromPeer), errorCode) != 0)
        return 1;
    m_sendChannel = std::move(send);
    m_recvChannel = std::move(recv);
    return 0;
}

void KxIpclibLinkSharedMemLinux::setPeer(uint32_t peerProcessId, tolv::platform::UniqueFd peerProcess)
{
    LinkLock lock(m_lock);
    m_peerProcessId = peerProcessId;
    m_peerProcess = std::move(peerProcess);
}

uint32_t KxIpclibLinkSharedMemLinux::stopReason()
{
    LinkLock lock(m_lock);
    return m_stopReason;
}

std::shared_ptr<tamsel::task::WtpWaitTaskContext> KxIpclibLinkSharedMemLinux::makeWait(
    int fd, void (*onSignal)(KxIpclibLinkSharedMemLinux&))
{
    std::weak_ptr<KxIpclibLink> weak = weak_from_this();
    return m_executor->createWaitTask(fd, [weak, onSignal] {
        if (auto link = weak.lock())
            onSignal(static_cast<KxIpclibLinkSharedMemLinux&>(*link));
    });
}

void KxIpclibLinkSharedMemLinux::arm(const std::shared_ptr<tamsel::task::WtpWaitTaskContext>& wait)
{
    if (wait && m_executor)
        m_executor->armWait(wait);
}

void KxIpclibLinkSharedMemLinux::disarm(const std::shared_ptr<tamsel::task::WtpWaitTaskContext>& wait)
{
    if (wait && m_executor)
        m_executor->disarmWait(wait);
}

KxIpcStatusCode KxIpclibLinkSharedMemLinux::start(std::shared_ptr<tamsel::task::TaskExecutor> executor,
                                                  unsigned int& out)
{
    KXIPC_TRACE(Link, "> m_state: {}, linkId: {:#x}", m_state, m_linkId);
    if (!m_sendChannel || !m_recvChannel || !executor)
        return KxIpcStatusInvalidState;
    m_recvPool = std::make_shared<KxIpclibRecvBufferPool>(m_sectionSize);
    m_recvStorage.buffer = m_recvPool->take();
    if (!m_recvStorage.buffer)
        return KxIpcStatusOutOfMemory;
    KxIpcStatusCode status = KxIpclibLink::start(executor, out);
    LinkLock lock(m_lock);
    if (status == KxIpcStatusSuccess) {
        // Armed only while messages wait for the peer to free the buffer;
        // performDeferredSend takes the peer's signal and re-arms as needed.
        m_bufferFreeWait = makeWait(m_sendChannel->bufferFreeEvent(), [](KxIpclibLinkSharedMemLinux& link) {
            LinkLock lock(link.m_lock);
            link.performDeferredSend(lock);
        });
        m_peerErrorWait = makeWait(m_sendChannel->errorEvent(), [](KxIpclibLinkSharedMemLinux& link) {
            LinkLock lock(link.m_lock);
            link.m_stopReason = 2;
            link.linkError(lock);
        });
        m_peerStopWait = makeWait(m_sendChannel->stopEvent(), [](KxIpclibLinkSharedMemLinux& link) {
            LinkLock lock(link.m_lock);
            link.m_stopReason = 1;
            link.stop(lock);
        });
        m_recvWait = makeWait(m_recvChannel->dataReadyEvent(), [](KxIpclibLinkSharedMemLinux& link) {
            link.onRecvReady();
        });
        // The peer watch: its process, else the pipe it holds open. Either
        // becomes readable when the peer is gone.
        const int watch = m_peerProcess ? m_peerProcess.get() : m_peerPipe.get();
        if (watch < 0) {
            KXIPC_TRACE(Link, "< m_state: {}, linkId: {:#x}, Error: peer handle or pipe not found", m_state, m_linkId);
            status = KxIpcStatusUnexpected;
        } else {
            m_peerExitWait = makeWait(watch, [](KxIpclibLinkSharedMemLinux& link) {
                LinkLock lock(link.m_lock);
                link.m_stopReason = 3;
                link.linkError(lock);
            });
        }
        if (status == KxIpcStatusSuccess &&
            (!m_bufferFreeWait || !m_peerErrorWait || !m_peerStopWait || !m_recvWait || !m_peerExitWait))
            status = KxIpcStatusOutOfMemory;
    }
    if (status != KxIpcStatusSuccess) {
        linkError(lock);
        KXIPC_TRACE(Link, "- m_state: {}, linkId: {:#x}, status: {}", m_state, m_linkId, status);
        return status;
    }
    // The first transfer waits until the peer has freed the buffer.
    m_sendState = kSendWaitingForPeer;
    m_state = KxIpclibLinkState::Connected;
    if (m_peerProcess)
        KXIPC_TRACE(Link, "< m_state: {}, linkId: {:#x}, start notification on peer process", m_state, m_linkId);
    else
        KXIPC_TRACE(Link, "< m_state: {}, linkId: {:#x}, start notification on peer pipe", m_state, m_linkId);
    arm(m_peerExitWait);
    if (!m_sendQueue.empty())
        arm(m_bufferFreeWait);
    arm(m_recvWait);
    arm(m_peerErrorWait);
    arm(m_peerStopWait);
    lock.unlock();
    m_recvChannel->signalBufferFree();
    return KxIpcStatusSuccess;
}

void KxIpclibLinkSharedMemLinux::onRecvReady()
{
    KxIpclibLinkChannelSharedMemLinux::Consume(m_recvChannel->dataReadyEvent());
    KxIpclibStreamMap touched;
    if (recv(touched) != KxIpcStatusSuccess)
        return;
    // The pass is over and the buffer is the peer's again. One stream is
    // delivered on this thread, saving a hand-off: the last one, so that a
    // receive function that blocks holds up no other stream of the pass. The
    // control stream, whose handling is rare and may throw, stays a task.
    std::shared_ptr<KxIpclibStream> inlineStream;
    for (auto& [id, stream] : touched) {
        if (inlineStream)
            inlineStream->deferredDispatch();
        inlineStream.reset();
        if (stream->isControl())
            stream->deferredDispatch();
        else
            inlineStream = stream;
    }
    if (!inlineStream)
        return;
    // The delivery is no part of the receive pass: a stop that waits for the
    // pass must not wait for a receive function, which may itself wait for
    // the stop (for sends that only the stop completes).
    tamsel::task::DisassociateCurrentThreadFromCallback();
    try {
        inlineStream->dispatchInline();
    } catch (const std::exception& e) {
        LOG_ERROR("KxIpclibLinkSharedMemLinux::onRecvReady()", "A receive function raised an exception: %s",
                  e.what());
    } catch (...) {
        LOG_ERROR("KxIpclibLinkSharedMemLinux::onRecvReady()", "A receive function raised an exception.");
    }
}

KxIpcStatusCode KxIpclibLinkSharedMemLinux::recv(KxIpclibStreamMap& streamsTouched)
{
    KXIPC_TRACE(Link, "> m_state: {}, linkId: {:#x}", m_state, m_linkId);
    if (m_sectionSize >= KxIpclibTransferHeaderSize) {
        // What the peer announces, before anything is checked.
        const volatile uint8_t* section = m_recvChannel->view();
        uint8_t header[KxIpclibTransferHeaderSize];
        for (size_t i = 0; i < sizeof header; ++i)
            header[i] = section[i];
        KXIPC_TRACE(Link, "linkId: {:#x}, trxSeqNo: {}, trxSize: {:#x}", m_linkId,
                    tolv::platform::LoadLe<uint64_t>(header + 8), tolv::platform::LoadLe<uint32_t>(header + 20));
    }
    KxIpcStatusCode status =
        readTransfer(m_recvChannel->view(), m_sectionSize, m_recvStorage.buffer.get(), m_recvSeqNo,
                     [&](const KxIpclibBlock& block) {
                         m_bytesReceived += block.header.blockLength;
                         if (block.header.msgType == static_cast<uint32_t>(KxIpclibMsgType::Msg))
                             m_payloadBytesReceived += block.header.payloadLength;
                         auto stream = findStream(block.header.srcStreamId, block.header.destStreamId, streamsTouched);
                         if (!stream)
                             return KxIpcStatusSuccess;  // no such stream: skipped
                         const KxIpcStatusCode result = stream->recvBlock(block.header, block.payload,
                                                                          &m_recvStorage);
                         return result == KxIpcStatusProtocolError ? result : KxIpcStatusSuccess;
                     });
    if (status == KxIpcStatusSuccess && m_recvStorage.lent) {
        // A message keeps this buffer: the next transfer goes into another.
        m_recvStorage.lent = false;
        m_recvStorage.buffer = m_recvPool->take();
        if (!m_recvStorage.buffer)
            status = KxIpcStatusOutOfMemory;
    }
    if (status != KxIpcStatusSuccess) {
        linkError();  // the peer's buffer stays taken
        KXIPC_TRACE(Link, "< m_state: {}, linkId: {:#x}, status: {}", m_state, m_linkId, status);
        return status;
    }
    LinkLock lock(m_lock);
    // Paused before the streams are looked at: a stream that delivers
    // meanwhile either is seen below its limit here or sees the pause and
    // resumes us.
    m_recvPaused = true;
    for (const auto& [id, stream] : streamsTouched)
        if (stream->backlogged()) {
            KXIPC_TRACE(Link, "- linkId: {:#x}, receive paused: stream {:#x} holds {} undelivered bytes", m_linkId,
                        id, stream->undeliveredBytes());
            return status;  // the peer's buffer stays taken until the stream catches up
        }
    takeNextTransfer(lock);
    return status;
}

void KxIpclibLinkSharedMemLinux::takeNextTransfer(LinkLock&)
{
    m_recvPaused = false;
    if (m_recvWait && m_state != KxIpclibLinkState::Closed && m_state != KxIpclibLinkState::Error &&
        m_state != KxIpclibLinkState::ShuttingDown) {
        arm(m_recvWait);
        m_recvChannel->signalBufferFree();
    }
}

void KxIpclibLinkSharedMemLinux::resumeRecv()
{
    LinkLock lock(m_lock);
    if (!m_recvPaused)
        return;
    for (const auto& [id, stream] : m_streams)
        if (stream->backlogged())
            return;
    KXIPC_TRACE(Link, "- linkId: {:#x}, receive resumed", m_linkId);
    takeNextTransfer(lock);
}

void KxIpclibLinkSharedMemLinux::performDeferredSend(LinkLock& lock)
{
    if (m_sendState == KxIpclibSendWriting)
        return;
    if (m_sendState == kSendWaitingForPeer) {
        // The peer's signal is taken here, by whoever sends next, rather than
        // by a wait that would wake a thread for every transfer.
        if (!KxIpclibLinkChannelSharedMemLinux::Consume(m_sendChannel->bufferFreeEvent())) {
            if (!m_sendQueue.empty() && Usable(m_state))
                arm(m_bufferFreeWait);  // its signal sends what is queued
            return;
        }
        m_sendState = KxIpclibSendIdle;
    }
    if (m_sendQueue.empty()) {
        m_sendState = KxIpclibSendIdle;
        return;
    }
    uint8_t* unit = m_sendChannel->view();
    uint32_t used = KxIpclibTransferHeaderSize;
    uint32_t blockCount = 0;
    // A section smaller than its transfer header has no room at all.
    auto room = [&] { return used < m_sectionSize ? m_sectionSize - used : 0u; };
    if (room() <= KxIpclibMinBlockRoom) {
        // A section too small for one block can carry nothing, ever: fail
        // rather than hand the peer transfers without blocks.
        KXIPC_TRACE(Link, "- linkId: {:#x}, section of {} bytes holds no block", m_linkId, m_sectionSize);
        m_sendState = KxIpclibSendIdle;
        linkError(lock);
        return;
    }
    std::vector<std::shared_ptr<KxIpclibMsg>> written, failed;
    bool finishClosing = false;
    do {
        auto local = std::move(m_sendQueue);
        m_sendQueue.clear();
        m_sendState = KxIpclibSendWriting;
        lock.unlock();
        while (!local.empty() && room() > KxIpclibMinBlockRoom) {
            auto& msg = local.front();
            const uint32_t length = writeBlock(*msg, unit + used, m_sectionSize - used);
            const bool last = tolv::platform::LoadLe<uint32_t>(unit + used + 4) & KxIpclibBlockLast;
            m_bytesSent += length;
            m_payloadBytesSent += tolv::platform::LoadLe<uint32_t>(unit + used + 32);
            used += length;
            ++blockCount;
            if (last) {
                written.push_back(std::move(msg));
                local.pop_front();
            }
        }
        lock.lock();
        if (local.empty() && m_state == KxIpclibLinkState::Closing) {
            finishClosing = true;
        } else if (m_state == KxIpclibLinkState::Error || m_state == KxIpclibLinkState::ShuttingDown) {
            failed.insert(failed.end(), local.begin(), local.end());
            finishClosing = true;
        } else {
            // A message cut at the end of the unit continues in the next one.
            m_sendQueue.insert(m_sendQueue.begin(), local.begin(), local.end());
        }
    } while (room() > KxIpclibMinBlockRoom && !m_sendQueue.empty());

    finishTransfer(unit, used, blockCount, ++m_sendSeqNo);
    m_sendState = kSendWaitingForPeer;
    if (!m_sendQueue.empty() && Usable(m_state))
        arm(m_bufferFreeWait);
    lock.unlock();
    m_sendChannel->signalDataReady();
    for (auto& msg : written)
        msg->sendComplete(KxIpcStatusSuccess);
    for (auto& msg : failed)
        msg->sendComplete(KxIpcStatusStreamClosed);
    if (finishClosing) {
        lock.lock();
        shutdownLinkWithCheck(lock);
    }
}

void KxIpclibLinkSharedMemLinux::stop(LinkLock& lock)
{
    KXIPC_TRACE(Link, "> m_state: {}, linkId: {:#x}", m_state, m_linkId);
    if (m_state == KxIpclibLinkState::Error) {
        m_state = KxIpclibLinkState::ShuttingDown;
        auto queue = std::move(m_sendQueue);
        m_sendQueue.clear();
        auto streams = std::move(m_streams);
        m_streams.clear();
        stopRecvWorker(lock);  // leaves the lock released
        stopWorkers();
        for (auto& msg : queue)
            msg->sendComplete(KxIpcStatusStreamClosed);
        for (auto& [id, stream] : streams)
            stream->shutdown();
        lock.lock();
        if (m_sendState == KxIpclibSendWriting)
            return;  // the writer finishes the close when it is done
        m_sendState = KxIpclibSendIdle;
        shutdownLinkWithCheck(lock);
    } else if (m_state == KxIpclibLinkState::Connected) {
        m_state = KxIpclibLinkState::Closing;
        // The streams leave the link now; each closes on its own from here.
        auto streams = std::move(m_streams);
        m_streams.clear();
        if (streams.empty()) {
            if (m_sendState == kSendWaitingForPeer)
                m_sendState = KxIpclibSendIdle;
            shutdownLinkWithCheck(lock);
        } else {
            std::deque<std::shared_ptr<KxIpclibMsg>> queue;
            if (m_stopReason == 1) {  // the peer stopped: nothing more can go out
                queue = std::move(m_sendQueue);
                m_sendQueue.clear();
                m_sendState = KxIpclibSendIdle;
            }
            lock.unlock();
            for (auto& msg : queue)
                msg->sendComplete(KxIpcStatusStreamClosed);
            // A closing link sends nothing more, so each close completes at
            // once with its own acknowledgement, and no timer is needed.
            for (auto& [id, stream] : streams)
                stream->close(std::chrono::milliseconds::max());
            // With no stream left the link closes once its queue is written;
            // the writer finishes it if it is still busy.
            lock.lock();
            shutdownLinkWithCheck(lock);
        }
    }
    if (lock.owns_lock())
        KXIPC_TRACE(Link, "< m_state: {}, linkId: {:#x}", m_state, m_linkId);
}

void KxIpclibLinkSharedMemLinux::stopRecvWorker(LinkLock& lock)
{
    auto wait = std::move(m_recvWait);
    m_recvWait.reset();
    disarm(wait);
    lock.unlock();
    if (wait && m_executor)
        m_executor->closeWaitTask(wait);  // waits for a running receive pass
}

void KxIpclibLinkSharedMemLinux::stopWorkers()
{
    std::shared_ptr<KxIpclibStreamCtrl> control;
    {
        LinkLock lock(m_lock);
        KXIPC_TRACE(Link, "> m_state: {}, linkId: {:#x}", m_state, m_linkId);
        control = std::move(m_controlStream);
        m_controlStream.reset();
        for (auto* wait : {&m_peerExitWait, &m_bufferFreeWait, &m_recvWait, &m_peerErrorWait, &m_peerStopWait})
            disarm(*wait);
    }
    if (control)
        control->stop();
}

void KxIpclibLinkSharedMemLinux::linkStop(LinkLock&)
{
    // A link that failed before its channels were made has nobody to tell.
    if (m_stopReason == 0 && m_recvChannel)
        m_recvChannel->signalStop();
}

void KxIpclibLinkSharedMemLinux::linkError(LinkLock& lock)
{
    KXIPC_TRACE(Link, "> m_state: {}, linkId: {:#x}", m_state, m_linkId);
    if (m_state == KxIpclibLinkState::Closed || m_state == KxIpclibLinkState::ShuttingDown)
        return;
    if (m_stopReason == 0 && m_recvChannel)
        m_recvChannel->signalError();
    m_state = KxIpclibLinkState::Error;
    stop(lock);
}

void KxIpclibLinkSharedMemLinux::linkError()
{
    LinkLock lock(m_lock);
    linkError(lock);
}

} // namespace tamsel::ipc
