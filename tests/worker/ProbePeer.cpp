// Peers that send what the real peer would not, installed as
// veltrane-protocol.exe beside the worker.
//
//   probePeer ENDPOINT STEP...  (STEP: query:L:PATH  read:L:OFFSET:LENGTH  release:L)
// sends the steps one at a time on one connection and goes on after failures,
// printing one line a step: "query L PATH status 0x... size N",
// "read L OFFSET LENGTH status 0x... bytes N crc 0x...", "release L". Exit 0
// when every step got its reply, whatever its status, else 1.
//
//   probePeer ENDPOINT --flood FILE FIFO COUNT
// queries FILE, then stops taking the worker's replies (its receive function
// blocks), sends 64 reads of 1 MiB and COUNT writes of 1 MiB, writes
// "flooded" to FIFO once every send is queued, and waits to be killed.

#include "peer/PeerConnection.h"

#include <tamsel/ipc/ipclibClient.h>
#include "corvantabase/Uuid.h"
#include "platform/Utf.h"

#include <fcntl.h>
#include <isa-l/crc.h>
#include <unistd.h>

#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

using namespace tolv::worker;
using namespace tamsel::ipc;

namespace {

int Flood(const char* endpointText, const char* file, const char* fifo, unsigned long count)
{
    _GUID endpoint{};
    auto path = tolv::platform::Utf8ToUtf16(file);
    if (!UUID_ConvertPackedToBin(&endpoint, endpointText) || !path)
        return 2;
    std::mutex mutex;
    std::condition_variable changed;
    bool queried = false;
    auto client = KxIpclibClient::connect(endpoint, u"tolvCommands",
                                          [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
                                              std::unique_lock<std::mutex> lock(mutex);
                                              if (queried || !msg || msg->size() == 0)
                                                  changed.wait(lock, [] { return false; });  // never again
                                              queried = true;
                                              changed.notify_all();
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
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return queried; });
    }
    for (uint64_t i = 0; i < 64; ++i)
        if (!send(EncodeReadRequest(100 + i, 'E', 0, 0, 1u << 20)))
            return 5;
    // Every write refers to the same bytes, so the flood costs us nothing.
    const std::vector<uint8_t> data(1u << 20, 0x5a);
    const auto write = EncodeWriteRequest(DR_IOCONTEXT_NO_RESPONSE, 'E', 0, 0, data.data(), 1u << 20);
    for (unsigned long i = 0; i < count; ++i)
        if (!send(write))
            return 6;
    const int signal = open(fifo, O_WRONLY | O_CLOEXEC);
    if (signal < 0 || ::write(signal, "flooded\n", 8) != 8)
        return 7;
    pause();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 6 && std::string(argv[2]) == "--flood")
        return Flood(argv[1], argv[3], argv[4], std::strtoul(argv[5], nullptr, 10));
    if (argc < 3)
        return 2;
    PeerConnection::Options options;
    options.endpoint = argv[1];
    std::string error;
    auto connection = PeerConnection::Open(options, error);
    if (!connection) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 3;
    }
    DriveClient& client = connection->client();
    for (int i = 2; i < argc; ++i) {
        const std::string step = argv[i];
        const std::string kind = step.substr(0, step.find(':'));
        const uint8_t letter = static_cast<uint8_t>(step.at(kind.size() + 1));
        const std::string rest = step.substr(std::min(step.size(), kind.size() + 3));
        if (kind == "release") {
            client.SendOnly(EncodeReleaseDiskRequest(0, letter));
            std::printf("release %c\n", letter);
            continue;
        }
        const uint64_t io = client.NextIoContext();
        char* end = nullptr;
        const uint64_t offset = std::strtoull(rest.c_str(), &end, 0);
        const uint32_t length = static_cast<uint32_t>(std::strtoul(*end ? end + 1 : end, nullptr, 0));
        if (kind == "query")
            client.Submit(io, EncodeQueryDiskRequest(io, letter, 1, std::u16string(rest.begin(), rest.end())));
        else if (kind == "read")
            client.Submit(io, EncodeReadRequest(io, letter, 1, offset, length));
        else
            return 2;
        auto reply = client.Wait(io, std::chrono::seconds(60), error);
        if (!reply) {
            std::printf("%s no reply: %s\n", step.c_str(), error.c_str());
            return 1;
        }
        if (kind == "query") {
            DR_QUERY_DISK_RSP info;
            const bool has = DecodeQueryDiskResponse(reply->payload.data(), reply->payload.size(), info);
            std::printf("query %c %s status 0x%08x size %" PRIu64 "\n", letter, rest.c_str(), reply->header.status,
                        has ? info.diskSize : 0);
        } else {
            const size_t bytes = reply->payload.size() >= 4 ? reply->payload.size() - 4 : 0;
            const uint32_t crc = bytes ? crc32_gzip_refl(0, reply->payload.data() + 4, bytes) : 0;
            std::printf("read %c %" PRIu64 " %u status 0x%08x bytes %zu crc 0x%08x\n", letter, offset, length,
                        reply->header.status, bytes, crc);
        }
        std::fflush(stdout);
    }
    return connection->Close();
}
