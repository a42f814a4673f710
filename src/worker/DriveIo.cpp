#include "worker/DriveIo.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace tolv::worker {

using namespace tolv::platform;

namespace {

// Offsets live in off_t: a range that does not fit is refused before any call.
bool RangeFits(uint64_t offset, uint32_t length)
{
    return offset <= static_cast<uint64_t>(INT64_MAX) - length;
}

// A read-only block device is opened read-only; writing to it is a write
// protection fault, not a bad handle.
bool IsOpenReadOnly(int fd)
{
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && (flags & O_ACCMODE) == O_RDONLY;
}

} // namespace

IoStatusBlock ReadAt(int fd, uint8_t* buffer, uint32_t length, uint64_t offset)
{
    IoStatusBlock iosb;
    if (!RangeFits(offset, length)) {
        iosb.status = STATUS_INVALID_PARAMETER;
        return iosb;
    }
    // One call even for length 0, so that a bad handle is still reported.
    uint64_t done = 0;
    do {
        const ssize_t n = ::pread(fd, buffer + done, length - done, static_cast<off_t>(offset + done));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            iosb.status = NtStatusFromErrno(errno);
            break;
        }
        if (n == 0)
            break;  // end of file
        done += static_cast<uint64_t>(n);
    } while (done < length);
    if (iosb.status == STATUS_SUCCESS && done == 0 && length != 0)
        iosb.status = STATUS_END_OF_FILE;
    iosb.information = done;
    return iosb;
}

IoStatusBlock WriteAt(int fd, const uint8_t* data, uint32_t length, uint64_t offset)
{
    IoStatusBlock iosb;
    if (!RangeFits(offset, length)) {
        iosb.status = STATUS_INVALID_PARAMETER;
        return iosb;
    }
    // One call even for length 0, so that a bad handle is still reported.
    uint64_t done = 0;
    do {
        const ssize_t n = ::pwrite(fd, data + done, length - done, static_cast<off_t>(offset + done));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            iosb.status = errno == EBADF && IsOpenReadOnly(fd) ? STATUS_MEDIA_WRITE_PROTECTED
                                                                : NtStatusFromErrno(errno, IoDirection::Write);
            break;
        }
        if (n == 0) {
            if (length != 0)
                iosb.status = STATUS_DISK_FULL;  // no progress and no error: nothing more fits
            break;
        }
        done += static_cast<uint64_t>(n);
    } while (done < length);
    iosb.information = done;
    return iosb;
}

bool QueryEndOfFile(int fd, uint64_t& size)
{
    struct stat st {};
    if (::fstat(fd, &st) != 0)
        return false;
    if (S_ISBLK(st.st_mode))
        return ::ioctl(fd, BLKGETSIZE64, &size) == 0;
    size = static_cast<uint64_t>(st.st_size);
    return true;
}

} // namespace tolv::worker
