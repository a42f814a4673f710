#include <tolv/worker/DriveRequests.h>

#include "platform/LittleEndian.h"

#include <cstring>

namespace tolv::worker {

using tolv::platform::LeReader;
using tolv::platform::StoreLe;

bool DecodeRequestHeader(const uint8_t* record, size_t size, DR_REQ_HEADER& out)
{
    LeReader reader(record, size);
    DR_REQ_HEADER header;
    if (!reader.u64(header.ioContext) || !reader.u32(header.messageCode) || !reader.u32(header.drive) ||
        !reader.skip(8))
        return false;
    out = header;
    return true;
}

bool DecodeQueryDiskRequest(const uint8_t* payload, size_t size, DR_QUERY_DISK_REQ& out)
{
    LeReader reader(payload, size);
    DR_QUERY_DISK_REQ request;
    if (!reader.u32(request.id))
        return false;
    for (;;) {
        uint16_t unit = 0;
        if (!reader.u16(unit))
            return false;  // no terminating zero inside the message
        if (unit == 0)
            break;
        request.path.push_back(static_cast<char16_t>(unit));
    }
    out = std::move(request);
    return true;
}

bool DecodeReadRequest(const uint8_t* payload, size_t size, DR_READ_REQ& out)
{
    LeReader reader(payload, size);
    DR_READ_REQ request;
    if (!reader.u32(request.id) || !reader.skip(4) || !reader.u64(request.offset) || !reader.u32(request.length))
        return false;
    out = request;
    return true;
}

bool DecodeWriteRequest(const uint8_t* payload, size_t size, DR_WRITE_REQ& out)
{
    LeReader reader(payload, size);
    DR_WRITE_REQ request;
    if (!reader.u32(request.id) || !reader.skip(4) || !reader.u64(request.offset) || !reader.u32(request.length) ||
        !reader.skip(4) || !reader.bytes(request.length, request.data))
        return false;
    out = request;
    return true;
}

void EncodeResponseHeader(uint8_t* out, const DR_RSP_HEADER& header)
{
    std::memset(out, 0, DR_RSP_HEADER_SIZE);
    StoreLe<uint64_t>(out + 0, header.ioContext);
    StoreLe<uint32_t>(out + 8, header.status);
    StoreLe<uint64_t>(out + 16, header.information);
    StoreLe<uint32_t>(out + 24, header.payloadLength);
}

void EncodeQueryDiskResponse(uint8_t* out, const DR_QUERY_DISK_RSP& payload)
{
    std::memset(out, 0, DR_QUERY_DISK_RSP_SIZE);
    StoreLe<uint64_t>(out + 0, payload.diskSize);
    out[8] = payload.readOnly;
    StoreLe<uint32_t>(out + 12, payload.mediaType);
    StoreLe<uint32_t>(out + 16, payload.tracksPerCylinder);
    StoreLe<uint32_t>(out + 20, payload.sectorsPerTrack);
    StoreLe<uint32_t>(out + 24, payload.bytesPerSector);
}

namespace {

std::vector<uint8_t> RequestWithHeader(uint64_t ioContext, uint32_t code, uint32_t drive, size_t payloadSize)
{
    std::vector<uint8_t> record(DR_REQ_HEADER_SIZE + payloadSize, 0);
    StoreLe<uint64_t>(record.data() + 0, ioContext);
    StoreLe<uint32_t>(record.data() + 8, code);
    StoreLe<uint32_t>(record.data() + 12, drive);
    return record;
}

} // namespace

std::vector<uint8_t> EncodeQueryDiskRequest(uint64_t ioContext, uint32_t drive, uint32_t id,
                                            const std::u16string& path)
{
    auto record = RequestWithHeader(ioContext, DR_MSG_QUERY_DISK, drive, 4 + 2 * (path.size() + 1));
    uint8_t* payload = record.data() + DR_REQ_HEADER_SIZE;
    StoreLe<uint32_t>(payload, id);
    for (size_t i = 0; i < path.size(); ++i)
        StoreLe<uint16_t>(payload + 4 + 2 * i, path[i]);
    return record;  // the terminating zero is already there
}

std::vector<uint8_t> EncodeReleaseDiskRequest(uint64_t ioContext, uint32_t drive)
{
    return RequestWithHeader(ioContext, DR_MSG_RELEASE_DISK, drive, 0);
}

std::vector<uint8_t> EncodeReadRequest(uint64_t ioContext, uint32_t drive, uint32_t id, uint64_t offset,
                                       uint32_t length)
{
    auto record = RequestWithHeader(ioContext, DR_MSG_READ, drive, DR_READ_REQ_SIZE);
    uint8_t* payload = record.data() + DR_REQ_HEADER_SIZE;
    StoreLe<uint32_t>(payload + 0, id);
    StoreLe<uint64_t>(payload + 8, offset);
    StoreLe<uint32_t>(payload + 16, length);
    return record;
}

std::vector<uint8_t> EncodeWriteRequest(uint64_t ioContext, uint32_t drive, uint32_t id, uint64_t offset,
                                        const uint8_t* data, uint32_t length)
{
    auto record = RequestWithHeader(ioContext, DR_MSG_WRITE, drive, DR_WRITE_REQ_SIZE + length);
    uint8_t* payload = record.data() + DR_REQ_HEADER_SIZE;
    StoreLe<uint32_t>(payload + 0, id);
    StoreLe<uint64_t>(payload + 8, offset);
    StoreLe<uint32_t>(payload + 16, length);
    if (length != 0)
        std::memcpy(payload + DR_WRITE_REQ_SIZE, data, length);
    return record;
}

bool DecodeResponseHeader(const uint8_t* record, size_t size, DR_RSP_HEADER& out)
{
    LeReader reader(record, size);
    DR_RSP_HEADER header;
    if (!reader.u64(header.ioContext) || !reader.u32(header.status) || !reader.skip(4) ||
        !reader.u64(header.information) || !reader.u32(header.payloadLength) || !reader.skip(4))
        return false;
    out = header;
    return true;
}

bool DecodeQueryDiskResponse(const uint8_t* payload, size_t size, DR_QUERY_DISK_RSP& out)
{
    LeReader reader(payload, size);
    DR_QUERY_DISK_RSP rsp;
    if (!reader.u64(rsp.diskSize) || !reader.u8(rsp.readOnly) || !reader.skip(3) || !reader.u32(rsp.mediaType) ||
        !reader.u32(rsp.tracksPerCylinder) || !reader.u32(rsp.sectorsPerTrack) || !reader.u32(rsp.bytesPerSector) ||
        !reader.skip(4))
        return false;
    out = rsp;
    return true;
}

} // namespace tolv::worker
