// Linux defaults of the drive-call table. The volume lock is an exclusive claim
// on the block device (a second descriptor opened with O_EXCL, kept beside the
// handle); the dismount unmounts every mount of the device.

#include "worker/DriveCalls.h"
#include "worker/FileSystemKind.h"
#include "worker/MountTable.h"

#include <tolv/log/Log.h>

#include "platform/SysCall.h"
#include <tolv/platform/UniqueFd.h>

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
#include <string>

namespace tolv::worker {

using tolv::platform::RetryOnEintr;
using tolv::platform::UniqueFd;

namespace {

std::string ProcFdPath(int fd);

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
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            if (m_claims.count(handle))
                return true;
        }
        // Opening a device can block (media checks, network block devices), so
        // the claim is opened outside the lock. O_EXCL on a block device fails
        // with EBUSY while it is mounted or claimed.
        UniqueFd claim(RetryOnEintr([&] { return ::open(ProcFdPath(handle).c_str(), O_RDONLY | O_EXCL | O_CLOEXEC); }));
        if (!claim)
            return false;
        std::lock_guard<std::mutex> guard(m_mutex);
        m_claims.emplace(handle, std::move(claim));  // a claim taken meanwhile wins; ours closes
        return true;
    }

    bool Unlock(int handle)
    {
        UniqueFd claim;  // closed after the lock: the last close of a device may flush it
        std::lock_guard<std::mutex> guard(m_mutex);
        auto it = m_claims.find(handle);
        if (it == m_claims.end()) {
            errno = EINVAL;  // not locked
            return false;
        }
        claim = std::move(it->second);
        m_claims.erase(it);
        return true;
    }

    // Drops the claim of `handle`. The handle itself is closed by the caller
    // afterwards: until then its number cannot be reused, so no new handle can
    // ever find this claim.
    UniqueFd Release(int handle)
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        auto it = m_claims.find(handle);
        if (it == m_claims.end())
            return UniqueFd();
        UniqueFd claim = std::move(it->second);
        m_claims.erase(it);
        return claim;
    }

private:
    std::mutex m_mutex;
    std::map<int, UniqueFd> m_claims;  // guarded by m_mutex
};

std::string ProcFdPath(int fd)
{
    return "/proc/self/fd/" + std::to_string(fd);
}

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
    const auto mounts = MountsOfDevice(device);
    // Stacked mounts come later in the table; take them down first.
    for (auto it = mounts.rbegin(); it != mounts.rend(); ++it) {
        // Unmount only what the path still leads to: when another file system
        // is mounted over the device's mount point, refuse rather than
        // unmount that one.
        struct statx where {};
        if (::statx(AT_FDCWD, it->point.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_MNT_ID, &where) != 0)
            return false;
        if (!(where.stx_mask & STATX_MNT_ID) || where.stx_mnt_id != it->mountId) {
            errno = EBUSY;
            return false;
        }
        if (::umount2(it->point.c_str(), UMOUNT_NOFOLLOW) != 0)
            return false;
    }
    if (!MountsOfDevice(device).empty()) {
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

// Asked of what was opened, not of the path: the path may have been swapped
// between the look and the open, and a kernel interface's files call
// themselves regular.
bool HoldsStorage(int fd, const std::string& path)
{
    struct stat st {};
    if (::fstat(fd, &st) != 0)
        return false;
    if (S_ISBLK(st.st_mode))
        return true;
    if (!S_ISREG(st.st_mode)) {
        errno = ENODEV;
        return false;
    }
    FileSystemKind kind{};
    uint64_t magic = 0;
    if (!FileSystemOf(fd, kind, magic))
        return false;
    if (kind.holdsStorage)
        return true;
    LOG_ERROR("LinuxCreateFile()", "%s is a file of a %s file system (type 0x%llx), not storage; refused.",
              path.c_str(), kind.name, static_cast<unsigned long long>(magic));
    errno = EMEDIUMTYPE;
    return false;
}

int LinuxCreateFile(const std::u16string& path)
{
    const auto linuxPath = DrivePathToLinux(path);
    if (!linuxPath) {
        errno = EINVAL;
        return -1;
    }
    // Look before opening for real: opening some nodes has effects of its own
    // (a watchdog arms, a tape rewinds, a FIFO's reader is released), so only a
    // regular file or a block device is ever opened for I/O.
    UniqueFd node(RetryOnEintr([&] { return ::open(linuxPath->c_str(), O_PATH | O_CLOEXEC); }));
    if (!node)
        return -1;
    struct stat st {};
    if (::fstat(node.get(), &st) != 0)
        return -1;
    if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode)) {
        errno = ENODEV;
        return -1;
    }
    const std::string reopen = ProcFdPath(node.get());
    int fd = RetryOnEintr([&] { return ::open(reopen.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY); });
    // A block device that refuses writing is opened read-only, so that its
    // query can say so.
    if (fd < 0 && S_ISBLK(st.st_mode) && (errno == EROFS || errno == EACCES))
        fd = RetryOnEintr([&] { return ::open(reopen.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY); });
    if (fd < 0)
        return -1;
    UniqueFd opened(fd);
    if (!HoldsStorage(opened.get(), *linuxPath)) {
        const int err = errno;
        opened.reset();
        errno = err;
        return -1;
    }
    return opened.release();
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
    UniqueFd claim = VolumeClaims::Instance().Release(handle);
    // Writes to a block device go through its page cache: flush them now, so
    // that a device error is reported rather than lost with the descriptor.
    bool flushed = true;
    struct stat st {};
    const int mode = ::fcntl(handle, F_GETFL);
    if (::fstat(handle, &st) == 0 && S_ISBLK(st.st_mode) && mode >= 0 && (mode & O_ACCMODE) != O_RDONLY)
        flushed = RetryOnEintr([&] { return ::fdatasync(handle); }) == 0;
    const int flushErrno = errno;
    claim.reset();
    const bool closed = ::close(handle) == 0;
    if (!flushed)
        errno = flushErrno;
    return flushed && closed;
}

} // namespace

const DriveCallTable& LinuxDriveCalls()
{
    static const DriveCallTable table{&LinuxCreateFile, &LinuxDeviceIoControl, &LinuxCloseHandle};
    return table;
}

} // namespace tolv::worker
