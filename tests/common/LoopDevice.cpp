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

namespace {

// Its exit code; what it wrote in `output`.
int Run(const std::vector<std::string>& argv, std::string& output)
{
    ChildProcess process(argv);
    const int code = process.Wait();
    output = process.Stdout() + process.Stderr();
    return code;
}

std::string Errno(const std::string& what)
{
    return what + ": errno " + std::to_string(errno);
}

} // namespace

std::string LoopDevicesUnavailableReason()
{
    if (::geteuid() != 0)
        return "loop devices need root; this test runs as uid " + std::to_string(::geteuid());
    if (::access("/dev/loop-control", R_OK | W_OK) != 0)
        return "/dev/loop-control is not there or not writable";
    std::string out;
    if (Run({"mkfs.ext4", "-V"}, out) != 0)
        return "mkfs.ext4 (e2fsprogs) is not installed";
    static const std::string privateMounts = [] {
        if (::unshare(CLONE_NEWNS) != 0)
            return Errno("cannot make a private mount namespace");
        if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return Errno("cannot make mounts private");
        return std::string();
    }();
    return privateMounts;
}

std::unique_ptr<LoopDevice> LoopDevice::Attach(const std::string& image, bool readOnly, std::string& error)
{
    tolv::platform::UniqueFd control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    tolv::platform::UniqueFd backing(::open(image.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC));
    if (!control || !backing) {
        error = Errno("cannot open /dev/loop-control or the image");
        return nullptr;
    }
    // Another process may take the free device first: then ask again.
    for (int attempt = 0; attempt < 50; ++attempt) {
        const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) {
            error = Errno("LOOP_CTL_GET_FREE failed");
            return nullptr;
        }
        const std::string path = "/dev/loop" + std::to_string(number);
        if (::access(path.c_str(), F_OK) != 0)
            ::mknod(path.c_str(), S_IFBLK | 0660, makedev(7, static_cast<unsigned>(number)));
        tolv::platform::UniqueFd device(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        if (!device) {
            error = Errno("cannot open " + path);
            return nullptr;
        }
        struct loop_config config {};
        config.fd = static_cast<uint32_t>(backing.get());
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR | (readOnly ? LO_FLAGS_READ_ONLY : 0);
        if (::ioctl(device.get(), LOOP_CONFIGURE, &config) == 0)
            return std::unique_ptr<LoopDevice>(new LoopDevice(path, std::move(device)));
        if (errno != EBUSY) {
            error = Errno("LOOP_CONFIGURE failed");
            return nullptr;
        }
    }
    error = "no free loop device after 50 attempts";
    return nullptr;
}

LoopDevice::~LoopDevice()
{
    // With nothing mounted, letting go of our descriptor detaches the device
    // (autoclear) once the service has closed its own.
    for (const auto& point : MountPoints())
        ::umount2(point.c_str(), MNT_DETACH);
}

bool LoopDevice::MountExt4(const std::string& directory, std::string& error)
{
    std::string out;
    if (Run({"mkfs.ext4", "-q", "-F", m_path}, out) != 0) {
        error = "mkfs.ext4 failed: " + out;
        return false;
    }
    ::mkdir(directory.c_str(), 0755);
    if (::mount(m_path.c_str(), directory.c_str(), "ext4", 0, nullptr) != 0) {
        error = Errno("mount failed");
        return false;
    }
    return true;
}

std::vector<std::string> LoopDevice::MountPoints() const
{
    struct stat st {};
    std::vector<std::string> points;
    if (::stat(m_path.c_str(), &st) == 0) {
        for (const auto& mount : tolv::worker::MountsOfDevice(st.st_rdev))
            points.push_back(mount.point);
    }
    return points;
}

bool LoopDevice::Claimable() const
{
    return tolv::platform::UniqueFd(::open(m_path.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC)).valid();
}
