// Hostile query paths, drive path mapping and the mount table. (The records'
// byte layout is held against the documents by tests/wire.)

#include <tolv/worker/DriveRequests.h>
#include "worker/DriveCalls.h"
#include "worker/MountTable.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

using namespace tolv::worker;

TEST(DriveRequests, QueryPathNeedsItsTerminatorInsideTheMessage)
{
    const std::vector<std::vector<uint8_t>> payloads = {
        {1, 0, 0, 0, 'a', 0, 0, 0},    // id and "a": the one that decodes
        {1, 0, 0, 0, 'a', 0, 'b', 0},  // unterminated
        {1, 0, 0, 0, 'a', 0, 0},       // a lone zero byte is not a 16-bit zero
        {1, 0, 0, 0, 0},
        {}};
    for (size_t i = 0; i < payloads.size(); ++i) {
        DR_QUERY_DISK_REQ query;
        query.path = u"stale";
        EXPECT_EQ(DecodeQueryDiskRequest(payloads[i].empty() ? nullptr : payloads[i].data(), payloads[i].size(),
                                         query),
                  i == 0)
            << "payload " << i;
        EXPECT_TRUE(i != 0 || (query.path == u"a" && query.id == 1));
    }
}

TEST(DrivePath, DeviceNamesMapUnderDevAndNothingLeavesIt)
{
    const char* const refused = "(refused)";
    const std::pair<std::u16string, const char*> rows[] = {
        {u"\\\\.\\loop3", "/dev/loop3"},
        {u"\\\\.\\mapper\\vg-data", "/dev/mapper/vg-data"},
        {u"/var/images/disk.img", "/var/images/disk.img"},
        {u"relative\\name", refused},  // relative paths mean nothing to the peer
        {u"C:\\disk.img", refused},
        {u"", refused},
        {u"\\\\.\\", refused},
        {u"\\\\.", refused},
        {u"\\\\.x", refused},
        {u"\\\\.\\..\\etc\\shadow", refused},
        {u"\\\\.\\mapper\\..\\..\\etc", refused},
        {u"\\\\.\\mapper\\\\x", refused},
        {u"\\\\.\\loop3\\", refused},
        {std::u16string(u"/tmp/a\0b", 8), refused},
        {std::u16string{u'/', u'\xD800'}, refused},
    };
    for (size_t i = 0; i < std::size(rows); ++i)
        EXPECT_EQ(DrivePathToLinux(rows[i].first).value_or(refused), rows[i].second) << "row " << i;
    EXPECT_TRUE(IsDevicePath(u"\\\\.\\E:"));
    EXPECT_FALSE(IsDevicePath(u"\\\\?\\E:"));
    EXPECT_FALSE(IsDevicePath(u"\\\\"));
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
