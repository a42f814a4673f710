// The drive service on real files through the Linux drive calls.

#include "worker/DriveServiceHarness.h"

#include "common/LogCapture.h"
#include "common/TempDir.h"

#include "platform/Utf.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <fstream>
#include <iterator>
#include <thread>

using namespace tolv::log;

using namespace tolv::worker;

namespace {

constexpr size_t kFileSize = 3 * 65536 + 1000;  // not a multiple of any block size

std::u16string Wide(const std::string& path)
{
    return *tolv::platform::Utf8ToUtf16(path);
}

std::vector<uint8_t> FileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

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
        image = dir.file("disk.img");
        WritePatternFile(image, kFileSize);
        const auto reply = CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, Wide(image)));
        ASSERT_TRUE(reply.result);
    }

    TempDir dir;
    std::string image;
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

TEST_F(StorageDrivesFile, ReadsReturnTheBytesAndAreClippedAtTheRecordedSize)
{
    auto reply = CallService(drives, EncodeReadRequest(0x0102030405060708ull, 'E', 1, 1000, 70000));
    EXPECT_TRUE(reply.result);
    EXPECT_EQ(reply.header.ioContext, 0x0102030405060708ull);
    EXPECT_EQ(reply.header.status, 0u);
    EXPECT_EQ(reply.raw.size(), 36u + 70000u);
    EXPECT_EQ(reply.readData(), Expected(1000, 70000));

    // Up to the end exactly: no clipping, no warning.
    reply = CallService(drives, EncodeReadRequest(7, 'E', 1, kFileSize - 4096, 4096));
    EXPECT_EQ(reply.readData(), Expected(kFileSize - 4096, 4096));
    EXPECT_EQ(log.CountContaining("beyond the end"), 0u);

    reply = CallService(drives, EncodeReadRequest(7, 'E', 1, kFileSize - 100, 512));
    EXPECT_EQ(reply.readData(), Expected(kFileSize - 100, 100));
    EXPECT_EQ(log.Count("Read request is beyond the end of the file. (offset: " + std::to_string(kFileSize - 100) +
                        ", len: 512). The new length is 100."),
              1u);

    // A length that would wrap is clipped, not wrapped.
    reply = CallService(drives, EncodeReadRequest(7, 'E', 1, 5, 0xFFFFFFFF));
    EXPECT_EQ(reply.readData(), Expected(5, kFileSize - 5));

    // Zero bytes: an empty read with a count of 0.
    reply = CallService(drives, EncodeReadRequest(7, 'E', 1, 10, 0));
    EXPECT_EQ(reply.header.status, 0u);
    EXPECT_EQ(reply.raw.size(), 36u);
    EXPECT_TRUE(reply.readData().empty());
}

TEST_F(StorageDrivesFile, ReadsAtOrPastTheEndAnswerEndOfFile)
{
    for (uint64_t offset : {uint64_t{kFileSize}, uint64_t{kFileSize} + 1, ~uint64_t{0}, ~uint64_t{0} - 10}) {
        SCOPED_TRACE(offset);
        const auto reply = CallService(drives, EncodeReadRequest(7, 'E', 1, offset, 4096));
        EXPECT_TRUE(reply.result);
        EXPECT_EQ(reply.header.status, 0xC0000011u);
        EXPECT_EQ(reply.header.information, 0u);
        EXPECT_EQ(reply.raw.size(), 32u);
    }
    EXPECT_EQ(log.CountContaining("The new length is 0."), 4u);

}

TEST_F(StorageDrivesFile, ReadsOfALetterWithoutARecordFailOnTheInvalidHandle)
{
    // As for a write: the transfer is tried on the invalid handle, and its
    // failure is the answer, whatever the range.
    for (uint32_t length : {16u, 0u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(length);
        const auto reply = CallService(drives, EncodeReadRequest(7, 'X', 1, 0, length));
        EXPECT_TRUE(reply.result);
        EXPECT_EQ(reply.header.status, 0xC0000008u);
        EXPECT_EQ(reply.header.information, 0u);
        EXPECT_EQ(reply.raw.size(), 32u);
    }
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
    {
        std::ofstream touch(big);
    }
    ASSERT_EQ(::truncate(big.c_str(), 1ll << 40), 0);
    ASSERT_TRUE(CallService(drives, EncodeQueryDiskRequest(1, 'B', 1, Wide(big))).result);

    // Longer than 64 MiB: served whole.
    const uint32_t longRead = (64u << 20) + 4096;
    auto reply = CallService(drives, EncodeReadRequest(7, 'B', 1, 4096, longRead));
    EXPECT_TRUE(reply.result);
    EXPECT_EQ(reply.header.status, 0u);
    EXPECT_EQ(reply.header.information, longRead);
    EXPECT_EQ(reply.raw.size(), 36u + longRead);

    // A buffer that cannot be had, whether the allocator says so with null or
    // with std::bad_alloc, is answered with 0xC000009A.
    auto refuseNull = [](size_t size) -> void* { return size > kOneGiB ? nullptr : std::malloc(size); };
    auto refuseThrow = [](size_t size) -> void* {
        if (size > kOneGiB)
            throw std::bad_alloc();
        return std::malloc(size);
    };
    for (StorageDrives::ReplyAllocator allocator : {+refuseNull, +refuseThrow}) {
        ScopedReplyAllocator scoped(allocator);
        reply = CallService(drives, EncodeReadRequest(7, 'B', 1, 0, 0x80000000u));
        EXPECT_FALSE(reply.result);
        EXPECT_EQ(reply.header.status, 0xC000009Au);
        EXPECT_EQ(reply.header.information, 0u);
        EXPECT_EQ(reply.raw.size(), 32u);
        // The service goes on serving.
        reply = CallService(drives, EncodeReadRequest(7, 'B', 1, 0, 512));
        EXPECT_EQ(reply.readData(), std::vector<uint8_t>(512, 0));
    }
    // A reply that would not fit in one message cannot be had either; nothing
    // is allocated for it.
    {
        ScopedReplyAllocator scoped([](size_t size) -> void* {
            EXPECT_LE(size, kOneGiB);
            return std::malloc(size);
        });
        reply = CallService(drives, EncodeReadRequest(7, 'B', 1, 0, 0xFFFFFFFFu));
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
    reply = CallService(drives, EncodeWriteRequest(DR_IOCONTEXT_NO_RESPONSE, 'E', 1, 0, data.data(), 10));
    EXPECT_FALSE(reply.present);

    // Past the recorded size: the file grows, reads stay clipped at the old size.
    reply = CallService(drives, EncodeWriteRequest(9, 'E', 1, kFileSize + 10, data.data(), 100));
    EXPECT_EQ(reply.header.information, 100u);

    auto bytes = FileBytes(image);
    ASSERT_EQ(bytes.size(), kFileSize + 110);
    auto expected = Expected(0, kFileSize);
    std::copy(data.begin(), data.end(), expected.begin() + 70000);
    std::copy(data.begin(), data.begin() + 10, expected.begin());
    expected.resize(kFileSize + 110, 0);
    std::copy(data.begin(), data.begin() + 100, expected.begin() + kFileSize + 10);
    EXPECT_EQ(bytes, expected);

    reply = CallService(drives, EncodeReadRequest(7, 'E', 1, kFileSize, 110));
    EXPECT_EQ(reply.header.status, 0xC0000011u);
    reply = CallService(drives, EncodeReadRequest(7, 'E', 1, kFileSize - 10, 110));
    EXPECT_EQ(reply.readData(), std::vector<uint8_t>(expected.begin() + kFileSize - 10, expected.begin() + kFileSize));

    // Offsets past what a file offset can hold are refused, not wrapped.
    reply = CallService(drives, EncodeWriteRequest(9, 'E', 1, ~uint64_t{0} - 2, data.data(), 10));
    EXPECT_EQ(reply.header.status, 0xC000000Du);
    EXPECT_EQ(reply.header.information, 0u);
    // A write to a letter that has no record fails on the invalid handle.
    reply = CallService(drives, EncodeWriteRequest(9, 'Y', 1, 0, data.data(), 10));
    EXPECT_EQ(reply.header.status, 0xC0000008u);
}

TEST_F(StorageDrivesFile, OpenFailuresAnswerUnsuccessful)
{
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::vector<std::u16string> paths = {Wide(dir.file("missing")), Wide(dir.path()), Wide(fifo), u"relative.img",
                                               std::u16string{u'/', u'\xDC00'}, u"\\\\.\\..\\null", u"",
                                               u"\\\\.\\no-such-device-here"};
    const size_t descriptors = CountOpenDescriptors();
    for (const auto& path : paths) {
        const auto reply = CallService(drives, EncodeQueryDiskRequest(1, 'F', 1, path));
        EXPECT_FALSE(reply.result);
        EXPECT_EQ(reply.header.status, 0xC0000001u);
        EXPECT_EQ(reply.raw.size(), 32u);
    }
    EXPECT_EQ(CountOpenDescriptors(), descriptors);

    // Looking at a FIFO must not open it: a reader blocked on it stays blocked.
    auto reader = std::async(std::launch::async, [&] { return ::open(fifo.c_str(), O_RDONLY | O_CLOEXEC); });
    CallService(drives, EncodeQueryDiskRequest(1, 'F', 1, Wide(fifo)));
    EXPECT_EQ(reader.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    const int writer = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);  // lets the reader go
    ::close(reader.get());
    ::close(writer);
}

TEST_F(StorageDrivesFile, ReleaseClosesAndNothingLeaks)
{
    const size_t before = CountOpenDescriptors();
    for (int round = 0; round < 20; ++round) {
        CallService(drives, EncodeQueryDiskRequest(1, 'F', 1, Wide(image)));
        CallService(drives, EncodeQueryDiskRequest(1, 'G', 1, Wide(image)));
        CallService(drives, EncodeQueryDiskRequest(1, 'G', 1, Wide(image)));  // replaces
        CallService(drives, EncodeReleaseDiskRequest(1, 'F'));
    }
    EXPECT_EQ(CountOpenDescriptors(), before + 1);  // G
    EXPECT_EQ(CountOpenDescriptors(image), 2u);     // E and G
    drives.Uninit();
    EXPECT_EQ(CountOpenDescriptors(image), 0u);
    EXPECT_EQ(CountOpenDescriptors(), before - 1);  // E went too
}

TEST_F(StorageDrivesFile, ConcurrentReadsAndWritesOnOneService)
{
    constexpr int kThreads = 4;
    constexpr size_t kSlice = 4096;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    ScopedLogCapture quiet(LOG_LEVEL_ERROR);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            // Each thread owns slices t, t+4, ...: write, then read back through the service.
            for (int round = 0; round < 50; ++round) {
                for (size_t slice = static_cast<size_t>(t); (slice + 1) * kSlice <= kFileSize; slice += kThreads) {
                    const auto data = Pattern(kSlice, static_cast<uint8_t>(round * 16 + t));
                    const uint64_t offset = slice * kSlice;
                    auto w = CallService(drives, EncodeWriteRequest(1, 'E', 1, offset, data.data(), kSlice));
                    auto r = CallService(drives, EncodeReadRequest(2, 'E', 1, offset, kSlice));
                    if (w.header.information != kSlice || r.readData() != data)
                        ++failures;
                }
            }
        });
    }
    // Meanwhile a fifth thread keeps replacing another letter's record on the
    // same file: transfers on E must never see a closed or reused descriptor.
    std::atomic<bool> stop{false};
    std::thread requery([&] {
        while (!stop)
            CallService(drives, EncodeQueryDiskRequest(1, 'R', 1, Wide(image)));
    });
    for (auto& thread : threads)
        thread.join();
    stop = true;
    requery.join();
    EXPECT_EQ(failures, 0);
}

TEST_F(StorageDrivesFile, TransfersOutliveAReleaseOfTheirDrive)
{
    // Reads racing releases and re-queries of the same letter either read the
    // file or find no drive; they never read another descriptor's bytes.
    ScopedLogCapture quiet(LOG_LEVEL_ALWAYS);
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::thread reader([&] {
        while (!stop) {
            const auto r = CallService(drives, EncodeReadRequest(2, 'E', 1, 4096, 4096));
            if (r.header.status == 0 && r.readData() != Expected(4096, 4096))
                ++wrong;
        }
    });
    const std::string other = dir.file("other.img");
    WritePatternFile(other, kFileSize, 99);
    for (int i = 0; i < 300; ++i) {
        CallService(drives, EncodeReleaseDiskRequest(1, 'E'));
        CallService(drives, EncodeQueryDiskRequest(1, 'O', 1, Wide(other)));  // may reuse E's old number
        CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, Wide(image)));
    }
    stop = true;
    reader.join();
    EXPECT_EQ(wrong, 0);
}
