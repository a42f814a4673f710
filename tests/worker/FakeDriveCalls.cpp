#include "worker/FakeDriveCalls.h"
#include "worker/DriveServiceHarness.h"

#include "platform/Utf.h"

#include <dirent.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

using namespace tolv::worker;

namespace {
FakeDriveCalls* g_fake = nullptr;

const char* CodeName(uint32_t code)
{
    switch (code) {
    case FSCTL_ALLOW_EXTENDED_DASD_IO: return "ALLOW_EXTENDED";
    case FSCTL_LOCK_VOLUME: return "LOCK";
    case FSCTL_UNLOCK_VOLUME: return "UNLOCK";
    case FSCTL_DISMOUNT_VOLUME: return "DISMOUNT";
    case IOCTL_DISK_GET_LENGTH_INFO: return "LENGTH";
    case IOCTL_DISK_IS_WRITABLE: return "WRITABLE";
    case IOCTL_DISK_GET_DRIVE_GEOMETRY: return "GEOMETRY";
    default: return "UNKNOWN";
    }
}
} // namespace

FakeDriveCalls::FakeDriveCalls() : m_table{&Create, &Control, &Close}
{
    g_fake = this;
    m_previous = SetDriveCalls(&m_table);
}

FakeDriveCalls::~FakeDriveCalls()
{
    SetDriveCalls(m_previous);
    for (const auto& [fd, path] : m_handles)
        ::close(fd);
    g_fake = nullptr;
}

std::vector<std::string> FakeDriveCalls::Calls()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_calls;
}

void FakeDriveCalls::ClearCalls()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    m_calls.clear();
}

size_t FakeDriveCalls::OpenHandles()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_handles.size();
}

int FakeDriveCalls::Create(const std::u16string& path)
{
    FakeDriveCalls& self = *g_fake;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    const std::string name = tolv::platform::Utf16ToUtf8(path).value_or("?");
    self.m_calls.push_back("open " + name);
    if (self.openErrno != 0) {
        errno = self.openErrno;
        return -1;
    }
    const int fd = ::memfd_create("fake-drive", MFD_CLOEXEC);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(self.fileSize)) != 0)
        return -1;
    self.m_handles[fd] = name;
    return fd;
}

bool FakeDriveCalls::Control(int handle, uint32_t code, void* output, uint32_t outputSize)
{
    FakeDriveCalls& self = *g_fake;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    auto it = self.m_handles.find(handle);
    self.m_calls.push_back(std::string(CodeName(code)) + " " + (it == self.m_handles.end() ? "?" : it->second));
    if (it == self.m_handles.end()) {
        errno = EBADF;
        return false;
    }
    auto& queue = self.script[code];
    if (!queue.empty()) {
        const int err = queue.front();
        queue.pop_front();
        if (err != 0) {
            errno = err;
            return false;
        }
    }
    if (code == IOCTL_DISK_GET_LENGTH_INFO && outputSize >= sizeof self.deviceLength)
        std::memcpy(output, &self.deviceLength, sizeof self.deviceLength);
    if (code == IOCTL_DISK_GET_DRIVE_GEOMETRY && outputSize >= sizeof self.geometry)
        std::memcpy(output, &self.geometry, sizeof self.geometry);
    return true;
}

bool FakeDriveCalls::Close(int handle)
{
    FakeDriveCalls& self = *g_fake;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    auto it = self.m_handles.find(handle);
    self.m_calls.push_back("close " + (it == self.m_handles.end() ? std::string("?") : it->second));
    if (it == self.m_handles.end()) {
        errno = EBADF;
        return false;
    }
    self.m_handles.erase(it);
    return ::close(handle) == 0;
}

size_t CountOpenDescriptors(const std::string& target)
{
    size_t count = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir)
        return 0;
    while (dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        if (target.empty()) {
            ++count;
            continue;
        }
        char link[PATH_MAX];
        const std::string path = std::string("/proc/self/fd/") + entry->d_name;
        const ssize_t n = ::readlink(path.c_str(), link, sizeof link - 1);
        if (n > 0 && std::string(link, static_cast<size_t>(n)) == target)
            ++count;
    }
    ::closedir(dir);
    return count;
}
