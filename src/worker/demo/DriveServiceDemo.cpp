// Drives one StorageDrives instance the way the peer will: query a drive or
// file, read it whole in 1 MiB requests, write and read back a range, release.
// Every byte that comes back is compared with what the file or device holds.
//
//   driveServiceDemo PATH        PATH is a file, or /dev/NAME for a block device

#include <tolv/worker/DriveRequests.h>
#include "worker/StorageDrives.h"

#include <tolv/log/Log.h>
#include "log/LoggerManager.h"
#include "platform/LittleEndian.h"
#include <tolv/platform/UniqueFd.h>
#include "platform/Utf.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using namespace tolv::log;

using namespace tolv::worker;

namespace {

constexpr uint32_t kDrive = 'E';
constexpr uint32_t kChunk = 1u << 20;

struct Reply {
    bool present = false;
    DR_RSP_HEADER header;
    std::vector<uint8_t> payload;
};

Reply Call(StorageDrives& drives, const std::vector<uint8_t>& request)
{
    uint8_t* response = nullptr;
    uint32_t size = 0;
    void* context = nullptr;
    drives.HandleRequest(request.data(), static_cast<uint32_t>(request.size()), &response, &size, &context);
    Reply reply;
    if (response && DecodeResponseHeader(response, size, reply.header)) {
        reply.present = true;
        reply.payload.assign(response + DR_RSP_HEADER_SIZE, response + size);
    }
    drives.FreeResponse(context);
    return reply;
}

bool Check(bool ok, const char* what)
{
    std::printf("  %-52s %s\n", what, ok ? "ok" : "FAILED");
    return ok;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PATH   (a file, or /dev/NAME for a block device)\n", argv[0]);
        return 2;
    }
    LogToStandardError("driveServiceDemo", LOG_LEVEL_INFO);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // keep our lines in order with the log on stderr
    const std::string path = argv[1];
    std::string drivePath = path;
    if (path.rfind("/dev/", 0) == 0)
        drivePath = "\\\\.\\" + path.substr(5);  // the device namespace
    const auto widePath = tolv::platform::Utf8ToUtf16(drivePath);
    if (!widePath) {
        std::fprintf(stderr, "path is not valid UTF-8\n");
        return 2;
    }

    StorageDrives drives;
    drives.Init();
    bool ok = true;

    std::printf("query %s as drive %c\n", drivePath.c_str(), static_cast<char>(kDrive));
    Reply query = Call(drives, EncodeQueryDiskRequest(1, kDrive, 7, *widePath));
    DR_QUERY_DISK_RSP info;
    if (!query.present || query.header.status != 0 ||
        !DecodeQueryDiskResponse(query.payload.data(), query.payload.size(), info)) {
        std::fprintf(stderr, "query failed: status 0x%08x\n", query.present ? query.header.status : 0);
        return 1;
    }
    std::printf("  size %llu bytes, %s, media type %u, %u heads, %u sectors/track, %u bytes/sector\n",
                static_cast<unsigned long long>(info.diskSize), info.readOnly ? "read-only" : "writable",
                info.mediaType, info.tracksPerCylinder, info.sectorsPerTrack, info.bytesPerSector);

    // Write a recognisable range through the service (no reply asked), then read
    // the whole target in 1 MiB requests and compare with a direct read.
    std::vector<uint8_t> pattern(kChunk);
    for (size_t i = 0; i < pattern.size(); ++i)
        pattern[i] = static_cast<uint8_t>((i * 131) ^ (i >> 9));
    const uint64_t writeOffset = info.diskSize >= 2 * kChunk ? kChunk : 0;
    const auto writeLength = static_cast<uint32_t>(std::min<uint64_t>(kChunk, info.diskSize));
    Reply silent = Call(drives, EncodeWriteRequest(DR_IOCONTEXT_NO_RESPONSE, kDrive, 7, writeOffset,
                                                   pattern.data(), writeLength));
    ok &= Check(!silent.present, "write tagged 0xbeefbeef gets no reply");
    Reply written = Call(drives, EncodeWriteRequest(2, kDrive, 7, writeOffset, pattern.data(), writeLength));
    ok &= Check(written.present && written.header.status == 0 && written.header.information == writeLength,
                "write with a reply reports every byte");

    tolv::platform::UniqueFd direct(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!direct) {
        std::perror("open for comparison");
        return 1;
    }
    std::vector<uint8_t> expected(kChunk);
    bool same = true;
    for (uint64_t offset = 0; offset < info.diskSize; offset += kChunk) {
        const auto want = static_cast<uint32_t>(std::min<uint64_t>(kChunk, info.diskSize - offset));
        Reply read = Call(drives, EncodeReadRequest(3, kDrive, 7, offset, want));
        const ssize_t got = ::pread(direct.get(), expected.data(), want, static_cast<off_t>(offset));
        same = same && read.present && read.header.status == 0 && read.header.information == want &&
               read.payload.size() == want + 4u && tolv::platform::LoadLe<uint32_t>(read.payload.data()) == want &&
               got == static_cast<ssize_t>(want) && std::memcmp(read.payload.data() + 4, expected.data(), want) == 0;
        if (offset == writeOffset)
            same = same && std::memcmp(read.payload.data() + 4, pattern.data(), writeLength) == 0;
    }
    ok &= Check(same, "whole target read in 1 MiB requests matches byte for byte");

    Reply past = Call(drives, EncodeReadRequest(4, kDrive, 7, info.diskSize + 4096, 512));
    ok &= Check(past.present && past.header.status == 0xC0000011 && past.header.payloadLength == 0,
                "read past the end answers end of file");
    Reply release = Call(drives, EncodeReleaseDiskRequest(5, kDrive));
    ok &= Check(!release.present, "release gets no reply");
    Reply afterRelease = Call(drives, EncodeReadRequest(6, kDrive, 7, 0, 512));
    ok &= Check(afterRelease.present && afterRelease.header.status != 0, "read after release is refused");
    drives.Uninit();

    std::printf("%s\n", ok ? "drive service demo: all checks passed" : "drive service demo: FAILED");
    return ok ? 0 : 1;
}
