#pragma once
// KxIpclibLink: one transport connection to the peer process. It owns the
// streams that run over it, the queue of messages its transport writes, and
// the control stream that answers the peer's requests to open streams. The
// transport derives from it and moves the bytes.
//
// Lock order: a stream's mutex may be held when the link's lock is taken
// (send, removeStream); the link never takes a stream's mutex while holding
// its own lock. onLinkClosed and stopWorkers run after the lock is released.

#include <tamsel/ipc/ipclibMsg.h>
#include <tamsel/ipc/ipclibTypes.h>

#include <tamsel/task/TaskExecutor.h>
#include <tamsel/task/WorkTask.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace tamsel::ipc {

class KxIpclibLinkListener;
class KxIpclibStream;
class KxIpclibStreamCtrl;

using KxIpclibStreamMap = std::map<uint64_t, std::shared_ptr<KxIpclibStream>>;

// Values of the link's send state that the base knows; the transport may use others.
inline constexpr uint32_t KxIpclibSendIdle = 1;
inline constexpr uint32_t KxIpclibSendQueued = 2;
// A transfer sits in the section until the peer frees the buffer.
inline constexpr uint32_t KxIpclibSendWaitingForPeer = 3;
inline constexpr uint32_t KxIpclibSendWriting = 4;

class KxIpclibLink : public std::enable_shared_from_this<KxIpclibLink> {
public:
    using LinkLock = std::unique_lock<std::mutex>;

    KxIpclibLink(const _GUID& endpoint, uint32_t linkFlags, const std::u16string& linkName, uint32_t peerProcessId,
                 std::function<void(KxIpclibLink&)> onLinkClosed,
                 const std::shared_ptr<KxIpclibLinkListener>& linkListener);
    virtual ~KxIpclibLink();
    KxIpclibLink(const KxIpclibLink&) = delete;
    KxIpclibLink& operator=(const KxIpclibLink&) = delete;

    // Base part of starting: the control stream and the send and receive tasks.
    virtual KxIpcStatusCode start(std::shared_ptr<tamsel::task::TaskExecutor> executor, unsigned int& out);
    // Transport operations.
    virtual void stop(LinkLock& lock) = 0;
    virtual KxIpcStatusCode recv(KxIpclibStreamMap& streamsTouched) = 0;
    virtual void stopWorkers() = 0;
    virtual void linkError() = 0;
    virtual void linkStop(LinkLock& lock) = 0;
    virtual void performDeferredSend(LinkLock& lock) = 0;
    // A stream has delivered enough of its backlog: a transport that stopped
    // taking transfers because of it takes them again. Called without locks.
    virtual void resumeRecv() {}
    // True while the transport leaves the peer's transfers where they are
    // because a stream has too much undelivered data.
    bool recvPaused() const { return m_recvPaused.load(); }

    KxIpcStatusCode connecting();
    // Queues a message for the transport; 8 unless Connecting or Connected.
    // With `writeNow` given and the send channel free, the caller is handed the
    // write instead of the send task: it must call flushSend() once it holds
    // none of its own locks. Without it, or with the channel busy, the message
    // waits for the send task or the peer freeing the buffer.
    KxIpcStatusCode send(std::shared_ptr<KxIpclibMsg> msg, bool* writeNow = nullptr);
    // Writes what is queued on the calling thread, unless another thread
    // writes or the section waits for the peer.
    void flushSend();
    KxIpcStatusCode addStream(const std::shared_ptr<KxIpclibStream>& stream);
    KxIpcStatusCode eraseStream(const std::shared_ptr<KxIpclibStream>& stream);
    KxIpcStatusCode removeStream(const std::shared_ptr<KxIpclibStream>& stream);
    std::shared_ptr<KxIpclibStream> findStream(uint64_t srcStreamId, uint64_t destStreamId,
                                               KxIpclibStreamMap& streamsTouched);
    std::shared_ptr<KxIpclibLinkListener> getLinkListener();
    void close();
    void shutdown();
    // Closes the link when it has no stream left and is stopping; true when it did.
    bool shutdownLinkWithCheck(LinkLock& lock);

    uint64_t linkId() const { return m_linkId; }
    const _GUID& endpoint() const { return m_endpoint; }
    uint32_t linkFlags() const { return m_linkFlags; }
    void addLinkFlags(uint32_t flags) { m_linkFlags |= flags; }
    uint32_t peerProcessId() const { return m_peerProcessId.load(); }
    // What the peer said of its own side of the link when it was set up.
    uint64_t peerLinkId() const { return m_peerLinkId.load(); }
    void setPeerLinkId(uint64_t id) { m_peerLinkId = id; }
    uint32_t peerVersion() const { return m_peerVersion.load(); }
    // Byte counters of the transport: whole blocks (headers included) and
    // payload bytes, each way. Received payload counts data blocks only.
    uint64_t bytesSent() const { return m_bytesSent.load(); }
    uint64_t payloadBytesSent() const { return m_payloadBytesSent.load(); }
    uint64_t bytesReceived() const { return m_bytesReceived.load(); }
    uint64_t payloadBytesReceived() const { return m_payloadBytesReceived.load(); }
    void setPeerVersion(uint32_t version) { m_peerVersion = version; }
    uint64_t controlStreamId();
    std::shared_ptr<KxIpclibStreamCtrl> controlStream();
    KxIpclibLinkState state();
    size_t streamCount();

    // Submits the receive task: one receive pass, then delivery on the touched streams.
    void queueRecv();

protected:
    // With the lock held: hands the queue to the send task unless it is already queued.
    void queueDeferredSend(LinkLock& lock);

    const uint64_t m_linkId;
    std::mutex m_lock;  // guards everything below unless stated
    KxIpclibLinkState m_state = KxIpclibLinkState::Init;
    const _GUID m_endpoint;
    uint32_t m_linkFlags;
    std::u16string m_linkName;
    // Known at construction on the server; a client learns it from the bootstrap reply.
    std::atomic<uint32_t> m_peerProcessId;
    std::atomic<uint64_t> m_peerLinkId{0};
    std::atomic<uint32_t> m_peerVersion{0};
    std::atomic<uint64_t> m_bytesSent{0};
    std::atomic<uint64_t> m_payloadBytesSent{0};
    std::atomic<uint64_t> m_bytesReceived{0};
    std::atomic<uint64_t> m_payloadBytesReceived{0};
    std::shared_ptr<KxIpclibStreamCtrl> m_controlStream;
    uint64_t m_controlStreamId = 0;
    tamsel::task::WorkTask<void(std::weak_ptr<KxIpclibLink>)> m_sendTask;
    tamsel::task::WorkTask<void(std::weak_ptr<KxIpclibLink>)> m_recvTask;
    std::shared_ptr<tamsel::task::TaskExecutor> m_executor;
    std::deque<std::shared_ptr<KxIpclibMsg>> m_sendQueue;
    std::function<void(KxIpclibLink&)> m_onLinkClosed;
    KxIpclibStreamMap m_streams;
    uint32_t m_sendState = KxIpclibSendIdle;
    std::weak_ptr<KxIpclibLinkListener> m_linkListener;
    // Set under m_lock; read without it by streams after they deliver.
    std::atomic<bool> m_recvPaused{false};
};

} // namespace tamsel::ipc
