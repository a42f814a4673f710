// Dispatch, reply rules, the volume preparation sequence, the drive table and
// refusal of malformed records, against a scripted drive-call table.

#include "worker/DriveCalls.h"
#include "worker/DriveServiceHarness.h"

#include "common/LogCapture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <deque>
#include <map>

using testing::ElementsAre;

namespace {

const std::map<uint32_t, std::string> kCodeNames = {
    {FSCTL_ALLOW_EXTENDED_DASD_IO, "ALLOW_EXTENDED"}, {FSCTL_LOCK_VOLUME, "LOCK"},
    {FSCTL_UNLOCK_VOLUME, "UNLOCK"},                   {FSCTL_DISMOUNT_VOLUME, "DISMOUNT"},
    {IOCTL_DISK_GET_LENGTH_INFO, "LENGTH"},            {IOCTL_DISK_IS_WRITABLE, "WRITABLE"},
    {IOCTL_DISK_GET_DRIVE_GEOMETRY, "GEOMETRY"}};

// Drive calls that record what the service asks for and answer from a script,
// as an 8 GiB fixed disk of 255 heads, 63 sectors a track and 512-byte
// sectors. Handles are real 4 KiB memfd descriptors, so transfers work.
class FakeDriveCalls {
public:
    FakeDriveCalls() : m_previous(SetDriveCalls(&kTable)) { s_fake = this; }
    ~FakeDriveCalls()
    {
        SetDriveCalls(m_previous);
        for (const auto& handle : handles)
            ::close(handle.first);
    }
    // "open PATH", "CODE PATH", "close PATH", in call order since last taken.
    std::vector<std::string> TakeCalls() { return std::exchange(m_calls, {}); }

    // Per control code, the errno of its next calls in turn (0: success).
    std::map<uint32_t, std::deque<int>> script;
    std::map<int, std::string> handles;  // open descriptor -> path

private:
    static int Create(const std::u16string& path)
    {
        const std::string name = *tolv::platform::Utf16ToUtf8(path);
        s_fake->m_calls.push_back("open " + name);
        const int fd = ::memfd_create("fake-drive", MFD_CLOEXEC);
        if (fd >= 0 && ::ftruncate(fd, 4096) == 0)
            s_fake->handles[fd] = name;
        return fd;
    }
    static bool Control(int handle, uint32_t code, void* output, uint32_t outputSize)
    {
        auto& queue = s_fake->script[code];
        errno = queue.empty() ? 0 : queue.front();
        if (!queue.empty())
            queue.pop_front();
        s_fake->m_calls.push_back(kCodeNames.at(code) + " " + s_fake->handles.at(handle));
        const uint64_t length = 8ull << 30;
        const DISK_GEOMETRY geometry{1044, MEDIA_TYPE_FIXED, 255, 63, 512};
        if (errno == 0 && code == IOCTL_DISK_GET_LENGTH_INFO && outputSize >= sizeof length)
            std::memcpy(output, &length, sizeof length);
        if (errno == 0 && code == IOCTL_DISK_GET_DRIVE_GEOMETRY && outputSize >= sizeof geometry)
            std::memcpy(output, &geometry, sizeof geometry);
        return errno == 0;
    }
    static bool Close(int handle)
    {
        s_fake->m_calls.push_back("close " + s_fake->handles.at(handle));
        s_fake->handles.erase(handle);
        return ::close(handle) == 0;
    }

    static inline FakeDriveCalls* s_fake = nullptr;
    static inline const DriveCallTable kTable{&Create, &Control, &Close};
    std::vector<std::string> m_calls;
    const DriveCallTable* m_previous;
};

class StorageDrivesDispatch : public testing::Test {
protected:
    ServiceReply Query(uint16_t letter, const std::u16string& path)
    {
        return CallService(drives, EncodeQueryDiskRequest(1, letter, 1, path));
    }
    FakeDriveCalls fake;
    ScopedLogCapture log;
    StorageDrives drives;
};

} // namespace

// The lock, its retry after a dismount and the claim are held against real
// loop devices; here the order of the calls and what a failure leaves.
TEST_F(StorageDrivesDispatch, DeviceQueryPreparesTheVolumeAndReportsItsGeometry)
{
    const auto reply = CallService(drives, EncodeQueryDiskRequest(0x77, 'E', 3, u"\\\\.\\E:"));
    EXPECT_TRUE(reply.result);
    EXPECT_THAT(fake.TakeCalls(), ElementsAre("open \\\\.\\E:", "ALLOW_EXTENDED \\\\.\\E:", "LOCK \\\\.\\E:",
                                              "DISMOUNT \\\\.\\E:", "LENGTH \\\\.\\E:", "WRITABLE \\\\.\\E:",
                                              "GEOMETRY \\\\.\\E:"));
    EXPECT_EQ(reply.raw, QueryReplyBytes(0x77, 8ull << 30, 0));
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME succeeded.", "StorageDrives::TearDownAndLockVolume()"), 1u);
    EXPECT_EQ(log.Count("mediaType 12, bytesPerSector 512, sectorPerTrack 63, tracksPerCylinder 255."), 1u);

    // A device control that fails after the open closes the handle, makes no
    // record and answers with the status of its errno.
    const std::pair<uint32_t, int> failures[] = {{IOCTL_DISK_GET_LENGTH_INFO, EIO},
                                                 {IOCTL_DISK_GET_DRIVE_GEOMETRY, ENOMEDIUM}};
    for (const auto& [code, error] : failures) {
        fake.script[code] = {error};
        const auto failed = Query('F', u"\\\\.\\F:");
        EXPECT_FALSE(failed.result);
        EXPECT_EQ(failed.header.status, error == EIO ? 0xC0000185u : 0xC0000013u);
        EXPECT_EQ(failed.raw.size(), 32u);
        EXPECT_EQ(fake.handles.size(), 1u) << code;  // E's
    }
    EXPECT_EQ(log.Count("Failed to process command (0x12)."), 2u);
    CallService(drives, EncodeReadRequest(1, 'F', 1, 0, 16));
    EXPECT_EQ(log.Count("Failed to find the request disk (drive is F)"), 1u);
}

TEST_F(StorageDrivesDispatch, UninitAndTheDestructorReleaseInAscendingLetterOrderOnce)
{
    Query('b', u"/b");
    Query('Z', u"/Z");
    Query(0x12E9, u"/e-acute");  // the low byte is the letter, ordered as unsigned
    fake.script[FSCTL_UNLOCK_VOLUME] = {EINVAL};
    fake.TakeCalls();
    drives.Uninit();
    EXPECT_THAT(fake.TakeCalls(), ElementsAre("UNLOCK /Z", "close /Z", "UNLOCK /b", "close /b", "UNLOCK /e-acute",
                                              "close /e-acute"));
    EXPECT_EQ(log.Count("Failed to unlock the volume (err: 22)", "StorageDrives::Cleanup()"), 1u);
    drives.Uninit();
    EXPECT_TRUE(fake.TakeCalls().empty());
    {
        StorageDrives scoped;
        EXPECT_TRUE(scoped.Init());
        CallService(scoped, EncodeQueryDiskRequest(1, 'E', 1, u"/x"));
        fake.TakeCalls();
    }
    EXPECT_THAT(fake.TakeCalls(), ElementsAre("UNLOCK /x", "close /x"));
}

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
    // Writes are silent only for the full 64-bit 0xbeefbeef; reads are always answered.
    Query('E', u"/w");
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
    Query('E', u"/t");
    const uint8_t data[8] = {};
    const std::vector<std::vector<uint8_t>> records = {
        EncodeQueryDiskRequest(9, 'F', 1, u"/path"), EncodeReleaseDiskRequest(9, 'F'),
        EncodeReadRequest(9, 'E', 1, 0, 8), EncodeWriteRequest(9, 'E', 1, 0, data, 8),
        EncodeWriteRequest(DR_IOCONTEXT_NO_RESPONSE, 'E', 1, 0, data, 8)};
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
    // Nothing was opened by a truncated query, and E is still there.
    EXPECT_EQ(fake.handles.size(), 1u);
    EXPECT_TRUE(CallService(drives, EncodeReadRequest(1, 'E', 1, 0, 8)).result);
}
