#include "platform/LittleEndian.h"
#include "platform/Utf.h"
#include <tolv/platform/NtStatus.h>
#include <tolv/platform/UniqueFd.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

using namespace tolv::platform;

TEST(UniqueFd, ClosesOnceAndMovesOwnership)
{
    const auto IsOpen = [](int fd) { return ::fcntl(fd, F_GETFD) != -1; };
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    {
        UniqueFd a(fds[0]);
        UniqueFd b(std::move(a));
        UniqueFd c;
        c = std::move(b);
        EXPECT_FALSE(a.valid() || b.valid());
        EXPECT_EQ(c.get(), fds[0]);
        const int released = UniqueFd(fds[1]).release();  // stays ours to close
        EXPECT_TRUE(IsOpen(fds[0]) && IsOpen(released));
        c.reset(released);
        EXPECT_FALSE(IsOpen(fds[0]));
    }
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
    uint32_t c = 0xFFFFFFFF;
    const uint8_t* view = nullptr;
    ASSERT_TRUE(reader.u16(a) && reader.u64(b));
    EXPECT_EQ(a, 0x0201);
    EXPECT_EQ(b, 0x0A09080706050403ull);
    // With one byte left: a failed read leaves the target and the cursor alone.
    EXPECT_FALSE(reader.u32(c) || reader.bytes(2, view) || reader.skip(SIZE_MAX));
    EXPECT_EQ(c, 0xFFFFFFFFu);
    ASSERT_TRUE(reader.bytes(1, view));
    EXPECT_EQ(*view, 0x0B);
    EXPECT_EQ(reader.remaining(), 0u);
    EXPECT_FALSE(LeReader(nullptr, 100).skip(1));  // a null buffer has no bytes whatever its size says
    uint8_t out[8];
    StoreLe<uint64_t>(out, 0x1122334455667788ull);
    EXPECT_EQ(out[0], 0x88);
    EXPECT_EQ(out[7], 0x11);
    EXPECT_EQ(LoadLe<uint64_t>(out), 0x1122334455667788ull);
}

TEST(Utf, RoundTripsEveryEncodingLength)
{
    // 1, 2, 3 and 4 byte forms, including the edges of each range.
    const std::u16string wide = u"A\u007F\u0080\u07FF\u0800\uFFFD\uFFFF\U00010000\U0010FFFF \\\\.\\loop3";
    const auto narrow = Utf16ToUtf8(wide);
    ASSERT_TRUE(narrow);
    EXPECT_EQ(*narrow, "A\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBD\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"
                       " \\\\.\\loop3");
    EXPECT_EQ(Utf8ToUtf16(*narrow), wide);
    EXPECT_EQ(Utf16ToUtf8(u""), std::string());
}

TEST(Utf, RefusesLoneSurrogatesAndInvalidUtf8)
{
    for (const std::u16string& wide : {std::u16string(1, u'\xD800'), std::u16string(1, u'\xDC00'),
                                       std::u16string{u'a', u'\xD83D'},              // high at the end
                                       std::u16string{u'\xD83D', u'a', u'\xDE00'},  // high not followed by low
                                       std::u16string{u'\xDE00', u'\xD83D'}})       // reversed pair
        EXPECT_FALSE(Utf16ToUtf8(wide)) << wide.size();
    for (const char* narrow : {"\xC0\x80",            // overlong zero
                               "\xE0\x80\xAF",        // overlong '/'
                               "\xED\xA0\x80",        // encoded surrogate
                               "\xF4\x90\x80\x80",    // past U+10FFFF
                               "\xE2\x82",            // truncated
                               "\x80",                // stray continuation
                               "\xF8\x88\x80\x80\x80",
                               "ab\xC3("})            // bad continuation
        EXPECT_FALSE(Utf8ToUtf16(narrow)) << narrow;
}
