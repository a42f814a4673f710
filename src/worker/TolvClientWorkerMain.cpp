// tolvClientWorker: serves the drive requests of one trusted peer over the IPC
// endpoint named by its one argument, and quits when nobody connects within
// 5 seconds or when the last command stream goes down.

#include "worker/EnvSetup.h"
#include "worker/StorageDrivesRegistry.h"
#include "worker/TolvClientWorker.h"

#include <tamsel/ipc/ipclib.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibConfig.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibEndpointSweep.h"
#include <tamsel/ipc/ipclibListener.h>
#include "corvantabase/CoreDump.h"
#include "corvantabase/Poll.h"
#include "corvantabase/Uuid.h"
#include <tolv/log/Log.h>
#include "platform/MallocTuning.h"

#include <cstdio>
#include <string>
#include <memory>

using namespace tolv::worker;

#ifndef TOLV_VERSION_TEXT
#define TOLV_VERSION_TEXT "0.0.0"
#endif

using namespace tamsel::ipc;

namespace {

constexpr const char* kFn = "main()";
constexpr int64_t kWaitForConnectionUs = 5'000'000;

void OnWaitForConnectionTimeout(void*)
{
    std::lock_guard<std::mutex> lock(quitMutex);
    LOG_INFO("OnWaitForConnectionTimeout()", "Check the conneciton count: %d.", connectionCount.load());
    if (connectionCount.load() == 0) {
        LOG_INFO("OnWaitForConnectionTimeout()", "Quit for there are no connections.");
        quitPoll.Raise();
    }
}

// Everything after the environment is up; the exit code.
int Serve(int argc, char** argv)
{
    if (argc != 2) {
        LOG_ERROR(kFn, "Unexpected args.");
        return -1;
    }
    _GUID endpoint{};
    if (!UUID_ConvertPackedToBin(&endpoint, argv[1])) {
        LOG_ERROR(kFn, "Unexpected ipc Endpoint: %s.", argv[1]);
        return -1;
    }

    std::shared_ptr<KxIpclib> ipclib = std::make_shared<KxIpclib>();
    if (!ipclib) {
        LOG_ERROR(kFn, "KxIpclib failes.");
        return 0;
    }
    const KxIpcStatusCode initStatus = ipclib->init(0);
    if (initStatus != KxIpcStatusSuccess) {
        LOG_ERROR(kFn, "Failed to initialize KxIpclib, status: %d.", static_cast<int>(initStatus));
        ipclib->uninit();
        return 0;
    }

    // Workers killed outright leave their endpoints behind; each start clears
    // those whose server is gone, so they cannot pile up.
    if (auto runtimeDir = KxIpclibRuntimeDir()) {
        for (const std::string& stale : KxIpclibRemoveStaleEndpoints(*runtimeDir))
            LOG_INFO(kFn, "Removed the socket and ready file of endpoint %s, whose server is gone.", stale.c_str());
    }

    LOG_INFO(kFn, "Listening on the endpoint %s.", argv[1]);
    auto listened = ipclib->listen(endpoint, Flags<KxIpclibListenerFlag>(uint32_t{8}),
                                   [](std::shared_ptr<KxIpclibStream> stream) {
                                       TolvClientWorkerOnConnect(std::move(stream));
                                   },
                                   nullptr);
    if (!listened) {
        LOG_ERROR(kFn, "Failed to listen on the endpoint, status: %d.", static_cast<int>(listened.error()));
        ipclib->uninit();
        return 0;
    }
    std::shared_ptr<KxIpclibListener> listener = *listened;

    LOG_INFO(kFn, "Accepting on the endpoint.");
    const KxIpcStatusCode acceptingStatus = listener->accepting();
    if (acceptingStatus != KxIpcStatusSuccess) {
        LOG_ERROR(kFn, "Failed to set the listener as accepting, status: %d.", static_cast<int>(acceptingStatus));
    } else {
        const int timerStatus =
            Poll_CB_RTime(OnWaitForConnectionTimeout, nullptr, kWaitForConnectionUs, false, nullptr);
        if (timerStatus != kPollSuccess)
            LOG_WARN(kFn, "Failed to poll the callback (status = %d).", timerStatus);
        LOG_INFO(kFn, "Starting poll.");
        Poll_Loop(true, &quitPoll, POLL_CLASS_MAIN);
        LOG_INFO(kFn, "Exited poll.");
        if (timerStatus == kPollSuccess)
            Poll_CB_RTimeRemove(OnWaitForConnectionTimeout, nullptr, false);
    }

    listener->close();
    listener.reset();
    ipclib->uninit();
    ipclib.reset();
    // Drives of peers whose streams never went down are unlocked and closed here.
    StorageDrivesRegistry::Instance().Clear();
    return 0;
}

constexpr const char* kUsage = "usage: tolvClientWorker ENDPOINT-GUID  (32 hex digits; --help, --version)\n";

// --help and --version answer before anything starts; a wrong command line
// gets the usage line here and its exit code from Serve, which logs it.
bool AnswersAtOnce(int argc, char** argv, int& exitCode)
{
    const std::string first = argc >= 2 ? argv[1] : "";
    if (argc == 2 && (first == "-h" || first == "--help")) {
        std::printf("%s\nServes the drive requests of one veltrane-protocol.exe from its own folder on\n"
                    "the endpoint ENDPOINT-GUID, until the last command stream goes down or nobody\n"
                    "connects within 5 seconds. Logs into $TMPDIR/corvanta-UID/.\n"
                    "\n"
                    "options:\n"
                    "  -h, --help     this text\n"
                    "      --version  the version\n",
                    kUsage);
        exitCode = 0;
        return true;
    }
    if (argc == 2 && first == "--version") {
        std::puts("tolvClientWorker " TOLV_VERSION_TEXT);
        exitCode = 0;
        return true;
    }
    _GUID endpoint{};
    if (argc != 2 || !UUID_ConvertPackedToBin(&endpoint, argv[1]))
        std::fprintf(stderr, "tolvClientWorker: %s\n%s",
                     argc < 2 ? "missing the endpoint" : argc > 2 ? "one argument only" : "not an endpoint GUID",
                     kUsage);
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    int exitCode;
    if (AnswersAtOnce(argc, argv, exitCode))
        return exitCode;
    CoreDump_SetUnhandledExceptionFilter();
    tolv::platform::KeepLargeBlocksInTheHeap();
    {
        EnvSetup env;
        if (!env.Init()) {
            std::fputs("tolvClientWorker: Init failed.\n", stderr);
            exitCode = -1;
        } else {
            exitCode = Serve(argc, argv);
        }
    }
    return exitCode;
}
