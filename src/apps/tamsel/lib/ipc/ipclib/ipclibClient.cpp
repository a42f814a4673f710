#include <tamsel/ipc/ipclibClient.h>

#include "apps/tamsel/lib/ipc/ipclib/ipclibConfig.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkSharedMemLinux.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include "platform/SysCall.h"
#include "task/LinuxThreadPoolExecutor.h"
#include "platform/ScmRights.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibClient";

using Clock = std::chrono::steady_clock;

int MsLeft(Clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left <= 0 ? 0 : static_cast<int>(std::min<int64_t>(left, INT32_MAX));
}

bool Exists(const std::string& path)
{
    return ::access(path.c_str(), F_OK) == 0;
}

template <typename T>
tamsel::unexpected<KxIpcStatusCode> Fail(KxIpcStatusCode status)
{
    return tamsel::unexpected<KxIpcStatusCode>(status);
}

} // namespace

KxIpcStatusCode KxIpclibWaitForReady(const _GUID& endpoint, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    auto dir = KxIpclibRuntimeDir();
    if (!dir)
        return KxIpcStatusNotFound;
    const std::string ready = KxIpclibReadyFilePath(*dir, endpoint);
    const std::string name = ready.substr(dir->size() + 1);
    tolv::platform::UniqueFd watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!watch || ::inotify_add_watch(watch.get(), dir->c_str(), IN_CREATE | IN_MOVED_TO) < 0)
        return KxIpcStatusUnexpected;
    // Checked after the watch is in place, so a creation in between is not missed.
    while (!Exists(ready)) {
        pollfd p{watch.get(), POLLIN, 0};
        const int n = tolv::platform::RetryOnEintr([&] { return ::poll(&p, 1, MsLeft(deadline)); });
        if (n < 0)
            return KxIpcStatusUnexpected;
        if (n == 0)
            return Exists(ready) ? KxIpcStatusSuccess : KxIpcStatusNotFound;
        alignas(inotify_event) char buf[4096];
        while (::read(watch.get(), buf, sizeof buf) > 0) {
        }
    }
    return KxIpcStatusSuccess;
}

KxIpcStatusCode KxIpclibCallBootstrap(const _GUID& endpoint, const std::vector<uint8_t>& request, int clientPipe,
                                      std::chrono::milliseconds timeout, KxIpclibBootstrapReply& reply,
                                      std::vector<tolv::platform::UniqueFd>& fds)
{
    const auto deadline = Clock::now() + timeout;
    fds.clear();
    auto dir = KxIpclibRuntimeDir();
    if (!dir)
        return KxIpcStatusNotFound;
    const std::string path = KxIpclibEndpointSocketPath(*dir, endpoint);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return KxIpcStatusInvalidParam;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    tolv::platform::UniqueFd sock(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!sock)
        return KxIpcStatusFromSystem(SystemStatusFromErrno(errno));
    if (tolv::platform::RetryOnEintr([&] { return ::connect(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr); }) != 0)
        return KxIpcStatusFromSystem(SystemStatusFromErrno(errno));

    iovec io{const_cast<uint8_t*>(request.data()), request.size()};
    msghdr msg{};
    msg.msg_iov = &io;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (clientPipe >= 0) {
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(cmsg), &clientPipe, sizeof clientPipe);
    }
    if (tolv::platform::RetryOnEintr([&] { return ::sendmsg(sock.get(), &msg, MSG_NOSIGNAL); }) !=
        static_cast<ssize_t>(request.size()))
        return KxIpcStatusFromSystem(SystemStatusFromErrno(errno));

    pollfd p{sock.get(), POLLIN, 0};
    const int ready = tolv::platform::RetryOnEintr([&] { return ::poll(&p, 1, MsLeft(deadline)); });
    if (ready <= 0)
        return KxIpcStatusStreamClosed;
    std::array<uint8_t, kBootstrapReplySize + 1> bytes{};
    alignas(cmsghdr) char replyControl[CMSG_SPACE(sizeof(int) * (kBootstrapReplyFds + 1))] = {};
    iovec rio{bytes.data(), bytes.size()};
    msghdr rmsg{};
    rmsg.msg_iov = &rio;
    rmsg.msg_iovlen = 1;
    rmsg.msg_control = replyControl;
    rmsg.msg_controllen = sizeof replyControl;
    const ssize_t n = tolv::platform::RetryOnEintr([&] { return ::recvmsg(sock.get(), &rmsg, MSG_CMSG_CLOEXEC | MSG_DONTWAIT); });
    tolv::platform::TakeScmRights(rmsg, fds);
    if (n <= 0)
        return KxIpcStatusStreamClosed;
    if ((rmsg.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0 ||
        !parseBootstrapReply(bytes.data(), static_cast<size_t>(n), reply)) {
        fds.clear();
        return KxIpcStatusProtocolError;
    }
    return KxIpcStatusSuccess;
}

tamsel::expected<std::unique_ptr<KxIpclibClient>, KxIpcStatusCode> KxIpclibClient::connect(
    const _GUID& endpoint, const std::u16string& streamName, KxIpclibRecvFunction onRecv,
    const KxIpclibClientOptions& options)
{
    using Result = tamsel::expected<std::unique_ptr<KxIpclibClient>, KxIpcStatusCode>;
    KXIPC_TRACE(Link, "> ep: {}", endpoint);
    if (streamName.empty() || streamName.size() > kBootstrapMaxStreamName || !onRecv)
        return Result(Fail<void>(KxIpcStatusInvalidParam));
    KxIpcStatusCode status = KxIpclibWaitForReady(endpoint, options.readyTimeout);
    if (status != KxIpcStatusSuccess) {
        KXIPC_TRACE(Link, "< status: {}", status);
        return Result(Fail<void>(status));
    }
    std::unique_ptr<KxIpclibClient> client(new KxIpclibClient());
    client->m_openTimeout = options.openTimeout;
    client->m_executor = options.executor;
    if (!client->m_executor)
        client->m_executor = tamsel::task::LinuxThreadPoolExecutor::create();
    if (!client->m_executor)
        return Result(Fail<void>(KxIpcStatusUnexpected));
    // The server lowers the size the same way; anything else in the reply is refused.
    client->m_sectionSize = std::min<uint32_t>(options.sectionSize, 0xFFFFF);
    auto closed = client->m_closed;
    auto link = std::make_shared<KxIpclibLinkSharedMemLinux>(
        endpoint, 0, streamName, 0,
        [closed](KxIpclibLink&) {
            std::lock_guard<std::mutex> guard(closed->mutex);
            closed->closed = true;
            closed->cv.notify_all();
        },
        nullptr, client->m_sectionSize, tolv::platform::UniqueFd(), tolv::platform::UniqueFd());
    auto stream = std::make_shared<KxIpclibStream>(link, client->m_executor, streamName, options.streamFlags, 0,
                                                   KxIpclibStreamState::Init);
    client->m_link = link;

    KxIpclibBootstrapRequest request;
    request.proc = options.procedure;
    request.endpoint = endpoint;
    request.clientVersion = 1;
    request.clientLinkId = link->linkId();
    request.clientLinkFlags = 0;
    request.clientStreamId = stream->streamId();
    request.clientStreamFlags = options.streamFlags.value() & 0xFFFF0000u;
    request.streamName = streamName;
    request.requestedSectionSize = options.sectionSize;
    tolv::platform::UniqueFd pipeRead;
    if (request.proc == KxIpclibBootstrapProc::CreateSharedMemoryLinkV2) {
        int p[2];
        if (::pipe2(p, O_CLOEXEC) != 0)
            return Result(Fail<void>(KxIpcStatusFromSystem(SystemStatusFromErrno(errno))));
        pipeRead.reset(p[0]);
        client->m_pipeWrite.reset(p[1]);
    }
    KxIpclibBootstrapReply reply;
    std::vector<tolv::platform::UniqueFd> fds;
    status = KxIpclibCallBootstrap(endpoint, encodeBootstrapRequest(request), pipeRead.get(), options.callTimeout,
                                   reply, fds);
    pipeRead.reset();
    if (status == KxIpcStatusSuccess && reply.rpcStatus != 0)
        status = KxIpcStatusFromSystem(reply.rpcStatus);
    if (status == KxIpcStatusSuccess)
        status = reply.status;
    if (status == KxIpcStatusSuccess) {
        bool handlesInOrder = fds.size() == kBootstrapReplyFds;
        for (size_t i = 0; i < kBootstrapReplyFds; ++i)
            handlesInOrder = handlesInOrder && reply.handles[i] == i;
        if (!handlesInOrder || reply.sectionSize != client->m_sectionSize)
            status = KxIpcStatusProtocolError;
    }
    if (status != KxIpcStatusSuccess) {
        KXIPC_TRACE(Link, "< status: {}", status);
        stream->shutdown();
        return Result(Fail<void>(status));
    }
    client->m_serverPid = reply.serverPid;
    std::array<int, 11> raw{};
    for (size_t i = 0; i < raw.size(); ++i)
        raw[i] = fds[i].release();
    auto toRead = KxIpclibLinkChannelResourceLinux::adopt({raw[0], raw[1], raw[2], raw[3], raw[4]});
    auto toWrite = KxIpclibLinkChannelResourceLinux::adopt({raw[5], raw[6], raw[7], raw[8], raw[9]});
    link->setPeer(reply.serverPid, tolv::platform::UniqueFd(raw[10]));
    int error = 0;
    unsigned int out = 0;
    if (link->attach(std::move(toWrite), std::move(toRead), error) != 0)
        status = KxIpcStatusProtocolError;  // the server's sections are not what it said
    if (status == KxIpcStatusSuccess)
        status = link->connecting();
    if (status == KxIpcStatusSuccess)
        status = stream->setPeerStreamId(reply.serverStreamId);
    if (status == KxIpcStatusSuccess)
        status = link->addStream(stream);
    if (status == KxIpcStatusSuccess)
        status = stream->accept(options.streamFlags, std::move(onRecv));
    if (status == KxIpcStatusSuccess)
        status = link->start(client->m_executor, out);
    if (status != KxIpcStatusSuccess) {
        KXIPC_TRACE(Link, "< status: {}", status);
        link->linkError();  // tells the server, whose side is already up
        stream->shutdown();
        return Result(Fail<void>(status));
    }
    client->m_firstStream = std::move(stream);
    KXIPC_TRACE(Link, "< status: {}, linkId: {:#x}, serverLinkId: {:#x}", status, link->linkId(), reply.serverLinkId);
    return Result(std::move(client));
}

KxIpclibClient::~KxIpclibClient()
{
    close();
    m_streams.clear();
    m_firstStream.reset();
    m_link.reset();
    // Streams hold task handles; the executor's last owner waits for them.
    m_executor.reset();
}

tamsel::expected<std::shared_ptr<KxIpclibStream>, KxIpcStatusCode> KxIpclibClient::openStream(
    const std::u16string& name, KxIpclibRecvFunction onRecv, Flags<KxIpclibStreamFlag> flags)
{
    auto opened = KxIpclibStream::open(m_link, m_executor, name, flags, std::move(onRecv), m_openTimeout);
    if (opened)
        m_streams.push_back(*opened);
    return opened;
}

bool KxIpclibClient::linkClosed()
{
    std::lock_guard<std::mutex> guard(m_closed->mutex);
    return m_closed->closed;
}

bool KxIpclibClient::waitLinkClosed(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(m_closed->mutex);
    return m_closed->cv.wait_for(lock, timeout, [&] { return m_closed->closed; });
}

bool KxIpclibClient::close(std::chrono::milliseconds timeout)
{
    // A link that never got past the bootstrap has nothing to close.
    if (!m_link || !m_firstStream)
        return true;
    m_link->close();
    const bool closed = waitLinkClosed(timeout);
    if (!closed)
        m_link->shutdown();  // the server did not answer: stop without it
    m_pipeWrite.reset();
    return closed;
}

} // namespace tamsel::ipc
