#include "platform/LittleEndian.h"
#include <tolv/platform/NtStatus.h>
#include <tolv/platform/UniqueFd.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

using namespace tolv::platform;

namespace {
bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }
} // namespace

TEST(UniqueFd, ClosesOnceAndMovesOwnership)
{
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ::close(fds[1]);
    {
        UniqueFd a(fds[0]);
        UniqueFd b(std::move(a));
        EXPECT_FALSE(a.valid());
        EXPECT_EQ(b.get(), fds[0]);
        UniqueFd c;
        c = std::move(b);
        EXPECT_TRUE(IsOpen(fds[0]));
    }
    EXPECT_FALSE(IsOpen(fds[0]));

    ASSERT_EQ(::pipe(fds), 0);
    UniqueFd keep(fds[0]);
    const int released = keep.release();
    EXPECT_EQ(keep.get(), -1);
    EXPECT_TRUE(IsOpen(released));
    keep.reset(fds[1]);  // takes another; the released one stays ours to close
    ::close(released);
    keep.reset();
    EXPECT_FALSE(IsOpen(fds[1]));
}

TEST(NtStatus, MapsErrnoAsDocumented)
{
    const std::pair<int, uint32_t> rows[] = {
        {EBADF, 0xC0000008},  {EINVAL, 0xC000000D},    {EIO, 0xC0000185},   {ENOSPC, 0xC000007F},
        {EROFS, 0xC00000A2},  {EPERM, 0xC0000001},     {EACCES, 0xC0000022}, {ENOMEM, 0xC000009A},
        {EFBIG, 0xC0000904},  {ENXIO, 0xC000000E},     {ENODEV, 0xC000000E}, {ENOMEDIUM, 0xC0000013},
        {EBUSY, 0xC0000043},  {ENOENT, 0xC0000001}};
    for (const auto& row : rows)
        EXPECT_EQ(NtStatusFromErrno(row.first), row.second) << "errno " << row.first;
    EXPECT_EQ(NtStatusFromErrno(EPERM, IoDirection::Write), 0xC00000A2u);
    EXPECT_TRUE(NtSuccess(STATUS_PENDING));
    EXPECT_FALSE(NtSuccess(STATUS_END_OF_FILE));
}

TEST(LeReader, ReadsLittleEndianAndNeverPastTheEnd)
{
    const std::vector<uint8_t> bytes = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B};
    LeReader reader(bytes.data(), bytes.size());
    uint16_t a = 0;
    uint64_t b = 0;
    ASSERT_TRUE(reader.u16(a));
    EXPECT_EQ(a, 0x0201);
    ASSERT_TRUE(reader.u64(b));
    EXPECT_EQ(b, 0x0A09080706050403ull);
    uint32_t c = 0xFFFFFFFF;
    EXPECT_FALSE(reader.u32(c));  // one byte left
    EXPECT_EQ(c, 0xFFFFFFFFu);     // a failed read leaves the target and the cursor alone
    EXPECT_EQ(reader.remaining(), 1u);
    const uint8_t* view = nullptr;
    EXPECT_FALSE(reader.bytes(2, view));
    EXPECT_FALSE(reader.skip(SIZE_MAX));
    ASSERT_TRUE(reader.bytes(1, view));
    EXPECT_EQ(*view, 0x0B);
    EXPECT_EQ(reader.remaining(), 0u);

    LeReader empty(nullptr, 100);  // a null buffer has no bytes whatever its size says
    EXPECT_FALSE(empty.skip(1));

    uint8_t out[8];
    StoreLe<uint64_t>(out, 0x1122334455667788ull);
    EXPECT_EQ(out[0], 0x88);
    EXPECT_EQ(out[7], 0x11);
    EXPECT_EQ(LoadLe<uint64_t>(out), 0x1122334455667788ull);
}
