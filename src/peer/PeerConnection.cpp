#include "peer/PeerConnection.h"

#include <tamsel/ipc/ipclibBlock.h>
#include <tamsel/ipc/ipclibClient.h>
#include <tamsel/ipc/ipclibTransfer.h>
#include "corvantabase/Uuid.h"
#include "peer/DriveSession.h"
#include <tolv/platform/UniqueFd.h>
#include "platform/Utf.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <algorithm>

using namespace tolv::worker;

extern char** environ;

using namespace tamsel::ipc;

namespace {

std::string OwnDirectory()
{
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0)
        return ".";
    const std::string text(path, static_cast<size_t>(n));
    const size_t slash = text.rfind('/');
    return slash == std::string::npos ? "." : (slash == 0 ? "/" : text.substr(0, slash));
}

bool FreshEndpoint(std::string& text)
{
    uint8_t bytes[16];
    if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes))
        return false;
    char hex[33];
    for (int i = 0; i < 16; ++i)
        std::snprintf(hex + 2 * i, 3, "%02x", bytes[i]);
    text.assign(hex, 32);
    return true;
}

// Waits for `pid` to end, killing it when it runs past `timeout`; its exit code.
int Reap(pid_t pid, std::chrono::seconds timeout)
{
    // The pidfd turns readable when the process ends.
    tolv::platform::UniqueFd exited(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (exited) {
        pollfd pfd{exited.get(), POLLIN, 0};
        int ready;
        do {
            ready = poll(&pfd, 1, static_cast<int>(std::chrono::milliseconds(timeout).count()));
        } while (ready < 0 && errno == EINTR);
        if (ready == 0) {
            std::fprintf(stderr, "veltrane-protocol: the worker did not exit; killing it\n");
            kill(pid, SIGKILL);
        }
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status))
        return static_cast<int8_t>(WEXITSTATUS(status));
    std::fprintf(stderr, "veltrane-protocol: the worker ended by signal %d\n", WTERMSIG(status));
    return -1;
}

} // namespace

PeerConnection::PeerConnection()
    : m_client(std::make_shared<DriveClient>([this](std::shared_ptr<const std::vector<uint8_t>> record) {
          if (!m_stream)
              return false;
          // The record stays alive until the link is done with its bytes.
          auto sent = m_stream->send(0, static_cast<uint32_t>(record->size()), record->data(),
                                     [record](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
          return static_cast<bool>(sent);
      }))
{
}

std::unique_ptr<PeerConnection> PeerConnection::Open(const Options& options, std::string& error)
{
    std::unique_ptr<PeerConnection> connection(new PeerConnection());
    connection->m_timeout = options.timeout;

    std::string endpointText = options.endpoint;
    if (endpointText.empty()) {
        if (!FreshEndpoint(endpointText)) {
            error = "no random bytes for an endpoint";
            return nullptr;
        }
        std::string workerPath = options.workerPath.empty() ? OwnDirectory() + "/tolvClientWorker" : options.workerPath;
        char* argv[] = {workerPath.data(), endpointText.data(), nullptr};
        // The worker gets its own process group, so a Ctrl-C at the terminal
        // reaches only us and we release it cleanly; and default signal
        // handling, whatever we block or ignore.
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        sigset_t none, defaults;
        sigemptyset(&none);
        sigemptyset(&defaults);
        for (int signal : {SIGINT, SIGTERM, SIGPIPE, SIGHUP})
            sigaddset(&defaults, signal);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        const int err = posix_spawn(&connection->m_workerPid, workerPath.c_str(), nullptr, &attributes, argv, environ);
        posix_spawnattr_destroy(&attributes);
        if (err != 0) {
            connection->m_workerPid = -1;
            error = "cannot start " + workerPath + ": " + std::strerror(err);
            return nullptr;
        }
    }
    _GUID endpoint{};
    if (!UUID_ConvertPackedToBin(&endpoint, endpointText.c_str())) {
        error = "not an endpoint GUID: " + endpointText;
        return nullptr;
    }
    auto streamName = tolv::platform::Utf8ToUtf16(options.streamName);
    if (!streamName) {
        error = "the stream name is not valid UTF-8";
        return nullptr;
    }

    KxIpclibClientOptions clientOptions;
    clientOptions.sectionSize = KxIpclibMaxSectionSize;
    clientOptions.readyTimeout = options.timeout;
    clientOptions.callTimeout = options.timeout;
    clientOptions.openTimeout = options.timeout;
    // The receive function holds the client: its last delivery may still be
    // running on a link thread when the connection goes.
    std::shared_ptr<DriveClient> client = connection->m_client;
    auto connected = KxIpclibClient::connect(
        endpoint, *streamName,
        [client = std::move(client)](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
            if (msg)
                client->OnMessage(msg->data(), msg->size(), msg);
            else
                client->OnMessage(nullptr, 0);
        },
        clientOptions);
    if (!connected) {
        error = "the worker did not take the command stream: " + std::string(KxIpcStatusName(connected.error()));
        return nullptr;
    }
    connection->m_link = std::move(*connected);
    connection->m_stream = connection->m_link->firstStream();
    return connection;
}

pid_t PeerConnection::serverPid() const
{
    if (m_workerPid > 0)
        return m_workerPid;
    return m_link ? static_cast<pid_t>(m_link->serverPid()) : -1;
}

uint32_t PeerConnection::chunkSize() const
{
    const uint32_t section = m_link ? m_link->sectionSize() : KxIpclibMaxSectionSize;
    const uint32_t room = section - KxIpclibTransferHeaderSize - KxIpclibFirstBlockHeaderSize;
    const uint32_t overhead = static_cast<uint32_t>(DR_RSP_HEADER_SIZE + DR_READ_RSP_SIZE);
    const uint32_t chunk = room > overhead + 4096 ? (room - overhead) / 4096 * 4096 : 4096;
    return std::min(chunk, DriveSession::kChunk);
}

int PeerConnection::Close()
{
    if (m_stream)
        m_stream->close(m_timeout);
    if (m_link)
        m_link->close(m_timeout);
    m_stream.reset();
    m_link.reset();
    int exitCode = 0;
    if (m_workerPid > 0) {
        exitCode = Reap(m_workerPid, m_timeout);
        m_workerPid = -1;
    }
    return exitCode;
}

PeerConnection::~PeerConnection()
{
    m_stream.reset();
    m_link.reset();
    if (m_workerPid > 0) {
        kill(m_workerPid, SIGKILL);
        waitpid(m_workerPid, nullptr, 0);
    }
}
