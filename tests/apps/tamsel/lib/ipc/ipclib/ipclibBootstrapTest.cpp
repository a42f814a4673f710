// The bootstrap datagrams: what a well-formed request turns into, and every
// way a request can be malformed.

#include <tamsel/ipc/ipclibBootstrap.h>

#include "platform/LittleEndian.h"

#include <gtest/gtest.h>

using namespace tamsel::ipc;

namespace {

KxIpclibBootstrapRequest Sample(KxIpclibBootstrapProc proc)
{
    KxIpclibBootstrapRequest r;
    r.proc = proc;
    r.endpoint = {0x875ac244, 0xb80a, 0x420e, {0x90, 0xa2, 0x9c, 0x69, 0xdf, 0xd8, 0xe7, 0x28}};
    r.clientVersion = 1;
    r.clientLinkId = 0x4C00123400000007ull;
    r.clientLinkFlags = 0x10000;
    r.clientStreamId = 0x5300123400000009ull;
    r.clientStreamFlags = 0x20000;
    r.streamName = u"tolvCommands";
    r.requestedSectionSize = 65536;
    return r;
}

uint32_t Parse(const std::vector<uint8_t>& bytes, KxIpclibBootstrapRequest& out)
{
    return parseBootstrapRequest(bytes.data(), bytes.size(), out);
}

} // namespace

TEST(IpclibBootstrapWire, BothProceduresRoundTripWithTheDocumentedLayout)
{
    for (auto proc : {KxIpclibBootstrapProc::CreateSharedMemoryLink, KxIpclibBootstrapProc::CreateSharedMemoryLinkV2}) {
        const auto in = Sample(proc);
        const auto bytes = encodeBootstrapRequest(in);
        // Header, then the counted name (version 1) or the terminated one (version 2), then the size.
        const size_t name = proc == KxIpclibBootstrapProc::CreateSharedMemoryLink ? 4 + 2 * 12 : 2 * 12 + 2;
        ASSERT_EQ(bytes.size(), kBootstrapRequestHeaderSize + name + 4);
        EXPECT_EQ(tolv::platform::LoadLe<uint32_t>(bytes.data()), static_cast<uint32_t>(proc));
        EXPECT_EQ(tolv::platform::LoadLe<uint32_t>(bytes.data() + 4), 0x875ac244u);
        EXPECT_EQ(bytes[12], 0x90);
        EXPECT_EQ(tolv::platform::LoadLe<uint64_t>(bytes.data() + 24), in.clientLinkId);
        EXPECT_EQ(tolv::platform::LoadLe<uint64_t>(bytes.data() + 36), in.clientStreamId);
        KxIpclibBootstrapRequest out;
        ASSERT_EQ(Parse(bytes, out), 0u);
        EXPECT_EQ(out.proc, proc);
        EXPECT_EQ(out.endpoint.Data1, in.endpoint.Data1);
        EXPECT_EQ(std::memcmp(out.endpoint.Data4, in.endpoint.Data4, 8), 0);
        EXPECT_EQ(out.clientLinkId, in.clientLinkId);
        EXPECT_EQ(out.clientLinkFlags, in.clientLinkFlags);
        EXPECT_EQ(out.clientStreamId, in.clientStreamId);
        EXPECT_EQ(out.clientStreamFlags, in.clientStreamFlags);
        EXPECT_EQ(out.streamName, in.streamName);
        EXPECT_EQ(out.requestedSectionSize, in.requestedSectionSize);
    }
}

TEST(IpclibBootstrapWire, EveryTruncationAndEveryExtraByteIsRefused)
{
    for (auto proc : {KxIpclibBootstrapProc::CreateSharedMemoryLink, KxIpclibBootstrapProc::CreateSharedMemoryLinkV2}) {
        const auto bytes = encodeBootstrapRequest(Sample(proc));
        KxIpclibBootstrapRequest out;
        for (size_t n = 0; n < bytes.size(); ++n) {
            std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(n));
            EXPECT_EQ(Parse(cut, out), kRpcStatusBadStubData) << "cut at " << n;
        }
        auto longer = bytes;
        longer.push_back(0);
        EXPECT_EQ(Parse(longer, out), kRpcStatusBadStubData);
    }
}

TEST(IpclibBootstrapWire, ProcedureNumbersAndNameLengthsOutOfRange)
{
    KxIpclibBootstrapRequest out;
    auto bytes = encodeBootstrapRequest(Sample(KxIpclibBootstrapProc::CreateSharedMemoryLinkV2));
    for (uint32_t proc : {2u, 7u, 0xFFFFFFFFu}) {
        tolv::platform::StoreLe<uint32_t>(bytes.data(), proc);
        EXPECT_EQ(Parse(bytes, out), kRpcStatusProcNumOutOfRange);
    }

    auto r = Sample(KxIpclibBootstrapProc::CreateSharedMemoryLink);
    r.streamName.assign(512, u'a');
    EXPECT_EQ(Parse(encodeBootstrapRequest(r), out), 0u);
    EXPECT_EQ(out.streamName.size(), 512u);
    r.streamName.assign(513, u'a');
    EXPECT_EQ(Parse(encodeBootstrapRequest(r), out), kRpcStatusBadStubData);
    r.streamName.clear();
    EXPECT_EQ(Parse(encodeBootstrapRequest(r), out), kRpcStatusBadStubData);
    // A count that claims more than the datagram holds.
    r.streamName = u"abc";
    auto lying = encodeBootstrapRequest(r);
    tolv::platform::StoreLe<uint32_t>(lying.data() + kBootstrapRequestHeaderSize, 200);
    EXPECT_EQ(Parse(lying, out), kRpcStatusBadStubData);

    auto v2 = Sample(KxIpclibBootstrapProc::CreateSharedMemoryLinkV2);
    v2.streamName.assign(512, u'b');
    EXPECT_EQ(Parse(encodeBootstrapRequest(v2), out), 0u);
    v2.streamName.assign(513, u'b');
    EXPECT_EQ(Parse(encodeBootstrapRequest(v2), out), kRpcStatusBadStubData);
    v2.streamName.clear();  // just the terminator
    EXPECT_EQ(Parse(encodeBootstrapRequest(v2), out), kRpcStatusBadStubData);
}

TEST(IpclibBootstrapWire, NamesMustBeWholeUtf16WithoutZeroUnits)
{
    KxIpclibBootstrapRequest out;
    for (const std::u16string& name : {std::u16string(u"a\u0000b", 3), std::u16string(1, char16_t(0xD800)),
                                      std::u16string(1, char16_t(0xDC00)), std::u16string(u"x") + char16_t(0xD83D)}) {
        auto r = Sample(KxIpclibBootstrapProc::CreateSharedMemoryLink);
        r.streamName = name;
        EXPECT_EQ(Parse(encodeBootstrapRequest(r), out), kRpcStatusBadStubData);
    }
    auto r = Sample(KxIpclibBootstrapProc::CreateSharedMemoryLinkV2);
    r.streamName = u"str\U0001F600";  // a surrogate pair is fine
    ASSERT_EQ(Parse(encodeBootstrapRequest(r), out), 0u);
    EXPECT_EQ(out.streamName, r.streamName);
}

TEST(IpclibBootstrapWire, ReplyRoundTripsAndOnlyItsExactSizeParses)
{
    KxIpclibBootstrapReply in;
    in.sectionSize = 0xFFFFF;
    in.serverVersion = 1;
    in.serverLinkId = 0x4C0000AA00000001ull;
    in.serverLinkFlags = 0x30000;
    for (size_t i = 0; i < kBootstrapReplyFds; ++i)
        in.handles[i] = i;
    in.serverPid = 4242;
    in.serverStreamId = 0x53000BB00000002ull;
    in.status = KxIpcStatusAccessDenied;
    const auto bytes = encodeBootstrapReply(in);
    ASSERT_EQ(bytes.size(), kBootstrapReplySize);
    EXPECT_EQ(tolv::platform::LoadLe<uint32_t>(bytes.data() + kBootstrapReplySize - 4), 7u);
    KxIpclibBootstrapReply out;
    ASSERT_TRUE(parseBootstrapReply(bytes.data(), bytes.size(), out));
    EXPECT_EQ(out.serverLinkId, in.serverLinkId);
    EXPECT_EQ(out.handles[10], 10u);
    EXPECT_EQ(out.serverPid, 4242u);
    EXPECT_EQ(out.serverStreamId, in.serverStreamId);
    EXPECT_EQ(out.status, KxIpcStatusAccessDenied);
    EXPECT_FALSE(parseBootstrapReply(bytes.data(), bytes.size() - 1, out));
}
