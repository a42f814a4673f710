#pragma once
// KxIpclibMsg: a typed, sized payload addressed from one stream id to another.
// A message either owns its buffer (received messages, allocated at the first
// append) or references the sender's bytes, which the sender keeps valid and
// unchanged until the completion function has run.
//
// Threads: a message is filled by one thread at a time; sendComplete runs on
// the transport's thread and calls out with no lock held.

#include <tamsel/ipc/ipclibTypes.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace tamsel::ipc {

class KxIpclibStream;
class KxIpclibMsg;

using KxIpclibMsgCompletion = std::function<void(KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>)>;

// Bit 0 of a message's flags: the message counts as an outstanding send of its stream.
inline constexpr uint32_t KxIpclibMsgFlagOutstanding = 0x1;

// Tells the sending stream that one of its messages completed; defined with
// the stream, which releases its outstanding-send count there.
void streamSendComplete(KxIpclibStream& stream, const std::shared_ptr<KxIpclibMsg>& msg);

class KxIpclibMsg : public std::enable_shared_from_this<KxIpclibMsg> {
public:
    // Receive form: an owning message of `totalSize` bytes, filled by appendData.
    KxIpclibMsg(KxIpclibMsgType type, uint32_t flags, uint32_t status, uint64_t srcStreamId, uint64_t destStreamId,
                uint32_t totalSize);
    // Receive form of a message that arrived whole: `size` bytes at `data`
    // inside `storage`, which the message keeps alive; nothing to append.
    KxIpclibMsg(KxIpclibMsgType type, uint32_t flags, uint32_t status, uint64_t srcStreamId, uint64_t destStreamId,
                uint32_t size, const uint8_t* data, std::shared_ptr<const void> storage);
    // Send form: references `size` bytes at `data` (null only with size 0).
    KxIpclibMsg(KxIpclibMsgType type, uint32_t flags, uint32_t status, std::shared_ptr<KxIpclibStream> stream,
                uint64_t srcStreamId, uint64_t destStreamId, uint32_t size, const void* data,
                KxIpclibMsgCompletion completion);
    virtual ~KxIpclibMsg();

    KxIpclibMsg(const KxIpclibMsg&) = delete;
    KxIpclibMsg& operator=(const KxIpclibMsg&) = delete;

    uint64_t msgId() const { return m_msgId; }
    KxIpclibMsgType msgType() const { return m_msgType; }
    uint32_t flags() const { return m_flags; }
    uint32_t status() const { return m_status; }
    uint64_t srcStreamId() const { return m_srcStreamId; }
    uint64_t destStreamId() const { return m_destStreamId; }
    uint32_t size() const { return m_size; }
    uint32_t remaining() const { return m_remaining; }
    const uint8_t* data() const { return m_data; }
    bool ownsBuffer() const { return m_ownsBuffer; }
    uint32_t completionStatus() const { return m_completionStatus; }
    std::shared_ptr<KxIpclibStream> stream() const { return m_stream; }

    // Set when a received message is queued for delivery on a stream.
    void setStream(std::shared_ptr<KxIpclibStream> stream) { m_stream = std::move(stream); }

    // Appends to an owning message: 8 (InvalidState) when the buffer is not
    // ours, 6 (BufferTooSmall) past the room left; the message is unchanged
    // then. Throws std::bad_alloc when the buffer cannot be allocated.
    KxIpcStatusCode appendData(uint32_t length, const void* bytes);

    // Starts transmission again from the first byte.
    void resetCursor();

    // The next `count` payload bytes to send, and moving past them.
    const uint8_t* sendCursor() const { return m_data + (m_size - m_remaining); }
    void advance(uint32_t count) { m_remaining -= count; }

    // Called once per queued message by the transport: 0 after its last block
    // went to the peer, 12 when the link gave it up unsent.
    void sendComplete(KxIpcStatusCode status);

private:
    uint64_t m_msgId;
    KxIpclibMsgType m_msgType;
    uint32_t m_flags;
    uint32_t m_status;
    std::shared_ptr<KxIpclibStream> m_stream;
    uint64_t m_srcStreamId;
    uint64_t m_destStreamId;
    uint32_t m_size;
    uint32_t m_remaining;
    uint32_t m_blockCursor = 0;
    uint8_t* m_data;
    size_t m_capacity = 0;  // bytes allocated at m_data, when the buffer is ours
    uint32_t m_completionStatus = 0xFFFF;
    KxIpclibMsgCompletion m_completion;
    std::shared_ptr<const void> m_storage;  // what a borrowed payload lives in
    bool m_ownsBuffer;
};

} // namespace tamsel::ipc
