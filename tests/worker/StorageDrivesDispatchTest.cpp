// Dispatch, reply rules, the volume preparation sequence, the drive table and
// refusal of malformed records, against the scripted drive-call table.

#include "worker/DriveServiceHarness.h"
#include "worker/FakeDriveCalls.h"

#include "common/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

using testing::ElementsAre;

namespace {

class StorageDrivesDispatch : public testing::Test {
protected:
    ServiceReply Query(uint16_t letter, const std::u16string& path, uint32_t id = 1)
    {
        return CallService(drives, EncodeQueryDiskRequest(1, letter, id, path));
    }

    FakeDriveCalls fake;
    ScopedLogCapture log;
    StorageDrives drives;
};

} // namespace

TEST_F(StorageDrivesDispatch, DeviceQueryPreparesTheVolumeAndReportsItsGeometry)
{
    const auto reply = CallService(drives, EncodeQueryDiskRequest(0x77, 'E', 3, u"\\\\.\\E:"));
    EXPECT_TRUE(reply.result);
    EXPECT_THAT(fake.TakeCalls(), ElementsAre("open \\\\.\\E:", "ALLOW_EXTENDED \\\\.\\E:", "LOCK \\\\.\\E:",
                                              "DISMOUNT \\\\.\\E:", "LENGTH \\\\.\\E:", "WRITABLE \\\\.\\E:",
                                              "GEOMETRY \\\\.\\E:"));
    EXPECT_EQ(reply.raw, QueryReplyBytes(0x77, 8ull << 30, 0, MEDIA_TYPE_FIXED, 255, 63, 512));
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME succeeded.", "StorageDrives::TearDownAndLockVolume()"), 1u);
    EXPECT_EQ(log.Count("mediaType 12, bytesPerSector 512, sectorPerTrack 63, tracksPerCylinder 255."), 1u);
    EXPECT_EQ(log.Count("disk size: 8589934592."), 1u);

    fake.script[IOCTL_DISK_IS_WRITABLE] = {EROFS};
    EXPECT_EQ(Query('F', u"\\\\.\\F:").raw.at(40), 1);  // readOnly
    EXPECT_EQ(log.Count("The drive is readonly."), 1u);
}

TEST_F(StorageDrivesDispatch, LockIsRetriedOnceOnlyAfterASuccessfulDismount)
{
    struct Row {
        std::deque<int> lock, dismount;
        long locks;
        const char* line;
    };
    const Row rows[] = {{{EBUSY, 0}, {}, 2, "FSCTL_LOCK_VOLUME succeeded now."},
                        {{EBUSY, EBUSY}, {}, 2, "FSCTL_LOCK_VOLUME failed again. last error 16"},
                        {{EBUSY}, {EBUSY}, 1, "FSCTL_DISMOUNT_VOLUME failed."}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.line);
        log.Clear();
        fake.script[FSCTL_LOCK_VOLUME] = row.lock;
        fake.script[FSCTL_DISMOUNT_VOLUME] = row.dismount;
        const auto reply = Query('E', u"\\\\.\\E:");
        EXPECT_EQ(reply.header.status, 0u);  // the query goes on regardless
        const auto calls = fake.TakeCalls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "LOCK \\\\.\\E:"), row.locks);
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "DISMOUNT \\\\.\\E:"), 1);
        EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME failed."), 1u);
        EXPECT_EQ(log.Count(row.line), 1u);
    }
}

TEST_F(StorageDrivesDispatch, FailedQueriesCloseTheHandleAndKeepTheTable)
{
    struct Row {
        int openErrno;
        uint32_t code;
        int error;
        uint32_t status;
        const char* line;
    };
    const Row rows[] = {{ENOENT, 0, 0, 0xC0000001, "Openning \\\\.\\E: returned handle -1"},
                        {0, IOCTL_DISK_GET_LENGTH_INFO, EIO, 0xC0000185, "Getting length information failed with 5"},
                        {0, IOCTL_DISK_GET_DRIVE_GEOMETRY, ENOMEDIUM, 0xC0000013, "Getting drive geometry failed with error 123."}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.line);
        log.Clear();
        fake.openErrno = row.openErrno;
        fake.script[row.code] = {row.error};
        const auto reply = Query('E', u"\\\\.\\E:");
        EXPECT_FALSE(reply.result);
        EXPECT_EQ(reply.header.status, row.status);  // mapped from errno
        EXPECT_EQ(reply.raw.size(), 32u);
        EXPECT_EQ(log.Count(row.line), 1u);
        EXPECT_EQ(log.Count("Failed to process command (0x12)."), 1u);
        EXPECT_EQ(fake.OpenHandles(), 0u);
        if (row.openErrno != 0) {
            EXPECT_THAT(fake.TakeCalls(), ElementsAre("open \\\\.\\E:"));
        }
    }
    // No record was made: a read of E finds nothing.
    CallService(drives, EncodeReadRequest(1, 'E', 1, 0, 16));
    EXPECT_EQ(log.Count("Failed to find the request disk (drive is E)"), 1u);
}

TEST_F(StorageDrivesDispatch, SecondQueryOfALetterReplacesTheRecord)
{
    Query('E', u"/first", 4);
    fake.TakeCalls();
    Query(0x1245, u"/second", 5);  // same low byte
    EXPECT_EQ(log.Count("The local drive (id=5, drive=E) record will be overwritten."), 1u);
    EXPECT_EQ(fake.TakeCalls().back(), "close /first");
    EXPECT_EQ(fake.OpenHandles(), 1u);
    CallService(drives, EncodeReleaseDiskRequest(1, 'E'));
    EXPECT_THAT(fake.TakeCalls(), ElementsAre("UNLOCK /second", "close /second"));
}

TEST_F(StorageDrivesDispatch, UninitAndTheDestructorReleaseInAscendingLetterOrderOnce)
{
    Query('b', u"/b");
    Query('Z', u"/Z");
    Query(0xE9, u"/e-acute");  // above 0x7F: still ordered as unsigned
    fake.script[FSCTL_UNLOCK_VOLUME] = {EINVAL};
    fake.TakeCalls();
    drives.Uninit();
    EXPECT_THAT(fake.TakeCalls(), ElementsAre("UNLOCK /Z", "close /Z", "UNLOCK /b", "close /b", "UNLOCK /e-acute",
                                              "close /e-acute"));
    EXPECT_EQ(log.Count("Failed to unlock the volume (err: 22)", "StorageDrives::Cleanup()"), 1u);
    EXPECT_EQ(log.Count("Uninitialization."), 1u);
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
    Query('E', u"/w");
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
    EXPECT_EQ(fake.OpenHandles(), 1u);
    EXPECT_TRUE(CallService(drives, EncodeReadRequest(1, 'E', 1, 0, 8)).result);
}
