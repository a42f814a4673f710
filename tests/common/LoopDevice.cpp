#include "common/LoopDevice.h"

#include "common/ChildProcess.h"
#include "worker/MountTable.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>

using tolv::platform::UniqueFd;

std::string LoopDevicesUnavailableReason()
{
    if (::geteuid() != 0)
        return "loop devices need root; this test runs as uid " + std::to_string(::geteuid());
    if (::access("/dev/loop-control", R_OK | W_OK) != 0)
        return "/dev/loop-control is not there or not writable";
    if (ChildProcess({"mkfs.ext4", "-V"}).Wait() != 0)
        return "mkfs.ext4 (e2fsprogs) is not installed";
    static const std::string privateMounts = [] {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return "cannot make a private mount namespace: errno " + std::to_string(errno);
        return std::string();
    }();
    return privateMounts;
}

std::unique_ptr<LoopDevice> LoopDevice::Attach(const std::string& image, bool readOnly, std::string& error)
{
    const auto fail = [&error](const std::string& what) {
        error = what + " failed: errno " + std::to_string(errno);
        return nullptr;
    };
    UniqueFd control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    UniqueFd backing(::open(image.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC));
    if (!control || !backing)
        return fail("opening /dev/loop-control and the image");
    // Another process may take the free device first: then ask again.
    for (int attempt = 0; attempt < 50; ++attempt) {
        const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0)
            return fail("LOOP_CTL_GET_FREE");
        const std::string path = "/dev/loop" + std::to_string(number);
        if (::access(path.c_str(), F_OK) != 0)
            ::mknod(path.c_str(), S_IFBLK | 0660, makedev(7, static_cast<unsigned>(number)));
        UniqueFd device(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        if (!device)
            return fail("opening " + path);
        struct loop_config config {};
        config.fd = static_cast<uint32_t>(backing.get());
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR | (readOnly ? LO_FLAGS_READ_ONLY : 0);
        if (::ioctl(device.get(), LOOP_CONFIGURE, &config) == 0)
            return std::unique_ptr<LoopDevice>(new LoopDevice(path, std::move(device)));
        if (errno != EBUSY)
            return fail("LOOP_CONFIGURE");
    }
    error = "no free loop device after 50 attempts";
    return nullptr;
}

LoopDevice::~LoopDevice()
{
    // Unmounted, it detaches (autoclear) once the last descriptor closes.
    for (const auto& point : MountPoints())
        ::umount2(point.c_str(), MNT_DETACH);
}

bool LoopDevice::MountExt4(const std::string& directory, std::string& error)
{
    ::mkdir(directory.c_str(), 0755);
    ChildProcess mkfs({"mkfs.ext4", "-q", "-F", m_path});
    if (mkfs.Wait() != 0)
        error = "mkfs.ext4 failed: " + mkfs.Stderr();
    else if (::mount(m_path.c_str(), directory.c_str(), "ext4", 0, nullptr) != 0)
        error = "mount failed: errno " + std::to_string(errno);
    return error.empty();
}

std::vector<std::string> LoopDevice::MountPoints() const
{
    struct stat st {};
    std::vector<std::string> points;
    if (::stat(m_path.c_str(), &st) != 0)
        return points;
    for (const auto& mount : tolv::worker::MountsOfDevice(st.st_rdev))
        points.push_back(mount.point);
    return points;
}

bool LoopDevice::Claimable() const
{
    return UniqueFd(::open(m_path.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC)).valid();
}
