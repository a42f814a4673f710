#include "apps/tamsel/lib/ipc/ipclib/ipclibEndpointSweep.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"
#include "platform/SysCall.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibEndpointSweep";

// The name an endpoint's socket gets: the GUID in lower-case 8-4-4-4-12 form.
bool IsEndpointName(const char* name)
{
    if (std::strlen(name) != 36)
        return false;
    for (int i = 0; i < 36; ++i) {
        const char c = name[i];
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (c != '-')
                return false;
        } else if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

// True only for a refused connection: a server that is there but busy (a
// full backlog) or anything unexpected leaves the file alone.
bool RefusesConnections(const std::string& path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    tolv::platform::UniqueFd probe(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe)
        return false;
    const int rc = tolv::platform::RetryOnEintr(
        [&] { return ::connect(probe.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr); });
    return rc != 0 && errno == ECONNREFUSED;
}

} // namespace

tolv::platform::UniqueFd KxIpclibLockRuntimeDir(const std::string& runtimeDir)
{
    const std::string path = runtimeDir + "/ipclib.lock";
    tolv::platform::UniqueFd lock(tolv::platform::RetryOnEintr(
        [&] { return ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600); }));
    if (!lock)
        return lock;
    if (tolv::platform::RetryOnEintr([&] { return ::flock(lock.get(), LOCK_EX); }) != 0)
        return tolv::platform::UniqueFd();
    return lock;
}

std::vector<std::string> KxIpclibRemoveStaleEndpoints(const std::string& runtimeDir)
{
    std::vector<std::string> removed;
    const tolv::platform::UniqueFd lock = KxIpclibLockRuntimeDir(runtimeDir);
    if (!lock)
        return removed;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(runtimeDir.c_str()), &::closedir);
    if (!dir)
        return removed;
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(dir.get())) {
        if (IsEndpointName(entry->d_name))
            names.emplace_back(entry->d_name);
    }
    const int dirFd = ::dirfd(dir.get());
    for (const std::string& name : names) {
        struct stat st {};
        if (::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISSOCK(st.st_mode) ||
            st.st_uid != ::geteuid())
            continue;
        if (!RefusesConnections(runtimeDir + "/" + name))
            continue;
        KXIPC_TRACE(Listener, "- removing stale endpoint: {}", name);
        if (::unlinkat(dirFd, name.c_str(), 0) != 0 && errno != ENOENT)
            continue;
        ::unlinkat(dirFd, ("ipclibLinkReady(" + name + ")").c_str(), 0);
        removed.push_back(name);
    }
    return removed;
}

} // namespace tamsel::ipc
