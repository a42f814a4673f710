// The drive service on real loop devices: lock (exclusive claim), dismount,
// size, writability and geometry, release, and every byte through the service.

#include "worker/DriveServiceHarness.h"

#include "common/LogCapture.h"
#include "common/LoopDevice.h"
#include "common/ProcessProbe.h"

#include <tolv/platform/UniqueFd.h>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

constexpr size_t kImageSize = 16u << 20;

class StorageDrivesLoop : public LoopDeviceTest {
protected:
    std::unique_ptr<LoopDevice> Attach(const std::string& name, bool readOnly = false, uint32_t seed = 1)
    {
        return LoopDeviceTest::Attach(name, kImageSize, seed, readOnly);
    }
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
    // Writable, fixed (loop devices are not removable), and 255/63 since loop
    // has no geometry of its own.
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
    auto device = Attach("data.img", false, 7);
    auto readOnly = Attach("ro.img", true);
    ASSERT_TRUE(device && readOnly);
    ASSERT_TRUE(Query(*device).result);
    // What the image held before attaching.
    constexpr uint32_t kChunk = 1u << 20;
    for (uint64_t offset = 0; offset < kImageSize; offset += kChunk) {
        ASSERT_TRUE(CallService(drives, EncodeReadRequest(1, 'E', 1, offset, kChunk)).readData() ==
                    PatternBytes(offset, kChunk, 7))
            << "offset " << offset;
    }
    // Odd offsets and lengths, written through the service and read back, and
    // through an independent descriptor of the device.
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
    auto first = Attach("one.img");
    auto second = Attach("two.img");
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
