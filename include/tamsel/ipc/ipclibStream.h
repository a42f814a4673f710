#pragma once
// KxIpclibStream: one bidirectional, message-oriented conversation with a
// stream of the peer, carried over a link. It rebuilds messages from blocks,
// runs the open/close handshake, and delivers received messages in order to
// the application's receive function after the link's receive pass, never
// from inside it: on the receiving thread when the stream has no delivery
// running or queued, else on the executor. Sends go to the link without
// copying, and are written on the sending thread when the channel is free.
//
// Threads: application operations, recvBlock, the close timer and the dispatch
// task serialise on m_mutex; onRecv runs on the executor without it, one
// message at a time. Lock order: m_mutex before the link's lock; the waiters'
// mutex is taken without m_mutex. Task handles are closed by the destructor,
// never under m_mutex, because their callbacks take m_mutex themselves.

#include <tamsel/ipc/ipclibBlock.h>
#include <tamsel/ipc/ipclibMsg.h>
#include <tamsel/ipc/ipclibRecvBufferPool.h>
#include <tamsel/ipc/ipclibTypes.h>
#include <tamsel/expected.h>

#include <tamsel/task/TaskContexts.h>
#include <tamsel/task/TaskExecutor.h>
#include <tamsel/task/WorkTask.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>

namespace tamsel::ipc {

class KxIpclibLink;

enum class KxIpclibStreamFlag : uint32_t {
    Control = 0x8000,  // set on the link's control stream; a peer's flags never make one
};

using KxIpclibRecvFunction = std::function<void(KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>)>;

class KxIpclibStream : public std::enable_shared_from_this<KxIpclibStream> {
public:
    // Complete messages a stream may hold undelivered before its link stops
    // taking the peer's transfers: a peer that sends faster than the
    // application takes its messages waits instead of growing our memory.
    static constexpr uint64_t kRecvBacklogBytes = 16u << 20;

    // The product's close time-out; tests may shorten it process-wide.
    static constexpr std::chrono::nanoseconds kCloseTimeout = std::chrono::seconds(10);
    static void setCloseTimeoutForTesting(std::chrono::nanoseconds timeout);

    KxIpclibStream(std::shared_ptr<KxIpclibLink> link, std::weak_ptr<tamsel::task::TaskExecutor> executor,
                   std::u16string name, Flags<KxIpclibStreamFlag> flags, uint64_t peerStreamId,
                   KxIpclibStreamState state);
    virtual ~KxIpclibStream();
    KxIpclibStream(const KxIpclibStream&) = delete;
    KxIpclibStream& operator=(const KxIpclibStream&) = delete;

    // Application operations.
    KxIpcStatusCode accept(Flags<KxIpclibStreamFlag> flags, KxIpclibRecvFunction onRecv);
    KxIpcStatusCode reject(KxIpcStatusCode reason);
    tamsel::expected<std::shared_ptr<KxIpclibMsg>, KxIpcStatusCode> send(uint32_t flags, uint32_t size,
                                                                         const void* data,
                                                                         KxIpclibMsgCompletion completion);
    // milliseconds::max(): wait for the peer's acknowledgement without a timer.
    KxIpcStatusCode close(std::chrono::milliseconds timeout);
    uint32_t peerProcessId();
    // The link the stream runs over; empty once the stream has left it.
    std::shared_ptr<KxIpclibLink> link();
    std::u16string name();

    // Opens a stream named `name` towards the peer on `link`: sends "Open" to
    // the peer's control stream and waits up to `timeout` for its "OpenAck".
    // The peer's refusal status, or 12 (StreamClosed) when the wait ends by a
    // close or the time-out, is returned instead of the stream.
    static tamsel::expected<std::shared_ptr<KxIpclibStream>, KxIpcStatusCode> open(
        const std::shared_ptr<KxIpclibLink>& link, const std::shared_ptr<tamsel::task::TaskExecutor>& executor,
        const std::u16string& name, Flags<KxIpclibStreamFlag> flags, KxIpclibRecvFunction onRecv,
        std::chrono::milliseconds timeout);

    // Waits until at most `threshold` sends are outstanding; false on time-out.
    bool waitForOutstandingSends(uint32_t threshold, std::chrono::milliseconds timeout);

    // Called by the rest of the library.
    KxIpcStatusCode recvBlock(const KxIpclibBlockHeader& header, const uint8_t* payload);
    // The same, for a payload inside the link's receive buffer: a large data
    // message that arrives in one block keeps the buffer instead of a copy.
    KxIpcStatusCode recvBlock(const KxIpclibBlockHeader& header, const uint8_t* payload,
                              KxIpclibRecvStorage* storage);
    // Data messages of at least this many bytes, whole in one block, borrow
    // the receive buffer; smaller ones are cheaper to copy.
    static constexpr uint32_t kBorrowBytes = 64u << 10;
    void deferredDispatch();
    // After a receive pass, on the receiving thread: runs the deliveries here
    // when none is running or queued, else leaves them to the one that is.
    // What the receive function throws comes out of this call.
    void dispatchInline();
    void onSendComplete(const std::shared_ptr<KxIpclibMsg>& msg);
    void shutdown();
    // For a stream the peer opened: accept answers the "Open".
    void setOnAcceptSendOpenAck(bool value);
    // For the first stream of a link the bootstrap set up: the reply names the
    // peer's stream. Only before accept; 8 otherwise.
    KxIpcStatusCode setPeerStreamId(uint64_t peerStreamId);
    KxIpcStatusCode rejectStatus();

    uint64_t streamId() const { return m_streamId; }
    // Fixed at construction, so it is read without the stream's lock.
    bool isControl() const { return m_isControl; }
    uint64_t peerStreamId();
    Flags<KxIpclibStreamFlag> flags();
    KxIpclibStreamState state();
    uint32_t outstandingSends() const { return m_outstandingSends.load(); }
    uint64_t bytesSent() const { return m_bytesSent.load(); }
    uint64_t bytesReceived() const { return m_bytesReceived.load(); }
    uint64_t msgsSent() const { return m_msgsSent.load(); }
    uint64_t msgsReceived() const { return m_msgsReceived.load(); }
    uint64_t blockBytesReceived() const { return m_blockBytesReceived.load(); }
    // Bytes of complete received messages not yet delivered.
    uint64_t undeliveredBytes() const { return m_undeliveredBytes.load(); }
    bool backlogged() const { return m_undeliveredBytes.load() > kRecvBacklogBytes; }

protected:
    // The control stream's own constructor.
    KxIpclibStream(std::shared_ptr<KxIpclibLink> link, std::weak_ptr<tamsel::task::TaskExecutor> executor,
                   std::u16string name, Flags<KxIpclibStreamFlag> flags, uint64_t peerStreamId,
                   KxIpclibStreamState state, bool isControl);

    using Lock = std::unique_lock<std::mutex>;

    // Internal steps, with m_mutex held.
    KxIpcStatusCode connectedInit();
    void startCloseTimer();
    void cancelCloseTimer();
    void queueDispatch();
    void queueEmptyMsg();
    void closeStream();
    void shutdownStream();
    void completeConnectExistingLink(KxIpcStatusCode status, uint32_t flags, uint64_t peerId, uint32_t newWait);
    void addIncomingMessage(std::shared_ptr<KxIpclibMsg> msg);
    // Without m_mutex.
    void decrementOustandingSends();

    void dispatch();
    // Delivers batch[next..] in order, advancing `next` past each message
    // before it is handed on.
    void deliver(const std::deque<std::shared_ptr<KxIpclibMsg>>& batch, size_t& next);
    void onProtoMsg(const std::shared_ptr<KxIpclibMsg>& msg);
    void onProtoClose();
    void onProtoCloseAck();
    void onCloseTimerExpired();
    // A protocol message of this stream to the peer, sent through the link.
    KxIpcStatusCode sendProto(KxIpclibMsgType type, KxIpcStatusCode status, uint32_t flags);

    std::mutex m_mutex;
    std::atomic<KxIpclibStreamState> m_state;  // written under m_mutex; read by trace lines without it
    bool m_accepted = false;
    const uint64_t m_streamId;
    const bool m_isControl;  // only KxIpclibStreamCtrl is one, whatever the flags say
    std::u16string m_name;
    Flags<KxIpclibStreamFlag> m_flags;
    KxIpcStatusCode m_rejectStatus = KxIpcStatusUnexpected;
    uint64_t m_peerStreamId;
    std::weak_ptr<tamsel::task::TaskExecutor> m_executor;
    KxIpclibRecvFunction m_onRecv;
    std::shared_ptr<KxIpclibLink> m_link;
    std::deque<std::shared_ptr<KxIpclibMsg>> m_incoming;
    bool m_onAcceptSendOpenAck = false;

    std::atomic<uint64_t> m_blockBytesReceived{0};
    std::atomic<uint64_t> m_undeliveredBytes{0};
    std::atomic<uint64_t> m_bytesSent{0};
    std::atomic<uint64_t> m_bytesReceived{0};
    std::atomic<uint64_t> m_msgsSent{0};
    std::atomic<uint64_t> m_msgsReceived{0};

    std::shared_ptr<KxIpclibMsg> m_partial;

    uint32_t m_connectWait = 0;  // 0 none, 1 waiting for OpenAck, 2 ended by close, 3 acknowledged
    KxIpcStatusCode m_connectStatus = KxIpcStatusSuccess;
    std::condition_variable m_connectCv;

    std::atomic<uint32_t> m_outstandingSends{0};
    struct Waiter {
        uint32_t threshold;
        std::condition_variable cv;
    };
    std::mutex m_waitersMutex;
    std::list<Waiter*> m_waiters;  // guarded by m_waitersMutex
    std::atomic<bool> m_hasWaiters{false};

    // Held from the first task on: the executor must never go inside one of
    // this stream's callbacks (a link released there may hold its last
    // reference), as it waits for every task still held, this one too.
    // Declared before the tasks, so it goes after them.
    std::shared_ptr<tamsel::task::TaskExecutor> m_executorHold;
    tamsel::task::WorkTask<void(std::shared_ptr<KxIpclibStream>)> m_dispatchTask;
    std::shared_ptr<tamsel::task::WtpTimerTaskContext> m_closeTimer;
    uint32_t m_dispatchState = 0;  // 0 idle, 1 queued, 2 running
    uint32_t m_deliveryState = 0;  // 1 delivering, 2 end-of-stream queued, 3 end-of-stream delivered
    uint32_t m_closeOrigin = 0;    // 1 we closed, 2 the peer closed, 3 our close timed out, 4 acknowledged
};

} // namespace tamsel::ipc
