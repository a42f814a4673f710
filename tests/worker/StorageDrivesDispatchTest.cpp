// Dispatch, reply rules, the volume preparation sequence, the drive table and
// refusal of malformed records, against the scripted drive-call table.

#include "worker/DriveServiceHarness.h"
#include "worker/FakeDriveCalls.h"

#include "common/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

using namespace tolv::worker;

using testing::ElementsAre;

namespace {

const std::u16string kDevE = u"\\\\.\\E:";
const std::u16string kDevF = u"\\\\.\\F:";

class StorageDrivesDispatch : public testing::Test {
protected:
    FakeDriveCalls fake;
    ScopedLogCapture log;
    StorageDrives drives;
};

} // namespace

TEST_F(StorageDrivesDispatch, DeviceQueryPreparesTheVolumeAndReportsItsGeometry)
{
    const auto reply = CallService(drives, EncodeQueryDiskRequest(0x77, 'E', 3, kDevE));
    EXPECT_TRUE(reply.result);
    ASSERT_TRUE(reply.present);
    EXPECT_THAT(fake.Calls(), ElementsAre("open \\\\.\\E:", "ALLOW_EXTENDED \\\\.\\E:", "LOCK \\\\.\\E:",
                                          "DISMOUNT \\\\.\\E:", "LENGTH \\\\.\\E:", "WRITABLE \\\\.\\E:",
                                          "GEOMETRY \\\\.\\E:"));
    // Every byte of the reply: header then DR_QUERY_DISK_RSP.
    EXPECT_EQ(reply.raw, QueryReplyBytes(0x77, 8ull << 30, 0, MEDIA_TYPE_FIXED, 255, 63, 512));
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME succeeded.", "StorageDrives::TearDownAndLockVolume()"), 1u);
    EXPECT_EQ(log.Count("mediaType 12, bytesPerSector 512, sectorPerTrack 63, tracksPerCylinder 255."), 1u);
    EXPECT_EQ(log.Count("disk size: 8589934592."), 1u);
}

TEST_F(StorageDrivesDispatch, LockIsRetriedOnceOnlyAfterASuccessfulDismount)
{
    fake.script[FSCTL_LOCK_VOLUME] = {EBUSY, 0};
    CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, kDevE));
    EXPECT_THAT(fake.Calls(), testing::IsSupersetOf({"LOCK \\\\.\\E:", "DISMOUNT \\\\.\\E:"}));
    auto calls = fake.Calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "LOCK \\\\.\\E:"), 2);
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME failed."), 1u);
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME succeeded now."), 1u);

    fake.ClearCalls();
    fake.script[FSCTL_LOCK_VOLUME] = {EBUSY, EBUSY};
    const auto twice = CallService(drives, EncodeQueryDiskRequest(1, 'F', 1, kDevF));
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME failed again. last error 16"), 1u);
    EXPECT_EQ(twice.header.status, 0u);  // the query goes on regardless

    fake.ClearCalls();
    fake.script[FSCTL_LOCK_VOLUME] = {EBUSY};
    fake.script[FSCTL_DISMOUNT_VOLUME] = {EBUSY};
    CallService(drives, EncodeQueryDiskRequest(1, 'G', 1, u"\\\\.\\G:"));
    calls = fake.Calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "LOCK \\\\.\\G:"), 1);
    EXPECT_EQ(log.Count("FSCTL_DISMOUNT_VOLUME failed."), 1u);
}

TEST_F(StorageDrivesDispatch, FailedQueriesCloseTheHandleAndKeepTheTable)
{
    fake.openErrno = ENOENT;
    auto reply = CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, kDevE));
    EXPECT_FALSE(reply.result);
    EXPECT_EQ(reply.header.status, 0xC0000001u);
    EXPECT_EQ(reply.raw.size(), 32u);
    EXPECT_THAT(fake.Calls(), ElementsAre("open \\\\.\\E:"));
    EXPECT_EQ(log.Count("Openning \\\\.\\E: returned handle -1"), 1u);
    EXPECT_EQ(log.Count("Failed to process command (0x12)."), 1u);
    fake.openErrno = 0;

    fake.script[IOCTL_DISK_GET_LENGTH_INFO] = {EIO};
    reply = CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, kDevE));
    EXPECT_EQ(reply.header.status, 0xC0000185u);
    EXPECT_EQ(reply.raw.size(), 32u);
    EXPECT_EQ(log.Count("Getting length information failed with 5"), 1u);

    fake.script[IOCTL_DISK_GET_DRIVE_GEOMETRY] = {ENOMEDIUM};
    reply = CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, kDevE));
    EXPECT_FALSE(reply.result);
    EXPECT_EQ(reply.header.status, 0xC0000013u);  // mapped from errno
    EXPECT_EQ(reply.raw.size(), 32u);
    EXPECT_EQ(fake.OpenHandles(), 0u);

    // No record was made: a read of E finds nothing.
    log.Clear();
    CallService(drives, EncodeReadRequest(1, 'E', 1, 0, 16));
    EXPECT_EQ(log.Count("Failed to find the request disk (drive is E)"), 1u);
}

TEST_F(StorageDrivesDispatch, UnwritableDeviceIsReportedReadOnly)
{
    fake.script[IOCTL_DISK_IS_WRITABLE] = {EROFS};
    const auto reply = CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, kDevE));
    ASSERT_EQ(reply.raw.size(), 64u);
    EXPECT_EQ(reply.raw[40], 1);
    EXPECT_EQ(log.Count("The drive is readonly."), 1u);
}

TEST_F(StorageDrivesDispatch, SecondQueryOfALetterReplacesTheRecord)
{
    CallService(drives, EncodeQueryDiskRequest(1, 'E', 4, u"/first"));
    fake.ClearCalls();
    CallService(drives, EncodeQueryDiskRequest(1, 0x1245, 5, u"/second"));  // same low byte
    EXPECT_EQ(log.Count("The local drive (id=5, drive=E) record will be overwritten."), 1u);
    auto calls = fake.Calls();
    EXPECT_EQ(calls.back(), "close /first");
    EXPECT_EQ(fake.OpenHandles(), 1u);
    fake.ClearCalls();
    CallService(drives, EncodeReleaseDiskRequest(1, 'E'));
    EXPECT_THAT(fake.Calls(), ElementsAre("UNLOCK /second", "close /second"));
}

TEST_F(StorageDrivesDispatch, UninitReleasesInAscendingLetterOrderOnce)
{
    CallService(drives, EncodeQueryDiskRequest(1, 'b', 1, u"/b"));
    CallService(drives, EncodeQueryDiskRequest(1, 'Z', 1, u"/Z"));
    CallService(drives, EncodeQueryDiskRequest(1, 0xE9, 1, u"/e-acute"));  // above 0x7F: still ordered as unsigned
    fake.script[FSCTL_UNLOCK_VOLUME] = {EINVAL};
    fake.ClearCalls();
    drives.Uninit();
    EXPECT_THAT(fake.Calls(), ElementsAre("UNLOCK /Z", "close /Z", "UNLOCK /b", "close /b", "UNLOCK /e-acute",
                                          "close /e-acute"));
    EXPECT_EQ(log.Count("Failed to unlock the volume (err: 22)", "StorageDrives::Cleanup()"), 1u);
    EXPECT_EQ(log.Count("Uninitialization."), 1u);
    fake.ClearCalls();
    drives.Uninit();
    EXPECT_TRUE(fake.Calls().empty());
}

TEST_F(StorageDrivesDispatch, DestructorReleasesWhatIsStillOpen)
{
    {
        StorageDrives scoped;
        EXPECT_TRUE(scoped.Init());
        CallService(scoped, EncodeQueryDiskRequest(1, 'E', 1, u"/x"));
        fake.ClearCalls();
    }
    EXPECT_THAT(fake.Calls(), ElementsAre("UNLOCK /x", "close /x"));
}

TEST_F(StorageDrivesDispatch, ReplyRulesByCode)
{
    // Release: true and silent, known letter or not.
    auto reply = CallService(drives, EncodeReleaseDiskRequest(1, 'Q'));
    EXPECT_TRUE(reply.result);
    EXPECT_FALSE(reply.present);
    EXPECT_EQ(log.Count("Failed to find the request disk (drive is Q)"), 1u);

    // Unknown code: false, silent, no completion line.
    auto unknown = EncodeReleaseDiskRequest(0x42, 'E');
    unknown[8] = 0x14;
    log.Clear();
    reply = CallService(drives, unknown);
    EXPECT_FALSE(reply.result);
    EXPECT_FALSE(reply.present);
    EXPECT_EQ(log.Count("Unknown message code 0x14"), 1u);
    EXPECT_EQ(log.CountContaining("Completed handling request"), 0u);

    // Write: silent only for the full 64-bit 0xbeefbeef.
    CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, u"/w"));
    const uint8_t data[4] = {1, 2, 3, 4};
    reply = CallService(drives, EncodeWriteRequest(DR_IOCONTEXT_NO_RESPONSE, 'E', 1, 0, data, 4));
    EXPECT_TRUE(reply.result);
    EXPECT_FALSE(reply.present);
    reply = CallService(drives, EncodeWriteRequest(0x1BEEFBEEFull, 'E', 1, 0, data, 4));
    ASSERT_TRUE(reply.present);
    EXPECT_EQ(reply.raw.size(), 32u);
    EXPECT_EQ(reply.header.ioContext, 0x1BEEFBEEFull);
    EXPECT_EQ(reply.header.information, 4u);
    // A read tagged 0xbeefbeef is answered as usual.
    reply = CallService(drives, EncodeReadRequest(DR_IOCONTEXT_NO_RESPONSE, 'E', 1, 0, 4));
    ASSERT_TRUE(reply.present);
    EXPECT_EQ(reply.readData(), std::vector<uint8_t>(data, data + 4));
}

TEST_F(StorageDrivesDispatch, TruncatedRecordsOfEveryCodeAreRefusedWithoutOverRead)
{
    CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, u"/t"));
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
            if (size < DR_REQ_HEADER_SIZE) {
                EXPECT_FALSE(reply.result);
                EXPECT_FALSE(reply.present);
            } else if (code == DR_MSG_RELEASE_DISK) {
                EXPECT_TRUE(reply.result);  // needs no payload
                EXPECT_FALSE(reply.present);
            } else {
                EXPECT_FALSE(reply.result);
                EXPECT_EQ(reply.present, !silentWrite);
                if (reply.present) {
                    EXPECT_EQ(reply.header.status, 0xC000000Du);
                    EXPECT_EQ(reply.raw.size(), 32u);
                }
            }
        }
    }
    // Nothing was opened by a truncated query, and E is still there.
    EXPECT_EQ(fake.OpenHandles(), 1u);
    EXPECT_TRUE(CallService(drives, EncodeReadRequest(1, 'E', 1, 0, 8)).result);
}

TEST_F(StorageDrivesDispatch, QueryOfAFilePathReportsItsSizeAndNoGeometry)
{
    fake.fileSize = 123457;
    const auto reply = CallService(drives, EncodeQueryDiskRequest(5, 'E', 1, u"/images/disk.img"));
    EXPECT_TRUE(reply.result);
    ASSERT_EQ(reply.raw.size(), 64u);
    DR_QUERY_DISK_RSP info;
    ASSERT_TRUE(DecodeQueryDiskResponse(reply.raw.data() + 32, 32, info));
    EXPECT_EQ(info.diskSize, 123457u);
    EXPECT_EQ(info.readOnly, 1);
    EXPECT_EQ(info.mediaType, 0u);
    EXPECT_EQ(info.tracksPerCylinder, 0u);
    EXPECT_EQ(info.sectorsPerTrack, 0u);
    EXPECT_EQ(info.bytesPerSector, 0u);
    // No device length, writability or geometry is asked of a file.
    for (const auto& call : fake.Calls()) {
        EXPECT_EQ(call.find("LENGTH"), std::string::npos);
        EXPECT_EQ(call.find("GEOMETRY"), std::string::npos);
    }
}
