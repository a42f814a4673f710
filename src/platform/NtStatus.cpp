#include <tolv/platform/NtStatus.h>

#include <cerrno>

namespace tolv::platform {

NTSTATUS NtStatusFromErrno(int err, IoDirection direction)
{
    switch (err) {
    case 0:
        return STATUS_SUCCESS;
    case EBADF:
        return STATUS_INVALID_HANDLE;
    case EINVAL:
        return STATUS_INVALID_PARAMETER;
    case EIO:
        return STATUS_IO_DEVICE_ERROR;
    case ENOSPC:
        return STATUS_DISK_FULL;
    case EROFS:
        return STATUS_MEDIA_WRITE_PROTECTED;
    case EPERM:
        return direction == IoDirection::Write ? STATUS_MEDIA_WRITE_PROTECTED : STATUS_UNSUCCESSFUL;
    case EACCES:
        return STATUS_ACCESS_DENIED;
    case ENOMEM:
        return STATUS_INSUFFICIENT_RESOURCES;
    case EFBIG:
        return STATUS_FILE_TOO_LARGE;
    case ENXIO:
    case ENODEV:
        return STATUS_NO_SUCH_DEVICE;
    case ENOMEDIUM:
        return STATUS_NO_MEDIA_IN_DEVICE;
    case EBUSY:
        return STATUS_DEVICE_BUSY;
    default:
        return STATUS_UNSUCCESSFUL;
    }
}

} // namespace tolv::platform
