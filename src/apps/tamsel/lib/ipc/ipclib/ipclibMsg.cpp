#include <tamsel/ipc/ipclibMsg.h>

#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace tamsel::ipc {

namespace {
constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibMsg";
// A received message's buffer starts this large (or at its size) and doubles.
constexpr size_t kFirstCapacity = 64 * 1024;
} // namespace

KxIpclibMsg::KxIpclibMsg(KxIpclibMsgType type, uint32_t flags, uint32_t status, uint64_t srcStreamId,
                         uint64_t destStreamId, uint32_t totalSize)
    : m_msgId(nextMsgId()),
      m_msgType(type),
      m_flags(flags),
      m_status(status),
      m_srcStreamId(srcStreamId),
      m_destStreamId(destStreamId),
      m_size(totalSize),
      m_remaining(totalSize),
      m_data(nullptr),
      m_ownsBuffer(true)
{
    KXIPC_TRACE(Msg, "- srcStreamId: {:#x}, destStreamId: {:#x}, msgId: {}", m_srcStreamId, m_destStreamId, m_msgId);
}

KxIpclibMsg::KxIpclibMsg(KxIpclibMsgType type, uint32_t flags, uint32_t status, uint64_t srcStreamId,
                         uint64_t destStreamId, uint32_t size, const uint8_t* data, std::shared_ptr<const void> storage)
    : m_msgId(nextMsgId()),
      m_msgType(type),
      m_flags(flags),
      m_status(status),
      m_srcStreamId(srcStreamId),
      m_destStreamId(destStreamId),
      m_size(size),
      m_remaining(0),
      m_data(const_cast<uint8_t*>(data)),  // only read: const is restored by the accessors
      m_storage(std::move(storage)),
      m_ownsBuffer(false)
{
    KXIPC_TRACE(Msg, "- srcStreamId: {:#x}, destStreamId: {:#x}, msgId: {}", m_srcStreamId, m_destStreamId, m_msgId);
}

KxIpclibMsg::KxIpclibMsg(KxIpclibMsgType type, uint32_t flags, uint32_t status, std::shared_ptr<KxIpclibStream> stream,
                         uint64_t srcStreamId, uint64_t destStreamId, uint32_t size, const void* data,
                         KxIpclibMsgCompletion completion)
    : m_msgId(nextMsgId()),
      m_msgType(type),
      m_flags(flags),
      m_status(status),
      m_stream(std::move(stream)),
      m_srcStreamId(srcStreamId),
      m_destStreamId(destStreamId),
      m_size(size),
      m_remaining(size),
      // The sender's bytes are only read; const is restored by the accessors.
      m_data(static_cast<uint8_t*>(const_cast<void*>(data))),
      m_completion(std::move(completion)),
      m_ownsBuffer(false)
{
    KXIPC_TRACE(Msg, "- srcStreamId: {:#x}, destStreamId: {:#x}, msgId: {}", m_srcStreamId, m_destStreamId, m_msgId);
}

KxIpclibMsg::~KxIpclibMsg()
{
    KXIPC_TRACE(Msg, "- srcStreamId: {:#x}, destStreamId: {:#x}, msgId: {}", m_srcStreamId, m_destStreamId, m_msgId);
    if (m_ownsBuffer)
        std::free(m_data);
}

KxIpcStatusCode KxIpclibMsg::appendData(uint32_t length, const void* bytes)
{
    KXIPC_TRACE(Msg, "> srcStreamId: {:#x}, destStreamId: {:#x}, msgId: {}", m_srcStreamId, m_destStreamId, m_msgId);
    KxIpcStatusCode status = KxIpcStatusSuccess;
    if (!m_ownsBuffer) {
        status = KxIpcStatusInvalidState;
    } else if (length > m_remaining) {
        status = KxIpcStatusBufferTooSmall;
    } else {
        // The buffer grows with the bytes that actually arrive, up to the size
        // the sender announced: a peer cannot make us hold memory it never sends.
        const size_t filled = m_size - m_remaining;
        if (m_data == nullptr || filled + length > m_capacity) {
            size_t capacity = std::max<size_t>({filled + length, m_capacity * 2, kFirstCapacity});
            capacity = std::min<size_t>(capacity, m_size == 0 ? 1 : m_size);
            if (auto* grown = static_cast<uint8_t*>(std::realloc(m_data, capacity))) {
                m_data = grown;
                m_capacity = capacity;
            } else {
                KXIPC_TRACE(Msg, "< srcStreamId: {:#x}, destStreamId: {:#x}, msgId: {}, ", m_srcStreamId,
                            m_destStreamId, m_msgId);
                throw std::bad_alloc();
            }
        }
        if (m_data == nullptr) {
            KXIPC_TRACE(Msg, "< srcStreamId: {:#x}, destStreamId: {:#x}, msgId: {}, ", m_srcStreamId, m_destStreamId,
                        m_msgId);
            throw std::bad_alloc();
        }
        if (length != 0)
            std::memcpy(m_data + (m_size - m_remaining), bytes, length);
        m_remaining -= length;
    }
    KXIPC_TRACE(Msg, "< srcStreamId: {:#x}, destStreamId: {:#x}, msgId: {}, ", m_srcStreamId, m_destStreamId, m_msgId);
    return status;
}

void KxIpclibMsg::resetCursor()
{
    m_remaining = m_size;
    m_blockCursor = 0;
}

void KxIpclibMsg::sendComplete(KxIpcStatusCode status)
{
    KXIPC_TRACE(Msg, "> srcStreamId: {:#x}, destStreamId: {:#x}, msgId: {}", m_srcStreamId, m_destStreamId, m_msgId);
    auto self = shared_from_this();
    m_completion(status, self);  // an empty completion throws std::bad_function_call
    m_completionStatus = status;
    if (m_stream)
        streamSendComplete(*m_stream, self);
    KXIPC_TRACE(Msg, "< srcStreamId: {:#x}, destStreamId: {:#x}, msgId: {}, ", m_srcStreamId, m_destStreamId,
                m_msgId);
}

} // namespace tamsel::ipc
