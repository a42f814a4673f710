// veltrane-protocol.exe: the worker's peer. Starts tolvClientWorker on a fresh
// endpoint (or connects to one already listening), opens the "tolvCommands"
// stream, and runs the steps of its command line: query, read, write and
// release ranges of drives and files, and whole copies with a checksum check.

#include "peer/DriveClient.h"
#include "peer/DriveSession.h"
#include "peer/InterruptWatch.h"
#include "peer/PeerCommandLine.h"
#include "peer/PeerConnection.h"
#include "peer/PeerSteps.h"
#include "peer/WorkerLogLocation.h"

#include "platform/MallocTuning.h"

#include <signal.h>
#include <string.h>

#include <cstdio>
#include <string>
#include <vector>

#ifndef TOLV_VERSION_TEXT
#define TOLV_VERSION_TEXT "0.0.0"
#endif

namespace {

void Say(const std::string& text)
{
    std::fprintf(stderr, "veltrane-protocol: %s\n", text.c_str());
}

int Interrupted(int signal)
{
    Say(std::string("interrupted by SIG") + sigabbrev_np(signal) + "; the worker was released");
    return kPeerExitSignalBase + signal;
}

} // namespace

int main(int argc, char** argv)
{
    tolv::platform::KeepLargeBlocksInTheHeap();
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string error;
    auto parsed = ParsePeerCommandLine(args, error);
    if (!parsed) {
        Say(error);
        std::fputs("usage: veltrane-protocol.exe [OPTIONS] STEP...  (--help for more)\n", stderr);
        return kPeerExitUsage;
    }
    const PeerOptions& options = *parsed;
    if (options.help) {
        std::fputs(PeerUsage(), stdout);
        return kPeerExitOk;
    }
    if (options.version) {
        std::puts("veltrane-protocol.exe " TOLV_VERSION_TEXT);
        return kPeerExitOk;
    }
    // Before any thread starts, so that every thread has the signals blocked.
    InterruptWatch interrupt;
    signal(SIGPIPE, SIG_IGN);

    PeerConnection::Options connectOptions;
    connectOptions.workerPath = options.workerPath;
    connectOptions.endpoint = options.endpoint;
    connectOptions.streamName = options.streamName;
    connectOptions.timeout = std::chrono::seconds(options.timeoutSeconds);
    auto connection = PeerConnection::Open(connectOptions, error);
    if (!connection) {
        Say(error);
        if (options.endpoint.empty())
            Say("the worker's logs: " + WorkerLogFolder());
        return interrupt.interrupted() ? Interrupted(interrupt.signal()) : kPeerExitConnect;
    }
    DriveClient& client = connection->client();
    interrupt.OnInterrupt([&client] { client.Interrupt(); });
    const pid_t workerPid = connection->serverPid();

    DriveSession session(client, std::chrono::seconds(options.timeoutSeconds), connection->chunkSize());
    PeerSteps steps(session, options, interrupt, workerPid);
    int exitCode = kPeerExitOk;
    for (const PeerStep& step : options.steps) {
        exitCode = steps.Run(step);
        if (exitCode != kPeerExitOk)
            break;
    }
    if (exitCode != kPeerExitOk)
        steps.ReleaseAll();

    const int workerExit = connection->Close();
    interrupt.OnInterrupt(nullptr);  // the client goes with the connection
    connection.reset();
    if (workerExit != 0) {
        Say("the worker exited with " + std::to_string(workerExit));
        if (exitCode == kPeerExitOk)
            exitCode = kPeerExitWorker;
    }
    if (interrupt.interrupted())
        return Interrupted(interrupt.signal());
    if (exitCode != kPeerExitOk)
        Say("the worker's log: " + WorkerLogLocation(workerPid));
    return exitCode;
}
