#pragma once
// KxIpclibRecvBufferPool: the private receive buffers of one link. Every
// transfer is copied into one before it is checked. A buffer whose transfer
// carried a large message whole is lent to that message, so the message needs
// no second copy; it comes back here when the message goes, and the link reads
// the next transfer into another.
//
// Threads: take from the link's receive pass, give back from wherever a lent
// message is released; m_mutex guards the free list only.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace tamsel::ipc {

// A receive buffer as the receive pass hands it to the streams: a stream
// that keeps a message inside it takes a reference and sets `lent`.
struct KxIpclibRecvStorage {
    std::shared_ptr<uint8_t> buffer;
    bool lent = false;
};

class KxIpclibRecvBufferPool : public std::enable_shared_from_this<KxIpclibRecvBufferPool> {
public:
    // Free buffers kept for reuse; more are returned to the allocator.
    static constexpr size_t kKeep = 4;

    explicit KxIpclibRecvBufferPool(size_t bufferSize) : m_bufferSize(bufferSize) {}

    // A buffer of bufferSize bytes that comes back here with its last
    // reference; null when none can be allocated.
    std::shared_ptr<uint8_t> take();
    size_t freeCount();

private:
    void give(uint8_t* buffer);

    const size_t m_bufferSize;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<uint8_t[]>> m_free;  // guarded by m_mutex
};

} // namespace tamsel::ipc
