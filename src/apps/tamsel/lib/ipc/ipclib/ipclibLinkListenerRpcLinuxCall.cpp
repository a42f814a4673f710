// KxIpclibLinkListenerRpcLinux: one bootstrap call. Checks the request,
// identifies the caller, sets up its shared-memory link and stream, and sends
// the reply with the link's descriptors.

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkListenerRpcLinux.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibConfig.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkSharedMemLinux.h"
#include <tamsel/ipc/ipclibStream.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include "platform/SysCall.h"
#include "platform/Utf.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibLinkListenerRpcLinuxCall";

constexpr uint32_t kMaxSectionSize = 0xFFFFF;

std::string Narrow(const std::u16string& text)
{
    auto narrow = tolv::platform::Utf16ToUtf8(text);
    return narrow ? *narrow : std::string("<invalid>");
}

// 0, or the system status of the failed send.
uint32_t SendReply(int socket, const KxIpclibBootstrapReply& reply, const std::vector<tolv::platform::UniqueFd>& fds)
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
    const ssize_t n = tolv::platform::RetryOnEintr([&] { return ::sendmsg(socket, &msg, MSG_NOSIGNAL | MSG_DONTWAIT); });
    if (n < 0)
        return SystemStatusFromErrno(errno);
    return n == static_cast<ssize_t>(bytes.size()) ? kSysSuccess : kSysCallFailed;
}

} // namespace

uint32_t KxIpclibLinkListenerRpcLinux::serveCall(int callSocket, const uint8_t* data, size_t size,
                                                 tolv::platform::UniqueFd clientPipe)
{
    KxIpclibBootstrapRequest request;
    KxIpclibBootstrapReply reply;
    std::vector<tolv::platform::UniqueFd> fds;
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
    int callSocket, const KxIpclibBootstrapRequest& request, tolv::platform::UniqueFd clientPipe, uint32_t sectionSize,
    KxIpclibBootstrapReply& reply, std::vector<tolv::platform::UniqueFd>& fds,
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
    const KxIpclibBootstrapRequest& request, ClientInfo& client, tolv::platform::UniqueFd clientPipe, uint32_t sectionSize,
    KxIpclibBootstrapReply& reply, std::vector<tolv::platform::UniqueFd>& fds,
    std::shared_ptr<KxIpclibLinkSharedMemLinux>& linkOut, std::shared_ptr<KxIpclibStream>& streamOut)
{
    KXIPC_TRACE(Listener, "> ep: {}, streamName: {}, clientLinkId: {:#x}, clientStreamId: {:#x}, clientPid: {}",
                m_endpoint, Narrow(request.streamName), request.clientLinkId, request.clientStreamId, client.pid);
    tolv::platform::UniqueFd peerProcess, peerPipe;
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
                                                                   std::vector<tolv::platform::UniqueFd>& fds)
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
    tolv::platform::UniqueFd self(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
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
