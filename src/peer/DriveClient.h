#pragma once
// The peer's side of the drive records over one command stream: numbers each
// request by its ioContext, keeps several in flight, and hands every reply to
// the caller that waits for it. The transport is two seams, a send function
// and OnMessage, so the client works over any stream.
//
// Threads: Submit and Wait from any thread; OnMessage from the transport's
// delivery thread. m_mutex guards the pending table and is never held across
// the send function.

#include <tolv/worker/DriveRequests.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// Bytes that live inside a reply's storage.
class ByteView {
public:
    ByteView() = default;
    ByteView(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    const uint8_t* data() const { return m_data; }
    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    const uint8_t* begin() const { return m_data; }
    const uint8_t* end() const { return m_data + m_size; }
    uint8_t operator[](size_t i) const { return m_data[i]; }

private:
    const uint8_t* m_data = nullptr;
    size_t m_size = 0;
};

// A reply's payload is not copied out of the message that carried it: the
// reply keeps that message alive instead.
struct DriveReply {
    tolv::worker::DR_RSP_HEADER header;
    ByteView payload;
    std::shared_ptr<const void> storage;
};

class DriveClient {
public:
    // Sends one whole record; false when the transport refused it at once.
    using SendFunction = std::function<bool(std::shared_ptr<const std::vector<uint8_t>> record)>;

    explicit DriveClient(SendFunction send);

    // Every message from the worker, in order; size 0 means the channel is
    // down. `keep` holds the bytes for as long as the reply is used; without
    // it they are copied.
    void OnMessage(const uint8_t* data, size_t size, std::shared_ptr<const void> keep = nullptr);

    uint64_t NextIoContext();
    // Sends a request whose reply will be waited for with Wait(ioContext).
    bool Submit(uint64_t ioContext, std::vector<uint8_t> record);
    // Sends a request that has no reply (a release, a write with the
    // no-response ioContext).
    bool SendOnly(std::vector<uint8_t> record);
    // The reply to `ioContext`, or nothing on time-out or channel down (then
    // `error` says which). While replies come back quickly the caller spins
    // for a little before it sleeps: waking a sleeping thread costs more than
    // such a reply takes.
    std::optional<DriveReply> Wait(uint64_t ioContext, std::chrono::milliseconds timeout, std::string& error);

    // Ends every wait at once, now and later, and refuses new requests; a
    // request without a reply (a release) still goes.
    void Interrupt();

    bool ChannelDown();
    // Replies that matched no request, and malformed replies.
    uint64_t StrayReplies();

private:
    struct Pending {
        bool done = false;
        DriveReply reply;
    };

    SendFunction m_send;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<uint64_t, Pending> m_pending;  // guarded by m_mutex
    bool m_down = false;                    // guarded by m_mutex
    bool m_interrupted = false;             // guarded by m_mutex
    uint64_t m_stray = 0;                   // guarded by m_mutex
    uint64_t m_nextIoContext = 1;           // guarded by m_mutex
    // Replies and channel-down events so far: a waiter that spins watches it
    // without the lock.
    std::atomic<uint64_t> m_arrivals{0};
    // How long the last wait took; short waits are spun before sleeping.
    std::atomic<int64_t> m_lastWaitNs{INT64_MAX};
};
