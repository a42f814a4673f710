#include <tamsel/ipc/ipclibTypes.h>

#include <gtest/gtest.h>

#include <map>
#include <set>

using namespace tamsel::ipc;

TEST(KxIpcStatusCode, StatusesAndStatesPrintByNameOrUnknown)
{
    const std::pair<std::string, std::string> cases[] = {
        {fmt::format("{}", KxIpcStatusSuccess), "Success"},
        {fmt::format("{}", KxIpcStatusProtocolError), "ProtocolError"},
        {fmt::format("{}", static_cast<KxIpcStatusCode>(12)), "StreamClosed"},
        {fmt::format("{}", static_cast<KxIpcStatusCode>(13)), "StreamClosed"},
        {fmt::format("{}", static_cast<KxIpcStatusCode>(15)), "FunctionNotFound"},
        {fmt::format("{}", static_cast<KxIpcStatusCode>(16)), "unknown"},
        {fmt::format("{}", KxIpclibLinkState::ShuttingDown), "ShuttingDown"},
        {fmt::format("{}", KxIpclibListenerState::Accepting), "Accepting"},
        {fmt::format("{}", KxIpclibStreamState::Closing), "Closing"},
        {fmt::format("{}", KxIpclibState::Stopping), "Stopping"},
        {fmt::format("{}", KxIpclibMsgType::CloseAck), "CloseAck"},
        {fmt::format("{}", static_cast<KxIpclibStreamState>(5)), "unknown"},
        {fmt::format("{}", static_cast<KxIpclibMsgType>(7)), "unknown"},
        {fmt::format("{}", static_cast<KxIpclibState>(3)), "unknown"},
    };
    for (const auto& [printed, name] : cases)
        EXPECT_EQ(printed, name);
}

TEST(IpcIds, CarryTheirLetterTickAndANonZeroCounter)
{
    const uint64_t link1 = nextLinkId(), link2 = nextLinkId();
    const uint64_t stream1 = nextStreamId(), stream2 = nextStreamId();
    EXPECT_EQ(link1 >> 56, 0x4Cu);
    EXPECT_EQ(stream1 >> 56, 0x53u);
    EXPECT_NE(link1 & 0xFFFFFFFF, 0u);
    EXPECT_EQ((link2 & 0xFFFFFFFF) - (link1 & 0xFFFFFFFF), 1u);  // one counter per kind
    EXPECT_EQ((stream2 & 0xFFFFFFFF) - (stream1 & 0xFFFFFFFF), 1u);
    // The tick part is a 24-bit millisecond count: ids made a moment apart
    // differ by the few milliseconds that passed (modulo 2^24).
    EXPECT_LT((((stream2 >> 32) & 0xFFFFFF) - ((stream1 >> 32) & 0xFFFFFF)) & 0xFFFFFF, 10000u);
    const uint64_t msg1 = nextMsgId();
    EXPECT_NE(msg1, 0u);
    EXPECT_EQ(nextMsgId(), msg1 + 1);
    std::set<uint64_t> unique;
    for (int i = 0; i < 10000; ++i)
        unique.insert(nextStreamId());
    EXPECT_EQ(unique.size(), 10000u);
}

TEST(Endpoint, PrintsAsTextAndOrdersByItsBytes)
{
    const _GUID ep{0x875ac244, 0xb80a, 0x420e, {0x90, 0xa2, 0x9c, 0x69, 0xdf, 0xd8, 0xe7, 0x28}};
    EXPECT_EQ(fmt::format("{}", ep), "875ac244-b80a-420e-90a2-9c69dfd8e728");
    // The first 8 bytes as a big-endian number: in memory Data1 is little-endian,
    // so 0x00000002 (bytes 02 00 00 00) sorts after 0x01000000 (00 00 00 01).
    const _GUID small{0x01000000, 0, 0, {}}, big{0x00000002, 0, 0, {}};
    EXPECT_TRUE(endpointLess(small, big) && !endpointLess(big, small));
    const _GUID tail1{7, 7, 7, {0, 0, 0, 0, 0, 0, 0, 1}}, tail2{7, 7, 7, {0, 0, 0, 0, 0, 0, 1, 0}};
    EXPECT_TRUE(endpointLess(tail1, tail2) && !endpointLess(tail1, tail1));
    EXPECT_TRUE(endpointEqual(tail1, tail1) && !endpointEqual(tail1, tail2));
    std::map<_GUID, int, EndpointLess> table{{tail2, 2}, {tail1, 1}};
    EXPECT_EQ(table.begin()->second, 1);
}

namespace {
enum class TestFlag : uint32_t { A = 0x8, B = 0x10, High = 0x10000 };
} // namespace

TEST(Flags, TestAndCombine)
{
    Flags<TestFlag> flags(TestFlag::A);
    EXPECT_TRUE(flags.test(TestFlag::A) && !flags.test(TestFlag::B));
    flags |= TestFlag::High;
    EXPECT_EQ(flags.value(), 0x10008u);
    EXPECT_TRUE(flags.any(0x18) && !flags.any(0x30));
    EXPECT_EQ(Flags<TestFlag>(TestFlag::A) | TestFlag::B, Flags<TestFlag>(0x18u));
}
