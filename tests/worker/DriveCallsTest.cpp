#include "worker/DriveCalls.h"
#include "worker/MountTable.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

using namespace tolv::worker;

TEST(DrivePath, DeviceNamespaceMapsUnderDev)
{
    EXPECT_EQ(DrivePathToLinux(u"\\\\.\\loop3"), "/dev/loop3");
    EXPECT_EQ(DrivePathToLinux(u"\\\\.\\mapper\\vg-data"), "/dev/mapper/vg-data");
    EXPECT_EQ(DrivePathToLinux(u"/var/images/disk.img"), "/var/images/disk.img");
    EXPECT_FALSE(DrivePathToLinux(u"relative\\name"));  // relative paths mean nothing to the peer
    EXPECT_FALSE(DrivePathToLinux(u"C:\\disk.img"));
    EXPECT_FALSE(DrivePathToLinux(u""));
    EXPECT_TRUE(IsDevicePath(u"\\\\.\\E:"));
    EXPECT_FALSE(IsDevicePath(u"\\\\?\\E:"));
    EXPECT_FALSE(IsDevicePath(u"\\\\"));
}

TEST(DrivePath, RefusesNamesOutsideDevAndInvalidText)
{
    EXPECT_FALSE(DrivePathToLinux(u"\\\\.\\"));
    EXPECT_FALSE(DrivePathToLinux(u"\\\\."));
    EXPECT_FALSE(DrivePathToLinux(u"\\\\.x"));
    EXPECT_FALSE(DrivePathToLinux(u"\\\\.\\..\\etc\\shadow"));
    EXPECT_FALSE(DrivePathToLinux(u"\\\\.\\mapper\\..\\..\\etc"));
    EXPECT_FALSE(DrivePathToLinux(u"\\\\.\\mapper\\\\x"));
    EXPECT_FALSE(DrivePathToLinux(u"\\\\.\\loop3\\"));
    EXPECT_FALSE(DrivePathToLinux(std::u16string(u"/tmp/a\0b", 8)));
    EXPECT_FALSE(DrivePathToLinux(std::u16string{u'/', u'\xD800'}));
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
