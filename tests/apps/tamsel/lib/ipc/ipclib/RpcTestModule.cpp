// A registration module for the tests: serves each registered endpoint's
// socket itself and forwards every request to the library's callback, one
// call at a time. Hooks let the tests set what IsRpcServerRegistered reports
// and see the unregistrations and what the callback returned.

#include "apps/tamsel/lib/ipc/ipclib/ipclibConfig.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct Server {
    int socket = -1;
    int stopPipe[2] = {-1, -1};
    std::string path;
    std::thread thread;
};

std::mutex g_mutex;
std::map<std::string, std::unique_ptr<Server>> g_servers;
std::atomic<int> g_unregisters{0};
std::atomic<uint8_t> g_reportRegistered{0};
// What the library's callback returned, call by call.
std::mutex g_resultMutex;
std::condition_variable g_resultAdded;
std::vector<uint32_t> g_results;

void Serve(Server* server, KxIpclibCreateLinkCallbackFn callback)
{
    for (;;) {
        pollfd fds[2] = {{server->stopPipe[0], POLLIN, 0}, {server->socket, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0)
            continue;
        if (fds[0].revents)
            return;
        const int conn = ::accept4(server->socket, nullptr, nullptr, SOCK_CLOEXEC);
        if (conn < 0)
            continue;
        uint8_t buf[2048];
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        iovec io{buf, sizeof buf};
        msghdr msg{};
        msg.msg_iov = &io;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        pollfd wait{conn, POLLIN, 0};
        const ssize_t n = ::poll(&wait, 1, 5000) == 1 ? ::recvmsg(conn, &msg, MSG_CMSG_CLOEXEC) : -1;
        int pipe = -1;
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        if (n > 0 && c && c->cmsg_type == SCM_RIGHTS && c->cmsg_len == CMSG_LEN(sizeof(int)))
            std::memcpy(&pipe, CMSG_DATA(c), sizeof pipe);
        if (n > 0 && !(msg.msg_flags & (MSG_TRUNC | MSG_CTRUNC))) {
            const uint32_t result = callback(conn, buf, static_cast<size_t>(n), pipe);
            std::lock_guard<std::mutex> guard(g_resultMutex);
            g_results.push_back(result);
            g_resultAdded.notify_all();
        } else if (pipe >= 0)
            ::close(pipe);
        ::close(conn);
    }
}

} // namespace

EXPORT uint8_t IsRpcServerRegistered(void)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    return g_reportRegistered.load() || !g_servers.empty();
}

EXPORT uint32_t RpcServerRegisterV2(const _GUID* endpoint, KxIpclibCreateLinkCallbackFn callback,
                                    KxIpclibModuleTraceFn trace, const void*)
{
    const char* dir = std::getenv("IPCLIB_RUNTIME_DIR");
    if (!dir || !endpoint || !callback)
        return tamsel::ipc::kSysInvalidParameter;
    auto server = std::make_unique<Server>();
    server->path = std::string(dir) + "/" + fmt::format("{}", *endpoint);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, server->path.c_str(), sizeof addr.sun_path - 1);
    server->socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (server->socket < 0 || ::bind(server->socket, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(server->socket, 16) != 0 || ::pipe2(server->stopPipe, O_CLOEXEC) != 0) {
        if (server->socket >= 0)
            ::close(server->socket);
        return tamsel::ipc::kSysDuplicateEndpoint;
    }
    if (trace)
        trace("module serves the endpoint");
    server->thread = std::thread(Serve, server.get(), callback);
    std::lock_guard<std::mutex> guard(g_mutex);
    g_servers[fmt::format("{}", *endpoint)] = std::move(server);
    return 0;
}

EXPORT uint32_t RpcServerUnregister(const _GUID* endpoint, KxIpclibModuleTraceFn)
{
    std::unique_ptr<Server> server;
    {
        std::lock_guard<std::mutex> guard(g_mutex);
        auto it = g_servers.find(fmt::format("{}", *endpoint));
        if (it == g_servers.end())
            return tamsel::ipc::kSysServerUnavailable;
        server = std::move(it->second);
        g_servers.erase(it);
    }
    [[maybe_unused]] ssize_t n = ::write(server->stopPipe[1], "x", 1);
    server->thread.join();
    ::close(server->socket);
    ::close(server->stopPipe[0]);
    ::close(server->stopPipe[1]);
    ::unlink(server->path.c_str());
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
    std::lock_guard<std::mutex> guard(g_resultMutex);
    return g_results.size();
}

// Waits up to timeoutMs for the callback's result number `index` (from 0);
// false when it did not come.
EXPORT bool TestModuleCallbackResult(size_t index, int timeoutMs, uint32_t* result)
{
    std::unique_lock<std::mutex> lock(g_resultMutex);
    if (!g_resultAdded.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return g_results.size() > index; }))
        return false;
    *result = g_results[index];
    return true;
}
