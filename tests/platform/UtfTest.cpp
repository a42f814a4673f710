#include "platform/Utf.h"

#include <gtest/gtest.h>

using tolv::platform::Utf16ToUtf8;
using tolv::platform::Utf8ToUtf16;

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
