// The drive service on real files and loop devices, run the way the connection
// layer does. Its wire format is held against the documents by tests/wire.

#include <tolv/worker/DriveRequests.h>
#include "worker/DriveCalls.h"
#include "worker/MountTable.h"
#include "worker/StorageDrives.h"

#include "common/LogCapture.h"
#include "common/LoopDevice.h"
#include "common/ProcessProbe.h"
#include "platform/LittleEndian.h"
#include "platform/Utf.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <future>
#include <thread>

using namespace tolv::worker;
using tolv::platform::LoadLe;

namespace {

// A request run through the service from an exactly sized heap copy (so the
// sanitizer sees any over-read), its reply split into header and payload.
struct ServiceReply {
    bool result = false;
    bool present = false;
    std::vector<uint8_t> raw;  // the whole reply record
    DR_RSP_HEADER header;

    // Data of a read reply, after its 4-byte count (which must match).
    std::vector<uint8_t> readData() const
    {
        EXPECT_GE(raw.size(), DR_RSP_HEADER_SIZE + 4);
        if (raw.size() < DR_RSP_HEADER_SIZE + 4)
            return {};
        EXPECT_EQ(LoadLe<uint32_t>(raw.data() + DR_RSP_HEADER_SIZE), raw.size() - DR_RSP_HEADER_SIZE - 4);
        EXPECT_EQ(header.information, raw.size() - DR_RSP_HEADER_SIZE - 4);
        return std::vector<uint8_t>(raw.begin() + DR_RSP_HEADER_SIZE + 4, raw.end());
    }
};

ServiceReply CallService(StorageDrivesInterface& service, const std::vector<uint8_t>& request,
                         size_t size = SIZE_MAX)
{
    size = std::min(size, request.size());
    std::unique_ptr<uint8_t[]> exact(new uint8_t[size]);
    std::copy(request.begin(), request.begin() + static_cast<ptrdiff_t>(size), exact.get());
    uint8_t* response = reinterpret_cast<uint8_t*>(1);
    uint32_t responseSize = 12345;
    void* context = reinterpret_cast<void*>(1);
    ServiceReply reply;
    reply.result = service.HandleRequest(size == 0 ? nullptr : exact.get(), static_cast<uint32_t>(size), &response,
                                         &responseSize, &context);
    EXPECT_EQ(static_cast<void*>(response), context);
    reply.present = response != nullptr;
    if (response) {
        reply.raw.assign(response, response + responseSize);
        EXPECT_TRUE(DecodeResponseHeader(response, responseSize, reply.header));
        EXPECT_EQ(responseSize, DR_RSP_HEADER_SIZE + reply.header.payloadLength);
        // Reserved bytes of the header are zero.
        EXPECT_EQ(LoadLe<uint32_t>(response + 12), 0u);
        EXPECT_EQ(LoadLe<uint32_t>(response + 28), 0u);
    }
    EXPECT_EQ(responseSize, reply.raw.size());
    service.FreeResponse(context);
    return reply;
}

// The bytes WritePatternFile puts at [offset, offset + length).
std::vector<uint8_t> PatternBytes(uint64_t offset, size_t length, uint32_t seed = 1)
{
    std::vector<uint8_t> out(length);
    for (size_t i = 0; i < length; ++i)
        out[i] = PatternByte(offset + i, seed);
    return out;
}

std::u16string Wide(const std::string& path)
{
    return *tolv::platform::Utf8ToUtf16(path);
}

// A successful query's reply for a fixed disk of 255 heads, 63 sectors a track
// and 512-byte sectors, laid out by hand.
std::vector<uint8_t> QueryReplyBytes(uint64_t ioContext, uint64_t diskSize, uint8_t readOnly)
{
    std::vector<uint8_t> bytes(64, 0);
    tolv::platform::StoreLe<uint64_t>(&bytes[0], ioContext);
    bytes[24] = 32;  // payloadLength
    tolv::platform::StoreLe<uint64_t>(&bytes[32], diskSize);
    bytes[40] = readOnly;
    bytes[44] = MEDIA_TYPE_FIXED;
    bytes[48] = 255;
    bytes[52] = 63;
    bytes[57] = 2;  // 512
    return bytes;
}

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
class StorageDrivesDispatch : public StorageDrivesFile {};

constexpr size_t kImageSize = 16u << 20;

class StorageDrivesLoop : public LoopDeviceTest {
protected:
    ServiceReply Query(const LoopDevice& device, uint8_t letter = 'E', uint32_t id = 1, uint64_t ioContext = 1)
    {
        return CallService(drives, EncodeQueryDiskRequest(ioContext, letter, id, Wide(device.drivePath())));
    }
    // Descriptors of the device held by this process, not counting the test's own.
    static size_t ServiceDescriptors(const LoopDevice& device) { return OpenDescriptors(device.path()) - 1; }
    ScopedLogCapture log{LOG_LEVEL_DEBUG};
    StorageDrives drives;
};

} // namespace

TEST(DrivePath, DeviceNamesMapUnderDevAndNothingLeavesIt)
{
    const char* const refused = "(refused)";
    const std::pair<std::u16string, const char*> rows[] = {
        {u"\\\\.\\loop3", "/dev/loop3"}, {u"\\\\.\\mapper\\vg-data", "/dev/mapper/vg-data"},
        {u"/var/images/disk.img", "/var/images/disk.img"},
        // Relative paths mean nothing to the peer; device names stay inside /dev.
        {u"relative\\name", refused}, {u"C:\\disk.img", refused}, {u"", refused}, {u"\\\\.\\", refused},
        {u"\\\\.", refused}, {u"\\\\.x", refused}, {u"\\\\.\\..\\etc\\shadow", refused},
        {u"\\\\.\\mapper\\..\\..\\etc", refused}, {u"\\\\.\\mapper\\\\x", refused},
        {u"\\\\.\\loop3\\", refused}, {std::u16string(u"/tmp/a\0b", 8), refused},
        {std::u16string{u'/', u'\xD800'}, refused}};
    for (size_t i = 0; i < std::size(rows); ++i)
        EXPECT_EQ(DrivePathToLinux(rows[i].first).value_or(refused), rows[i].second) << "row " << i;
}

TEST(MountTable, MatchesTheDeviceAndDecodesEscapes)
{
    const std::string mountinfo =
        "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
        "40 22 7:3 / /mnt/with\\040blank rw - ext4 /dev/loop3 rw\n"
        "41 22 7:30 / /mnt/other rw - ext4 /dev/loop30 rw\n"
        "42 40 7:3 /sub /mnt/bind\\134x rw - ext4 /dev/loop3 rw\n"
        "bad line\n"
        "43 22 7:3x / /mnt/garbled rw - ext4 /dev/loop3 rw";
    const auto mounts = ParseMountsOfDevice(mountinfo, makedev(7, 3));
    ASSERT_EQ(mounts.size(), 2u);
    EXPECT_EQ(mounts[0].point, "/mnt/with blank");
    EXPECT_EQ(mounts[0].mountId, 40u);
    EXPECT_EQ(mounts[1].point, "/mnt/bind\\x");
    EXPECT_EQ(mounts[1].mountId, 42u);
    EXPECT_TRUE(ParseMountsOfDevice(mountinfo, makedev(9, 9)).empty());
    EXPECT_TRUE(ParseMountsOfDevice("", makedev(7, 3)).empty());
}

TEST_F(StorageDrivesDispatch, ReplyRulesByCode)
{
    // Release and unknown codes are never answered.
    EXPECT_TRUE(CallService(drives, EncodeReleaseDiskRequest(1, 'Q')).result);
    auto unknown = EncodeReleaseDiskRequest(0x42, 'E');
    unknown[8] = 0x14;
    const auto reply = CallService(drives, unknown);
    EXPECT_FALSE(reply.result || reply.present);
    // The drive is the field's low byte.
    EXPECT_TRUE(CallService(drives, EncodeQueryDiskRequest(1, 0x1245, 5, Wide(image))).result);
    EXPECT_EQ(log.Count("The local drive (id=5, drive=E) record will be overwritten."), 1u);
    // Writes are silent only for the full 64-bit 0xbeefbeef; reads are always answered.
    const uint8_t data[4] = {1, 2, 3, 4};
    EXPECT_FALSE(CallService(drives, EncodeWriteRequest(DR_IOCONTEXT_NO_RESPONSE, 'E', 1, 0, data, 4)).present);
    const auto write = CallService(drives, EncodeWriteRequest(0x1BEEFBEEFull, 'E', 1, 0, data, 4));
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

    // No buffer (null or std::bad_alloc), or a reply too long for one message
    // (nothing is allocated for it): 0xC000009A.
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
    // Meanwhile another letter's record on the same file is replaced again and again.
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

TEST_F(StorageDrivesLoop, QueryLocksAndDismountsEveryMountOfADevice)
{
    auto device = AttachMountedExt4("mounted.img", kImageSize, 1);
    ASSERT_TRUE(device);
    const std::string bound = dir.file("bound");
    ASSERT_EQ(::mkdir(bound.c_str(), 0700), 0);
    ASSERT_EQ(::mount(mnt().c_str(), bound.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(device->MountPoints().size(), 2u);
    const auto reply = Query(*device, 'E', 9, 0x55);
    EXPECT_TRUE(reply.result);
    // Loop devices are fixed, with no geometry of their own: 255/63.
    EXPECT_EQ(reply.raw, QueryReplyBytes(0x55, kImageSize, 0));
    // First lock refused while mounted, dismount, then the retry holds the claim.
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME failed."), 1u);
    EXPECT_EQ(log.Count("FSCTL_DISMOUNT_VOLUME succeeded."), 1u);
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME succeeded now."), 1u);
    EXPECT_TRUE(device->MountPoints().empty());
    EXPECT_FALSE(device->Claimable());
    EXPECT_EQ(ServiceDescriptors(*device), 2u);  // the handle and its claim
    EXPECT_FALSE(CallService(drives, EncodeReleaseDiskRequest(1, 'E')).present);
    EXPECT_TRUE(device->Claimable());
    EXPECT_EQ(ServiceDescriptors(*device), 0u);
}

TEST_F(StorageDrivesLoop, EveryByteRoundTripsAndAReadOnlyDeviceRefusesWrites)
{
    auto device = Attach("data.img", kImageSize, 7);
    auto readOnly = Attach("ro.img", kImageSize, 1, true);
    ASSERT_TRUE(device && readOnly);
    ASSERT_TRUE(Query(*device).result);
    // What the image held before attaching.
    constexpr uint32_t kChunk = 1u << 20;
    for (uint64_t offset = 0; offset < kImageSize; offset += kChunk) {
        ASSERT_TRUE(CallService(drives, EncodeReadRequest(1, 'E', 1, offset, kChunk)).readData() ==
                    PatternBytes(offset, kChunk, 7))
            << "offset " << offset;
    }
    // Odd offsets and lengths, read back through the service and past it.
    const auto data = PatternBytes(0, 100003, 5);
    const uint64_t offset = kImageSize - 100003 - 13;
    const auto written = CallService(drives, EncodeWriteRequest(1, 'E', 1, offset, data.data(), 100003));
    EXPECT_EQ(written.header.information, 100003u);
    EXPECT_EQ(CallService(drives, EncodeReadRequest(1, 'E', 1, offset, 100003)).readData(), data);
    tolv::platform::UniqueFd direct(::open(device->path().c_str(), O_RDONLY | O_CLOEXEC));
    std::vector<uint8_t> back(100003);
    ASSERT_EQ(::pread(direct.get(), back.data(), back.size(), static_cast<off_t>(offset)), 100003);
    EXPECT_EQ(back, data);
    // Writes are not clipped: past the end of the device the system says no.
    const auto past = CallService(drives, EncodeWriteRequest(1, 'E', 1, kImageSize, data.data(), 512));
    EXPECT_EQ(past.header.status, 0xC000007Fu);
    EXPECT_EQ(past.header.information, 0u);

    EXPECT_EQ(Query(*readOnly, 'R', 1, 0xBEEF).raw, QueryReplyBytes(0xBEEF, kImageSize, 1));
    const auto refused = CallService(drives, EncodeWriteRequest(1, 'R', 1, 0, data.data(), 512));
    EXPECT_EQ(refused.header.status, 0xC00000A2u);
    EXPECT_EQ(refused.header.information, 0u);
    EXPECT_EQ(CallService(drives, EncodeReadRequest(1, 'R', 1, 0, 512)).readData(), PatternBytes(0, 512));
}

TEST_F(StorageDrivesLoop, SecondQueriesReplaceClaimNothingTwiceAndUninitReleasesAll)
{
    auto first = Attach("one.img", kImageSize, 1);
    auto second = Attach("two.img", kImageSize, 2);
    ASSERT_TRUE(first && second);
    ASSERT_TRUE(Query(*first).result);
    EXPECT_FALSE(first->Claimable());
    // The same letter again, now on the second device: the first is let go.
    ASSERT_TRUE(Query(*second, 'E', 2).result);
    EXPECT_EQ(log.Count("The local drive (id=2, drive=E) record will be overwritten."), 1u);
    EXPECT_TRUE(first->Claimable());
    EXPECT_EQ(ServiceDescriptors(*first), 0u);
    EXPECT_FALSE(second->Claimable());
    // And again: the old handle still holds the claim while the new one asks.
    ASSERT_TRUE(Query(*second).result);
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME failed again. last error 16"), 1u);
    EXPECT_EQ(ServiceDescriptors(*second), 1u);  // the new handle, without a claim
    CallService(drives, EncodeReleaseDiskRequest(1, 'E'));
    EXPECT_EQ(log.Count("Failed to unlock the volume (err: 22)"), 1u);
    EXPECT_EQ(ServiceDescriptors(*second), 0u);

    ASSERT_TRUE(Query(*first, 'D', 3).result);
    ASSERT_TRUE(Query(*second, 'F', 4).result);
    EXPECT_FALSE(first->Claimable() || second->Claimable());
    drives.Uninit();
    EXPECT_TRUE(first->Claimable() && second->Claimable());
    EXPECT_EQ(ServiceDescriptors(*first) + ServiceDescriptors(*second), 0u);
    EXPECT_EQ(log.CountContaining("Failed to unlock"), 1u);
}

TEST_F(StorageDrivesLoop, DismountNeverUnmountsWhatIsMountedOverTheDevice)
{
    auto device = AttachMountedExt4("covered.img", kImageSize, 1);
    ASSERT_TRUE(device);
    ASSERT_EQ(::mount("tmpfs", mnt().c_str(), "tmpfs", 0, "size=1m"), 0);
    Query(*device);
    EXPECT_EQ(log.Count("FSCTL_DISMOUNT_VOLUME failed."), 1u);
    EXPECT_EQ(log.CountContaining("FSCTL_LOCK_VOLUME succeeded"), 0u);
    struct statfs fs {};
    ASSERT_EQ(::statfs(mnt().c_str(), &fs), 0);
    EXPECT_EQ(fs.f_type, static_cast<decltype(fs.f_type)>(TMPFS_MAGIC));  // the tmpfs is still there
    EXPECT_EQ(device->MountPoints().size(), 1u);                           // and so is the device's mount
    ASSERT_EQ(::umount2(mnt().c_str(), 0), 0);
}
