// Opening, querying and releasing drives.

#include "worker/StorageDrives.h"

#include "worker/DriveIo.h"

#include <tolv/log/Log.h>
#include <tolv/platform/NtStatus.h>
#include "platform/Utf.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace tolv::worker {

using namespace tolv::platform;

namespace {

std::string PathForLog(const std::u16string& path)
{
    auto text = Utf16ToUtf8(path);
    return text ? *text : std::string("(invalid UTF-16 path)");
}

} // namespace

bool StorageDrives::RequestDrive(const DR_REQ_HEADER& header, const DR_QUERY_DISK_REQ& request,
                                 DR_RSP_HEADER& reply, ReplyBlock& block)
{
    static constexpr const char* kFn = "StorageDrives::RequestDrive()";
    const DriveCallTable& calls = DriveCalls();
    const int fd = calls.createFile(request.path);
    const int openErrno = errno;
    LOG_INFO(kFn, "Openning %s returned handle %d", PathForLog(request.path).c_str(), fd);
    if (fd == INVALID_DRIVE_HANDLE) {
        LOG_ERROR(kFn, "Openning %s failed with errno %d (%s).", PathForLog(request.path).c_str(), openErrno,
                  strerrordesc_np(openErrno) ? strerrordesc_np(openErrno) : "unknown error");
        reply.status = STATUS_UNSUCCESSFUL;
        reply.information = 0;
        reply.payloadLength = 0;
        return false;
    }
    auto handle = std::make_shared<DriveHandle>(fd, calls);

    if (handle->Control(FSCTL_ALLOW_EXTENDED_DASD_IO))
        LOG_INFO(kFn, "FSCTL_ALLOW_EXTENDED_DASD_IO succeeded.");
    else
        LOG_ERROR(kFn, "FSCTL_ALLOW_EXTENDED_DASD_IO failed with error %d, format will be blocked.", errno);

    TearDownAndLockVolume(*handle);

    const uint8_t letter = header.driveLetter();
    DR_QUERY_DISK_RSP info;  // diskSize 0, readOnly 1, geometry 0

    // Every failure below closes the handle (the lock and dismount stay undone)
    // and replies with no payload.
    auto fail = [&](NTSTATUS status) {
        handle.reset();
        reply.status = status;
        reply.information = 0;
        reply.payloadLength = 0;
        return false;
    };

    if (IsDevicePath(request.path)) {
        uint64_t length = 0;
        if (!handle->Control(IOCTL_DISK_GET_LENGTH_INFO, &length, sizeof length)) {
            LOG_ERROR(kFn, "Getting length information failed with %d", errno);
            LOG_INFO(kFn, "disk size: %llu.", 0ull);
            return fail(STATUS_IO_DEVICE_ERROR);
        }
        info.diskSize = length;
        info.readOnly = handle->Control(IOCTL_DISK_IS_WRITABLE) ? 0 : 1;
        LOG_INFO(kFn, "The drive is %s.", info.readOnly ? "readonly" : "writable");
        DISK_GEOMETRY geometry;
        if (!handle->Control(IOCTL_DISK_GET_DRIVE_GEOMETRY, &geometry, sizeof geometry)) {
            const int err = errno;
            LOG_ERROR(kFn, "Getting drive geometry failed with error %d.", err);
            LOG_INFO(kFn, "disk size: %llu.", static_cast<unsigned long long>(info.diskSize));
            return fail(NtStatusFromErrno(err));
        }
        LOG_INFO(kFn, "mediaType %d, bytesPerSector %d, sectorPerTrack %d, tracksPerCylinder %d.",
                 static_cast<int>(geometry.MediaType), static_cast<int>(geometry.BytesPerSector),
                 static_cast<int>(geometry.SectorsPerTrack), static_cast<int>(geometry.TracksPerCylinder));
        LOG_INFO(kFn, "disk size: %llu.", static_cast<unsigned long long>(info.diskSize));
        info.mediaType = geometry.MediaType;
        info.tracksPerCylinder = geometry.TracksPerCylinder;
        info.sectorsPerTrack = geometry.SectorsPerTrack;
        info.bytesPerSector = geometry.BytesPerSector;
    } else {
        uint64_t endOfFile = 0;
        if (!QueryEndOfFile(handle->get(), endOfFile)) {
            const NTSTATUS status = NtStatusFromErrno(errno);
            LOG_ERROR(kFn, "ZwQueryInformationFile failed with 0x%x", status);
            LOG_INFO(kFn, "disk size: %llu.", 0ull);
            return fail(status);
        }
        info.diskSize = endOfFile;
        LOG_INFO(kFn, "disk size: %llu.", static_cast<unsigned long long>(info.diskSize));
    }

    block = AllocateReply(DR_QUERY_DISK_RSP_SIZE);
    if (!block) {
        LOG_ERROR(kFn, "Failed to allocate DR_QUERY_DISK_RSP");
        return fail(STATUS_INSUFFICIENT_RESOURCES);
    }
    reply.payloadLength = DR_QUERY_DISK_RSP_SIZE;

    std::shared_ptr<DriveHandle> replaced;  // closed after the lock: a close may flush a device
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        auto [it, inserted] = m_drives.try_emplace(letter);
        if (!inserted)
            LOG_ERROR(kFn, "The local drive (id=%d, drive=%c) record will be overwritten.",
                      static_cast<int>(request.id), letter);
        replaced = std::exchange(it->second.handle, std::move(handle));
        it->second.diskSize = info.diskSize;
    }
    replaced.reset();

    EncodeQueryDiskResponse(PayloadOf(block), info);
    reply.status = STATUS_SUCCESS;
    reply.information = 0;
    return true;
}

void StorageDrives::TearDownAndLockVolume(const DriveHandle& handle)
{
    static constexpr const char* kFn = "StorageDrives::TearDownAndLockVolume()";
    bool locked = false;
    if (handle.Control(FSCTL_LOCK_VOLUME)) {
        LOG_INFO(kFn, "FSCTL_LOCK_VOLUME succeeded.");
        locked = true;
    } else {
        LOG_ERROR(kFn, "FSCTL_LOCK_VOLUME failed.");
    }

    if (!handle.Control(FSCTL_DISMOUNT_VOLUME)) {
        LOG_ERROR(kFn, "FSCTL_DISMOUNT_VOLUME failed.");
        return;
    }
    LOG_INFO(kFn, "FSCTL_DISMOUNT_VOLUME succeeded.");

    // A mounted volume refuses the lock until it is dismounted: one retry.
    if (!locked) {
        if (handle.Control(FSCTL_LOCK_VOLUME))
            LOG_INFO(kFn, "FSCTL_LOCK_VOLUME succeeded now.");
        else
            LOG_ERROR(kFn, "FSCTL_LOCK_VOLUME failed again. last error %d", errno);
    }
}

void StorageDrives::ReleaseDrive(const DR_REQ_HEADER& header)
{
    const uint8_t letter = header.driveLetter();
    std::shared_ptr<DriveHandle> handle;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        auto it = m_drives.find(letter);
        if (it != m_drives.end()) {
            handle = std::move(it->second.handle);
            m_drives.erase(it);
        }
    }
    if (!handle) {
        LOG_ERROR("StorageDrives::GetLocalDrive()", "Failed to find the request disk (drive is %c)", letter);
        return;
    }
    if (!handle->Control(FSCTL_UNLOCK_VOLUME))
        LOG_WARN("StorageDrives::ReleaseDrive()", "Failed to unlock the volume (err: %d)", errno);
}

} // namespace tolv::worker
