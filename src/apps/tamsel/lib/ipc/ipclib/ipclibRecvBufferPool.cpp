#include <tamsel/ipc/ipclibRecvBufferPool.h>

#include <new>

namespace tamsel::ipc {

std::shared_ptr<uint8_t> KxIpclibRecvBufferPool::take()
{
    std::unique_ptr<uint8_t[]> buffer;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        if (!m_free.empty()) {
            buffer = std::move(m_free.back());
            m_free.pop_back();
        }
    }
    if (!buffer)
        buffer.reset(new (std::nothrow) uint8_t[m_bufferSize]);
    if (!buffer)
        return nullptr;
    // The pool outlives every buffer it handed out: the buffer holds it.
    auto self = shared_from_this();
    return std::shared_ptr<uint8_t>(buffer.release(), [self](uint8_t* p) { self->give(p); });
}

size_t KxIpclibRecvBufferPool::freeCount()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_free.size();
}

void KxIpclibRecvBufferPool::give(uint8_t* buffer)
{
    std::unique_ptr<uint8_t[]> owned(buffer);
    std::lock_guard<std::mutex> guard(m_mutex);
    if (m_free.size() < kKeep)
        m_free.push_back(std::move(owned));
}

} // namespace tamsel::ipc
