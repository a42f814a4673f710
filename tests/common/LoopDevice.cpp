#include "common/LoopDevice.h"

#include "platform/UniqueFd.h"
#include "worker/MountTable.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

int RunCommand(const std::vector<std::string>& argv, std::string* output)
{
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0)
        return -1;
    platform::UniqueFd readEnd(pipeFds[0]);
    platform::UniqueFd writeEnd(pipeFds[1]);

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
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string LoopDevicesUnavailableReason()
{
    if (::geteuid() != 0)
        return "loop devices need root; this test runs as uid " + std::to_string(::geteuid());
    if (::access("/dev/loop-control", R_OK | W_OK) != 0)
        return "/dev/loop-control is not there or not writable";
    std::string out;
    if (RunCommand({"losetup", "--version"}, &out) != 0)
        return "losetup (util-linux) is not installed";
    if (RunCommand({"mkfs.ext4", "-V"}, &out) != 0)
        return "mkfs.ext4 (e2fsprogs) is not installed";
    return {};
}

std::unique_ptr<LoopDevice> LoopDevice::Attach(const std::string& image, bool readOnly, std::string& error)
{
    std::vector<std::string> argv = {"losetup", "--find", "--show"};
    if (readOnly)
        argv.push_back("--read-only");
    argv.push_back(image);
    std::string out;
    if (RunCommand(argv, &out) != 0) {
        error = "losetup failed: " + out;
        return nullptr;
    }
    while (!out.empty() && (out.back() == '\n' || out.back() == ' '))
        out.pop_back();
    if (out.rfind("/dev/loop", 0) != 0) {
        error = "losetup printed no device: " + out;
        return nullptr;
    }
    return std::unique_ptr<LoopDevice>(new LoopDevice(out));
}

LoopDevice::~LoopDevice()
{
    for (const auto& point : MountPoints())
        ::umount2(point.c_str(), 0);
    RunCommand({"losetup", "--detach", m_path});
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
    return MountPointsOfDevice(st.st_rdev);
}
