// A peer that floods the worker: it queries a drive, then stops taking the
// worker's replies (its receive function blocks), sends 64 reads of 1 MiB
// and COUNT writes of 1 MiB, writes "flooded" to FIFO once every send is
// queued, and waits to be killed. Installed as veltrane-protocol.exe beside
// the worker for the test.
//
//   floodPeer ENDPOINT FILE FIFO COUNT

#include <tolv/worker/DriveRequests.h>

#include <tamsel/ipc/ipclibClient.h>
#include "corvantabase/Uuid.h"
#include "platform/Utf.h"

#include <fcntl.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

using namespace tolv::worker;

using namespace tamsel::ipc;

int main(int argc, char** argv)
{
    if (argc != 5)
        return 2;
    _GUID endpoint{};
    auto path = tolv::platform::Utf8ToUtf16(argv[2]);
    const unsigned long count = std::strtoul(argv[4], nullptr, 10);
    if (!UUID_ConvertPackedToBin(&endpoint, argv[1]) || !path)
        return 2;

    std::mutex mutex;
    std::condition_variable changed;
    bool queried = false;
    auto client = KxIpclibClient::connect(endpoint, u"tolvCommands",
                                          [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
                                              std::unique_lock<std::mutex> lock(mutex);
                                              if (queried || !msg || msg->size() == 0) {
                                                  // Never take another reply.
                                                  changed.wait(lock, [] { return false; });
                                              }
                                              queried = true;
                                              changed.notify_all();
                                          });
    if (!client)
        return 3;
    auto stream = (*client)->firstStream();
    auto keep = [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {};

    const auto query = EncodeQueryDiskRequest(1, 'E', 0, *path);
    if (!stream->send(0, static_cast<uint32_t>(query.size()), query.data(), keep))
        return 4;
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return queried; });
    }

    std::vector<std::vector<uint8_t>> reads;
    for (uint64_t i = 0; i < 64; ++i)
        reads.push_back(EncodeReadRequest(100 + i, 'E', 0, 0, 1u << 20));
    std::vector<uint8_t> data(1u << 20, 0x5a);
    const auto write = EncodeWriteRequest(DR_IOCONTEXT_NO_RESPONSE, 'E', 0, 0, data.data(), 1u << 20);
    for (const auto& read : reads)
        if (!stream->send(0, static_cast<uint32_t>(read.size()), read.data(), keep))
            return 5;
    // Every write refers to the same bytes, so the flood costs us nothing.
    for (unsigned long i = 0; i < count; ++i)
        if (!stream->send(0, static_cast<uint32_t>(write.size()), write.data(), keep))
            return 6;

    const int fifo = open(argv[3], O_WRONLY | O_CLOEXEC);
    if (fifo < 0 || ::write(fifo, "flooded\n", 8) != 8)
        return 7;
    close(fifo);
    pause();
    return 0;
}
