#pragma once
// KxIpclibClient: the client side of a link. From an endpoint it waits for the
// server's ready file, calls the bootstrap, builds its side of the shared-memory
// link from the descriptors in the reply and pairs its first stream with the
// server's; further streams open on the same link.
//
//   auto client = KxIpclibClient::connect(endpoint, u"tolvCommands", onRecv);
//   if (!client) ... client.error() is the server's or the transport's status
//   (*client)->firstStream()->send(...);
//   auto more = (*client)->openStream(u"other", onOtherRecv);
//   (*client)->close();
//
// The client keeps the write end of a pipe whose read end the server holds, so
// the server learns of our end even when it may not watch our process.

#include <tamsel/expected.h>
#include <tamsel/ipc/ipclibBootstrap.h>
#include <tamsel/ipc/ipclibStream.h>
#include <tamsel/ipc/ipclibTransfer.h>

#include <tolv/platform/UniqueFd.h>
#include <tamsel/task/TaskExecutor.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tamsel::ipc {

class KxIpclibLinkSharedMemLinux;

struct KxIpclibClientOptions {
    // The largest the server grants: one transfer then carries a whole
    // message of up to a MiB, in one copy each side.
    uint32_t sectionSize = KxIpclibMaxSectionSize;
    // Waiting for the server's ready file; the bootstrap reply; opening a further stream.
    std::chrono::milliseconds readyTimeout{30000};
    std::chrono::milliseconds callTimeout{30000};
    std::chrono::milliseconds openTimeout{30000};
    KxIpclibBootstrapProc procedure = KxIpclibBootstrapProc::CreateSharedMemoryLinkV2;
    Flags<KxIpclibStreamFlag> streamFlags;
    // Runs the link's tasks; the client makes one of its own when empty.
    std::shared_ptr<tamsel::task::TaskExecutor> executor;
};

// Waits until the endpoint's ready file exists: 0, or 10 (NotFound) on the time-out.
KxIpcStatusCode KxIpclibWaitForReady(const _GUID& endpoint, std::chrono::milliseconds timeout);

// One bootstrap call: sends `request` (with `clientPipe` as its descriptor when
// valid) on a fresh connection to the endpoint's socket and receives the reply
// and its descriptors. 0, or the transport's failure (10 when nobody listens,
// 11 for a reply that is not one).
KxIpcStatusCode KxIpclibCallBootstrap(const _GUID& endpoint, const std::vector<uint8_t>& request, int clientPipe,
                                      std::chrono::milliseconds timeout, KxIpclibBootstrapReply& reply,
                                      std::vector<tolv::platform::UniqueFd>& fds);

class KxIpclibClient {
public:
    static tamsel::expected<std::unique_ptr<KxIpclibClient>, KxIpcStatusCode> connect(
        const _GUID& endpoint, const std::u16string& streamName, KxIpclibRecvFunction onRecv,
        const KxIpclibClientOptions& options = {});
    ~KxIpclibClient();
    KxIpclibClient(const KxIpclibClient&) = delete;
    KxIpclibClient& operator=(const KxIpclibClient&) = delete;

    const std::shared_ptr<KxIpclibStream>& firstStream() const { return m_firstStream; }
    tamsel::expected<std::shared_ptr<KxIpclibStream>, KxIpcStatusCode> openStream(
        const std::u16string& name, KxIpclibRecvFunction onRecv, Flags<KxIpclibStreamFlag> flags = {});

    const std::shared_ptr<KxIpclibLinkSharedMemLinux>& link() const { return m_link; }
    uint32_t serverPid() const { return m_serverPid; }
    uint32_t sectionSize() const { return m_sectionSize; }
    // True once the link has closed (we closed it, the server did, or it failed).
    bool linkClosed();
    bool waitLinkClosed(std::chrono::milliseconds timeout);

    // Closes the link and waits, up to `timeout`, until it has closed.
    bool close(std::chrono::milliseconds timeout = std::chrono::seconds(10));

private:
    KxIpclibClient() = default;

    std::shared_ptr<tamsel::task::TaskExecutor> m_executor;
    std::shared_ptr<KxIpclibLinkSharedMemLinux> m_link;
    std::shared_ptr<KxIpclibStream> m_firstStream;
    std::vector<std::shared_ptr<KxIpclibStream>> m_streams;
    tolv::platform::UniqueFd m_pipeWrite;
    std::chrono::milliseconds m_openTimeout{30000};
    uint32_t m_serverPid = 0;
    uint32_t m_sectionSize = 0;
    struct Closed {
        std::mutex mutex;
        std::condition_variable cv;
        bool closed = false;
    };
    std::shared_ptr<Closed> m_closed = std::make_shared<Closed>();
};

} // namespace tamsel::ipc
