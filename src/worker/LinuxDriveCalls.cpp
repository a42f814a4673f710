// Linux defaults of the drive-call table. The volume lock is an exclusive claim
// on the block device (a second descriptor opened with O_EXCL, kept beside the
// handle); the dismount unmounts every mount of the device.

#include "worker/DriveCalls.h"
#include "worker/MountTable.h"

#include "platform/SysCall.h"
#include "platform/UniqueFd.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>

using platform::RetryOnEintr;
using platform::UniqueFd;

namespace {

// Claims taken by FSCTL_LOCK_VOLUME, by the descriptor of the handle they belong
// to. Closing a handle drops its claim under the same lock, so a descriptor
// number reused after the close can never inherit a claim.
class VolumeClaims {
public:
    static VolumeClaims& Instance()
    {
        static VolumeClaims claims;
        return claims;
    }

    bool Lock(int handle)
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        if (m_claims.count(handle))
            return true;
        char path[64];
        std::snprintf(path, sizeof path, "/proc/self/fd/%d", handle);
        // O_EXCL on a block device fails with EBUSY while it is mounted or claimed.
        UniqueFd claim(RetryOnEintr([&] { return ::open(path, O_RDONLY | O_EXCL | O_CLOEXEC); }));
        if (!claim)
            return false;
        m_claims.emplace(handle, std::move(claim));
        return true;
    }

    bool Unlock(int handle)
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        if (m_claims.erase(handle) == 0) {
            errno = EINVAL;  // not locked
            return false;
        }
        return true;
    }

    bool Close(int handle)
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_claims.erase(handle);
        return ::close(handle) == 0;
    }

private:
    std::mutex m_mutex;
    std::map<int, UniqueFd> m_claims;  // guarded by m_mutex
};

bool IsBlockDevice(int fd, struct stat& st)
{
    if (::fstat(fd, &st) != 0)
        return false;
    if (!S_ISBLK(st.st_mode)) {
        errno = ENOTTY;
        return false;
    }
    return true;
}

bool Dismount(dev_t device)
{
    const auto points = MountPointsOfDevice(device);
    // Stacked mounts come later in the table; take them down first.
    for (auto it = points.rbegin(); it != points.rend(); ++it)
        if (::umount2(it->c_str(), 0) != 0 && errno != EINVAL)  // EINVAL: already gone
            return false;
    if (!MountPointsOfDevice(device).empty()) {
        errno = EBUSY;
        return false;
    }
    return true;
}

uint32_t MediaTypeOf(dev_t device)
{
    // A partition has no "removable" of its own; its disk (the parent folder) has.
    const char* candidates[] = {"/sys/dev/block/%u:%u/removable", "/sys/dev/block/%u:%u/../removable"};
    for (const char* pattern : candidates) {
        char path[96];
        std::snprintf(path, sizeof path, pattern, major(device), minor(device));
        UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
        char value = 0;
        if (fd && ::read(fd.get(), &value, 1) == 1)
            return value == '1' ? MEDIA_TYPE_REMOVABLE : MEDIA_TYPE_FIXED;
    }
    return MEDIA_TYPE_FIXED;
}

bool Geometry(int fd, dev_t device, DISK_GEOMETRY& out)
{
    int sectorSize = 0;
    uint64_t bytes = 0;
    if (::ioctl(fd, BLKSSZGET, &sectorSize) != 0 || ::ioctl(fd, BLKGETSIZE64, &bytes) != 0)
        return false;
    struct hd_geometry geo {};
    uint32_t heads = 255, sectors = 63;  // what loop and NVMe devices, which have none, get
    if (::ioctl(fd, HDIO_GETGEO, &geo) == 0) {
        if (geo.heads != 0 && geo.sectors != 0) {
            heads = geo.heads;
            sectors = geo.sectors;
        }
    } else if (errno != ENOTTY && errno != EINVAL) {
        return false;  // the device has a geometry but could not give it
    }
    out.MediaType = MediaTypeOf(device);
    out.TracksPerCylinder = heads;
    out.SectorsPerTrack = sectors;
    out.BytesPerSector = static_cast<uint32_t>(sectorSize);
    out.Cylinders = static_cast<int64_t>(bytes / (uint64_t{heads} * sectors * static_cast<uint32_t>(sectorSize)));
    return true;
}

int LinuxCreateFile(const std::u16string& path)
{
    const auto linuxPath = DrivePathToLinux(path);
    if (!linuxPath) {
        errno = EINVAL;
        return -1;
    }
    // O_NONBLOCK only so that opening a FIFO or a terminal cannot hang us; what
    // is neither a regular file nor a block device is refused right after.
    const int flags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    UniqueFd fd(RetryOnEintr([&] { return ::open(linuxPath->c_str(), O_RDWR | flags); }));
    if (!fd && (errno == EROFS || errno == EACCES)) {
        const int openErrno = errno;
        struct stat st {};
        if (::stat(linuxPath->c_str(), &st) == 0 && S_ISBLK(st.st_mode))
            fd.reset(RetryOnEintr([&] { return ::open(linuxPath->c_str(), O_RDONLY | flags); }));
        else
            errno = openErrno;
    }
    if (!fd)
        return -1;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0)
        return -1;
    if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode)) {
        errno = ENODEV;
        return -1;
    }
    const int current = ::fcntl(fd.get(), F_GETFL);
    if (current < 0 || ::fcntl(fd.get(), F_SETFL, current & ~O_NONBLOCK) != 0)
        return -1;
    return fd.release();
}

bool LinuxDeviceIoControl(int handle, uint32_t code, void* output, uint32_t outputSize)
{
    struct stat st {};
    if (!IsBlockDevice(handle, st))
        return false;
    switch (code) {
    case FSCTL_ALLOW_EXTENDED_DASD_IO:
        return true;  // raw block devices have no file-system end to step past
    case FSCTL_LOCK_VOLUME:
        return VolumeClaims::Instance().Lock(handle);
    case FSCTL_UNLOCK_VOLUME:
        return VolumeClaims::Instance().Unlock(handle);
    case FSCTL_DISMOUNT_VOLUME:
        return Dismount(st.st_rdev);
    case IOCTL_DISK_GET_LENGTH_INFO: {
        uint64_t bytes = 0;
        if (output == nullptr || outputSize < sizeof bytes) {
            errno = EINVAL;
            return false;
        }
        if (::ioctl(handle, BLKGETSIZE64, &bytes) != 0)
            return false;
        std::memcpy(output, &bytes, sizeof bytes);
        return true;
    }
    case IOCTL_DISK_IS_WRITABLE: {
        int readOnly = 0;
        if (::ioctl(handle, BLKROGET, &readOnly) != 0)
            return false;
        const int mode = ::fcntl(handle, F_GETFL);
        if (mode < 0)
            return false;
        if (readOnly != 0 || (mode & O_ACCMODE) == O_RDONLY) {
            errno = EROFS;
            return false;
        }
        return true;
    }
    case IOCTL_DISK_GET_DRIVE_GEOMETRY: {
        DISK_GEOMETRY geometry;
        if (output == nullptr || outputSize < sizeof geometry) {
            errno = EINVAL;
            return false;
        }
        if (!Geometry(handle, st.st_rdev, geometry))
            return false;
        std::memcpy(output, &geometry, sizeof geometry);
        return true;
    }
    default:
        errno = EINVAL;
        return false;
    }
}

bool LinuxCloseHandle(int handle)
{
    return VolumeClaims::Instance().Close(handle);
}

} // namespace

const DriveCallTable& LinuxDriveCalls()
{
    static const DriveCallTable table{&LinuxCreateFile, &LinuxDeviceIoControl, &LinuxCloseHandle};
    return table;
}
