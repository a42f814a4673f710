#include "peer/DriveClient.h"

DriveClient::DriveClient(SendFunction send) : m_send(std::move(send)) {}

void DriveClient::OnMessage(const uint8_t* data, size_t size, std::shared_ptr<const void> keep)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (size == 0) {
        m_down = true;
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
        if (m_down || !m_pending.emplace(ioContext, Pending{}).second)
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
    const bool arrived =
        m_changed.wait_for(lock, timeout, [&] { return it->second.done || m_down; }) && it->second.done;
    if (!arrived) {
        error = m_down ? "the worker closed the command stream" : "no reply in time";
        m_pending.erase(it);
        return std::nullopt;
    }
    DriveReply reply = std::move(it->second.reply);
    m_pending.erase(it);
    return reply;
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
