#include "worker/FakeDriveCalls.h"

#include "platform/Utf.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

FakeDriveCalls* g_fake = nullptr;

const std::map<uint32_t, const char*> kCodeNames = {
    {FSCTL_ALLOW_EXTENDED_DASD_IO, "ALLOW_EXTENDED"}, {FSCTL_LOCK_VOLUME, "LOCK"},
    {FSCTL_UNLOCK_VOLUME, "UNLOCK"},                   {FSCTL_DISMOUNT_VOLUME, "DISMOUNT"},
    {IOCTL_DISK_GET_LENGTH_INFO, "LENGTH"},            {IOCTL_DISK_IS_WRITABLE, "WRITABLE"},
    {IOCTL_DISK_GET_DRIVE_GEOMETRY, "GEOMETRY"}};

} // namespace

FakeDriveCalls::FakeDriveCalls() : m_table{&Create, &Control, &Close}
{
    g_fake = this;
    m_previous = SetDriveCalls(&m_table);
}

FakeDriveCalls::~FakeDriveCalls()
{
    SetDriveCalls(m_previous);
    for (const auto& handle : m_handles)
        ::close(handle.first);
    g_fake = nullptr;
}

std::vector<std::string> FakeDriveCalls::TakeCalls()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return std::move(m_calls);
}

size_t FakeDriveCalls::OpenHandles()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_handles.size();
}

int FakeDriveCalls::Create(const std::u16string& path)
{
    std::lock_guard<std::mutex> guard(g_fake->m_mutex);
    const std::string name = tolv::platform::Utf16ToUtf8(path).value_or("?");
    g_fake->m_calls.push_back("open " + name);
    if (g_fake->openErrno != 0) {
        errno = g_fake->openErrno;
        return -1;
    }
    const int fd = ::memfd_create("fake-drive", MFD_CLOEXEC);
    if (fd < 0 || ::ftruncate(fd, 4096) != 0)
        return -1;
    g_fake->m_handles[fd] = name;
    return fd;
}

bool FakeDriveCalls::Control(int handle, uint32_t code, void* output, uint32_t outputSize)
{
    std::lock_guard<std::mutex> guard(g_fake->m_mutex);
    const auto it = g_fake->m_handles.find(handle);
    const auto name = kCodeNames.find(code);
    g_fake->m_calls.push_back(std::string(name == kCodeNames.end() ? "UNKNOWN" : name->second) + " " +
                              (it == g_fake->m_handles.end() ? "?" : it->second));
    auto& queue = g_fake->script[code];
    const bool known = it != g_fake->m_handles.end();
    const int error = !known ? EBADF : queue.empty() ? 0 : queue.front();
    if (known && !queue.empty())
        queue.pop_front();
    if (error != 0) {
        errno = error;
        return false;
    }
    const uint64_t length = 8ull << 30;
    const DISK_GEOMETRY geometry{1044, MEDIA_TYPE_FIXED, 255, 63, 512};
    if (code == IOCTL_DISK_GET_LENGTH_INFO && outputSize >= sizeof length)
        std::memcpy(output, &length, sizeof length);
    if (code == IOCTL_DISK_GET_DRIVE_GEOMETRY && outputSize >= sizeof geometry)
        std::memcpy(output, &geometry, sizeof geometry);
    return true;
}

bool FakeDriveCalls::Close(int handle)
{
    std::lock_guard<std::mutex> guard(g_fake->m_mutex);
    const auto it = g_fake->m_handles.find(handle);
    g_fake->m_calls.push_back("close " + (it == g_fake->m_handles.end() ? std::string("?") : it->second));
    if (it == g_fake->m_handles.end()) {
        errno = EBADF;
        return false;
    }
    g_fake->m_handles.erase(it);
    return ::close(handle) == 0;
}
