#pragma once
// Drive operations of the peer on top of DriveClient: query, read, write and
// release one drive letter, and whole-drive copies that keep a window of 1 MiB
// requests in flight. Failures come back as text that names the NT status.

#include "peer/DriveClient.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

class DriveSession {
public:
    // Whole 4 KiB blocks of drive data per request: with a read reply's
    // header and count, or a write request's header, it fits one transfer
    // of the largest section, so no message is split or copied twice.
    static constexpr uint32_t kChunk = 1020u << 10;
    static constexpr unsigned kWindow = 8;

    // Called after every finished chunk of a copy with (bytes done, total).
    using Progress = std::function<void(uint64_t, uint64_t)>;

    // `chunk`: drive bytes per request of the range operations, at most kChunk.
    DriveSession(DriveClient& client, std::chrono::milliseconds timeout, uint32_t chunk = kChunk);

    bool Query(uint8_t letter, const std::u16string& path, tolv::worker::DR_QUERY_DISK_RSP& info, std::string& error);
    // `data` gets the bytes read, fewer than `length` where the drive ends. A
    // read longer than one request is sent as several, in flight together.
    bool Read(uint8_t letter, uint64_t offset, uint32_t length, std::vector<uint8_t>& data, std::string& error);
    bool Write(uint8_t letter, uint64_t offset, const uint8_t* data, uint32_t length, std::string& error);
    // A release has no reply; false only when it could not be sent.
    bool Release(uint8_t letter, std::string& error);

    // Reads [offset, offset + size) into `sink` in order with kWindow requests
    // in flight; `crc` receives the CRC-32 of the bytes and `done` their count.
    // A short reply ends the range early when `allowShort`, else it fails.
    bool ReadRange(uint8_t letter, uint64_t offset, uint64_t size,
                   const std::function<bool(const uint8_t*, size_t)>& sink, bool allowShort, uint32_t& crc,
                   uint64_t& done, const Progress& progress, std::string& error);
    // Writes `size` bytes taken from `source` (which fills the buffer it is
    // given, false on a read failure) at `offset`, kWindow requests in flight.
    bool WriteRange(uint8_t letter, uint64_t offset, uint64_t size,
                    const std::function<bool(uint8_t*, size_t)>& source, uint32_t& crc, const Progress& progress,
                    std::string& error);

private:
    // ReadRange without the CRC when `crc` is null.
    bool Range(uint8_t letter, uint64_t offset, uint64_t size, const std::function<bool(const uint8_t*, size_t)>& sink,
               bool allowShort, uint32_t* crc, uint64_t& done, const Progress& progress, std::string& error);
    std::optional<DriveReply> Call(std::vector<uint8_t> record, uint64_t ioContext, std::string& error);
    bool CheckStatus(const DriveReply& reply, const char* what, std::string& error);

    DriveClient& m_client;
    std::chrono::milliseconds m_timeout;
    uint32_t m_chunk;
};
