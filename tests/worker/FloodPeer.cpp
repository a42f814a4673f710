// floodPeer ENDPOINT FILE FIFO COUNT: queries FILE, then blocks its receive
// function, sends 64 reads and COUNT writes of 1 MiB, writes "flooded" to FIFO
// and waits to be killed. Installed as veltrane-protocol.exe beside the worker.

#include <tolv/worker/DriveRequests.h>

#include <tamsel/ipc/ipclibClient.h>
#include "corvantabase/Uuid.h"
#include "platform/Utf.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>

using namespace tolv::worker;
using namespace tamsel::ipc;

int main(int argc, char** argv)
{
    _GUID endpoint{};
    const auto path = argc == 5 ? tolv::platform::Utf8ToUtf16(argv[2]) : std::nullopt;
    if (!path || !UUID_ConvertPackedToBin(&endpoint, argv[1]))
        return 2;
    std::promise<void> queried;
    std::atomic<bool> first{true};
    auto client = KxIpclibClient::connect(endpoint, u"tolvCommands",
                                          [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
                                              if (!msg || msg->size() == 0 || !first.exchange(false))
                                                  pause();  // never take another reply
                                              queried.set_value();
                                          });
    if (!client)
        return 3;
    auto stream = (*client)->firstStream();
    const auto send = [&stream](const std::vector<uint8_t>& record) {
        return stream->send(0, static_cast<uint32_t>(record.size()), record.data(),
                            [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
    };
    if (!send(EncodeQueryDiskRequest(1, 'E', 0, *path)))
        return 4;
    queried.get_future().wait();
    for (uint64_t i = 0; i < 64; ++i)
        if (!send(EncodeReadRequest(100 + i, 'E', 0, 0, 1u << 20)))
            return 5;
    // Every write refers to the same bytes, so the flood costs us nothing.
    const std::vector<uint8_t> data(1u << 20, 0x5a);
    const auto write = EncodeWriteRequest(DR_IOCONTEXT_NO_RESPONSE, 'E', 0, 0, data.data(), 1u << 20);
    for (unsigned long i = 0, count = std::strtoul(argv[4], nullptr, 10); i < count; ++i)
        if (!send(write))
            return 6;
    const int fifo = open(argv[3], O_WRONLY | O_CLOEXEC);
    if (fifo < 0 || ::write(fifo, "flooded\n", 8) != 8)
        return 7;
    pause();
}
