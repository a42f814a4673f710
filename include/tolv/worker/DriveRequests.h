#pragma once
// Drive request and reply records: one record is the whole payload of one IPC
// message on the peer's command stream. All fields are little-endian; the
// worker writes zero into every reserved byte it sends.
//
// Decoders read from untrusted bytes: each checks the room before every field
// and copies what it keeps, so a record is read once and never past its end.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tolv::worker {

inline constexpr uint32_t DR_MSG_QUERY_DISK = 0x12;
inline constexpr uint32_t DR_MSG_RELEASE_DISK = 0x13;
inline constexpr uint32_t DR_MSG_READ = 0x26;
inline constexpr uint32_t DR_MSG_WRITE = 0x27;

// On a write, this ioContext (the whole 64-bit value) asks for no reply.
inline constexpr uint64_t DR_IOCONTEXT_NO_RESPONSE = 0x00000000BEEFBEEFull;

inline constexpr size_t DR_REQ_HEADER_SIZE = 24;
inline constexpr size_t DR_RSP_HEADER_SIZE = 32;
inline constexpr size_t DR_QUERY_DISK_REQ_MIN_SIZE = 6;  // id and the terminating zero
inline constexpr size_t DR_READ_REQ_SIZE = 20;
inline constexpr size_t DR_WRITE_REQ_SIZE = 24;           // fields before the data
inline constexpr size_t DR_QUERY_DISK_RSP_SIZE = 32;
inline constexpr size_t DR_READ_RSP_SIZE = 4;             // bytesRead before the data

struct DR_REQ_HEADER {
    uint64_t ioContext = 0;
    uint32_t messageCode = 0;
    uint32_t drive = 0;  // only the low byte names the drive

    uint8_t driveLetter() const { return static_cast<uint8_t>(drive & 0xFF); }
};

struct DR_QUERY_DISK_REQ {
    uint32_t id = 0;
    std::u16string path;  // without its terminating zero
};

struct DR_READ_REQ {
    uint32_t id = 0;
    uint64_t offset = 0;
    uint32_t length = 0;
};

struct DR_WRITE_REQ {
    uint32_t id = 0;
    uint64_t offset = 0;
    uint32_t length = 0;
    const uint8_t* data = nullptr;  // `length` bytes inside the request message
};

struct DR_RSP_HEADER {
    uint64_t ioContext = 0;
    uint32_t status = 0;
    uint64_t information = 0;
    uint32_t payloadLength = 0;
};

struct DR_QUERY_DISK_RSP {
    uint64_t diskSize = 0;
    uint8_t readOnly = 1;
    uint32_t mediaType = 0;
    uint32_t tracksPerCylinder = 0;
    uint32_t sectorsPerTrack = 0;
    uint32_t bytesPerSector = 0;
};

// Request side, as the worker reads it. Each returns false when the bytes are
// too short for the record (or, for a query, hold no terminating zero).
bool DecodeRequestHeader(const uint8_t* record, size_t size, DR_REQ_HEADER& out);
bool DecodeQueryDiskRequest(const uint8_t* payload, size_t size, DR_QUERY_DISK_REQ& out);
bool DecodeReadRequest(const uint8_t* payload, size_t size, DR_READ_REQ& out);
bool DecodeWriteRequest(const uint8_t* payload, size_t size, DR_WRITE_REQ& out);

// Reply side, as the worker writes it: exactly the record's size at `out`.
void EncodeResponseHeader(uint8_t* out, const DR_RSP_HEADER& header);
void EncodeQueryDiskResponse(uint8_t* out, const DR_QUERY_DISK_RSP& payload);

// The peer's side: whole request records, and reply decoders.
std::vector<uint8_t> EncodeQueryDiskRequest(uint64_t ioContext, uint32_t drive, uint32_t id,
                                            const std::u16string& path);
std::vector<uint8_t> EncodeReleaseDiskRequest(uint64_t ioContext, uint32_t drive);
std::vector<uint8_t> EncodeReadRequest(uint64_t ioContext, uint32_t drive, uint32_t id, uint64_t offset,
                                       uint32_t length);
std::vector<uint8_t> EncodeWriteRequest(uint64_t ioContext, uint32_t drive, uint32_t id, uint64_t offset,
                                        const uint8_t* data, uint32_t length);
bool DecodeResponseHeader(const uint8_t* record, size_t size, DR_RSP_HEADER& out);
bool DecodeQueryDiskResponse(const uint8_t* payload, size_t size, DR_QUERY_DISK_RSP& out);

} // namespace tolv::worker
