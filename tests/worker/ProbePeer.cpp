// A peer that sends drive requests one at a time on one connection and goes on
// after failures, printing each reply's status: for tests that show what the
// worker answers to requests the real peer would not send, and that it keeps
// serving afterwards. Installed as veltrane-protocol.exe beside the worker.
//
//   probePeer ENDPOINT STEP...
//   STEP: query:L:PATH  read:L:OFFSET:LENGTH  release:L
// One line a step on stdout: "query L PATH status 0x... size N",
// "read L OFFSET LENGTH status 0x... bytes N crc 0x...", "release L".
// Exit 0 when every step got its reply (whatever its status), else 1.

#include "peer/PeerConnection.h"

#include <isa-l/crc.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace tolv::worker;

namespace {

std::vector<std::string> Split(const std::string& text, size_t parts)
{
    std::vector<std::string> out;
    size_t start = 0;
    while (out.size() + 1 < parts) {
        const size_t colon = text.find(':', start);
        if (colon == std::string::npos)
            break;
        out.push_back(text.substr(start, colon - start));
        start = colon + 1;
    }
    out.push_back(text.substr(start));
    return out;
}

std::u16string Utf16(const std::string& ascii)
{
    return std::u16string(ascii.begin(), ascii.end());
}

} // namespace

int main(int argc, char** argv)
{
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
    const auto timeout = std::chrono::seconds(60);
    int result = 0;
    for (int i = 2; i < argc; ++i) {
        const std::string step = argv[i];
        const std::string kind = step.substr(0, step.find(':'));
        if (kind == "release") {
            const auto fields = Split(step, 2);
            client.SendOnly(EncodeReleaseDiskRequest(0, static_cast<uint8_t>(fields[1][0])));
            std::printf("release %s\n", fields[1].c_str());
            continue;
        }
        const uint64_t ioContext = client.NextIoContext();
        std::vector<std::string> fields;
        if (kind == "query") {
            fields = Split(step, 3);
            client.Submit(ioContext,
                          EncodeQueryDiskRequest(ioContext, static_cast<uint8_t>(fields[1][0]), 1, Utf16(fields[2])));
        } else if (kind == "read") {
            fields = Split(step, 4);
            client.Submit(ioContext, EncodeReadRequest(ioContext, static_cast<uint8_t>(fields[1][0]), 1,
                                                       std::strtoull(fields[2].c_str(), nullptr, 0),
                                                       static_cast<uint32_t>(std::strtoul(fields[3].c_str(), nullptr, 0))));
        } else {
            return 2;
        }
        auto reply = client.Wait(ioContext, timeout, error);
        if (!reply) {
            std::printf("%s no reply: %s\n", step.c_str(), error.c_str());
            result = 1;
            break;
        }
        if (kind == "query") {
            DR_QUERY_DISK_RSP info;
            const bool has = DecodeQueryDiskResponse(reply->payload.data(), reply->payload.size(), info);
            std::printf("query %s %s status 0x%08x size %" PRIu64 "\n", fields[1].c_str(), fields[2].c_str(),
                        reply->header.status, has ? info.diskSize : 0);
        } else {
            const size_t bytes = reply->payload.size() >= 4 ? reply->payload.size() - 4 : 0;
            const uint32_t crc = bytes ? crc32_gzip_refl(0, reply->payload.data() + 4, bytes) : 0;
            std::printf("read %s %s %s status 0x%08x bytes %zu crc 0x%08x\n", fields[1].c_str(), fields[2].c_str(),
                        fields[3].c_str(), reply->header.status, bytes, crc);
        }
        std::fflush(stdout);
    }
    const int exitCode = connection->Close();
    return result != 0 ? result : exitCode;
}
