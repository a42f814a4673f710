// The drive records' byte layout, drive path mapping and the mount table.

#include "worker/DriveCalls.h"
#include "worker/DriveServiceHarness.h"
#include "worker/MountTable.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

TEST(DriveRequests, QueryRecordLayoutAndItsTerminatedPath)
{
    const auto record = EncodeQueryDiskRequest(0x1122334455667788ull, 0x1245, 0xA0B0C0D0, u"\\\\.\\E:");
    const std::vector<uint8_t> expected = {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,  // ioContext
                                           0x12, 0, 0, 0,                                   // messageCode
                                           0x45, 0x12, 0, 0,                                // drive
                                           0, 0, 0, 0, 0, 0, 0, 0,                          // reserved
                                           0xD0, 0xC0, 0xB0, 0xA0,                          // id
                                           '\\', 0, '\\', 0, '.', 0, '\\', 0, 'E', 0, ':', 0, 0, 0};
    EXPECT_EQ(record, expected);
    DR_REQ_HEADER header;
    ASSERT_TRUE(DecodeRequestHeader(record.data(), record.size(), header));
    EXPECT_EQ(header.ioContext, 0x1122334455667788ull);
    EXPECT_EQ(header.messageCode, DR_MSG_QUERY_DISK);
    EXPECT_EQ(header.driveLetter(), 'E');
    DR_QUERY_DISK_REQ query;
    ASSERT_TRUE(DecodeQueryDiskRequest(record.data() + 24, record.size() - 24, query));
    EXPECT_EQ(query.id, 0xA0B0C0D0u);
    EXPECT_EQ(query.path, u"\\\\.\\E:");

    // The path's 16-bit terminator must be inside the message.
    const std::vector<std::vector<uint8_t>> payloads = {
        {1, 0, 0, 0, 0, 0},            // an empty path: the one that decodes
        {1, 0, 0, 0, 'a', 0, 'b', 0},  // unterminated
        {1, 0, 0, 0, 'a', 0, 0},       // a lone zero byte is not a 16-bit zero
        {1, 0, 0, 0, 0},
        {}};
    for (size_t i = 0; i < payloads.size(); ++i) {
        EXPECT_EQ(DecodeQueryDiskRequest(payloads[i].empty() ? nullptr : payloads[i].data(), payloads[i].size(),
                                         query),
                  i == 0)
            << "payload " << i;
        EXPECT_TRUE(i != 0 || query.path.empty());
    }
}

TEST(DriveRequests, ReadAndWriteRecords)
{
    const auto read = EncodeReadRequest(5, 'E', 7, 0x0102030405060708ull, 0x11223344);
    ASSERT_EQ(read.size(), 44u);
    EXPECT_EQ(read[8], DR_MSG_READ);
    EXPECT_EQ(read[32], 0x08);  // offset at payload 8
    EXPECT_EQ(read[40], 0x44);  // length at payload 16
    DR_READ_REQ r;
    ASSERT_TRUE(DecodeReadRequest(read.data() + 24, 20, r));
    EXPECT_EQ(r.offset, 0x0102030405060708ull);
    EXPECT_EQ(r.length, 0x11223344u);
    EXPECT_FALSE(DecodeReadRequest(read.data() + 24, 19, r));

    const uint8_t data[3] = {9, 8, 7};
    const auto write = EncodeWriteRequest(5, 'E', 7, 512, data, 3);
    ASSERT_EQ(write.size(), 24u + 24u + 3u);
    EXPECT_EQ(write[8], DR_MSG_WRITE);
    EXPECT_EQ(write[48], 9);
    DR_WRITE_REQ w;
    ASSERT_TRUE(DecodeWriteRequest(write.data() + 24, 27, w));
    EXPECT_EQ(w.length, 3u);
    EXPECT_EQ(w.data, write.data() + 48);
    EXPECT_FALSE(DecodeWriteRequest(write.data() + 24, 26, w));  // one data byte short
    auto lying = write;
    lying[40] = 0xFF;  // length 255 in a message that holds 3
    EXPECT_FALSE(DecodeWriteRequest(lying.data() + 24, 27, w));
}

TEST(DriveRequests, ReplyLayoutZeroesReservedBytes)
{
    std::vector<uint8_t> out(32 + 32, 0xAA);
    DR_RSP_HEADER header;
    header.ioContext = 0x0807060504030201ull;
    header.status = 0xC0000011;
    header.information = 0x1122;
    header.payloadLength = 32;
    EncodeResponseHeader(out.data(), header);
    DR_QUERY_DISK_RSP info;
    info.diskSize = 0x10000;
    info.readOnly = 0;
    info.mediaType = 12;
    info.tracksPerCylinder = 255;
    info.sectorsPerTrack = 63;
    info.bytesPerSector = 512;
    EncodeQueryDiskResponse(out.data() + 32, info);
    EXPECT_EQ(out, QueryReplyBytes(header.ioContext, 0x10000, 0, 12, 255, 63, 512, 0xC0000011, 0x1122));
    DR_RSP_HEADER back;
    ASSERT_TRUE(DecodeResponseHeader(out.data(), 32, back));
    EXPECT_EQ(back.status, 0xC0000011u);
    EXPECT_EQ(back.information, 0x1122u);
    EXPECT_FALSE(DecodeResponseHeader(out.data(), 31, back));
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
