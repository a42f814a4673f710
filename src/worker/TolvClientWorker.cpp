#include "worker/TolvClientWorker.h"

#include "worker/StorageDrivesRegistry.h"

#include "corvantabase/TolvProcessUtils.h"
#include <tolv/log/Log.h>
#include "platform/Utf.h"

#include <limits>
#include <new>

using namespace tolv::log;

namespace tolv::worker {

using tamsel::ipc::KxIpclibMsg;
using tamsel::ipc::KxIpclibStream;

std::atomic<int32_t> connectionCount{0};
PollExitFlag quitPoll;
std::mutex quitMutex;

namespace {

bool IsSeparator(char16_t c)
{
    return c == u'/' || c == u'\\';
}

// UTF-8 for a log line; text that is not valid UTF-16 is shown as such.
std::string ForLog(const std::u16string& text)
{
    auto utf8 = tolv::platform::Utf16ToUtf8(text);
    return utf8 ? *utf8 : std::string("<invalid text>");
}

} // namespace

std::u16string TolvExpectedPeerPath(const std::u16string& ownPath)
{
    std::u16string directory;
    size_t last = std::u16string::npos;
    for (size_t i = 0; i < ownPath.size(); ++i)
        if (IsSeparator(ownPath[i]))
            last = i;
    if (last == std::u16string::npos)
        directory = u".";
    else if (last == 0)
        directory = ownPath.substr(0, 1);
    else if (last == 2 && ownPath[1] == u':')
        directory = ownPath.substr(0, 3);
    else
        directory = ownPath.substr(0, last);

    std::u16string expected = directory;
    if (!expected.empty() && !IsSeparator(expected.back()))
        expected += u'/';
    expected += kTolvPeerExecutable;
    return expected;
}

void TolvClientWorkerOnConnect(std::shared_ptr<KxIpclibStream> stream)
{
    static constexpr const char* kFn = "TolvClientWorkerOnConnect()";
    const uint32_t pid = stream->peerProcessId();
    const std::u16string name = stream->name();

    const std::u16string peerPath = TOLVGetProcessImageName(pid);
    LOG_INFO(kFn, "A connection request from (%s) (pid: %d).", ForLog(peerPath).c_str(), static_cast<int>(pid));
    const std::u16string ownPath = TOLVGetModuleFileName(nullptr);
    if (peerPath.empty() || ownPath.empty()) {
        LOG_ERROR(kFn, "Failed to authenticate the peer.");
        stream->reject(KxIpcStatusAccessDenied);
        return;
    }
    // Exact code units: another directory or another letter case is another program.
    if (TolvExpectedPeerPath(ownPath) != peerPath) {
        LOG_WARN(kFn, "The connection from (%s) (pid: %d) is not allowed.", ForLog(peerPath).c_str(),
                 static_cast<int>(pid));
        stream->reject(KxIpcStatusAccessDenied);
        return;
    }
    if (name != kTolvCommandStream) {
        LOG_WARN(kFn, "Unknown connection (%s) from (pid: %d).", ForLog(name).c_str(), static_cast<int>(pid));
        stream->reject(KxIpcStatusAccessDenied);
        return;
    }
    LOG_INFO(kFn, "New connection from (pid: %d).", static_cast<int>(pid));

    auto& registry = StorageDrivesRegistry::Instance();
    std::shared_ptr<StorageDrives> drives = registry.GetOrCreate(pid);
    if (!drives->Init()) {
        LOG_ERROR(kFn, "Failed to initialize storage drives.");
        registry.Erase(pid, drives);
        return;
    }

    KxIpcStatusCode status;
    {
        std::lock_guard<std::mutex> lock(quitMutex);
        if (quitPoll.IsRaised()) {
            LOG_ERROR(kFn, "Skip accepting because the process is quitting.");
            return;
        }
        // The receive function holds the service, so a newer connection of the
        // same process cannot delete it under this stream's requests. A stream
        // goes down once: an empty message forged by the peer ends its stream
        // but cannot count the connection down a second time. (Deliveries of
        // one stream never overlap, so the flag needs no lock.)
        auto down = std::make_shared<bool>(false);
        status = stream->accept({}, [drives, down](KxIpcStatusCode recvStatus, std::shared_ptr<KxIpclibMsg> msg) {
            if (*down)
                return;
            *down = msg->size() == 0;
            TolvClientWorkerOnCommand(recvStatus, std::move(msg), drives);
        });
        if (status == KxIpcStatusSuccess)
            ++connectionCount;
    }
    if (status != KxIpcStatusSuccess) {
        LOG_ERROR(kFn, "Failed to accept the connection, status: %d.", static_cast<int>(status));
        registry.Erase(pid, drives);
    }
}

void TolvClientWorkerOnCommand(KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg,
                               const std::shared_ptr<StorageDrives>& drives)
{
    static constexpr const char* kFn = "TolvClientWorkerOnCommand()";
    const uint32_t size = msg->size();
    const uint8_t* data = msg->data();
    std::shared_ptr<KxIpclibStream> stream = msg->stream();
    if (!stream)
        return;  // a message always arrives on a stream; nothing to answer on otherwise
    const uint32_t pid = stream->peerProcessId();
    if (CurrentLogLevel >= LOG_LEVEL_VERBOSE)
        Log(kFn, LOG_LEVEL_VERBOSE, "Received incoming message from process %lu, meesage size: %d, stream name: %s.",
            static_cast<unsigned long>(pid), static_cast<int>(size), ForLog(stream->name()).c_str());

    if (size == 0) {
        LOG_INFO(kFn, "Channel down (pid: %d).", static_cast<int>(pid));
        stream->close(std::chrono::milliseconds::max());
        drives->Uninit();
        // Only this stream's service: a newer stream of the process keeps its own.
        StorageDrivesRegistry::Instance().Erase(pid, drives);
        if (--connectionCount == 0) {
            LOG_INFO(kFn, "All channels are down.");
            quitPoll.Raise();
        }
        return;
    }

    // A peer that sends requests without taking its replies is held here, so
    // the replies waiting for it stay at kMaxRepliesInFlight per stream. The
    // wait ends when the peer takes one, or when the link fails and gives
    // the queued replies up.
    while (!stream->waitForOutstandingSends(kMaxRepliesInFlight - 1, std::chrono::seconds(10))) {
        if (stream->state() != tamsel::ipc::KxIpclibStreamState::Connected)
            break;
    }

    uint8_t* reply = nullptr;
    uint32_t replySize = 0;
    void* releaseBlock = nullptr;
    if (!drives->HandleRequest(data, size, &reply, &replySize, &releaseBlock))
        LOG_WARN(kFn, "Handling request from (pid: %d) failed.", static_cast<int>(pid));
    if (reply == nullptr || replySize == 0) {
        LOG_DEBUG(kFn, "This is a no-response request.");
        drives->FreeResponse(releaseBlock);
        return;
    }

    bool sent = false;
    try {
        sent = stream
                   ->send(0, replySize, reply,
                          [drives, releaseBlock](KxIpcStatusCode status, std::shared_ptr<KxIpclibMsg> done) {
                              if (CurrentLogLevel >= LOG_LEVEL_VERBOSE)
                                  Log("TolvClientWorkerOnCommand::<lambda_1>::operator ()()", LOG_LEVEL_VERBOSE,
                                      "OnSendComplete(status = %d), size = %d.", static_cast<int>(status),
                                      done ? static_cast<int>(done->size()) : 0);
                              drives->FreeResponse(releaseBlock);
                          })
                   .has_value();
    } catch (const std::bad_alloc&) {
        // A huge reply the link cannot take on costs the reply, not the worker.
        LOG_ERROR(kFn, "Failed to allocate memory for the reply to (pid: %d).", static_cast<int>(pid));
    }
    // A send refused at once never runs its completion: the block is ours again.
    if (!sent)
        drives->FreeResponse(releaseBlock);
}

} // namespace tolv::worker
