// A registration module for the tests: serves the registered endpoint's socket
// itself (one endpoint at a time) and hands every request to the library's
// callback. The tests reach its state through the symbol "testModule".

#include "ShmHandOver.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibConfig.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#define EXPORT extern "C" __attribute__((visibility("default")))

extern "C" {
__attribute__((visibility("default"))) TestModuleState testModule;  // a definition, in braces
}

namespace {

int g_socket = -1;  // the endpoint's listening socket while registered; guarded by testModule.mutex
std::string g_path;
std::thread g_server;

void Serve(int socket, KxIpclibCreateLinkCallbackFn callback)
{
    // Ends when the socket is shut down.
    for (int conn; (conn = ::accept4(socket, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; ::close(conn)) {
        const timeval wait{5, 0};
        ::setsockopt(conn, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        uint8_t buf[2048];
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        iovec io{buf, sizeof buf};
        msghdr msg{};
        msg.msg_iov = &io;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        const ssize_t n = ::recvmsg(conn, &msg, MSG_CMSG_CLOEXEC);
        int pipe = -1;
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        if (n > 0 && c && c->cmsg_type == SCM_RIGHTS && c->cmsg_len == CMSG_LEN(sizeof(int)))
            std::memcpy(&pipe, CMSG_DATA(c), sizeof pipe);
        if (n <= 0 || (msg.msg_flags & (MSG_TRUNC | MSG_CTRUNC))) {
            if (pipe >= 0)
                ::close(pipe);
            continue;
        }
        const uint32_t result = callback(conn, buf, static_cast<size_t>(n), pipe);
        std::lock_guard<std::mutex> guard(testModule.mutex);
        testModule.results.push_back(result);
        testModule.changed.notify_all();
    }
}

} // namespace

EXPORT uint8_t IsRpcServerRegistered(void)
{
    std::lock_guard<std::mutex> guard(testModule.mutex);
    return testModule.reportRegistered || g_socket >= 0;
}

EXPORT uint32_t RpcServerRegisterV2(const _GUID* endpoint, KxIpclibCreateLinkCallbackFn callback,
                                    KxIpclibModuleTraceFn trace, const void*)
{
    std::lock_guard<std::mutex> guard(testModule.mutex);
    const char* dir = std::getenv("IPCLIB_RUNTIME_DIR");
    if (!dir || !endpoint || !callback || g_socket >= 0)
        return tamsel::ipc::kSysInvalidParameter;
    g_path = std::string(dir) + "/" + fmt::format("{}", *endpoint);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, g_path.c_str(), sizeof addr.sun_path - 1);
    g_socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (::bind(g_socket, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(g_socket, 16) != 0) {
        ::close(g_socket);
        g_socket = -1;
        return tamsel::ipc::kSysDuplicateEndpoint;
    }
    if (trace)
        trace("module serves the endpoint");
    g_server = std::thread(Serve, g_socket, callback);
    return 0;
}

EXPORT uint32_t RpcServerUnregister(const _GUID*, KxIpclibModuleTraceFn)
{
    std::unique_lock<std::mutex> guard(testModule.mutex);
    if (g_socket < 0)
        return tamsel::ipc::kSysServerUnavailable;
    ::shutdown(g_socket, SHUT_RDWR);
    guard.unlock();
    g_server.join();
    guard.lock();
    ::close(g_socket);
    g_socket = -1;
    ::unlink(g_path.c_str());
    ++testModule.unregisters;
    return 0;
}
