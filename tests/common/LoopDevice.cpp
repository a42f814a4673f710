#include "common/LoopDevice.h"

#include <tolv/platform/UniqueFd.h>
#include "worker/MountTable.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

using namespace tolv::worker;

extern char** environ;

int RunCommand(const std::vector<std::string>& argv, std::string* output)
{
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0)
        return -1;
    tolv::platform::UniqueFd readEnd(pipeFds[0]);
    tolv::platform::UniqueFd writeEnd(pipeFds[1]);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), 1);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), 2);

    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    writeEnd.reset();
    if (rc != 0)
        return -1;

    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(readEnd.get(), buffer, sizeof buffer);
        if (n > 0) {
            if (output)
                output->append(buffer, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    int status = 0;
    pid_t waited;
    while ((waited = ::waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
    }
    if (waited != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string LoopDevicesUnavailableReason()
{
    if (::geteuid() != 0)
        return "loop devices need root; this test runs as uid " + std::to_string(::geteuid());
    if (::access("/dev/loop-control", R_OK | W_OK) != 0)
        return "/dev/loop-control is not there or not writable";
    std::string out;
    if (RunCommand({"mkfs.ext4", "-V"}, &out) != 0)
        return "mkfs.ext4 (e2fsprogs) is not installed";
    return EnterPrivateMountNamespace();
}

std::string EnterPrivateMountNamespace()
{
    static const std::string result = [] {
        if (::unshare(CLONE_NEWNS) != 0)
            return "cannot make a private mount namespace: errno " + std::to_string(errno);
        if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return "cannot make mounts private: errno " + std::to_string(errno);
        return std::string();
    }();
    return result;
}

std::unique_ptr<LoopDevice> LoopDevice::Attach(const std::string& image, bool readOnly, std::string& error)
{
    tolv::platform::UniqueFd control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    tolv::platform::UniqueFd backing(::open(image.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC));
    if (!control || !backing) {
        error = "cannot open /dev/loop-control or the image: errno " + std::to_string(errno);
        return nullptr;
    }
    // Another process may take the free device first: then ask again.
    for (int attempt = 0; attempt < 50; ++attempt) {
        const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) {
            error = "LOOP_CTL_GET_FREE failed: errno " + std::to_string(errno);
            return nullptr;
        }
        const std::string path = "/dev/loop" + std::to_string(number);
        if (::access(path.c_str(), F_OK) != 0)
            ::mknod(path.c_str(), S_IFBLK | 0660, makedev(7, static_cast<unsigned>(number)));
        tolv::platform::UniqueFd device(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        if (!device) {
            error = "cannot open " + path + ": errno " + std::to_string(errno);
            return nullptr;
        }
        struct loop_config config {};
        config.fd = static_cast<uint32_t>(backing.get());
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR | (readOnly ? LO_FLAGS_READ_ONLY : 0);
        if (::ioctl(device.get(), LOOP_CONFIGURE, &config) == 0)
            return std::unique_ptr<LoopDevice>(new LoopDevice(path, std::move(device)));
        if (errno != EBUSY) {
            error = "LOOP_CONFIGURE failed: errno " + std::to_string(errno);
            return nullptr;
        }
    }
    error = "no free loop device after 50 attempts";
    return nullptr;
}

LoopDevice::~LoopDevice()
{
    // Unmounting and letting go of our descriptor detaches the device (autoclear)
    // once the service has closed its own.
    for (const auto& point : MountPoints())
        ::umount2(point.c_str(), MNT_DETACH);
}

std::u16string LoopDevice::drivePath() const
{
    std::u16string path = u"\\\\.\\";
    for (char c : name())
        path.push_back(static_cast<char16_t>(c));
    return path;
}

bool LoopDevice::MakeExt4(std::string& error)
{
    std::string out;
    if (RunCommand({"mkfs.ext4", "-q", "-F", m_path}, &out) != 0) {
        error = "mkfs.ext4 failed: " + out;
        return false;
    }
    return true;
}

bool LoopDevice::Mount(const std::string& directory, std::string& error)
{
    if (::mount(m_path.c_str(), directory.c_str(), "ext4", 0, nullptr) != 0) {
        error = "mount failed: errno " + std::to_string(errno);
        return false;
    }
    return true;
}

std::vector<std::string> LoopDevice::MountPoints() const
{
    struct stat st {};
    if (::stat(m_path.c_str(), &st) != 0)
        return {};
    std::vector<std::string> points;
    for (const auto& mount : MountsOfDevice(st.st_rdev))
        points.push_back(mount.point);
    return points;
}
