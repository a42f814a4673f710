#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkChannelSharedMemLinux.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"
#include <tamsel/ipc/ipclibTypes.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibLinkChannelSharedMemLinux";
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW;

int NewEvent()
{
    return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

// A section is whole pages, as the kernel maps it: bytes past the end of the
// file in its last page would fault instead of reading as undefined. A size of
// 0 stays 0 and fails to map.
size_t MappedSize(uint32_t sectionSize)
{
    const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    return (static_cast<size_t>(sectionSize) + page - 1) / page * page;
}

int Duplicate(const tolv::platform::UniqueFd& fd)
{
    return ::fcntl(fd.get(), F_DUPFD_CLOEXEC, 0);
}

} // namespace

int KxIpclibLinkChannelSharedMemLinux::create(int& errorCode)
{
    KXIPC_TRACE(Link, ">");
    errorCode = 0;
    auto fail = [&] {
        errorCode = errno;
        destroy();
        KXIPC_TRACE(Link, "< errorCode: {}", errorCode);
        return 1;
    };
    m_section.reset(::memfd_create("ipclib-link", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!m_section || ::ftruncate(m_section.get(), static_cast<off_t>(MappedSize(m_sectionSize))) != 0 ||
        ::fcntl(m_section.get(), F_ADD_SEALS, kSeals | F_SEAL_SEAL) != 0)
        return fail();
    void* view = ::mmap(nullptr, MappedSize(m_sectionSize), PROT_READ | PROT_WRITE, MAP_SHARED, m_section.get(), 0);
    if (view == MAP_FAILED)
        return fail();
    m_view = static_cast<uint8_t*>(view);
    // One step at a time: the first that fails ends the creation with its error.
    for (auto* event : {&m_dataReady, &m_bufferFree, &m_error, &m_stop}) {
        event->reset(NewEvent());
        if (!*event)
            return fail();
    }
    KXIPC_TRACE(Link, "< status: {}", KxIpcStatusSuccess);
    return 0;
}

int KxIpclibLinkChannelSharedMemLinux::attach(KxIpclibLinkChannelResourceLinux resource, int& errorCode)
{
    errorCode = 0;
    destroy();
    auto fail = [&](int err) {
        errorCode = err;
        destroy();
        return 1;
    };
    if (!resource.valid || !resource.section || !resource.dataReadyEvent || !resource.bufferFreeEvent ||
        !resource.errorEvent || !resource.stopEvent)
        return fail(EINVAL);
    // The seals make the size permanent; only then is the size worth checking.
    struct stat st {};
    const int seals = ::fcntl(resource.section.get(), F_GET_SEALS);
    if (seals < 0 || (seals & kSeals) != kSeals || ::fstat(resource.section.get(), &st) != 0 ||
        static_cast<uint64_t>(st.st_size) != MappedSize(m_sectionSize))
        return fail(EINVAL);
    void* view =
        ::mmap(nullptr, MappedSize(m_sectionSize), PROT_READ | PROT_WRITE, MAP_SHARED, resource.section.get(), 0);
    if (view == MAP_FAILED)
        return fail(errno);
    m_view = static_cast<uint8_t*>(view);
    m_section = std::move(resource.section);
    m_dataReady = std::move(resource.dataReadyEvent);
    m_bufferFree = std::move(resource.bufferFreeEvent);
    m_error = std::move(resource.errorEvent);
    m_stop = std::move(resource.stopEvent);
    return 0;
}

void KxIpclibLinkChannelSharedMemLinux::destroy()
{
    if (m_view != nullptr)
        ::munmap(m_view, MappedSize(m_sectionSize));
    m_view = nullptr;
    m_section.reset();
    m_dataReady.reset();
    m_bufferFree.reset();
    m_error.reset();
    m_stop.reset();
}

int KxIpclibLinkChannelSharedMemLinux::duplicateHandles(KxIpclibLinkChannelResourceLinux& out, int& errorCode) const
{
    KXIPC_TRACE(Link, ">");
    out.release();
    out.valid = true;
    out.section.reset(Duplicate(m_section));
    out.dataReadyEvent.reset(Duplicate(m_dataReady));
    out.bufferFreeEvent.reset(Duplicate(m_bufferFree));
    out.errorEvent.reset(Duplicate(m_error));
    out.stopEvent.reset(Duplicate(m_stop));
    if (!out.section || !out.dataReadyEvent || !out.bufferFreeEvent || !out.errorEvent || !out.stopEvent) {
        errorCode = errno;
        out.release();
        KXIPC_TRACE(Link, "< errorCode: {}", errorCode);
        return 1;
    }
    KXIPC_TRACE(Link, "< status: {}", KxIpcStatusSuccess);
    return 0;
}

void KxIpclibLinkChannelSharedMemLinux::Signal(int event)
{
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(event, &one, sizeof one);
}

bool KxIpclibLinkChannelSharedMemLinux::Consume(int event)
{
    uint64_t value = 0;
    return ::read(event, &value, sizeof value) == sizeof value && value != 0;
}

} // namespace tamsel::ipc
