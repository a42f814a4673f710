#include "peer/DriveSession.h"

#include "peer/NtStatusText.h"
#include "platform/LittleEndian.h"
#include <tolv/platform/NtStatus.h>

#include <isa-l/crc.h>

#include <algorithm>
#include <deque>

using namespace tolv::worker;

DriveSession::DriveSession(DriveClient& client, std::chrono::milliseconds timeout, uint32_t chunk)
    : m_client(client), m_timeout(timeout), m_chunk(std::clamp<uint32_t>(chunk, 1, kChunk))
{
}

std::optional<DriveReply> DriveSession::Call(std::vector<uint8_t> record, uint64_t ioContext, std::string& error)
{
    if (!m_client.Submit(ioContext, std::move(record))) {
        error = "the request could not be sent";
        return std::nullopt;
    }
    return m_client.Wait(ioContext, m_timeout, error);
}

bool DriveSession::CheckStatus(const DriveReply& reply, const char* what, std::string& error)
{
    if (reply.header.status == 0)
        return true;
    error = std::string(what) + " failed: " + NtStatusText(reply.header.status);
    return false;
}

bool DriveSession::Query(uint8_t letter, const std::u16string& path, DR_QUERY_DISK_RSP& info, std::string& error)
{
    const uint64_t io = m_client.NextIoContext();
    auto reply = Call(EncodeQueryDiskRequest(io, letter, 0, path), io, error);
    if (!reply || !CheckStatus(*reply, "query", error))
        return false;
    if (!DecodeQueryDiskResponse(reply->payload.data(), reply->payload.size(), info)) {
        error = "query reply too short";
        return false;
    }
    return true;
}

bool DriveSession::Read(uint8_t letter, uint64_t offset, uint32_t length, std::vector<uint8_t>& data,
                        std::string& error)
{
    if (length > m_chunk) {
        // Several requests in flight at once, each reply fitting one transfer,
        // straight into `data`: no reply is split and put back together first.
        data.clear();
        data.reserve(length);
        uint64_t done = 0;
        return Range(
            letter, offset, length,
            [&data](const uint8_t* bytes, size_t count) {
                data.insert(data.end(), bytes, bytes + count);
                return true;
            },
            true, nullptr, done, nullptr, error);
    }
    const uint64_t io = m_client.NextIoContext();
    auto reply = Call(EncodeReadRequest(io, letter, 0, offset, length), io, error);
    if (!reply || !CheckStatus(*reply, "read", error))
        return false;
    tolv::platform::LeReader reader(reply->payload.data(), reply->payload.size());
    uint32_t bytesRead = 0;
    if (!reader.u32(bytesRead) || bytesRead > length || reply->payload.size() - DR_READ_RSP_SIZE != bytesRead) {
        error = "read reply does not hold the bytes it counts";
        return false;
    }
    data.assign(reply->payload.begin() + DR_READ_RSP_SIZE, reply->payload.end());
    return true;
}

bool DriveSession::Write(uint8_t letter, uint64_t offset, const uint8_t* data, uint32_t length, std::string& error)
{
    const uint64_t io = m_client.NextIoContext();
    auto reply = Call(EncodeWriteRequest(io, letter, 0, offset, data, length), io, error);
    if (!reply || !CheckStatus(*reply, "write", error))
        return false;
    if (reply->header.information != length) {
        error = "write was short: " + std::to_string(reply->header.information) + " of " + std::to_string(length) +
                " bytes";
        return false;
    }
    return true;
}

bool DriveSession::Release(uint8_t letter, std::string& error)
{
    if (m_client.SendOnly(EncodeReleaseDiskRequest(m_client.NextIoContext(), letter)))
        return true;
    error = "the release could not be sent";
    return false;
}

bool DriveSession::ReadRange(uint8_t letter, uint64_t offset, uint64_t size,
                            const std::function<bool(const uint8_t*, size_t)>& sink, bool allowShort, uint32_t& crc,
                            uint64_t& done, const Progress& progress, std::string& error)
{
    return Range(letter, offset, size, sink, allowShort, &crc, done, progress, error);
}

bool DriveSession::Range(uint8_t letter, uint64_t offset, uint64_t size,
                         const std::function<bool(const uint8_t*, size_t)>& sink, bool allowShort, uint32_t* crc,
                         uint64_t& done, const Progress& progress, std::string& error)
{
    struct InFlight {
        uint64_t io;
        uint64_t offset;
        uint32_t length;
    };
    std::deque<InFlight> window;
    uint64_t next = 0;
    done = 0;
    if (crc)
        *crc = 0;
    while (done < size) {
        while (window.size() < kWindow && next < size) {
            const uint32_t length = static_cast<uint32_t>(std::min<uint64_t>(m_chunk, size - next));
            const uint64_t io = m_client.NextIoContext();
            if (!m_client.Submit(io, EncodeReadRequest(io, letter, 0, offset + next, length))) {
                error = "the request could not be sent";
                return false;
            }
            window.push_back({io, offset + next, length});
            next += length;
        }
        const InFlight head = window.front();
        window.pop_front();
        auto reply = m_client.Wait(head.io, m_timeout, error);
        if (!reply)
            return false;
        if (allowShort && done > 0 && reply->header.status == tolv::platform::STATUS_END_OF_FILE)
            return true;  // the range went past the end
        if (!CheckStatus(*reply, "read", error))
            return false;
        tolv::platform::LeReader reader(reply->payload.data(), reply->payload.size());
        uint32_t bytesRead = 0;
        if (!reader.u32(bytesRead) || bytesRead > head.length ||
            reply->payload.size() - DR_READ_RSP_SIZE != bytesRead) {
            error = "read reply does not hold the bytes it counts";
            return false;
        }
        if (bytesRead != head.length && !allowShort) {
            error = "read at offset " + std::to_string(head.offset) + " returned " + std::to_string(bytesRead) +
                    " of " + std::to_string(head.length) + " bytes";
            return false;
        }
        const uint8_t* bytes = reply->payload.data() + DR_READ_RSP_SIZE;
        if (crc)
            *crc = crc32_gzip_refl(*crc, bytes, bytesRead);
        if (!sink(bytes, bytesRead)) {
            error = "the data could not be stored";
            return false;
        }
        done += bytesRead;
        if (progress)
            progress(done, size);
        if (bytesRead != head.length)
            return true;  // short: the end of the drive
    }
    return true;
}

bool DriveSession::WriteRange(uint8_t letter, uint64_t offset, uint64_t size,
                              const std::function<bool(uint8_t*, size_t)>& source, uint32_t& crc,
                              const Progress& progress, std::string& error)
{
    struct InFlight {
        uint64_t io;
        uint32_t length;
    };
    std::deque<InFlight> window;
    std::vector<uint8_t> chunk(m_chunk);
    uint64_t next = 0;
    uint64_t done = 0;
    crc = 0;
    while (done < size) {
        while (window.size() < kWindow && next < size) {
            const uint32_t length = static_cast<uint32_t>(std::min<uint64_t>(m_chunk, size - next));
            if (!source(chunk.data(), length)) {
                error = "the source could not be read";
                return false;
            }
            crc = crc32_gzip_refl(crc, chunk.data(), length);
            const uint64_t io = m_client.NextIoContext();
            if (!m_client.Submit(io, EncodeWriteRequest(io, letter, 0, offset + next, chunk.data(), length))) {
                error = "the request could not be sent";
                return false;
            }
            window.push_back({io, length});
            next += length;
        }
        const InFlight head = window.front();
        window.pop_front();
        auto reply = m_client.Wait(head.io, m_timeout, error);
        if (!reply || !CheckStatus(*reply, "write", error))
            return false;
        if (reply->header.information != head.length) {
            error = "a write was short: " + std::to_string(reply->header.information) + " of " +
                    std::to_string(head.length) + " bytes";
            return false;
        }
        done += head.length;
        if (progress)
            progress(done, size);
    }
    return true;
}
