// Drive requests through the real worker process, beside plain pread of the
// same file: sequential 1 MiB reads (throughput with a window of requests in
// flight, and per-request latency one at a time) and 4 KiB reads at random
// aligned offsets (latency), with the ratios to pread. The file is read once
// before timing so every run sees the page cache alike.
//
// The worker admits only a peer named veltrane-protocol.exe beside it, so this
// program is built under that name into its own folder with a copy of the
// worker.
//
//   bench/worker/veltrane-protocol.exe [PATH] [MiB] [randomReads]
//   Without PATH a temporary file of MiB (default 256) is made.

#include "peer/DriveSession.h"
#include "peer/PeerConnection.h"

#include "platform/MallocTuning.h"
#include <tolv/platform/UniqueFd.h>
#include "platform/Utf.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

using namespace tolv::worker;

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kChunk = 1u << 20;
constexpr uint32_t kSmall = 4096;

struct Latency {
    double median = 0;
    double p99 = 0;
};

Latency Summarise(std::vector<double> micros)
{
    if (micros.empty())
        return {};
    std::sort(micros.begin(), micros.end());
    return {micros[micros.size() / 2], micros[std::min(micros.size() - 1, micros.size() * 99 / 100)]};
}

double Micros(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

bool MakeFile(const std::string& path, uint64_t size)
{
    tolv::platform::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!fd)
        return false;
    std::vector<uint8_t> chunk(kChunk);
    std::mt19937 random(42);
    for (uint64_t done = 0; done < size; done += kChunk) {
        for (auto& b : chunk)
            b = static_cast<uint8_t>(random());
        if (write(fd.get(), chunk.data(), kChunk) != static_cast<ssize_t>(kChunk))
            return false;
    }
    return true;
}

void Row(const char* what, double worker, double pread, const char* unit)
{
    std::printf("  %-34s worker %10.1f %-6s pread %10.1f %-6s ratio %6.2f\n", what, worker, unit, pread, unit,
                pread > 0 ? worker / pread : 0.0);
}

} // namespace

int main(int argc, char** argv)
{
    tolv::platform::KeepLargeBlocksInTheHeap();
    std::string path = argc > 1 ? argv[1] : "";
    const uint64_t mib = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 256;
    const size_t randomReads = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 20000;
    std::string temporary;
    if (path.empty()) {
        char name[] = "/tmp/workerBench-XXXXXX";
        const int fd = mkstemp(name);
        if (fd < 0)
            return 1;
        close(fd);
        temporary = path = name;
        if (!MakeFile(path, mib << 20)) {
            std::fprintf(stderr, "cannot make %s\n", path.c_str());
            unlink(path.c_str());
            return 1;
        }
    }

    tolv::platform::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || fstat(fd.get(), &st) != 0 || st.st_size < static_cast<off_t>(kChunk)) {
        std::fprintf(stderr, "cannot read %s (it must hold at least 1 MiB)\n", path.c_str());
        return 1;
    }
    const uint64_t size = static_cast<uint64_t>(st.st_size) / kChunk * kChunk;
    std::vector<uint8_t> buffer(kChunk);
    for (uint64_t offset = 0; offset < size; offset += kChunk)  // warm the page cache
        if (pread(fd.get(), buffer.data(), kChunk, static_cast<off_t>(offset)) < 0)
            return 1;

    std::string error;
    auto connection = PeerConnection::Open({}, error);
    if (!connection) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    DriveSession session(connection->client(), std::chrono::seconds(60));
    DR_QUERY_DISK_RSP info;
    if (!session.Query('B', *tolv::platform::Utf8ToUtf16(path), info, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }

    // Sequential throughput, a window of requests in flight.
    uint32_t crc = 0;
    uint64_t done = 0;
    auto start = Clock::now();
    if (!session.ReadRange('B', 0, size, [](const uint8_t*, size_t) { return true; }, false, crc, done, nullptr,
                           error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    const double workerSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    start = Clock::now();
    for (uint64_t offset = 0; offset < size; offset += kChunk)
        if (pread(fd.get(), buffer.data(), kChunk, static_cast<off_t>(offset)) != static_cast<ssize_t>(kChunk))
            return 1;
    const double preadSeconds = std::chrono::duration<double>(Clock::now() - start).count();

    // One request at a time: what a single request costs.
    std::vector<double> workerSeq, preadSeq, workerRandom, preadRandom;
    std::vector<uint8_t> data;
    for (uint64_t offset = 0; offset < size; offset += kChunk) {
        auto t = Clock::now();
        if (!session.Read('B', offset, kChunk, data, error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return 1;
        }
        workerSeq.push_back(Micros(Clock::now() - t));
        t = Clock::now();
        if (pread(fd.get(), buffer.data(), kChunk, static_cast<off_t>(offset)) != static_cast<ssize_t>(kChunk))
            return 1;
        preadSeq.push_back(Micros(Clock::now() - t));
    }
    std::mt19937_64 random(7);
    const uint64_t blocks = size / kSmall;
    for (size_t i = 0; i < randomReads; ++i) {
        const uint64_t offset = (random() % blocks) * kSmall;
        auto t = Clock::now();
        if (!session.Read('B', offset, kSmall, data, error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return 1;
        }
        workerRandom.push_back(Micros(Clock::now() - t));
        t = Clock::now();
        if (pread(fd.get(), buffer.data(), kSmall, static_cast<off_t>(offset)) != static_cast<ssize_t>(kSmall))
            return 1;
        preadRandom.push_back(Micros(Clock::now() - t));
    }

    session.Release('B', error);
    const int workerExit = connection->Close();
    if (!temporary.empty())
        unlink(temporary.c_str());

    const double mibs = static_cast<double>(size) / (1 << 20);
    std::printf("worker benchmark over %s (%.0f MiB, page cache warm)\n", path.c_str(), mibs);
    Row("sequential 1 MiB, 8 in flight", mibs / workerSeconds, mibs / preadSeconds, "MiB/s");
    const Latency ws = Summarise(workerSeq), ps = Summarise(preadSeq);
    Row("sequential 1 MiB latency median", ws.median, ps.median, "us");
    Row("sequential 1 MiB latency p99", ws.p99, ps.p99, "us");
    const Latency wr = Summarise(workerRandom), pr = Summarise(preadRandom);
    Row("random 4 KiB latency median", wr.median, pr.median, "us");
    Row("random 4 KiB latency p99", wr.p99, pr.p99, "us");
    Row("random 4 KiB reads per second", wr.median > 0 ? 1e6 / wr.median : 0, pr.median > 0 ? 1e6 / pr.median : 0,
        "op/s");
    std::printf("worker exit code %d\n", workerExit);
    return workerExit == 0 ? 0 : 1;
}
