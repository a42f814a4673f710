#include <tolv/worker/DriveRequests.h>

#include <gtest/gtest.h>

#include <vector>

using namespace tolv::worker;

namespace {
std::vector<uint8_t> Bytes(std::initializer_list<int> list)
{
    std::vector<uint8_t> out;
    for (int b : list)
        out.push_back(static_cast<uint8_t>(b));
    return out;
}
} // namespace

TEST(DriveRequests, QueryRecordLayout)
{
    const auto record = EncodeQueryDiskRequest(0x1122334455667788ull, 0x1245, 0xA0B0C0D0, u"\\\\.\\E:");
    const auto expected = Bytes({0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,  // ioContext
                                 0x12, 0, 0, 0,                                   // messageCode
                                 0x45, 0x12, 0, 0,                                // drive
                                 0, 0, 0, 0, 0, 0, 0, 0,                          // reserved
                                 0xD0, 0xC0, 0xB0, 0xA0,                          // id
                                 '\\', 0, '\\', 0, '.', 0, '\\', 0, 'E', 0, ':', 0, 0, 0});
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
}

TEST(DriveRequests, QueryPathNeedsItsTerminatorInsideTheMessage)
{
    DR_QUERY_DISK_REQ query;
    const auto empty = Bytes({1, 0, 0, 0, 0, 0});  // id and an empty path
    EXPECT_TRUE(DecodeQueryDiskRequest(empty.data(), empty.size(), query));
    EXPECT_TRUE(query.path.empty());
    const auto unterminated = Bytes({1, 0, 0, 0, 'a', 0, 'b', 0});
    EXPECT_FALSE(DecodeQueryDiskRequest(unterminated.data(), unterminated.size(), query));
    const auto halfUnit = Bytes({1, 0, 0, 0, 'a', 0, 0});  // a lone zero byte is not a 16-bit zero
    EXPECT_FALSE(DecodeQueryDiskRequest(halfUnit.data(), halfUnit.size(), query));
    EXPECT_FALSE(DecodeQueryDiskRequest(empty.data(), 5, query));
    EXPECT_FALSE(DecodeQueryDiskRequest(nullptr, 0, query));
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
    const auto expected = Bytes({1, 2, 3, 4, 5, 6, 7, 8, 0x11, 0, 0, 0xC0, 0, 0, 0, 0,
                                 0x22, 0x11, 0, 0, 0, 0, 0, 0, 32, 0, 0, 0, 0, 0, 0, 0,
                                 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 12, 0, 0, 0,
                                 255, 0, 0, 0, 63, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(out, expected);
    DR_RSP_HEADER back;
    ASSERT_TRUE(DecodeResponseHeader(out.data(), 32, back));
    EXPECT_EQ(back.status, 0xC0000011u);
    EXPECT_EQ(back.information, 0x1122u);
    EXPECT_FALSE(DecodeResponseHeader(out.data(), 31, back));
}
