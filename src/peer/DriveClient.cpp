#include "peer/DriveClient.h"

#include <algorithm>

using namespace tolv::worker;

namespace {

inline void CpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

} // namespace

DriveClient::DriveClient(SendFunction send) : m_send(std::move(send)) {}

void DriveClient::OnMessage(const uint8_t* data, size_t size, std::shared_ptr<const void> keep)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (size == 0) {
        m_down = true;
        ++m_arrivals;
        m_changed.notify_all();
        return;
    }
    DR_RSP_HEADER header;
    if (!DecodeResponseHeader(data, size, header) || header.payloadLength != size - DR_RSP_HEADER_SIZE) {
        ++m_stray;
        return;
    }
    auto it = m_pending.find(header.ioContext);
    if (it == m_pending.end() || it->second.done) {
        ++m_stray;
        return;
    }
    if (!keep) {
        auto copy = std::make_shared<std::vector<uint8_t>>(data, data + size);
        data = copy->data();
        keep = std::move(copy);
    }
    it->second.done = true;
    it->second.reply.header = header;
    it->second.reply.payload = ByteView(data + DR_RSP_HEADER_SIZE, size - DR_RSP_HEADER_SIZE);
    it->second.reply.storage = std::move(keep);
    ++m_arrivals;
    m_changed.notify_all();
}

uint64_t DriveClient::NextIoContext()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    uint64_t value = m_nextIoContext++;
    if (value == DR_IOCONTEXT_NO_RESPONSE)  // that one asks a write for no reply
        value = m_nextIoContext++;
    return value;
}

bool DriveClient::Submit(uint64_t ioContext, std::vector<uint8_t> record)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_down || m_interrupted || !m_pending.emplace(ioContext, Pending{}).second)
            return false;
    }
    if (m_send(std::make_shared<const std::vector<uint8_t>>(std::move(record))))
        return true;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_pending.erase(ioContext);
    return false;
}

bool DriveClient::SendOnly(std::vector<uint8_t> record)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_down)
            return false;
    }
    return m_send(std::make_shared<const std::vector<uint8_t>>(std::move(record)));
}

std::optional<DriveReply> DriveClient::Wait(uint64_t ioContext, std::chrono::milliseconds timeout, std::string& error)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    auto it = m_pending.find(ioContext);
    if (it == m_pending.end()) {
        error = "no such request";
        return std::nullopt;
    }
    const auto start = std::chrono::steady_clock::now();
    const auto ready = [&] { return it->second.done || m_down || m_interrupted; };
    // Spin only while replies take less than kSpinLimit, for up to twice the
    // last wait: a slow reply (a large read, a slow disk) costs no CPU.
    constexpr int64_t kSpinLimitNs = 150000;
    const int64_t last = m_lastWaitNs.load(std::memory_order_relaxed);
    if (!ready() && last < kSpinLimitNs) {
        const auto until = start + std::chrono::nanoseconds(std::min(2 * last + 20000, kSpinLimitNs));
        uint64_t seen = m_arrivals.load(std::memory_order_acquire);
        lock.unlock();
        bool done = false;
        while (!done && std::chrono::steady_clock::now() < until) {
            for (int i = 0; i < 64 && m_arrivals.load(std::memory_order_acquire) == seen; ++i)
                CpuRelax();
            const uint64_t now = m_arrivals.load(std::memory_order_acquire);
            if (now != seen) {
                seen = now;
                lock.lock();
                done = ready();
                lock.unlock();
            }
        }
        lock.lock();
    }
    const bool arrived = m_changed.wait_for(lock, timeout, ready) && it->second.done && !m_interrupted;
    m_lastWaitNs.store(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start)
                           .count(),
                       std::memory_order_relaxed);
    if (!arrived) {
        error = m_interrupted ? "interrupted" : m_down ? "the worker closed the command stream" : "no reply in time";
        m_pending.erase(it);
        return std::nullopt;
    }
    DriveReply reply = std::move(it->second.reply);
    m_pending.erase(it);
    return reply;
}

void DriveClient::Interrupt()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_interrupted = true;
    ++m_arrivals;
    m_changed.notify_all();
}

bool DriveClient::ChannelDown()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_down;
}

uint64_t DriveClient::StrayReplies()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stray;
}
