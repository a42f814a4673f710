#include "corvantabase/Uuid.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibTypes.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

constexpr const char* kDashed = "875ac244-b80a-420e-90a2-9c69dfd8e728";

std::string Format(const _GUID& guid) { return fmt::format("{}", guid); }

TEST(GuidText, EveryAcceptedFormReadsBackAsTheEndpointGuid)
{
    const char* forms[] = {
        "875ac244b80a420e90a29c69dfd8e728",
        "875AC244B80A420E90A29C69DFD8E728",
        "{875ac244b80a420e90a29c69dfd8e728}",
        "875ac244-b80a-420e-90a2-9c69dfd8e728",
        "{875AC244-B80A-420E-90A2-9C69DFD8E728}",
    };
    for (const char* text : forms) {
        _GUID guid {};
        ASSERT_TRUE(UUID_ConvertPackedToBin(&guid, text)) << text;
        EXPECT_EQ(Format(guid), kDashed) << text;
    }

    _GUID guid {};
    ASSERT_TRUE(UUID_ConvertPackedToBin(&guid, kDashed));
    EXPECT_EQ(guid.Data1, 0x875ac244u);
    EXPECT_EQ(guid.Data2, 0xb80a);
    EXPECT_EQ(guid.Data3, 0x420e);
    const uint8_t tail[8] = {0x90, 0xa2, 0x9c, 0x69, 0xdf, 0xd8, 0xe7, 0x28};
    EXPECT_EQ(std::memcmp(guid.Data4, tail, 8), 0);
}

TEST(GuidText, ExtremeDigitsSurviveEveryField)
{
    _GUID guid {};
    ASSERT_TRUE(UUID_ConvertPackedToBin(&guid, "ffffffff-0000-ffff-00ff-ff00ff00ff00"));
    EXPECT_EQ(Format(guid), "ffffffff-0000-ffff-00ff-ff00ff00ff00");
    ASSERT_TRUE(UUID_ConvertPackedToBin(&guid, "00000000000000000000000000000001"));
    EXPECT_EQ(Format(guid), "00000000-0000-0000-0000-000000000001");
}

TEST(GuidText, AnythingElseIsRefusedAndLeavesTheOutputAlone)
{
    const char* refused[] = {
        "",
        "875ac244b80a420e90a29c69dfd8e72",              // 31 digits
        "875ac244b80a420e90a29c69dfd8e7289",            // 33 digits
        "875ac244b80a420e90a29c69dfd8e72g",             // not hex
        "875ac244-b80a-420e-90a2-9c69dfd8e72",          // 35 characters
        "875ac244-b80a-420e-90a2-9c69dfd8e7289",        // 37 characters
        "875ac244b-80a-420e-90a2-9c69dfd8e728",         // dash out of place
        "875ac244-b80a-420e-90a29c69dfd8e728-",         // dash out of place
        "875ac244-b80a-420e-90a2-9c69dfd8e7-8",         // dash for a digit
        "{875ac244-b80a-420e-90a2-9c69dfd8e728",        // one brace
        "875ac244-b80a-420e-90a2-9c69dfd8e728}",        // one brace
        "(875ac244-b80a-420e-90a2-9c69dfd8e728)",       // other brackets
        "{{875ac244b80a420e90a29c69dfd8e728}}",         // braces twice
        " 875ac244b80a420e90a29c69dfd8e728",            // blank
        "875ac244b80a420e90a29c69dfd8e728\n",           // line feed
        "0x875ac244b80a420e90a29c69dfd8e7",             // hex prefix
        "+75ac244-b80a-420e-90a2-9c69dfd8e728",         // sign
        "875ac244-b80a-420e-90a2-9c69dfd8e7\xc3\xa9",   // non-ASCII
    };
    for (const char* text : refused) {
        uint8_t bin[16];
        std::memset(bin, 0x5a, sizeof bin);
        EXPECT_FALSE(UUID_ConvertPackedToBin(bin, text)) << '"' << text << '"';
        for (uint8_t b : bin)
            ASSERT_EQ(b, 0x5a) << text;
    }
    uint8_t bin[16];
    EXPECT_FALSE(UUID_ConvertPackedToBin(bin, nullptr));
    EXPECT_FALSE(UUID_ConvertPackedToBin(nullptr, kDashed));
}

} // namespace
