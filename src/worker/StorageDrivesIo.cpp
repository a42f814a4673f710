// Reading and writing drive ranges.

#include "worker/StorageDrives.h"

#include "worker/DriveIo.h"

#include <tolv/log/Log.h>
#include "platform/LittleEndian.h"
#include <tolv/platform/NtStatus.h>

namespace tolv::worker {

using namespace tolv::platform;

bool StorageDrives::Read(const DR_REQ_HEADER& header, const DR_READ_REQ& request, DR_RSP_HEADER& reply,
                         ReplyBlock& block)
{
    static constexpr const char* kFn = "StorageDrives::Read()";
    const LocalDrive drive = GetLocalDrive(header.driveLetter());
    const int fd = drive.handle ? drive.handle->get() : INVALID_DRIVE_HANDLE;
    LOG_DEBUG(kFn, "ioContext 0x%llx", static_cast<unsigned long long>(header.ioContext));

    // Reads are clipped at the size recorded when the drive was opened. One
    // that starts at or past that end reads nothing: end of file, no payload.
    // A letter without a record still tries its (invalid) handle, so the
    // answer is the system's, as for a write.
    uint32_t length = request.length;
    const uint64_t offset = request.offset;
    const bool startsPastEnd = offset > drive.diskSize || (offset == drive.diskSize && length != 0);
    if (startsPastEnd || length > drive.diskSize - offset) {
        const uint32_t clipped = startsPastEnd ? 0 : static_cast<uint32_t>(drive.diskSize - offset);
        LOG_WARN(kFn, "Read request is beyond the end of the file. (offset: %llu, len: %u). The new length is %u.",
                 static_cast<unsigned long long>(offset), length, clipped);
        length = clipped;
    }
    if (startsPastEnd && drive.handle) {
        reply.status = STATUS_END_OF_FILE;
        reply.information = 0;
        reply.payloadLength = 0;
        return true;
    }

    // The bytes land straight in the reply block, behind the header and count.
    block = AllocateReply(DR_READ_RSP_SIZE + length);
    if (!block) {
        LOG_ERROR(kFn, "Failed to allocate memory");
        reply.status = STATUS_INSUFFICIENT_RESOURCES;
        reply.information = 0;
        reply.payloadLength = 0;
        return false;
    }
    uint8_t* payload = PayloadOf(block);
    const IoStatusBlock iosb = ReadAt(fd, payload + DR_READ_RSP_SIZE, length, offset);
    LOG_DEBUG(kFn, "DriveRead(handle %d, id 0x%d, offset %lld, length %d) returned status 0x%x and info 0x%zx", fd,
              static_cast<int>(request.id), static_cast<long long>(offset), static_cast<int>(length), iosb.status,
              static_cast<size_t>(iosb.information));

    reply.status = iosb.status;
    reply.information = iosb.information;
    if (iosb.status != STATUS_SUCCESS) {
        block.reset();
        reply.payloadLength = 0;
        return true;  // the failure travels in the status
    }
    const auto bytesRead = static_cast<uint32_t>(iosb.information);
    StoreLe<uint32_t>(payload, bytesRead);
    reply.payloadLength = static_cast<uint32_t>(DR_READ_RSP_SIZE + bytesRead);
    if (bytesRead < length) {
        // A short read at end of file: the reply block is sized exactly.
        if (auto* smaller = static_cast<uint8_t*>(std::realloc(block.get(), DR_RSP_HEADER_SIZE + reply.payloadLength))) {
            (void)block.release();
            block.reset(smaller);
        }
    }
    return true;
}

bool StorageDrives::Write(const DR_REQ_HEADER& header, const DR_WRITE_REQ& request, DR_RSP_HEADER& reply)
{
    static constexpr const char* kFn = "StorageDrives::Write()";
    const LocalDrive drive = GetLocalDrive(header.driveLetter());
    const int fd = drive.handle ? drive.handle->get() : INVALID_DRIVE_HANDLE;
    LOG_DEBUG(kFn, "ioContext 0x%llx", static_cast<unsigned long long>(header.ioContext));

    // Writes go straight from the received message and are not clipped.
    const IoStatusBlock iosb = WriteAt(fd, request.data, request.length, request.offset);
    LOG_DEBUG(kFn, "DriveWrite(handle %d, id 0x%d, offset %lld, length %d) returned status 0x%x and info 0x%zx", fd,
              static_cast<int>(request.id), static_cast<long long>(request.offset), static_cast<int>(request.length),
              iosb.status, static_cast<size_t>(iosb.information));
    reply.status = iosb.status;
    reply.information = iosb.information;
    reply.payloadLength = 0;
    return true;
}

} // namespace tolv::worker
