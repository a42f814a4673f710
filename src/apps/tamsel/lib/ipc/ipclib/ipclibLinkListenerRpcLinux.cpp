// KxIpclibLinkListenerRpcLinux: construction, the process-wide listener table,
// and the endpoint's lifecycle (binding its socket, the ready file, stopping).
// The server threads are in ipclibLinkListenerRpcLinuxServer.cpp, one call in
// ipclibLinkListenerRpcLinuxCall.cpp.

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkListenerRpcLinux.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibConfig.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibEndpointSweep.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <map>

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibLinkListenerRpcLinux";

std::mutex g_tableMutex;
std::map<_GUID, std::weak_ptr<KxIpclibLinkListenerRpcLinux>, EndpointLess> g_table;  // guarded by g_tableMutex

} // namespace

KxIpclibLinkListenerRpcLinux::KxIpclibLinkListenerRpcLinux(const _GUID& endpoint, Flags<KxIpclibListenerFlag> flags,
                                                           std::shared_ptr<tamsel::task::TaskExecutor> executor,
                                                           const _KxIpclibListenerEx* ex, ConnectEntry connect,
                                                           LinkOpened onLinkOpened, LinkClosed onLinkClosed)
    : KxIpclibLinkListener(endpoint, flags, std::move(executor), std::move(connect), std::move(onLinkOpened),
                           std::move(onLinkClosed))
{
    if (ex && ex->securityDescriptor) {
        m_securityDescriptor = ex->securityDescriptor;
        m_mode = ex->securityDescriptor->mode & 0777;
    }
}

KxIpclibLinkListenerRpcLinux::~KxIpclibLinkListenerRpcLinux()
{
    unsigned int out = 0;
    stop(out);
    KXIPC_TRACE(Listener, "- ep: {}", m_endpoint);
}

// The listener table.

bool KxIpclibLinkListenerRpcLinux::addRpcLinkListener(const std::shared_ptr<KxIpclibLinkListenerRpcLinux>& listener)
{
    std::lock_guard<std::mutex> guard(g_tableMutex);
    auto it = g_table.find(listener->endpoint());
    if (it != g_table.end() && !it->second.expired())
        return false;
    g_table[listener->endpoint()] = listener;
    return true;
}

void KxIpclibLinkListenerRpcLinux::removeRpcLinkListener(const KxIpclibLinkListenerRpcLinux& listener)
{
    std::lock_guard<std::mutex> guard(g_tableMutex);
    auto it = g_table.find(listener.endpoint());
    if (it == g_table.end())
        return;
    auto entry = it->second.lock();
    if (!entry || entry.get() == &listener)
        g_table.erase(it);
}

std::shared_ptr<KxIpclibLinkListenerRpcLinux> KxIpclibLinkListenerRpcLinux::getRpcLinkListener(const _GUID& endpoint)
{
    std::lock_guard<std::mutex> guard(g_tableMutex);
    auto it = g_table.find(endpoint);
    return it == g_table.end() ? nullptr : it->second.lock();
}

// Lifecycle.

KxIpcStatusCode KxIpclibLinkListenerRpcLinux::start(Flags<KxIpclibListenerFlag>, unsigned int&)
{
    KXIPC_TRACE(Listener, "> ep: {}", m_endpoint);
    auto dir = KxIpclibRuntimeDir();
    if (!dir) {
        KXIPC_TRACE(Listener, "< status: {}", KxIpcStatusUnexpected);
        return KxIpcStatusUnexpected;
    }
    m_runtimeDir = *dir;
    // Taken first, so that a second listener on this endpoint touches nothing of the first's.
    if (!addRpcLinkListener(shared_from_this())) {
        KXIPC_TRACE(Listener, "< status: {}", KxIpcStatusAlreadyExists);
        return KxIpcStatusAlreadyExists;
    }
    m_inTable = true;
    uint32_t rpcStatus = kSysSuccess;
    // In module mode the module owns the endpoint's socket.
    if (!useRpcServerModule())
        rpcStatus = bindEndpoint();
    if (rpcStatus == kSysSuccess)
        rpcStatus = rpcRegisterIf(*this, m_securityDescriptor);
    if (rpcStatus == kSysSuccess && !m_readyMade) {
        // Only once the endpoint is ours: a live server elsewhere keeps its
        // ready file. A file left by a server that died must not announce us
        // before `accepting`.
        m_readyPath = KxIpclibReadyFilePath(m_runtimeDir, m_endpoint);
        if (::unlink(m_readyPath.c_str()) != 0 && errno != ENOENT)
            rpcStatus = SystemStatusFromErrno(errno);
        else
            m_readyMade = true;
    }
    if (rpcStatus == kSysSuccess && m_socket) {
        m_wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!m_wake)
            rpcStatus = SystemStatusFromErrno(errno);
        else
            // Threads keep the listener alive: a call that closes it from the
            // application's connect function must not pull it from under itself.
            m_serverThread = std::thread([self = shared_from_this()] { self->serverLoop(); });
    }
    if (rpcStatus != kSysSuccess) {
        KXIPC_TRACE(Listener, "< rpcStatus: {}", rpcStatus);
        unsigned int out = 0;
        stop(out);
        return KxIpcStatusFromSystem(rpcStatus);
    }
    KXIPC_TRACE(Listener, "< status: {}", KxIpcStatusSuccess);
    return KxIpcStatusSuccess;
}

uint32_t KxIpclibLinkListenerRpcLinux::bindEndpoint()
{
    m_socketPath = KxIpclibEndpointSocketPath(m_runtimeDir, m_endpoint);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (m_socketPath.size() >= sizeof addr.sun_path)
        return kSysInvalidEndpointFormat;
    std::memcpy(addr.sun_path, m_socketPath.c_str(), m_socketPath.size() + 1);
    tolv::platform::UniqueFd sock(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!sock)
        return SystemStatusFromErrno(errno);
    // Bound and listening before a sweep in another process can probe it: a
    // socket bound but not yet listening refuses, like one whose server died.
    const tolv::platform::UniqueFd dirLock = KxIpclibLockRuntimeDir(m_runtimeDir);
    // The mode is set on the node as it is made.
    const mode_t old = ::umask(0777 & ~m_mode);
    int rc = ::bind(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    int err = errno;
    if (rc != 0 && err == EADDRINUSE) {
        // Another server may still be there; a refused probe means the file is
        // what a killed server left behind.
        tolv::platform::UniqueFd probe(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        const bool live =
            probe && ::connect(probe.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        const int probeErr = errno;
        if (!live && (probeErr == ECONNREFUSED || probeErr == ENOENT)) {
            KXIPC_TRACE(Listener, "- removing stale endpoint: {}", m_socketPath);
            ::unlink(m_socketPath.c_str());
            rc = ::bind(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
            err = errno;
        }
    }
    ::umask(old);
    if (rc != 0)
        return SystemStatusFromErrno(err);
    struct stat st {};
    if (::stat(m_socketPath.c_str(), &st) == 0) {
        m_socketDev = st.st_dev;
        m_socketIno = st.st_ino;
    }
    if (::listen(sock.get(), 128) != 0) {
        err = errno;
        ::unlink(m_socketPath.c_str());
        return SystemStatusFromErrno(err);
    }
    m_socket = std::move(sock);
    return kSysSuccess;
}

KxIpcStatusCode KxIpclibLinkListenerRpcLinux::accepting(unsigned int&)
{
    KxIpcStatusCode status = KxIpcStatusUnexpected;
    if (m_readyMade) {
        // The file's existence is the event; O_EXCL makes its creation atomic.
        const int fd = ::open(m_readyPath.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, m_mode);
        if (fd >= 0 || errno == EEXIST)
            status = KxIpcStatusSuccess;
        if (fd >= 0)
            ::close(fd);
    }
    KXIPC_TRACE(Listener, "< status: {}", status);
    return status;
}

void KxIpclibLinkListenerRpcLinux::stop(unsigned int&)
{
    if (m_readyMade) {
        ::unlink(m_readyPath.c_str());
        m_readyMade = false;
    }
    if (m_inTable) {
        removeRpcLinkListener(*this);
        m_inTable = false;
    }
    std::vector<std::thread> threads;
    std::deque<Call> dropped;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_stopping = true;
        threads = std::move(m_callThreads);
        m_callThreads.clear();
        dropped = std::move(m_calls);
        m_calls.clear();
    }
    m_callsChanged.notify_all();
    wake();
    if (m_serverThread.joinable())
        m_serverThread.join();
    // A call may run the application's connect function, which may close us:
    // that thread cannot wait for itself.
    for (auto& t : threads) {
        if (t.get_id() == std::this_thread::get_id())
            t.detach();
        else
            t.join();
    }
    dropped.clear();
    if (m_socket) {
        m_socket.reset();
        struct stat st {};
        // Only our own node: a later server may already own the name.
        if (::stat(m_socketPath.c_str(), &st) == 0 && st.st_dev == m_socketDev && st.st_ino == m_socketIno)
            ::unlink(m_socketPath.c_str());
    }
    m_wake.reset();
    const uint32_t rpcStatus = rpcUnRegisterIf(*this);
    KXIPC_TRACE(Listener, "< rpcStatus: {}", rpcStatus);
}

} // namespace tamsel::ipc
