// The drive service on real loop devices: lock (exclusive claim), dismount,
// size, writability and geometry, release, and every byte through the service.

#include "worker/DriveServiceHarness.h"

#include "common/LogCapture.h"
#include "common/LoopDevice.h"
#include "common/TempDir.h"

#include <tolv/platform/UniqueFd.h>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

using namespace tolv::log;

using namespace tolv::worker;

namespace {

constexpr size_t kImageSize = 16u << 20;

class StorageDrivesLoop : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string reason = LoopDevicesUnavailableReason();
        if (!reason.empty())
            GTEST_SKIP() << "no loop devices: " << reason;
    }

    std::unique_ptr<LoopDevice> Attach(const std::string& name, bool readOnly = false, uint32_t seed = 1)
    {
        const std::string image = dir.file(name);
        WritePatternFile(image, kImageSize, seed);
        std::string error;
        auto device = LoopDevice::Attach(image, readOnly, error);
        EXPECT_TRUE(device) << error;
        return device;
    }

    // True when the device can be claimed exclusively right now (nobody holds it).
    static bool Claimable(const LoopDevice& device)
    {
        tolv::platform::UniqueFd fd(::open(device.path().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
        return fd.valid();
    }

    // Descriptors of the device held by this process, not counting the test's own.
    static size_t ServiceDescriptors(const LoopDevice& device)
    {
        return CountOpenDescriptors(device.path()) - LoopDevice::kOwnDescriptors;
    }

    std::string MakeDir(const std::string& name)
    {
        const std::string path = dir.file(name);
        EXPECT_EQ(::mkdir(path.c_str(), 0700), 0);
        return path;
    }

    TempDir dir;
    ScopedLogCapture log{LOG_LEVEL_DEBUG};
    StorageDrives drives;
};

} // namespace

TEST_F(StorageDrivesLoop, QueryLocksAndDismountsAMountedDevice)
{
    auto device = Attach("mounted.img");
    ASSERT_TRUE(device);
    std::string error;
    ASSERT_TRUE(device->MakeExt4(error)) << error;
    const std::string mountPoint = MakeDir("mnt");
    ASSERT_TRUE(device->Mount(mountPoint, error)) << error;
    ASSERT_EQ(device->MountPoints().size(), 1u);

    const auto reply = CallService(drives, EncodeQueryDiskRequest(0x55, 'E', 9, device->drivePath()));
    EXPECT_TRUE(reply.result);
    // Writable, fixed (loop devices are not removable), and 255/63 since loop
    // has no geometry of its own.
    EXPECT_EQ(reply.raw, QueryReplyBytes(0x55, kImageSize, 0, MEDIA_TYPE_FIXED, 255, 63, 512));

    // First lock refused while mounted, dismount, then the retry holds the claim.
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME failed."), 1u);
    EXPECT_EQ(log.Count("FSCTL_DISMOUNT_VOLUME succeeded."), 1u);
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME succeeded now."), 1u);
    EXPECT_TRUE(device->MountPoints().empty());
    EXPECT_FALSE(Claimable(*device));
    EXPECT_EQ(ServiceDescriptors(*device), 2u);  // the handle and its claim

    const auto release = CallService(drives, EncodeReleaseDiskRequest(1, 'E'));
    EXPECT_FALSE(release.present);
    EXPECT_TRUE(Claimable(*device));
    EXPECT_EQ(ServiceDescriptors(*device), 0u);
}

TEST_F(StorageDrivesLoop, ReadOnlyDeviceIsReportedReadOnlyAndRefusesWrites)
{
    auto device = Attach("ro.img", true);
    ASSERT_TRUE(device);
    const auto reply = CallService(drives, EncodeQueryDiskRequest(0xBEEF, 'E', 1, device->drivePath()));
    EXPECT_EQ(reply.raw, QueryReplyBytes(0xBEEF, kImageSize, 1, MEDIA_TYPE_FIXED, 255, 63, 512));
    EXPECT_EQ(log.Count("The drive is readonly."), 1u);

    const auto data = Pattern(512, 1);
    const auto write = CallService(drives, EncodeWriteRequest(1, 'E', 1, 0, data.data(), 512));
    EXPECT_EQ(write.header.status, 0xC00000A2u);
    EXPECT_EQ(write.header.information, 0u);
    const auto read = CallService(drives, EncodeReadRequest(1, 'E', 1, 0, 512));
    std::vector<uint8_t> original(512);
    for (size_t i = 0; i < 512; ++i)
        original[i] = PatternByte(i);
    EXPECT_EQ(read.readData(), original);
}

TEST_F(StorageDrivesLoop, EveryByteRoundTripsThroughTheService)
{
    auto device = Attach("data.img", false, 7);
    ASSERT_TRUE(device);
    ASSERT_TRUE(CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, device->drivePath())).result);

    // What the image held before attaching.
    constexpr uint32_t kChunk = 1u << 20;
    for (uint64_t offset = 0; offset < kImageSize; offset += kChunk) {
        const auto reply = CallService(drives, EncodeReadRequest(1, 'E', 1, offset, kChunk));
        const auto data = reply.readData();
        ASSERT_EQ(data.size(), kChunk);
        for (size_t i = 0; i < kChunk; ++i)
            ASSERT_EQ(data[i], PatternByte(offset + i, 7)) << "offset " << offset + i;
    }
    // Odd offsets and lengths, written through the service and read back, and
    // through an independent descriptor of the device.
    const auto data = Pattern(100003, 5);
    const uint64_t offset = kImageSize - 100003 - 13;
    const auto written = CallService(drives, EncodeWriteRequest(1, 'E', 1, offset, data.data(), 100003));
    EXPECT_EQ(written.header.information, 100003u);
    EXPECT_EQ(CallService(drives, EncodeReadRequest(1, 'E', 1, offset, 100003)).readData(), data);
    tolv::platform::UniqueFd direct(::open(device->path().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(direct);
    std::vector<uint8_t> back(100003);
    ASSERT_EQ(::pread(direct.get(), back.data(), back.size(), static_cast<off_t>(offset)), 100003);
    EXPECT_EQ(back, data);

    // Writes are not clipped: past the end of the device the system says no.
    const auto past = CallService(drives, EncodeWriteRequest(1, 'E', 1, kImageSize, data.data(), 512));
    EXPECT_EQ(past.header.status, 0xC000007Fu);
    EXPECT_EQ(past.header.information, 0u);
}

TEST_F(StorageDrivesLoop, SecondQueryReplacesAndUninitReleasesAll)
{
    auto first = Attach("one.img");
    auto second = Attach("two.img");
    ASSERT_TRUE(first && second);
    ASSERT_TRUE(CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, first->drivePath())).result);
    EXPECT_FALSE(Claimable(*first));
    // The same letter again, now on the second device: the first is let go.
    ASSERT_TRUE(CallService(drives, EncodeQueryDiskRequest(1, 'E', 2, second->drivePath())).result);
    EXPECT_EQ(log.Count("The local drive (id=2, drive=E) record will be overwritten."), 1u);
    EXPECT_TRUE(Claimable(*first));
    EXPECT_EQ(ServiceDescriptors(*first), 0u);
    EXPECT_FALSE(Claimable(*second));

    ASSERT_TRUE(CallService(drives, EncodeQueryDiskRequest(1, 'D', 3, first->drivePath())).result);
    EXPECT_FALSE(Claimable(*first));
    drives.Uninit();
    EXPECT_TRUE(Claimable(*first));
    EXPECT_TRUE(Claimable(*second));
    EXPECT_EQ(ServiceDescriptors(*first) + ServiceDescriptors(*second), 0u);
    EXPECT_EQ(log.CountContaining("Failed to unlock"), 0u);
}

TEST_F(StorageDrivesLoop, SecondQueryOfTheSameDeviceCannotClaimItTwice)
{
    auto device = Attach("same.img");
    ASSERT_TRUE(device);
    ASSERT_TRUE(CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, device->drivePath())).result);
    log.Clear();
    // The first handle still holds the claim while the second one asks for it.
    ASSERT_TRUE(CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, device->drivePath())).result);
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME failed again. last error 16"), 1u);
    EXPECT_EQ(ServiceDescriptors(*device), 1u);  // the new handle, without a claim
    CallService(drives, EncodeReleaseDiskRequest(1, 'E'));
    EXPECT_EQ(log.Count("Failed to unlock the volume (err: 22)"), 1u);
    EXPECT_EQ(ServiceDescriptors(*device), 0u);
}

TEST_F(StorageDrivesLoop, DismountTakesDownEveryMountOfTheDevice)
{
    auto device = Attach("bound.img");
    ASSERT_TRUE(device);
    std::string error;
    ASSERT_TRUE(device->MakeExt4(error)) << error;
    const std::string first = MakeDir("first");
    const std::string second = MakeDir("second");
    ASSERT_TRUE(device->Mount(first, error)) << error;
    ASSERT_EQ(::mount(first.c_str(), second.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(device->MountPoints().size(), 2u);

    ASSERT_TRUE(CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, device->drivePath())).result);
    EXPECT_TRUE(device->MountPoints().empty());
    EXPECT_EQ(log.Count("FSCTL_LOCK_VOLUME succeeded now."), 1u);
}

TEST_F(StorageDrivesLoop, DismountNeverUnmountsWhatIsMountedOverTheDevice)
{
    auto device = Attach("covered.img");
    ASSERT_TRUE(device);
    std::string error;
    ASSERT_TRUE(device->MakeExt4(error)) << error;
    const std::string point = MakeDir("mnt");
    ASSERT_TRUE(device->Mount(point, error)) << error;
    ASSERT_EQ(::mount("tmpfs", point.c_str(), "tmpfs", 0, "size=1m"), 0);

    CallService(drives, EncodeQueryDiskRequest(1, 'E', 1, device->drivePath()));
    EXPECT_EQ(log.Count("FSCTL_DISMOUNT_VOLUME failed."), 1u);
    EXPECT_EQ(log.CountContaining("FSCTL_LOCK_VOLUME succeeded"), 0u);
    struct statfs fs {};
    ASSERT_EQ(::statfs(point.c_str(), &fs), 0);
    EXPECT_EQ(fs.f_type, static_cast<decltype(fs.f_type)>(TMPFS_MAGIC));  // the tmpfs is still there
    EXPECT_EQ(device->MountPoints().size(), 1u);                           // and so is the device's mount
    ASSERT_EQ(::umount2(point.c_str(), 0), 0);
}
