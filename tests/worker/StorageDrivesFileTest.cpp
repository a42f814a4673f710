// The drive service on real files through the Linux drive calls.

#include "worker/DriveServiceHarness.h"

#include "common/LogCapture.h"
#include "common/ProcessProbe.h"
#include "common/TempDir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <future>
#include <iterator>
#include <thread>

namespace {

constexpr uint64_t kFileSize = 3 * 65536 + 1000;  // not a multiple of any block size

std::vector<uint8_t> Expected(uint64_t offset, size_t length)
{
    std::vector<uint8_t> out(length);
    for (size_t i = 0; i < length; ++i)
        out[i] = PatternByte(offset + i);
    return out;
}

class StorageDrivesFile : public testing::Test {
protected:
    void SetUp() override
    {
        WritePatternFile(image, kFileSize);
        ASSERT_TRUE(Query('E', image).result);
    }
    ServiceReply Query(uint8_t letter, const std::string& path)
    {
        return CallService(drives, EncodeQueryDiskRequest(1, letter, 1, Wide(path)));
    }
    ServiceReply Read(uint8_t letter, uint64_t offset, uint32_t length)
    {
        return CallService(drives, EncodeReadRequest(7, letter, 1, offset, length));
    }

    TempDir dir;
    const std::string image = dir.file("disk.img");
    ScopedLogCapture log{LOG_LEVEL_DEBUG};
    StorageDrives drives;
};

} // namespace

TEST_F(StorageDrivesFile, QueryReportsTheFileSizeReadOnlyAndNoGeometry)
{
    const auto reply = CallService(drives, EncodeQueryDiskRequest(0xABCDEF, 'F', 2, Wide(image)));
    EXPECT_EQ(reply.raw, QueryReplyBytes(0xABCDEF, kFileSize, 1, 0, 0, 0, 0));
    // The volume controls do not apply to a file; the query goes on without them.
    EXPECT_EQ(log.Count("FSCTL_ALLOW_EXTENDED_DASD_IO failed with error 25, format will be blocked."), 2u);
}

TEST_F(StorageDrivesFile, ReadsAreClippedAtTheRecordedSizeAndPastItAnswerEndOfFile)
{
    auto reply = CallService(drives, EncodeReadRequest(0x0102030405060708ull, 'E', 1, 1000, 70000));
    EXPECT_EQ(reply.header.ioContext, 0x0102030405060708ull);
    EXPECT_EQ(reply.raw.size(), 36u + 70000u);

    struct Row {
        uint8_t letter;
        uint64_t offset;
        uint32_t length;
        uint32_t status;
        size_t bytes;  // of the file from `offset`
    };
    const Row rows[] = {
        {'E', 1000, 70000, 0, 70000},
        {'E', kFileSize - 4096, 4096, 0, 4096},  // up to the end exactly: no clipping
        {'E', kFileSize - 100, 512, 0, 100},
        {'E', 5, 0xFFFFFFFF, 0, kFileSize - 5},  // a length that would wrap is clipped, not wrapped
        {'E', 10, 0, 0, 0},
        {'E', kFileSize, 4096, 0xC0000011, 0},
        {'E', kFileSize + 1, 4096, 0xC0000011, 0},
        {'E', ~uint64_t{0}, 4096, 0xC0000011, 0},
        {'E', ~uint64_t{0} - 10, 4096, 0xC0000011, 0},
        // As for a write, a letter without a record fails on the invalid
        // handle, whatever the range.
        {'X', 0, 16, 0xC0000008, 0},
        {'X', 0, 0, 0xC0000008, 0},
        {'X', 0, 0xFFFFFFFF, 0xC0000008, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(1, static_cast<char>(row.letter)) + " " + std::to_string(row.offset) + " " +
                     std::to_string(row.length));
        reply = Read(row.letter, row.offset, row.length);
        EXPECT_TRUE(reply.result);
        EXPECT_EQ(reply.header.status, row.status);
        if (row.status == 0) {
            EXPECT_EQ(reply.readData(), Expected(row.offset, row.bytes));
        } else {
            EXPECT_EQ(reply.header.information, 0u);
            EXPECT_EQ(reply.raw.size(), 32u);
        }
    }
    EXPECT_EQ(log.Count("Read request is beyond the end of the file. (offset: " + std::to_string(kFileSize - 100) +
                        ", len: 512). The new length is 100."),
              1u);
    EXPECT_EQ(log.CountContaining("(offset: " + std::to_string(kFileSize - 4096)), 0u);
    EXPECT_EQ(log.Count("Failed to find the request disk (drive is X)"), 3u);
}

namespace {
// Puts a reply allocator in force for a scope.
struct ScopedReplyAllocator {
    explicit ScopedReplyAllocator(StorageDrives::ReplyAllocator allocator)
        : previous(StorageDrives::SetReplyAllocator(allocator))
    {
    }
    ~ScopedReplyAllocator() { StorageDrives::SetReplyAllocator(previous); }
    StorageDrives::ReplyAllocator previous;
};

constexpr size_t kOneGiB = size_t{1} << 30;
} // namespace

TEST_F(StorageDrivesFile, LongReadsAreServedAndMemoryShortageIsAnAnswer)
{
    // A sparse file far larger than any read, so that clipping does not help.
    const std::string big = dir.file("big.img");
    std::ofstream{big};
    ASSERT_EQ(::truncate(big.c_str(), 1ll << 40), 0);
    ASSERT_TRUE(Query('B', big).result);

    const uint32_t longRead = (64u << 20) + 4096;  // longer than 64 MiB: served whole
    auto reply = Read('B', 4096, longRead);
    EXPECT_EQ(reply.header.status, 0u);
    EXPECT_EQ(reply.header.information, longRead);
    EXPECT_EQ(reply.raw.size(), 36u + longRead);

    // A buffer that cannot be had, whether the allocator says so with null or
    // with std::bad_alloc, is answered with 0xC000009A, and the service goes on.
    auto refuseNull = [](size_t size) -> void* { return size > kOneGiB ? nullptr : std::malloc(size); };
    auto refuseThrow = [](size_t size) -> void* {
        if (size > kOneGiB)
            throw std::bad_alloc();
        return std::malloc(size);
    };
    for (StorageDrives::ReplyAllocator allocator : {+refuseNull, +refuseThrow}) {
        ScopedReplyAllocator scoped(allocator);
        reply = Read('B', 0, 0x80000000u);
        EXPECT_FALSE(reply.result);
        EXPECT_EQ(reply.header.status, 0xC000009Au);
        EXPECT_EQ(reply.header.information, 0u);
        EXPECT_EQ(reply.raw.size(), 32u);
        EXPECT_EQ(Read('B', 0, 512).readData(), std::vector<uint8_t>(512, 0));
    }
    // Nor a reply that would not fit in one message; nothing is allocated for it.
    {
        ScopedReplyAllocator scoped([](size_t size) -> void* {
            EXPECT_LE(size, kOneGiB);
            return std::malloc(size);
        });
        reply = Read('B', 0, 0xFFFFFFFFu);
        EXPECT_FALSE(reply.result);
        EXPECT_EQ(reply.header.status, 0xC000009Au);
        EXPECT_EQ(reply.raw.size(), 32u);
    }
    EXPECT_EQ(log.Count("Failed to allocate memory"), 3u);
}

TEST_F(StorageDrivesFile, WritesLandAndAreNotClipped)
{
    const auto data = Pattern(5000, 3);
    auto reply = CallService(drives, EncodeWriteRequest(9, 'E', 1, 70000, data.data(), 5000));
    EXPECT_TRUE(reply.result);
    ASSERT_EQ(reply.raw.size(), 32u);
    EXPECT_EQ(reply.header.status, 0u);
    EXPECT_EQ(reply.header.information, 5000u);
    EXPECT_FALSE(CallService(drives, EncodeWriteRequest(DR_IOCONTEXT_NO_RESPONSE, 'E', 1, 0, data.data(), 10)).present);
    // Past the recorded size: the file grows, reads stay clipped at the old size.
    reply = CallService(drives, EncodeWriteRequest(9, 'E', 1, kFileSize + 10, data.data(), 100));
    EXPECT_EQ(reply.header.information, 100u);

    auto expected = Expected(0, kFileSize);
    std::copy(data.begin(), data.end(), expected.begin() + 70000);
    std::copy(data.begin(), data.begin() + 10, expected.begin());
    expected.resize(kFileSize + 110, 0);
    std::copy(data.begin(), data.begin() + 100, expected.begin() + kFileSize + 10);
    std::ifstream in(image, std::ios::binary);
    EXPECT_EQ(std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {}), expected);
    EXPECT_EQ(Read('E', kFileSize, 110).header.status, 0xC0000011u);
    EXPECT_EQ(Read('E', kFileSize - 10, 110).readData(),
              std::vector<uint8_t>(expected.begin() + kFileSize - 10, expected.begin() + kFileSize));

    // Offsets past what a file offset can hold are refused, not wrapped.
    reply = CallService(drives, EncodeWriteRequest(9, 'E', 1, ~uint64_t{0} - 2, data.data(), 10));
    EXPECT_EQ(reply.header.status, 0xC000000Du);
    EXPECT_EQ(reply.header.information, 0u);
    // A write to a letter that has no record fails on the invalid handle.
    reply = CallService(drives, EncodeWriteRequest(9, 'Y', 1, 0, data.data(), 10));
    EXPECT_EQ(reply.header.status, 0xC0000008u);
}

TEST_F(StorageDrivesFile, OpenFailuresAnswerUnsuccessfulAndLeakNothing)
{
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::u16string paths[] = {Wide(dir.file("missing")),        Wide(dir.path()), Wide(fifo),
                                    u"relative.img",                  std::u16string{u'/', u'\xDC00'},
                                    u"\\\\.\\..\\null",               u"",
                                    u"\\\\.\\no-such-device-here"};
    const size_t descriptors = OpenDescriptors();
    for (const auto& path : paths) {
        const auto reply = CallService(drives, EncodeQueryDiskRequest(1, 'F', 1, path));
        EXPECT_FALSE(reply.result);
        EXPECT_EQ(reply.header.status, 0xC0000001u);
        EXPECT_EQ(reply.raw.size(), 32u);
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);

    // Looking at a FIFO must not open it: a reader blocked on it stays blocked.
    auto reader = std::async(std::launch::async, [&] { return ::open(fifo.c_str(), O_RDONLY | O_CLOEXEC); });
    Query('F', fifo);
    EXPECT_EQ(reader.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    const int writer = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);  // lets the reader go
    ::close(reader.get());
    ::close(writer);
}

TEST_F(StorageDrivesFile, ReleaseClosesAndNothingLeaks)
{
    const size_t before = OpenDescriptors();
    for (int round = 0; round < 20; ++round) {
        Query('F', image);
        Query('G', image);
        Query('G', image);  // replaces
        CallService(drives, EncodeReleaseDiskRequest(1, 'F'));
    }
    EXPECT_EQ(OpenDescriptors(), before + 1);  // G
    EXPECT_EQ(OpenDescriptors(image), 2u);     // E and G
    drives.Uninit();
    EXPECT_EQ(OpenDescriptors(image), 0u);
    EXPECT_EQ(OpenDescriptors(), before - 1);  // E went too
}

TEST_F(StorageDrivesFile, ConcurrentTransfersNeverSeeAClosedOrReusedDescriptor)
{
    ScopedLogCapture quiet(LOG_LEVEL_ALWAYS);
    constexpr int kThreads = 4;
    constexpr size_t kSlice = 4096;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            // Each thread owns slices t, t+4, ...: write, then read back through the service.
            for (int round = 0; round < 50; ++round) {
                for (size_t slice = static_cast<size_t>(t); (slice + 1) * kSlice <= kFileSize; slice += kThreads) {
                    const auto data = Pattern(kSlice, static_cast<uint8_t>(round * 16 + t));
                    const uint64_t offset = slice * kSlice;
                    auto w = CallService(drives, EncodeWriteRequest(1, 'E', 1, offset, data.data(), kSlice));
                    if (w.header.information != kSlice || Read('E', offset, kSlice).readData() != data)
                        ++failures;
                }
            }
        });
    }
    // Meanwhile another thread keeps replacing another letter's record on the
    // same file.
    std::atomic<bool> stop{false};
    std::thread requery([&] {
        while (!stop)
            Query('R', image);
    });
    for (auto& thread : threads)
        thread.join();
    stop = true;
    requery.join();
    EXPECT_EQ(failures, 0);

    // Reads racing releases and re-queries of their own letter either read the
    // file or find no drive; never another descriptor's bytes.
    const std::string other = dir.file("other.img");
    WritePatternFile(other, kFileSize, 99);
    const auto held = Read('E', 4096, 4096).readData();
    std::atomic<int> wrong{0};
    stop = false;
    std::thread reader([&] {
        while (!stop) {
            const auto r = Read('E', 4096, 4096);
            if (r.header.status == 0 && r.readData() != held)
                ++wrong;
        }
    });
    for (int i = 0; i < 300; ++i) {
        CallService(drives, EncodeReleaseDiskRequest(1, 'E'));
        Query('O', other);  // may reuse E's old number
        Query('E', image);
    }
    stop = true;
    reader.join();
    EXPECT_EQ(wrong, 0);
}
