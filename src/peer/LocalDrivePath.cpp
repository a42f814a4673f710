#include "peer/LocalDrivePath.h"

#include <tolv/platform/UniqueFd.h>
#include "worker/FileSystemKind.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>

using namespace tolv::worker;

namespace {

constexpr const char kDevicePrefix[] = "\\\\.\\";
constexpr const char kDevFolder[] = "/dev/";

bool StartsWith(const std::string& text, const char* prefix)
{
    return text.rfind(prefix, 0) == 0;
}

std::string Words(int err)
{
    std::string text = std::strerror(err);
    if (!text.empty())
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

std::string CurrentFolder()
{
    char buffer[PATH_MAX];
    return getcwd(buffer, sizeof buffer) ? std::string(buffer) : std::string("/");
}

} // namespace

LocalDrivePath LocalDrivePath::Resolve(const std::string& given, const std::string& cwd)
{
    LocalDrivePath path;
    path.m_given = given;
    if (StartsWith(given, kDevicePrefix)) {
        path.m_isDevice = true;
        path.m_sent = given;
        std::string name = given.substr(std::strlen(kDevicePrefix));
        std::replace(name.begin(), name.end(), '\\', '/');
        path.m_devicePath = kDevFolder + name;
    } else {
        std::filesystem::path absolute(given);
        if (!given.empty() && given[0] != '/')
            absolute = std::filesystem::path(cwd.empty() ? CurrentFolder() : cwd) / given;
        path.m_sent = absolute.string();  // not normalised: ".." after a link is the kernel's to resolve
        // A block device is named to the worker by its node under /dev, the one
        // form it reports as a device; a link to one (/dev/disk/by-id/...) is
        // followed to its node.
        struct stat st {};
        if (stat(path.m_sent.c_str(), &st) == 0 && S_ISBLK(st.st_mode)) {
            std::string node = path.m_sent;
            if (char* real = realpath(node.c_str(), nullptr)) {
                node = real;
                std::free(real);
            }
            if (StartsWith(node, kDevFolder) && node.size() > std::strlen(kDevFolder)) {
                path.m_isDevice = true;
                path.m_devicePath = node;
                std::string name = node.substr(std::strlen(kDevFolder));
                std::replace(name.begin(), name.end(), '/', '\\');
                path.m_sent = kDevicePrefix + name;
            }
        }
    }
    struct stat st {};
    if (path.m_isDevice && stat(path.m_devicePath.c_str(), &st) == 0 && S_ISBLK(st.st_mode))
        path.m_device = st.st_rdev;
    return path;
}

std::string LocalDrivePath::WhyNotOpenable() const
{
    const std::string& node = m_isDevice ? m_devicePath : m_sent;
    struct stat st {};
    if (stat(node.c_str(), &st) != 0)
        return Words(errno);
    if (S_ISDIR(st.st_mode))
        return "is a directory";
    if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode))
        return "not a regular file or block device";
    if (m_isDevice && !S_ISBLK(st.st_mode))
        return "not a block device";
    if (S_ISREG(st.st_mode)) {
        struct statfs fs {};
        if (statfs(node.c_str(), &fs) == 0) {
            const FileSystemKind kind = ClassifyFileSystem(static_cast<uint32_t>(fs.f_type));
            if (!kind.holdsStorage)
                return std::string("a file of a ") + kind.name + " file system, not storage";
        }
    }
    // The worker opens for reading and writing; a block device that refuses
    // writing, for reading only.
    tolv::platform::UniqueFd fd(open(node.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (!fd && S_ISBLK(st.st_mode) && (errno == EROFS || errno == EACCES))
        fd.reset(open(node.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    return fd ? std::string() : Words(errno);
}
