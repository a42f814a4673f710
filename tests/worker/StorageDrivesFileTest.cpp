// The drive service on real files through the Linux drive calls. (What the
// worker answers over the wire is held against the documents by tests/wire.)

#include "worker/DriveServiceHarness.h"

#include "common/LogCapture.h"
#include "common/ProcessProbe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <thread>

namespace {

constexpr uint64_t kFileSize = 3 * 65536 + 1000;  // not a multiple of any block size

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

// What is answered, and what is refused, by the code of a record.
class StorageDrivesDispatch : public StorageDrivesFile {
};

} // namespace

TEST_F(StorageDrivesDispatch, ReplyRulesByCode)
{
    // Release and unknown codes are never answered.
    EXPECT_TRUE(CallService(drives, EncodeReleaseDiskRequest(1, 'Q')).result);
    EXPECT_EQ(log.Count("Failed to find the request disk (drive is Q)"), 1u);
    auto unknown = EncodeReleaseDiskRequest(0x42, 'E');
    unknown[8] = 0x14;
    const auto reply = CallService(drives, unknown);
    EXPECT_FALSE(reply.result || reply.present);
    EXPECT_EQ(log.Count("Unknown message code 0x14"), 1u);
    // The drive is the field's low byte.
    EXPECT_TRUE(CallService(drives, EncodeQueryDiskRequest(1, 0x1245, 5, Wide(image))).result);
    EXPECT_EQ(log.Count("The local drive (id=5, drive=E) record will be overwritten."), 1u);
    // Writes are silent only for the full 64-bit 0xbeefbeef; reads are always answered.
    const uint8_t data[4] = {1, 2, 3, 4};
    EXPECT_FALSE(CallService(drives, EncodeWriteRequest(DR_IOCONTEXT_NO_RESPONSE, 'E', 1, 0, data, 4)).present);
    const auto write = CallService(drives, EncodeWriteRequest(0x1BEEFBEEFull, 'E', 1, 0, data, 4));
    EXPECT_EQ(write.raw.size(), 32u);
    EXPECT_EQ(write.header.ioContext, 0x1BEEFBEEFull);
    EXPECT_EQ(write.header.information, 4u);
    const auto read = CallService(drives, EncodeReadRequest(DR_IOCONTEXT_NO_RESPONSE, 'E', 1, 0, 4));
    EXPECT_EQ(read.readData(), std::vector<uint8_t>(data, data + 4));
}

TEST_F(StorageDrivesDispatch, TruncatedRecordsOfEveryCodeAreRefusedWithoutOverRead)
{
    const uint8_t data[8] = {};
    const std::vector<std::vector<uint8_t>> records = {
        EncodeQueryDiskRequest(9, 'F', 1, Wide(image)), EncodeReleaseDiskRequest(9, 'F'),
        EncodeReadRequest(9, 'E', 1, 0, 8), EncodeWriteRequest(9, 'E', 1, 0, data, 8),
        EncodeWriteRequest(DR_IOCONTEXT_NO_RESPONSE, 'E', 1, 0, data, 8)};
    const size_t descriptors = OpenDescriptors();
    for (const auto& record : records) {
        const uint32_t code = record[8];
        const bool silentWrite = code == DR_MSG_WRITE && record[0] == 0xEF;
        for (size_t size = 0; size < record.size(); ++size) {
            SCOPED_TRACE("code " + std::to_string(code) + ", " + std::to_string(size) + " bytes");
            const auto reply = CallService(drives, record, size);
            const bool header = size >= DR_REQ_HEADER_SIZE;
            // A release needs no payload; everything else is refused.
            EXPECT_EQ(reply.result, header && code == DR_MSG_RELEASE_DISK);
            EXPECT_EQ(reply.present, header && code != DR_MSG_RELEASE_DISK && !silentWrite);
            if (reply.present) {
                EXPECT_EQ(reply.header.status, 0xC000000Du);
                EXPECT_EQ(reply.raw.size(), 32u);
            }
        }
    }
    // Nothing was opened or written, and E is still there.
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(Read('E', 0, 16).readData(), PatternBytes(0, 16));
}

TEST_F(StorageDrivesFile, TransfersAreClippedAtTheRecordedSizeAndRefusedPastIt)
{
    struct Row {
        bool write;
        uint8_t letter;
        uint64_t offset;
        uint32_t length;
        uint32_t status;
        size_t bytes;  // read from `offset`, or written
    };
    const Row rows[] = {
        {false, 'E', 1000, 70000, 0, 70000},
        {true, 'E', kFileSize + 10, 100, 0, 100},  // the file grows, reads stay clipped at the old size
        {false, 'E', kFileSize - 4096, 4096, 0, 4096},  // up to the end exactly: no clipping
        {false, 'E', kFileSize - 100, 512, 0, 100},
        {false, 'E', 5, 0xFFFFFFFF, 0, kFileSize - 5},  // a length that would wrap is clipped, not wrapped
        {false, 'E', 10, 0, 0, 0},
        {false, 'E', kFileSize, 4096, 0xC0000011, 0},
        {false, 'E', kFileSize + 1, 4096, 0xC0000011, 0},
        {false, 'E', ~uint64_t{0}, 4096, 0xC0000011, 0},
        {false, 'E', ~uint64_t{0} - 10, 4096, 0xC0000011, 0},
        {true, 'E', ~uint64_t{0} - 2, 10, 0xC000000D, 0},  // past what a file offset holds: not wrapped
        // A letter without a record fails on the invalid handle, whatever the range.
        {false, 'X', 0, 16, 0xC0000008, 0},
        {false, 'X', 0, 0, 0xC0000008, 0},
        {false, 'X', 0, 0xFFFFFFFF, 0xC0000008, 0},
        {true, 'Y', 0, 10, 0xC0000008, 0},
    };
    const auto data = PatternBytes(0, 100, 2);
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.write ? "write " : "read ") + static_cast<char>(row.letter) + " " +
                     std::to_string(row.offset) + " " + std::to_string(row.length));
        const auto reply = row.write ? CallService(drives, EncodeWriteRequest(9, row.letter, 1, row.offset,
                                                                              data.data(), row.length))
                                     : Read(row.letter, row.offset, row.length);
        EXPECT_TRUE(reply.result);
        EXPECT_EQ(reply.header.status, row.status);
        EXPECT_EQ(reply.header.information, row.bytes);
        if (!row.write && row.status == 0) {
            EXPECT_EQ(reply.readData(), PatternBytes(row.offset, row.bytes));
        } else {
            EXPECT_EQ(reply.raw.size(), 32u);
        }
    }
    struct stat st {};
    EXPECT_EQ(stat(image.c_str(), &st) == 0 ? uint64_t(st.st_size) : 0, kFileSize + 110);
    EXPECT_EQ(log.Count("Read request is beyond the end of the file. (offset: " + std::to_string(kFileSize - 100) +
                        ", len: 512). The new length is 100."),
              1u);
    EXPECT_EQ(log.CountContaining("(offset: " + std::to_string(kFileSize - 4096)), 0u);
    EXPECT_EQ(log.Count("Failed to find the request disk (drive is X)"), 3u);
}

TEST_F(StorageDrivesFile, LongReadsAreServedAndMemoryShortageIsAnAnswer)
{
    // A sparse file far larger than any read, so that clipping does not help.
    const std::string big = dir.file("big.img");
    std::ofstream{big};
    ASSERT_EQ(::truncate(big.c_str(), 1ll << 40), 0);
    ASSERT_TRUE(Query('B', big).result);
    const uint32_t longRead = (64u << 20) + 4096;  // longer than 64 MiB: served whole
    EXPECT_EQ(Read('B', 4096, longRead).readData().size(), longRead);

    // A buffer that cannot be had, whether the allocator says so with null or
    // with std::bad_alloc, or a reply that would not fit in one message (for
    // which nothing is allocated), is answered with 0xC000009A.
    static constexpr size_t kOneGiB = size_t{1} << 30;
    auto refuseNull = [](size_t size) -> void* { return size > kOneGiB ? nullptr : std::malloc(size); };
    auto refuseThrow = [](size_t size) -> void* {
        if (size > kOneGiB)
            throw std::bad_alloc();
        return std::malloc(size);
    };
    auto bounded = [](size_t size) -> void* {
        EXPECT_LE(size, kOneGiB);
        return std::malloc(size);
    };
    const auto previous = StorageDrives::SetReplyAllocator(+refuseNull);
    for (const auto& [allocator, length] : {std::make_pair(+refuseNull, 0x80000000u),
                                            std::make_pair(+refuseThrow, 0x80000000u),
                                            std::make_pair(+bounded, 0xFFFFFFFFu)}) {
        StorageDrives::SetReplyAllocator(allocator);
        const auto reply = Read('B', 0, length);
        EXPECT_FALSE(reply.result);
        EXPECT_EQ(reply.header.status, 0xC000009Au);
        EXPECT_EQ(reply.raw.size(), 32u);
        EXPECT_EQ(Read('B', 0, 512).readData(), std::vector<uint8_t>(512, 0));  // the service goes on
    }
    StorageDrives::SetReplyAllocator(previous);
    EXPECT_EQ(log.Count("Failed to allocate memory"), 3u);
}

TEST_F(StorageDrivesFile, FailedOpensAndReleasesLeakNothing)
{
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::u16string paths[] = {Wide(dir.file("missing")), Wide(dir.path()),    Wide(fifo),
                                    u"relative.img",           u"",                 std::u16string{u'/', u'\xDC00'},
                                    u"\\\\.\\..\\null",        u"\\\\.\\no-such-device-here"};
    const size_t before = OpenDescriptors();
    for (const auto& path : paths) {
        const auto reply = CallService(drives, EncodeQueryDiskRequest(1, 'F', 1, path));
        EXPECT_FALSE(reply.result);
        EXPECT_EQ(reply.header.status, 0xC0000001u);
        EXPECT_EQ(reply.raw.size(), 32u);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    // Looking at a FIFO must not open it: a reader blocked on it stays blocked.
    auto reader = std::async(std::launch::async, [&] { return ::open(fifo.c_str(), O_RDONLY | O_CLOEXEC); });
    Query('F', fifo);
    EXPECT_EQ(reader.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    const int writer = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);  // lets the reader go
    ::close(reader.get());
    ::close(writer);

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
    {
        StorageDrives scoped;
        ASSERT_TRUE(CallService(scoped, EncodeQueryDiskRequest(1, 'E', 1, Wide(image))).result);
    }
    EXPECT_EQ(OpenDescriptors(image), 0u);  // a service that goes lets go of its drives
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
                    const uint64_t offset = slice * kSlice;
                    const auto data = PatternBytes(offset, kSlice, static_cast<uint32_t>(round * 16 + t));
                    const auto w = CallService(drives, EncodeWriteRequest(1, 'E', 1, offset, data.data(), kSlice));
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
    WritePatternFile(dir.file("other.img"), kFileSize, 99);
    const auto held = Read('E', 4096, 4096).readData();
    std::atomic<int> wrong{0};
    stop = false;
    std::thread reader([&] {
        while (!stop) {
            const auto r = Read('E', 4096, 4096);
            wrong += r.header.status == 0 && r.readData() != held;
        }
    });
    for (int i = 0; i < 300; ++i) {
        CallService(drives, EncodeReleaseDiskRequest(1, 'E'));
        Query('O', dir.file("other.img"));  // may reuse E's old number
        Query('E', image);
    }
    stop = true;
    reader.join();
    EXPECT_EQ(wrong, 0);
}
