#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkListenerRpcLinux.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibConfig.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibEndpointSweep.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkSharedMemLinux.h"
#include <tamsel/ipc/ipclibStream.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include <tolv/log/Log.h>
#include "platform/SysCall.h"
#include "platform/Utf.h"
#include "platform/ScmRights.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <stdexcept>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibLinkListenerRpcLinux";

constexpr uint32_t kMaxSectionSize = 0xFFFFF;
// A hostile caller may attach more descriptors than the one we take; room for a
// few, and every one that arrives is closed.
constexpr size_t kRequestFdRoom = 8;

std::atomic<int64_t> g_callTimeoutMs{KxIpclibLinkListenerRpcLinux::kCallTimeout.count()};

std::mutex g_tableMutex;
std::map<_GUID, std::weak_ptr<KxIpclibLinkListenerRpcLinux>, EndpointLess> g_table;  // guarded by g_tableMutex

std::string Narrow(const std::u16string& text)
{
    auto narrow = platform::Utf16ToUtf8(text);
    return narrow ? *narrow : std::string("<invalid>");
}

// 0, or the system status of the failed send.
uint32_t SendReply(int socket, const KxIpclibBootstrapReply& reply, const std::vector<platform::UniqueFd>& fds)
{
    const auto bytes = encodeBootstrapReply(reply);
    iovec io{const_cast<uint8_t*>(bytes.data()), bytes.size()};
    msghdr msg{};
    msg.msg_iov = &io;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kBootstrapReplyFds)] = {};
    if (!fds.empty()) {
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
        cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        for (size_t i = 0; i < fds.size(); ++i) {
            const int fd = fds[i].get();
            std::memcpy(CMSG_DATA(cmsg) + i * sizeof(int), &fd, sizeof fd);
        }
    }
    // One small datagram on a connection that carried one request always fits;
    // a caller that does not read cannot hold this thread.
    const ssize_t n = platform::RetryOnEintr([&] { return ::sendmsg(socket, &msg, MSG_NOSIGNAL | MSG_DONTWAIT); });
    if (n < 0)
        return SystemStatusFromErrno(errno);
    return n == static_cast<ssize_t>(bytes.size()) ? kSysSuccess : kSysCallFailed;
}

} // namespace

void KxIpclibLinkListenerRpcLinux::setCallTimeoutForTesting(std::chrono::milliseconds timeout)
{
    g_callTimeoutMs = timeout.count();
}

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
    platform::UniqueFd sock(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!sock)
        return SystemStatusFromErrno(errno);
    // Bound and listening before a sweep in another process can probe it: a
    // socket bound but not yet listening refuses, like one whose server died.
    const platform::UniqueFd dirLock = KxIpclibLockRuntimeDir(m_runtimeDir);
    // The mode is set on the node as it is made.
    const mode_t old = ::umask(0777 & ~m_mode);
    int rc = ::bind(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    int err = errno;
    if (rc != 0 && err == EADDRINUSE) {
        // Another server may still be there; a refused probe means the file is
        // what a killed server left behind.
        platform::UniqueFd probe(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
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

void KxIpclibLinkListenerRpcLinux::wake()
{
    if (m_wake) {
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(m_wake.get(), &one, sizeof one);
    }
}

// The server thread.

void KxIpclibLinkListenerRpcLinux::serverLoop()
{
    std::deque<Pending> pending;
    std::vector<pollfd> fds;
    for (;;) {
        size_t room;
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            if (m_stopping)
                return;
            const size_t used = m_busy + m_calls.size();
            room = used < kMaxConcurrentCalls ? kMaxConcurrentCalls - used : 0;
        }
        const auto now = std::chrono::steady_clock::now();
        int timeoutMs = -1;
        fds.clear();
        fds.push_back({m_wake.get(), POLLIN, 0});
        fds.push_back({m_socket.get(), POLLIN, 0});
        for (auto& p : pending) {
            // While every call slot is busy, requests stay in their sockets.
            fds.push_back({p.socket.get(), static_cast<short>(room > 0 ? POLLIN : 0), 0});
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(p.deadline - now).count();
            const int ms = static_cast<int>(std::clamp<int64_t>(left + 1, 0, INT32_MAX));
            timeoutMs = timeoutMs < 0 ? ms : std::min(timeoutMs, ms);
        }
        if (platform::RetryOnEintr([&] { return ::poll(fds.data(), fds.size(), timeoutMs); }) < 0)
            continue;
        if (fds[0].revents & POLLIN) {
            uint64_t value;
            [[maybe_unused]] ssize_t n = ::read(m_wake.get(), &value, sizeof value);
        }
        // Requests first, on the connections polled above.
        std::deque<Pending> kept;
        const auto after = std::chrono::steady_clock::now();
        for (size_t i = 0; i < pending.size(); ++i) {
            const short revents = fds[i + 2].revents;
            if (revents & POLLIN) {
                if (receiveRequest(pending[i]))
                    continue;
            } else if (revents & (POLLHUP | POLLERR | POLLNVAL)) {
                continue;  // the caller went away without asking
            } else if (after >= pending[i].deadline) {
                KXIPC_TRACE(Listener, "- dropping a caller that sent nothing");
                continue;
            }
            kept.push_back(std::move(pending[i]));
        }
        pending = std::move(kept);
        if (fds[1].revents & POLLIN) {
            const auto deadline = after + std::chrono::milliseconds(g_callTimeoutMs.load());
            for (;;) {
                platform::UniqueFd conn(::accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
                if (!conn)
                    break;
                if (pending.size() == kMaxPendingConnections)
                    pending.pop_front();
                pending.push_back({std::move(conn), deadline});
            }
        }
    }
}

// Reads the connection's one datagram and queues the call; false while the
// connection has nothing yet (it is kept).
bool KxIpclibLinkListenerRpcLinux::receiveRequest(Pending& pending)
{
    std::vector<uint8_t> buffer(kBootstrapMaxRequestSize + 1);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kRequestFdRoom)] = {};
    iovec io{buffer.data(), buffer.size()};
    msghdr msg{};
    msg.msg_iov = &io;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    const ssize_t n = ::recvmsg(pending.socket.get(), &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        return false;
    if (n <= 0)
        return true;  // end of connection or error: nothing to answer
    std::vector<platform::UniqueFd> received;
    platform::TakeScmRights(msg, received);
    Call call{std::move(pending.socket), {}, {}};
    const bool truncated = (msg.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0 ||
                           static_cast<size_t>(n) > kBootstrapMaxRequestSize;
    if (!truncated && received.size() <= 1) {
        buffer.resize(static_cast<size_t>(n));
        call.request = std::move(buffer);
        if (!received.empty())
            call.clientPipe = std::move(received.front());
    }
    // Otherwise the request stays empty, which answers as malformed.
    std::lock_guard<std::mutex> guard(m_mutex);
    m_calls.push_back(std::move(call));
    if (m_idle == 0 && m_callThreads.size() < kMaxConcurrentCalls)
        m_callThreads.emplace_back([self = shared_from_this()] { self->callLoop(); });
    m_callsChanged.notify_one();
    return true;
}

void KxIpclibLinkListenerRpcLinux::callLoop()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        ++m_idle;
        m_callsChanged.wait(lock, [&] { return m_stopping || !m_calls.empty(); });
        --m_idle;
        if (m_stopping)
            return;
        Call call = std::move(m_calls.front());
        m_calls.pop_front();
        ++m_busy;
        lock.unlock();
        try {
            serveCall(call.socket.get(), call.request.data(), call.request.size(), std::move(call.clientPipe));
        } catch (const std::exception& e) {
            // A programming error in a connect function: the caller gets no reply.
            LOG_ERROR("KxIpclibLinkListenerRpcLinux::callLoop()", "call failed: %s", e.what());
        }
        call.socket.reset();
        lock.lock();
        --m_busy;
        wake();  // a call slot came free
    }
}

// One call.

uint32_t KxIpclibLinkListenerRpcLinux::serveCall(int callSocket, const uint8_t* data, size_t size,
                                                 platform::UniqueFd clientPipe)
{
    KxIpclibBootstrapRequest request;
    KxIpclibBootstrapReply reply;
    std::vector<platform::UniqueFd> fds;
    reply.rpcStatus = parseBootstrapRequest(data, size, request);
    if (reply.rpcStatus == 0) {
        const bool v2 = request.proc == KxIpclibBootstrapProc::CreateSharedMemoryLinkV2;
        // Version 2 must bring its pipe, version 1 none; the pipe must be one.
        struct stat st {};
        if (v2 != clientPipe.valid() ||
            (clientPipe && (::fstat(clientPipe.get(), &st) != 0 || !S_ISFIFO(st.st_mode))))
            reply.rpcStatus = kRpcStatusBadStubData;
    }
    if (reply.rpcStatus != 0) {
        KXIPC_TRACE(Listener, "< rpcStatus: {}", reply.rpcStatus);
        return SendReply(callSocket, reply, fds);
    }
    KXIPC_TRACE(Listener,
                "> clientVersion: {}, clientLinkId: {:#x}, clientLinkFlags: {:#x}, clientStreamId: {:#x}, "
                "clientStreamFlags: {:#x}, streamName: {}",
                request.clientVersion, request.clientLinkId, request.clientLinkFlags, request.clientStreamId,
                request.clientStreamFlags, Narrow(request.streamName));
    reply.serverVersion = 1;
    reply.sectionSize = std::min(request.requestedSectionSize, kMaxSectionSize);
    for (auto& h : reply.handles)
        h = kBootstrapNoHandle;
    std::shared_ptr<KxIpclibLinkSharedMemLinux> link;
    std::shared_ptr<KxIpclibStream> stream;
    KxIpcStatusCode status;
    // A size too small to carry a message is the caller's choice: its link
    // fails on its first transfer, and a size of 0 already fails to map.
    status = createSharedMemoryLink(callSocket, request, std::move(clientPipe), reply.sectionSize, reply, fds, link,
                                    stream);
    if (status == KxIpcStatusSuccess) {
        for (size_t i = 0; i < kBootstrapReplyFds; ++i)
            reply.handles[i] = i;
    } else {
        fds.clear();
        const uint32_t keepVersion = reply.serverVersion, keepSize = reply.sectionSize;
        reply = KxIpclibBootstrapReply{};
        reply.serverVersion = keepVersion;
        reply.sectionSize = keepSize;
        for (auto& h : reply.handles)
            h = kBootstrapNoHandle;
    }
    reply.status = status;
    KXIPC_TRACE(Listener, "< status: {}", status);
    const uint32_t sent = SendReply(callSocket, reply, fds);
    if (sent != kSysSuccess && link) {
        // The caller cannot learn of its link: take it down again.
        KXIPC_TRACE(Listener, "- reply not delivered, linkId: {:#x}", link->linkId());
        link->linkError();
        stream->shutdown();
    }
    return sent;
}

KxIpcStatusCode KxIpclibLinkListenerRpcLinux::createSharedMemoryLink(
    int callSocket, const KxIpclibBootstrapRequest& request, platform::UniqueFd clientPipe, uint32_t sectionSize,
    KxIpclibBootstrapReply& reply, std::vector<platform::UniqueFd>& fds,
    std::shared_ptr<KxIpclibLinkSharedMemLinux>& linkOut, std::shared_ptr<KxIpclibStream>& streamOut)
{
    ClientInfo client;
    KxIpcStatusCode status = getClientInfo(callSocket, clientPipe.valid(), client);
    if (status != KxIpcStatusSuccess) {
        KXIPC_TRACE(Listener, "< error: {}", status);
        return status;
    }
    auto listener = getRpcLinkListener(request.endpoint);
    if (!listener)
        status = KxIpcStatusNotFound;
    else
        status = listener->createSharedMemoryLinkInt(request, client, std::move(clientPipe), sectionSize, reply, fds,
                                                     linkOut, streamOut);
    KXIPC_TRACE(Listener, "< status: {}", status);
    return status;
}

KxIpcStatusCode KxIpclibLinkListenerRpcLinux::getClientInfo(int callSocket, bool hasClientPipe, ClientInfo& info)
{
    const uint32_t sys = getClientInfoInt(callSocket, info);
    if (sys == kSysAccessDenied && info.pid != 0) {
        // We may not watch the caller's process: its pipe stands in for it.
        info.useClientPipeHandle = true;
        if (!hasClientPipe)
            return KxIpcStatusInvalidParam;
    } else if (sys != kSysSuccess) {
        return KxIpcStatusFromSystem(sys);
    }
    KXIPC_TRACE(Listener, "- clientPid: {}, clientUsername: {}, useClientPipeHandle: {}", info.pid, info.username,
                info.useClientPipeHandle ? "true" : "false");
    return KxIpcStatusSuccess;
}

uint32_t KxIpclibLinkListenerRpcLinux::getClientInfoInt(int callSocket, ClientInfo& info)
{
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(callSocket, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.pid <= 0) {
        const uint32_t rpcStatus = SystemStatusFromErrno(errno);
        KXIPC_TRACE(Listener, "< rpcStatus: {}", rpcStatus);
        return rpcStatus;
    }
    info.pid = static_cast<uint32_t>(cred.pid);
    info.uid = cred.uid;
    {
        passwd pw{};
        passwd* found = nullptr;
        std::vector<char> buf(4096);
        if (::getpwuid_r(cred.uid, &pw, buf.data(), buf.size(), &found) == 0 && found)
            info.username = found->pw_name;
        else
            info.username = std::to_string(cred.uid);
    }
    if (DenyClientProcessHandleUseOnServer()) {
        KXIPC_TRACE(Listener, "Simulating access denied when opening client process handle");
        KXIPC_TRACE(Listener, "< clientPid: {}, rpcStatus: {}", info.pid, kSysAccessDenied);
        return kSysAccessDenied;
    }
    // The socket's own pidfd names the very process that connected; without it
    // a pidfd of the pid is only trusted while the caller still holds the connection.
    int pidfd = -1;
    len = sizeof pidfd;
    int err = 0;
    if (::getsockopt(callSocket, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &len) == 0 && pidfd >= 0) {
        info.process.reset(pidfd);
        ::fcntl(pidfd, F_SETFD, FD_CLOEXEC);
    } else {
        info.process.reset(static_cast<int>(::syscall(SYS_pidfd_open, cred.pid, 0)));
        err = info.process ? 0 : errno;
        if (info.process) {
            pollfd p{callSocket, POLLRDHUP, 0};
            const bool gone = ::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP)) != 0;
            if (gone || ::syscall(SYS_pidfd_send_signal, info.process.get(), 0, nullptr, 0) != 0) {
                info.process.reset();
                err = ESRCH;
            }
        }
    }
    const uint32_t rpcStatus = err == 0 ? kSysSuccess : SystemStatusFromErrno(err);
    KXIPC_TRACE(Listener, "< clientPid: {}, rpcStatus: {}", info.pid, rpcStatus);
    return rpcStatus;
}

KxIpcStatusCode KxIpclibLinkListenerRpcLinux::createSharedMemoryLinkInt(
    const KxIpclibBootstrapRequest& request, ClientInfo& client, platform::UniqueFd clientPipe, uint32_t sectionSize,
    KxIpclibBootstrapReply& reply, std::vector<platform::UniqueFd>& fds,
    std::shared_ptr<KxIpclibLinkSharedMemLinux>& linkOut, std::shared_ptr<KxIpclibStream>& streamOut)
{
    KXIPC_TRACE(Listener, "> ep: {}, streamName: {}, clientLinkId: {:#x}, clientStreamId: {:#x}, clientPid: {}",
                m_endpoint, Narrow(request.streamName), request.clientLinkId, request.clientStreamId, client.pid);
    platform::UniqueFd peerProcess, peerPipe;
    if (client.useClientPipeHandle)
        peerPipe = std::move(clientPipe);
    else
        peerProcess = std::move(client.process);
    auto link = std::make_shared<KxIpclibLinkSharedMemLinux>(m_endpoint, request.clientLinkFlags, request.streamName,
                                                             client.pid, m_onLinkClosed, shared_from_this(),
                                                             sectionSize, std::move(peerProcess), std::move(peerPipe));
    link->setPeerLinkId(request.clientLinkId);
    link->setPeerVersion(request.clientVersion);
    KxIpcStatusCode status = link->connecting();
    // The flags are taken whole; only what goes back to the client is masked.
    auto stream = std::make_shared<KxIpclibStream>(link, m_executor, request.streamName,
                                                   Flags<KxIpclibStreamFlag>(request.clientStreamFlags),
                                                   request.clientStreamId, KxIpclibStreamState::Init);
    if (status == KxIpcStatusSuccess)
        status = link->addStream(stream);
    if (status == KxIpcStatusSuccess) {
        // The reply pairs the streams, so no "OpenAck" goes out on accept.
        status = connectStream(stream, false);
        if (status == KxIpcStatusSuccess && m_onLinkOpened)
            status = m_onLinkOpened(link);
        if (status != KxIpcStatusSuccess)
            link->eraseStream(stream);
    }
    if (status != KxIpcStatusSuccess) {
        stream->shutdown();
        link->linkError();
        KXIPC_TRACE(Listener, "< status: {}", status);
        return status;
    }
    int error = 0;
    if (link->create(error) != 0)
        status = KxIpcStatusFromSystem(SystemStatusFromErrno(error));
    if (status == KxIpcStatusSuccess)
        status = duplicateLinkHandles(*link, fds);
    unsigned int out = 0;
    if (status == KxIpcStatusSuccess)
        status = link->start(m_executor, out);
    if (status != KxIpcStatusSuccess) {
        fds.clear();
        link->linkError();
        stream->shutdown();
        KXIPC_TRACE(Listener, "< status: {}", status);
        return status;
    }
    reply.serverLinkId = link->linkId();
    reply.serverLinkFlags = link->linkFlags() & 0xFFFF0000u;
    reply.serverStreamId = stream->streamId();
    reply.serverStreamFlags = stream->flags().value() & 0xFFFF0000u;
    reply.serverPid = static_cast<uint32_t>(::getpid());
    KXIPC_TRACE(Listener, "- serverLinkId: {:#x}, serverStreamId: {:#x}", reply.serverLinkId, reply.serverStreamId);
    linkOut = std::move(link);
    streamOut = std::move(stream);
    KXIPC_TRACE(Listener, "< status: {}", status);
    return status;
}

KxIpcStatusCode KxIpclibLinkListenerRpcLinux::duplicateLinkHandles(KxIpclibLinkSharedMemLinux& link,
                                                                   std::vector<platform::UniqueFd>& fds)
{
    KXIPC_TRACE(Listener, "> ep: {}", m_endpoint);
    fds.clear();
    KxIpclibLinkChannelResourceLinux toRead, toWrite;
    int error = 0;
    // What the client reads is what we send, and the reverse.
    if (link.sendChannel()->duplicateHandles(toRead, error) != 0 ||
        link.recvChannel()->duplicateHandles(toWrite, error) != 0) {
        KXIPC_TRACE(Listener, "< status: {}", KxIpcStatusUnexpected);
        return KxIpcStatusUnexpected;
    }
    platform::UniqueFd self(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
    if (!self) {
        KXIPC_TRACE(Listener, "< error: {}", errno);
        return KxIpcStatusUnexpected;
    }
    for (auto* set : {&toRead, &toWrite}) {
        fds.push_back(std::move(set->section));
        fds.push_back(std::move(set->dataReadyEvent));
        fds.push_back(std::move(set->bufferFreeEvent));
        fds.push_back(std::move(set->errorEvent));
        fds.push_back(std::move(set->stopEvent));
    }
    fds.push_back(std::move(self));
    KXIPC_TRACE(Listener, "< status: {}", KxIpcStatusSuccess);
    return KxIpcStatusSuccess;
}

} // namespace tamsel::ipc
