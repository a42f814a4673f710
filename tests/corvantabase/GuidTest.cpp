#include "corvantabase/Uuid.h"

#include <tamsel/ipc/ipclibTypes.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(GuidText, EveryAcceptedFormReadsBackAsTheEndpointGuidAndAnythingElseIsRefused)
{
    for (const char* text : {"875ac244b80a420e90a29c69dfd8e728", "{875AC244B80A420E90A29C69DFD8E728}",
                             "875ac244-b80a-420e-90a2-9c69dfd8e728", "{875AC244-B80A-420E-90A2-9C69DFD8E728}"}) {
        _GUID guid{};
        ASSERT_TRUE(UUID_ConvertPackedToBin(&guid, text)) << text;
        EXPECT_EQ(fmt::format("{}", guid), "875ac244-b80a-420e-90a2-9c69dfd8e728") << text;
    }
    _GUID guid{};
    ASSERT_TRUE(UUID_ConvertPackedToBin(&guid, "ffffffff-0000-ffff-00ff-ff00ff00ff00"));
    EXPECT_EQ(fmt::format("{}", guid), "ffffffff-0000-ffff-00ff-ff00ff00ff00");

    // Refused text leaves the output alone.
    const char* refused[] = {
        "", "875ac244b80a420e90a29c69dfd8e72", "875ac244b80a420e90a29c69dfd8e7289",
        "875ac244b80a420e90a29c69dfd8e72g", "0x875ac244b80a420e90a29c69dfd8e7",
        "875ac244-b80a-420e-90a2-9c69dfd8e72", "875ac244-b80a-420e-90a2-9c69dfd8e7289",
        "875ac244b-80a-420e-90a2-9c69dfd8e728", "875ac244-b80a-420e-90a2-9c69dfd8e7-8",
        "{875ac244-b80a-420e-90a2-9c69dfd8e728", "875ac244-b80a-420e-90a2-9c69dfd8e728}",
        "{{875ac244b80a420e90a29c69dfd8e728}}", " 875ac244b80a420e90a29c69dfd8e728",
        "875ac244b80a420e90a29c69dfd8e728\n", "875ac244-b80a-420e-90a2-9c69dfd8e7\xc3\xa9", nullptr,
    };
    for (const char* text : refused) {
        uint8_t bin[16], untouched[16];
        std::memset(bin, 0x5a, sizeof bin);
        std::memset(untouched, 0x5a, sizeof untouched);
        EXPECT_FALSE(UUID_ConvertPackedToBin(bin, text)) << '"' << (text ? text : "(null)") << '"';
        EXPECT_EQ(std::memcmp(bin, untouched, sizeof bin), 0) << (text ? text : "(null)");
    }
}

} // namespace
