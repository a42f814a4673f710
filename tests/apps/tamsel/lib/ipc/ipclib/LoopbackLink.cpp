#include "LoopbackLink.h"

#include <tamsel/ipc/ipclibBlock.h>
#include <tamsel/ipc/ipclibStream.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibStreamCtrl.h"

#include "platform/LittleEndian.h"

#include <chrono>
#include <thread>

namespace tamsel::ipc::testing {

LoopbackLink::LoopbackLink(const std::shared_ptr<KxIpclibLinkListener>& listener, uint32_t unitRoom)
    : KxIpclibLink(_GUID{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}}, 0, u"loopback", 4242,
                   [](KxIpclibLink& link) { ++static_cast<LoopbackLink&>(link).m_closedCalls; }, listener),
      m_unitRoom(unitRoom)
{
}

LoopbackLink::~LoopbackLink() = default;

std::pair<std::shared_ptr<LoopbackLink>, std::shared_ptr<LoopbackLink>> LoopbackLink::CreatePair(
    const std::shared_ptr<tamsel::task::TaskExecutor>& executor,
    const std::shared_ptr<KxIpclibLinkListener>& listenerA, const std::shared_ptr<KxIpclibLinkListener>& listenerB,
    uint32_t unitRoom)
{
    auto a = std::make_shared<LoopbackLink>(listenerA, unitRoom);
    auto b = std::make_shared<LoopbackLink>(listenerB, unitRoom);
    a->m_peer = b;
    b->m_peer = a;
    for (auto& link : {a, b}) {
        unsigned int out = 0;
        link->connecting();
        link->start(executor, out);
        LinkLock lock(link->m_lock);
        link->m_state = KxIpclibLinkState::Connected;
    }
    return {a, b};
}

void LoopbackLink::injectUnit(std::vector<uint8_t> unit)
{
    deliver(std::move(unit));
}

void LoopbackLink::deliver(std::vector<uint8_t> unit)
{
    {
        std::lock_guard<std::mutex> guard(m_inboxLock);
        m_inbox.push_back(std::move(unit));
    }
    queueRecv();
}

void LoopbackLink::performDeferredSend(LinkLock& lock)
{
    auto peer = m_peer.lock();
    while (!m_sendQueue.empty()) {
        m_sendState = KxIpclibSendWriting;
        std::vector<uint8_t> unit(m_unitRoom);
        uint32_t used = 0;
        std::vector<std::shared_ptr<KxIpclibMsg>> done;
        while (!m_sendQueue.empty() && m_unitRoom - used > KxIpclibMinBlockRoom) {
            auto& msg = m_sendQueue.front();
            const uint32_t written = writeBlock(*msg, unit.data() + used, m_unitRoom - used);
            const bool last = tolv::platform::LoadLe<uint32_t>(unit.data() + used + 4) & KxIpclibBlockLast;
            used += written;
            if (last) {
                done.push_back(std::move(msg));
                m_sendQueue.pop_front();
            }
        }
        unit.resize(used);
        // The unit goes to the peer and the messages complete without the link's lock.
        lock.unlock();
        if (peer)
            peer->deliver(std::move(unit));
        for (auto& msg : done)
            msg->sendComplete(peer ? KxIpcStatusSuccess : KxIpcStatusStreamClosed);
        lock.lock();
    }
    m_sendState = KxIpclibSendIdle;
    shutdownLinkWithCheck(lock);
}

KxIpcStatusCode LoopbackLink::recv(KxIpclibStreamMap& streamsTouched)
{
    std::lock_guard<std::mutex> pass(m_recvLock);
    std::deque<std::vector<uint8_t>> units;
    {
        std::lock_guard<std::mutex> guard(m_inboxLock);
        units.swap(m_inbox);
    }
    for (const auto& unit : units) {
        size_t offset = 0;
        while (offset < unit.size()) {
            KxIpclibBlock block;
            KxIpcStatusCode status = readBlock(unit.data() + offset, unit.size() - offset, block);
            if (status == KxIpcStatusSuccess) {
                if (auto stream = findStream(block.header.srcStreamId, block.header.destStreamId, streamsTouched))
                    status = stream->recvBlock(block.header, block.payload);
                if (status == KxIpcStatusInvalidState)
                    status = KxIpcStatusSuccess;  // a block for a stream that cannot take it is not a link fault
            }
            if (status != KxIpcStatusSuccess) {
                m_lastError = status;
                linkError();
                return status;
            }
            offset += block.header.blockLength;
        }
    }
    return KxIpcStatusSuccess;
}

void LoopbackLink::stop(LinkLock& lock)
{
    if (m_state == KxIpclibLinkState::Connecting || m_state == KxIpclibLinkState::Connected)
        m_state = KxIpclibLinkState::Closing;
    // Unsent messages complete with StreamClosed; streams end. Both without the lock.
    auto unsent = std::move(m_sendQueue);
    m_sendQueue.clear();
    std::vector<std::shared_ptr<KxIpclibStream>> streams;
    for (auto& [id, stream] : m_streams)
        streams.push_back(stream);
    auto control = m_controlStream;
    lock.unlock();
    for (auto& msg : unsent)
        msg->sendComplete(KxIpcStatusStreamClosed);
    for (auto& stream : streams)
        stream->shutdown();
    if (control)
        control->shutdown();
    lock.lock();
    shutdownLinkWithCheck(lock);
    if (!lock.owns_lock())
        lock.lock();
}

bool LoopbackLink::closeAndDrain()
{
    close();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    auto control = controlStream();
    while (std::chrono::steady_clock::now() < deadline) {
        if (streamCount() == 0 && (!control || control->peerProcessId() == 0))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

void LoopbackLink::linkError()
{
    LinkLock lock(m_lock);
    if (m_state != KxIpclibLinkState::Closed && m_state != KxIpclibLinkState::ShuttingDown)
        m_state = KxIpclibLinkState::Error;
}

void LoopbackLink::linkStop(LinkLock&)
{
}

TestLinkListener::TestLinkListener(std::shared_ptr<tamsel::task::TaskExecutor> executor, Handler handler)
    : KxIpclibLinkListener(
          _GUID{}, Flags<KxIpclibListenerFlag>(KxIpclibListenerFlag::Local), std::move(executor),
          [handler = std::move(handler)](std::shared_ptr<KxIpclibStream> stream) {
              handler(stream);
              switch (stream->state()) {
              case KxIpclibStreamState::Init:
                  return KxIpcStatusUnexpected;  // no decision
              case KxIpclibStreamState::Closed:
                  return stream->rejectStatus();
              default:
                  return KxIpcStatusSuccess;
              }
          },
          nullptr, nullptr)
{
}

} // namespace tamsel::ipc::testing
