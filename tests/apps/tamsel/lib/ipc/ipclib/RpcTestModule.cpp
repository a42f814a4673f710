// A registration module for the tests: serves the registered endpoint's socket
// itself (one endpoint at a time) and hands every request to the library's
// callback. Hooks let the tests set what IsRpcServerRegistered reports and see
// the unregistrations and what the callback returned.

#include "apps/tamsel/lib/ipc/ipclib/ipclibConfig.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

std::mutex g_mutex;
int g_socket = -1;  // the endpoint's listening socket while registered
std::string g_path;
std::thread g_server;
std::atomic<int> g_unregisters{0};
std::atomic<uint8_t> g_reportRegistered{0};
std::condition_variable g_resultAdded;
std::vector<uint32_t> g_results;  // what the library's callback returned, call by call

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
        std::lock_guard<std::mutex> guard(g_mutex);
        g_results.push_back(result);
        g_resultAdded.notify_all();
    }
}

} // namespace

EXPORT uint8_t IsRpcServerRegistered(void)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    return g_reportRegistered.load() || g_socket >= 0;
}

EXPORT uint32_t RpcServerRegisterV2(const _GUID* endpoint, KxIpclibCreateLinkCallbackFn callback,
                                    KxIpclibModuleTraceFn trace, const void*)
{
    std::lock_guard<std::mutex> guard(g_mutex);
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
    std::unique_lock<std::mutex> guard(g_mutex);
    if (g_socket < 0)
        return tamsel::ipc::kSysServerUnavailable;
    ::shutdown(g_socket, SHUT_RDWR);
    guard.unlock();
    g_server.join();
    guard.lock();
    ::close(g_socket);
    g_socket = -1;
    ::unlink(g_path.c_str());
    ++g_unregisters;
    return 0;
}

EXPORT void TestModuleSetRegistered(uint8_t value)
{
    g_reportRegistered = value;
}

EXPORT int TestModuleUnregisterCalls(void)
{
    return g_unregisters.load();
}

EXPORT size_t TestModuleCallbackCount(void)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    return g_results.size();
}

// Waits up to timeoutMs for the callback's result number `index` (from 0); false when it did not come.
EXPORT bool TestModuleCallbackResult(size_t index, int timeoutMs, uint32_t* result)
{
    std::unique_lock<std::mutex> lock(g_mutex);
    if (!g_resultAdded.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return g_results.size() > index; }))
        return false;
    *result = g_results[index];
    return true;
}
