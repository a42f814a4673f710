#pragma once
// The peer's connection to a worker: starts tolvClientWorker on a fresh
// endpoint (or uses one already listening), opens the command stream, and
// carries the drive records of a DriveClient over it. Closing the stream ends
// a worker we started; its exit code is collected.

#include "peer/DriveClient.h"

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>

namespace tamsel::ipc {
class KxIpclibClient;
class KxIpclibStream;
} // namespace tamsel::ipc

class PeerConnection {
public:
    // `workerPath` empty: tolvClientWorker beside this program. `endpoint`
    // non-empty: connect there instead of starting a worker.
    struct Options {
        std::string workerPath;
        std::string endpoint;
        std::string streamName = "tolvCommands";
        std::chrono::seconds timeout{60};
    };

    // Null with `error` set when the worker could not be started or did not
    // take the stream.
    static std::unique_ptr<PeerConnection> Open(const Options& options, std::string& error);
    ~PeerConnection();
    PeerConnection(const PeerConnection&) = delete;
    PeerConnection& operator=(const PeerConnection&) = delete;

    DriveClient& client() { return *m_client; }
    // Drive bytes per request such that a read's reply, and a write's
    // request, fits one transfer of the link's section.
    uint32_t chunkSize() const;
    // The worker this connection started, or -1 when it joined one already listening.
    pid_t workerPid() const { return m_workerPid; }
    // The worker on the other end: the one we started, or the one the
    // endpoint's server said it is; -1 when not known.
    pid_t serverPid() const;
    // Closes the stream and the link; the exit code of the worker we started
    // (killed when it has not ended within the time-out), or 0.
    int Close();

private:
    PeerConnection();

    std::chrono::seconds m_timeout{60};
    pid_t m_workerPid = -1;
    std::shared_ptr<tamsel::ipc::KxIpclibStream> m_stream;
    std::unique_ptr<tamsel::ipc::KxIpclibClient> m_link;
    std::shared_ptr<DriveClient> m_client;
};
