// KxIpclibLinkListenerRpcLinux: the server thread, which accepts connections
// and reads their one request datagram, and the call threads that serve the
// queued requests.

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkListenerRpcLinux.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include <tolv/log/Log.h>
#include "platform/SysCall.h"
#include "platform/ScmRights.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibLinkListenerRpcLinuxServer";

// A hostile caller may attach more descriptors than the one we take; room for a
// few, and every one that arrives is closed.
constexpr size_t kRequestFdRoom = 8;

std::atomic<int64_t> g_callTimeoutMs{KxIpclibLinkListenerRpcLinux::kCallTimeout.count()};

} // namespace

void KxIpclibLinkListenerRpcLinux::setCallTimeoutForTesting(std::chrono::milliseconds timeout)
{
    g_callTimeoutMs = timeout.count();
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
        if (tolv::platform::RetryOnEintr([&] { return ::poll(fds.data(), fds.size(), timeoutMs); }) < 0)
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
                tolv::platform::UniqueFd conn(::accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
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
    std::vector<tolv::platform::UniqueFd> received;
    tolv::platform::TakeScmRights(msg, received);
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

} // namespace tamsel::ipc
