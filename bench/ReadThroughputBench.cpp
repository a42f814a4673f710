// Reads a large file (or block device) whole in 1 MiB requests through
// StorageDrives::HandleRequest, and the same range with plain pread into one
// reused buffer, and prints both throughputs and their ratio. The file is
// read once before timing so both runs see the page cache alike.
//
//   readThroughputBench [PATH] [MiB] [rounds]
//   Without PATH a sparse-free temporary file of MiB (default 512) is made.

#include <tolv/worker/DriveRequests.h>
#include "worker/StorageDrives.h"

#include <tolv/log/Log.h>
#include "log/LoggerManager.h"
#include <tolv/platform/UniqueFd.h>
#include "platform/Utf.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace tolv::log;

using namespace tolv::worker;

namespace {

constexpr uint32_t kChunk = 1u << 20;

double Seconds(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool MakeFile(const std::string& path, uint64_t size)
{
    tolv::platform::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!fd)
        return false;
    std::vector<uint8_t> chunk(kChunk);
    for (size_t i = 0; i < chunk.size(); ++i)
        chunk[i] = static_cast<uint8_t>(i * 2654435761u >> 13);
    for (uint64_t done = 0; done < size; done += kChunk) {
        chunk[0] = static_cast<uint8_t>(done >> 20);
        if (::write(fd.get(), chunk.data(), kChunk) != kChunk)
            return false;
    }
    return true;
}

// One pass through the service; returns bytes read, 0 on any failure.
uint64_t ServicePass(StorageDrives& drives, uint64_t size)
{
    uint64_t total = 0;
    for (uint64_t offset = 0; offset < size; offset += kChunk) {
        const auto request = EncodeReadRequest(1, 'E', 1, offset, kChunk);
        uint8_t* response = nullptr;
        uint32_t responseSize = 0;
        void* context = nullptr;
        drives.HandleRequest(request.data(), static_cast<uint32_t>(request.size()), &response, &responseSize,
                             &context);
        DR_RSP_HEADER header;
        if (!response || !DecodeResponseHeader(response, responseSize, header) || header.status != 0) {
            drives.FreeResponse(context);
            return 0;
        }
        total += header.information;
        drives.FreeResponse(context);
    }
    return total;
}

uint64_t PreadPass(int fd, uint64_t size, std::vector<uint8_t>& buffer)
{
    uint64_t total = 0;
    for (uint64_t offset = 0; offset < size; offset += kChunk) {
        const ssize_t n = ::pread(fd, buffer.data(), kChunk, static_cast<off_t>(offset));
        if (n <= 0)
            return 0;
        total += static_cast<uint64_t>(n);
    }
    return total;
}

} // namespace

int main(int argc, char** argv)
{
    LogToStandardError("readThroughputBench", LOG_LEVEL_ERROR);
    const uint64_t mib = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 512;
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
    std::string path;
    std::string made;
    if (argc > 1 && std::string(argv[1]) != "-") {
        path = argv[1];
    } else {
        const char* tmp = std::getenv("TMPDIR");
        made = std::string(tmp && *tmp ? tmp : "/tmp") + "/tolv-read-bench.img";
        if (!MakeFile(made, mib << 20)) {
            std::perror("making the bench file");
            return 1;
        }
        path = made;
    }
    std::string drivePath = path.rfind("/dev/", 0) == 0 ? "\\\\.\\" + path.substr(5) : path;

    StorageDrives drives;
    const auto query = EncodeQueryDiskRequest(1, 'E', 1, *tolv::platform::Utf8ToUtf16(drivePath));
    uint8_t* response = nullptr;
    uint32_t responseSize = 0;
    void* context = nullptr;
    drives.HandleRequest(query.data(), static_cast<uint32_t>(query.size()), &response, &responseSize, &context);
    DR_QUERY_DISK_RSP info;
    DR_RSP_HEADER header;
    const bool ok = response && DecodeResponseHeader(response, responseSize, header) && header.status == 0 &&
                    DecodeQueryDiskResponse(response + DR_RSP_HEADER_SIZE, responseSize - DR_RSP_HEADER_SIZE, info);
    drives.FreeResponse(context);
    if (!ok) {
        std::fprintf(stderr, "query of %s failed\n", drivePath.c_str());
        return 1;
    }
    const uint64_t size = info.diskSize / kChunk * kChunk;
    tolv::platform::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::vector<uint8_t> buffer(kChunk);
    PreadPass(fd.get(), size, buffer);  // warm the cache

    double bestService = 1e30, bestPread = 1e30;
    for (int round = 0; round < rounds; ++round) {
        auto start = std::chrono::steady_clock::now();
        if (ServicePass(drives, size) != size) {
            std::fprintf(stderr, "service read failed\n");
            return 1;
        }
        bestService = std::min(bestService, Seconds(start));
        start = std::chrono::steady_clock::now();
        if (PreadPass(fd.get(), size, buffer) != size) {
            std::fprintf(stderr, "pread failed\n");
            return 1;
        }
        bestPread = std::min(bestPread, Seconds(start));
    }
    drives.Uninit();
    if (!made.empty())
        ::unlink(made.c_str());

    const double mibTotal = static_cast<double>(size) / (1 << 20);
    std::printf("read %.0f MiB in 1 MiB requests, best of %d rounds\n", mibTotal, rounds);
    std::printf("  HandleRequest : %8.0f MiB/s\n", mibTotal / bestService);
    std::printf("  plain pread   : %8.0f MiB/s\n", mibTotal / bestPread);
    std::printf("  ratio (service / pread): %.3f\n", bestPread / bestService);
    return 0;
}
