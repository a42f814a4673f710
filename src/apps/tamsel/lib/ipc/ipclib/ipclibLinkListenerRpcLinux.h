#pragma once
// KxIpclibLinkListenerRpcLinux: the link listener of one endpoint. Clients
// reach it through a SOCK_SEQPACKET Unix socket named by the endpoint in the
// runtime directory; one request datagram on a fresh connection sets up a
// shared-memory link and pairs the client's first stream with a server stream,
// and one reply datagram carries the outputs with the link's descriptors as
// SCM_RIGHTS. After that the connection is closed and plays no further part.
//
// Threads: a server thread accepts connections and reads their one datagram
// (a connection that sends nothing within the call time-out is dropped, so a
// silent caller costs one descriptor, never a thread); complete requests go to
// call threads, at most kMaxConcurrentCalls at once. While they are all busy,
// further datagrams simply wait in their sockets.
//
// Locks: m_mutex guards the call queue and the thread list; the listener table
// has its own mutex. Neither is held while a call runs, and the registration
// mutex (ipclibConfig) is never taken with either held.

#include <tamsel/ipc/ipclibBootstrap.h>
#include <tamsel/ipc/ipclibLinkListener.h>

#include <tolv/platform/UniqueFd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// What listen passes through to the transports: the first field is not read
// here; the second, when set, gives the permission bits of the endpoint's
// socket and ready file (and is handed to the registration module as is).
struct KxIpclibSecurityDescriptor {
    uint32_t mode;
};
struct _KxIpclibListenerEx {
    void* reserved;
    const KxIpclibSecurityDescriptor* securityDescriptor;
};

namespace tamsel::ipc {

class KxIpclibLinkSharedMemLinux;

enum class KxIpclibListenerFlagRpc : uint32_t {
    UseRpcServerModule = 0x40,
};

class KxIpclibLinkListenerRpcLinux final : public KxIpclibLinkListener,
                                           public std::enable_shared_from_this<KxIpclibLinkListenerRpcLinux> {
public:
    static constexpr size_t kMaxConcurrentCalls = 250;
    // Connections that have not sent their request yet; beyond this the oldest is dropped.
    static constexpr size_t kMaxPendingConnections = 1024;
    static constexpr std::chrono::milliseconds kCallTimeout{5000};
    static void setCallTimeoutForTesting(std::chrono::milliseconds timeout);

    KxIpclibLinkListenerRpcLinux(const _GUID& endpoint, Flags<KxIpclibListenerFlag> flags,
                                 std::shared_ptr<tamsel::task::TaskExecutor> executor, const _KxIpclibListenerEx* ex,
                                 ConnectEntry connect, LinkOpened onLinkOpened, LinkClosed onLinkClosed);
    ~KxIpclibLinkListenerRpcLinux() override;

    KxIpcStatusCode start(Flags<KxIpclibListenerFlag> flags, unsigned int& out) override;
    void stop(unsigned int& out) override;
    KxIpcStatusCode accepting(unsigned int& out) override;

    // Serves one bootstrap call that arrived on `callSocket`: identifies the
    // caller, runs the procedure and sends the reply on the socket. Used by the
    // server threads and by the registration module's callback. Returns 0 once
    // the reply is on its way, else the system status of the failed send (the
    // caller then has no link; one made for it is already taken down).
    static uint32_t serveCall(int callSocket, const uint8_t* request, size_t requestSize, tolv::platform::UniqueFd clientPipe);

    bool useRpcServerModule() const { return m_flags.any(static_cast<uint32_t>(KxIpclibListenerFlagRpc::UseRpcServerModule)); }
    // 0 not registered, 1 locally, 2 through the module; guarded by the registration mutex.
    uint32_t registration = 0;

    // The process-wide listener table.
    static bool addRpcLinkListener(const std::shared_ptr<KxIpclibLinkListenerRpcLinux>& listener);
    static void removeRpcLinkListener(const KxIpclibLinkListenerRpcLinux& listener);
    static std::shared_ptr<KxIpclibLinkListenerRpcLinux> getRpcLinkListener(const _GUID& endpoint);

private:
    struct ClientInfo {
        uint32_t pid = 0;
        uint32_t uid = 0;
        std::string username;
        tolv::platform::UniqueFd process;  // pidfd, unless the server may not use it
        bool useClientPipeHandle = false;
    };
    struct Call {
        tolv::platform::UniqueFd socket;
        std::vector<uint8_t> request;
        tolv::platform::UniqueFd clientPipe;
    };
    struct Pending {
        tolv::platform::UniqueFd socket;
        std::chrono::steady_clock::time_point deadline;
    };

    static KxIpcStatusCode getClientInfo(int callSocket, bool hasClientPipe, ClientInfo& info);
    static uint32_t getClientInfoInt(int callSocket, ClientInfo& info);
    static KxIpcStatusCode createSharedMemoryLink(int callSocket, const KxIpclibBootstrapRequest& request,
                                                  tolv::platform::UniqueFd clientPipe, uint32_t sectionSize,
                                                  KxIpclibBootstrapReply& reply, std::vector<tolv::platform::UniqueFd>& fds,
                                                  std::shared_ptr<KxIpclibLinkSharedMemLinux>& linkOut,
                                                  std::shared_ptr<KxIpclibStream>& streamOut);
    KxIpcStatusCode createSharedMemoryLinkInt(const KxIpclibBootstrapRequest& request, ClientInfo& client,
                                              tolv::platform::UniqueFd clientPipe, uint32_t sectionSize,
                                              KxIpclibBootstrapReply& reply, std::vector<tolv::platform::UniqueFd>& fds,
                                              std::shared_ptr<KxIpclibLinkSharedMemLinux>& linkOut,
                                              std::shared_ptr<KxIpclibStream>& streamOut);
    KxIpcStatusCode duplicateLinkHandles(KxIpclibLinkSharedMemLinux& link, std::vector<tolv::platform::UniqueFd>& fds);

    uint32_t bindEndpoint();
    void serverLoop();
    void callLoop();
    bool receiveRequest(Pending& pending);
    void wake();

    std::string m_runtimeDir;
    std::string m_socketPath;
    std::string m_readyPath;
    bool m_readyMade = false;
    uint32_t m_mode = 0600;
    const void* m_securityDescriptor = nullptr;
    bool m_inTable = false;
    tolv::platform::UniqueFd m_socket;
    dev_t m_socketDev = 0;
    ino_t m_socketIno = 0;
    tolv::platform::UniqueFd m_wake;  // eventfd: stop, or a call slot came free

    std::mutex m_mutex;  // guards everything below
    bool m_stopping = false;
    std::deque<Call> m_calls;
    size_t m_busy = 0;
    size_t m_idle = 0;
    std::condition_variable m_callsChanged;
    std::vector<std::thread> m_callThreads;
    std::thread m_serverThread;
};

} // namespace tamsel::ipc
