// What goes over the wire, in one process: statuses, ids and endpoints, blocks
// and the messages they rebuild, the shared-memory channels and the transfers
// they carry, and the bootstrap datagrams; and every way bytes from an
// untrusted peer can be wrong.

#include "ShmHandOver.h"
#include "common/ProcessProbe.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkChannelSharedMemLinux.h"
#include <tamsel/ipc/ipclibBootstrap.h>
#include <tamsel/ipc/ipclibTransfer.h>
#include "platform/LittleEndian.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>

using namespace tamsel::ipc;
using tamsel::ipc::testing::PatternMessage;
using tolv::platform::LoadLe;
using tolv::platform::StoreLe;
using Messages = std::vector<std::vector<uint8_t>>;

namespace {

std::vector<uint8_t> Bytes(uint32_t size, uint32_t seed)
{
    return PatternMessage(seed, 0, size);
}

std::shared_ptr<KxIpclibMsg> Outgoing(const std::vector<uint8_t>& data, uint32_t flags = 0)
{
    return std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, flags, 0, nullptr, 0x5311, 0x5322,
                                         static_cast<uint32_t>(data.size()), data.empty() ? nullptr : data.data(),
                                         [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
}

// Cuts `msg` into blocks of at most `room` bytes each, as consecutive transfer units would.
Messages Cut(KxIpclibMsg& msg, uint32_t room)
{
    Messages blocks;
    while (blocks.empty() || !(LoadLe<uint32_t>(blocks.back().data() + 4) & KxIpclibBlockLast)) {
        std::vector<uint8_t> unit(room);
        unit.resize(writeBlock(msg, unit.data(), room));
        if (unit.empty())
            break;
        blocks.push_back(unit);
    }
    return blocks;
}

} // namespace

TEST(KxIpcStatusCode, ValuesPastTheirNamesPrintAsUnknown)
{
    EXPECT_EQ(fmt::format("{}", static_cast<KxIpcStatusCode>(15)), "FunctionNotFound");
    EXPECT_EQ(fmt::format("{}", static_cast<KxIpcStatusCode>(16)), "unknown");
    EXPECT_EQ(fmt::format("{}", static_cast<KxIpclibStreamState>(5)), "unknown");
    EXPECT_EQ(fmt::format("{}", static_cast<KxIpclibMsgType>(7)), "unknown");
    EXPECT_EQ(fmt::format("{}", static_cast<KxIpclibState>(3)), "unknown");
}

TEST(Endpoint, PrintsAsTextAndComparesByItsBytes)
{
    const _GUID ep{0x875ac244, 0xb80a, 0x420e, {0x90, 0xa2, 0x9c, 0x69, 0xdf, 0xd8, 0xe7, 0x28}};
    EXPECT_EQ(fmt::format("{}", ep), "875ac244-b80a-420e-90a2-9c69dfd8e728");
    const _GUID tail1{7, 7, 7, {0, 0, 0, 0, 0, 0, 0, 1}}, tail2{7, 7, 7, {0, 0, 0, 0, 0, 0, 1, 0}};
    EXPECT_TRUE(endpointLess(tail1, tail2) && !endpointLess(tail2, tail1) && !endpointLess(tail1, tail1));
    EXPECT_TRUE(endpointEqual(tail1, tail1) && !endpointEqual(tail1, tail2));
}

TEST(KxIpclibBlock, BlocksHaveTheWireLayoutAndReassembleIntoTheSameMessage)
{
    // Type, flags, blockLength, payloadLength and, in a first block, totalSize: room - 40 bytes
    // fit in one block; the upper flag bits are carried, bit 0 of the message's not.
    constexpr size_t kOffsets[] = {0, 4, 28, 32, 36};
    const std::tuple<uint32_t, uint32_t, uint32_t, std::vector<std::vector<uint32_t>>> layouts[] = {
        {0, 0, 4096, {{6, 3, 40, 0, 0}}},
        {960, 0xABCD0001u, 1000, {{6, 0xABCD0003u, 1000, 960, 960}}},
        {961, 0xABCD0000u, 1000, {{6, 0xABCD0001u, 1000, 960, 961}, {6, 0xABCD0002u, 37, 1}}},
    };
    for (const auto& [size, flags, room, want] : layouts) {
        SCOPED_TRACE(size);
        const auto data = Bytes(size, 1);  // the message only references it
        auto msg = Outgoing(data, flags);
        const auto blocks = Cut(*msg, room);
        ASSERT_EQ(blocks.size(), want.size());
        for (size_t b = 0; b < blocks.size(); ++b)
            for (size_t f = 0; f < want[b].size(); ++f)
                EXPECT_EQ(LoadLe<uint32_t>(blocks[b].data() + kOffsets[f]), want[b][f]) << b << ", " << f;
        EXPECT_EQ(LoadLe<uint64_t>(blocks[0].data() + 12), 0x5311u);
        EXPECT_EQ(LoadLe<uint64_t>(blocks[0].data() + 20), 0x5322u);
    }
    // No block starts in 40 bytes or less.
    const auto tenBytes = Bytes(10, 3);  // the message only references them
    auto another = Outgoing(tenBytes);
    uint8_t room[41];
    EXPECT_EQ(writeBlock(*another, room, 40), 0u);
    EXPECT_EQ(another->remaining(), 10u);
    EXPECT_EQ(writeBlock(*another, room, 41), 41u);  // one payload byte
    EXPECT_EQ(another->remaining(), 9u);

    for (uint32_t size : {1u, 63u, 64u, 961u, 4096u, 100000u})
        for (uint32_t room : {41u, 77u, 1000u, 4096u, 65536u}) {
            SCOPED_TRACE(std::to_string(size) + " bytes in rooms of " + std::to_string(room));
            const auto data = Bytes(size, size + room);
            auto out = Outgoing(data, 0x12340000u);
            std::shared_ptr<KxIpclibMsg> in;
            for (const auto& raw : Cut(*out, room)) {
                KxIpclibBlock block;
                ASSERT_EQ(readBlock(raw.data(), raw.size(), block), KxIpcStatusSuccess);
                const auto& h = block.header;
                if (h.first())
                    in = std::make_shared<KxIpclibMsg>(static_cast<KxIpclibMsgType>(h.msgType), h.flags, h.status,
                                                       h.srcStreamId, h.destStreamId, h.totalSize);
                ASSERT_TRUE(in);
                ASSERT_EQ(in->appendData(h.payloadLength, block.payload), KxIpcStatusSuccess);
            }
            ASSERT_TRUE(in && in->remaining() == 0 && in->size() == size);
            EXPECT_EQ(std::vector<uint8_t>(in->data(), in->data() + size), data);
            EXPECT_EQ(in->flags() & 0xFFFF0001u, 0x12340001u);
            EXPECT_EQ(out->remaining(), 0u);
            out->resetCursor();
            EXPECT_EQ(out->remaining(), size);
        }
}

TEST(KxIpclibBlock, MalformedHeadersAreProtocolErrors)
{
    struct Case {
        const char* what;
        uint32_t type, flags, dest, blockLength, payloadLength, size, available;
        KxIpcStatusCode status;
    };
    constexpr auto kOk = KxIpcStatusSuccess, kBad = KxIpcStatusProtocolError;
    const Case cases[] = {
        {"a message", 6, 3, 9, 45, 5, 45, 45, kOk},
        {"a continuation: 36 + 5", 6, 2, 9, 41, 5, 41, 41, kOk},
        {"an open to stream 0", 1, 3, 0, 44, 4, 44, 44, kOk},
        {"a close", 3, 3, 9, 40, 0, 40, 40, kOk},
        {"an empty message", 6, 3, 9, 40, 0, 40, 40, kOk},
        {"an empty continuation", 6, 2, 9, 36, 0, 36, 36, kOk},
        {"upper flag bits", 6, 0x7FFF0003, 9, 45, 5, 45, 45, kOk},
        {"header cut short", 6, 3, 9, 45, 5, 45, 35, kBad},
        {"first block cut below 40", 6, 3, 9, 45, 5, 45, 39, kBad},
        {"payload past the end", 6, 3, 9, 45, 5, 45, 44, kBad},
        {"type None", 0, 3, 9, 45, 5, 45, 45, kBad},
        {"unknown type", 7, 3, 9, 45, 5, 45, 45, kBad},
        {"control with payload", 2, 3, 9, 41, 1, 41, 41, kBad},
        {"control not a single block", 4, 1, 9, 40, 0, 40, 40, kBad},
        {"control continuation", 5, 2, 9, 36, 0, 40, 40, kBad},
        {"open addressed to a stream", 1, 3, 5, 44, 4, 44, 44, kBad},
        {"blockLength != header + payload", 6, 3, 9, 46, 5, 46, 46, kBad},
        {"a payload length that wraps the sum", 6, 3, 9, 45, 0xFFFFFFFD, 45, 45, kBad},
        {"unknown low flag bit", 6, 7, 9, 45, 5, 45, 45, kBad},
        {"flag bit 15", 6, 0x8003, 9, 45, 5, 45, 45, kBad},
    };
    for (const Case& c : cases) {
        std::vector<uint8_t> raw(c.size, 0xEE);
        for (auto [offset, value] : {std::pair<size_t, uint32_t>{0, c.type}, {4, c.flags}, {8, 0}, {12, 0x53},
                                     {16, 0}, {20, c.dest}, {24, 0}, {28, c.blockLength}, {32, c.payloadLength}})
            StoreLe<uint32_t>(raw.data() + offset, value);
        if (c.size >= 40 && (c.flags & 1))
            StoreLe<uint32_t>(raw.data() + 36, c.payloadLength);
        KxIpclibBlock block;
        EXPECT_EQ(readBlock(raw.data(), c.available, block), c.status) << c.what;
    }
    KxIpclibBlock block;
    EXPECT_EQ(readBlock(nullptr, 100, block), kBad);
}

TEST(KxIpclibMsg, AppendDataTakesNoMoreThanTheMessageHoldsAndNeverWritesASendersBytes)
{
    auto in = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, 0, 0, 1, 2, 8);
    const uint8_t bytes[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(in->appendData(9, bytes), KxIpcStatusBufferTooSmall);
    EXPECT_EQ(in->appendData(5, bytes), KxIpcStatusSuccess);
    EXPECT_EQ(in->appendData(4, bytes), KxIpcStatusBufferTooSmall);  // 3 left
    EXPECT_EQ(in->appendData(3, bytes + 5), KxIpcStatusSuccess);
    EXPECT_EQ(std::vector<uint8_t>(in->data(), in->data() + 8), std::vector<uint8_t>(bytes, bytes + 8));
    EXPECT_EQ(std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, 0, 0, 1, 2, 0)->appendData(0, nullptr),
              KxIpcStatusSuccess);
    const std::vector<uint8_t> data = {1, 2, 3};
    auto out = Outgoing(data);
    EXPECT_EQ(out->appendData(0, nullptr), KxIpcStatusInvalidState);
    EXPECT_EQ(out->data(), data.data());  // never copied either
}

TEST(KxCrc32, FastAndBytewiseAgree)
{
    const auto* check = reinterpret_cast<const uint8_t*>("123456789");
    EXPECT_EQ(kxCrc32Bytewise(check, 9), 0xCBF43926u);
    EXPECT_EQ(kxCrc32(check, 9), 0xCBF43926u);
    EXPECT_EQ(kxCrc32(nullptr, 0), 0u);
    for (uint32_t size : {1u, 3u, 15u, 16u, 17u, 63u, 64u, 65u, 255u, 4096u, 65537u, 1048575u}) {
        const auto data = Bytes(size, size);
        EXPECT_EQ(kxCrc32(data.data(), size), kxCrc32Bytewise(data.data(), size)) << size;
        // Unaligned starts too.
        EXPECT_EQ(kxCrc32(data.data() + 1, size - 1), kxCrc32Bytewise(data.data() + 1, size - 1)) << size;
    }
}

TEST(KxIpclibLinkChannel, APeerSeesTheSameSectionAndEventsAndCannotResizeIt)
{
    const size_t before = OpenDescriptors();
    {
        KxIpclibLinkChannelSharedMemLinux ours(65536), theirs(65536), other(4096), another(65536);
        int error = 0;
        ASSERT_EQ(ours.create(error), 0) << error;
        KxIpclibLinkChannelResourceLinux handed, wrongSize, unsealed;
        ASSERT_EQ(ours.duplicateHandles(handed, error), 0);
        // Truncating the sealed section is refused, so a mapping can never fault.
        EXPECT_NE(::ftruncate(handed.section.get(), 4096), 0);
        EXPECT_EQ(errno, EPERM);
        ASSERT_EQ(theirs.attach(std::move(handed), error), 0) << error;
        ours.view()[65535] = 0x5A;
        EXPECT_EQ(theirs.view()[65535], 0x5A);
        ours.signalDataReady();
        EXPECT_TRUE(KxIpclibLinkChannelSharedMemLinux::Consume(theirs.dataReadyEvent()));
        EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(theirs.dataReadyEvent()));  // auto-reset
        theirs.signalBufferFree();
        EXPECT_TRUE(KxIpclibLinkChannelSharedMemLinux::Consume(ours.bufferFreeEvent()));

        // A section of another size, or one that is not sealed, is refused before mapping.
        ASSERT_EQ(ours.duplicateHandles(wrongSize, error), 0);
        EXPECT_EQ(other.attach(std::move(wrongSize), error), 1);
        EXPECT_EQ(error, EINVAL);
        ASSERT_EQ(ours.duplicateHandles(unsealed, error), 0);
        unsealed.section.reset(::memfd_create("unsealed", MFD_CLOEXEC));
        ASSERT_EQ(::ftruncate(unsealed.section.get(), 65536), 0);
        EXPECT_EQ(another.attach(std::move(unsealed), error), 1);
        EXPECT_EQ(another.view(), nullptr);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

namespace {

constexpr uint32_t kSection = 8192;
using Section = std::vector<uint8_t>;

// One transfer holding `messages` as a writer would, at sequence `seq`.
Section Transfer(const Messages& messages, uint64_t seq)
{
    Section section(kSection, 0xCC);
    uint32_t used = KxIpclibTransferHeaderSize;
    for (const auto& data : messages) {
        KxIpclibMsg msg(KxIpclibMsgType::Msg, 0, 0, nullptr, 0x53, 0x54, static_cast<uint32_t>(data.size()),
                        data.data(), nullptr);
        used += writeBlock(msg, section.data() + used, kSection - used);
    }
    finishTransfer(section.data(), used, static_cast<uint32_t>(messages.size()), seq);
    return section;
}

// Reads one transfer: its status and the payloads of the blocks it delivered.
std::pair<KxIpcStatusCode, Messages> ReadOne(const Section& section, uint64_t& recvSeqNo)
{
    std::vector<uint8_t> buffer(kSection);
    Messages payloads;
    auto deliver = [&](const KxIpclibBlock& b) {
        payloads.emplace_back(b.payload, b.payload + b.header.payloadLength);
        return KxIpcStatusSuccess;
    };
    const auto status = readTransfer(section.data(), kSection, buffer.data(), recvSeqNo, deliver);
    return {status, payloads};
}

// Sets a 32-bit field and, unless told not to, rewrites the CRC so that the
// change itself is what is judged.
void Edit(Section& section, size_t offset, uint32_t value, bool reseal = true)
{
    StoreLe<uint32_t>(section.data() + offset, value);
    if (!reseal)
        return;
    const uint32_t size = std::min<uint32_t>(LoadLe<uint32_t>(section.data() + 20), kSection);
    StoreLe<uint32_t>(section.data() + 4, 0);
    StoreLe<uint32_t>(section.data() + 4, kxCrc32Bytewise(section.data(), size));
}

} // namespace

TEST(KxIpclibTransfer, BlocksComeOutAsTheyWentInAndEveryFaultFailsTheWholeTransfer)
{
    // An empty message is one block of header alone, and valid.
    const Messages messages = {Bytes(1, 1), {}, Bytes(500, 2), Bytes(3000, 3)};
    const auto section = Transfer(messages, 1);
    EXPECT_EQ(LoadLe<uint32_t>(section.data() + KxIpclibTransferHeaderSize + 41 + 28), 40u);
    uint64_t recvSeqNo = 0;
    EXPECT_EQ(ReadOne(section, recvSeqNo), std::make_pair(KxIpcStatusSuccess, messages));
    EXPECT_EQ(ReadOne(Transfer(messages, 2), recvSeqNo).first, KxIpcStatusSuccess);
    EXPECT_EQ(recvSeqNo, 2u);

    constexpr size_t kSecond = KxIpclibTransferHeaderSize + 40 + 100;  // the second block
    const std::tuple<const char*, uint64_t, std::function<void(Section&)>> faults[] = {
        {"a flipped payload bit", 0, [](Section& s) { s[300] ^= 1; }},
        {"a repeated sequence number", 1, [](Section&) {}},
        {"a skipped sequence number", 1, [](Section& s) { Edit(s, 8, 3); }},
        {"a size below 64", 0, [](Section& s) { Edit(s, 20, 63); }},
        {"a size past the section", 0, [](Section& s) { Edit(s, 20, kSection + 1, false); }},
        {"a size below the header", 0, [](Section& s) { Edit(s, 20, 27, false); }},
        {"no blocks", 0, [](Section& s) { Edit(s, 24, 0); }},
        {"more blocks than the transfer holds", 0, [](Section& s) { Edit(s, 24, 3); }},
        {"a control block with payload", 0, [](Section& s) { Edit(s, kSecond, 3); }},
        // The first, well-formed block must not be delivered either.
        {"a block running past the transfer", 0,
         [](Section& s) {
             Edit(s, kSecond + 28, 40 + 5000);
             Edit(s, kSecond + 32, 5000);
             Edit(s, kSecond + 36, 5000);
         }},
    };
    for (const auto& [what, seq, apply] : faults) {
        auto bad = Transfer({Bytes(100, 1), Bytes(200, 2)}, 1);
        apply(bad);
        recvSeqNo = seq;
        EXPECT_EQ(ReadOne(bad, recvSeqNo), std::make_pair(KxIpcStatusProtocolError, Messages{})) << what;
    }
}

namespace {

constexpr auto kV1 = KxIpclibBootstrapProc::CreateSharedMemoryLink;
constexpr auto kV2 = KxIpclibBootstrapProc::CreateSharedMemoryLinkV2;

std::vector<uint8_t> Request(KxIpclibBootstrapProc proc, std::u16string name = u"tolvCommands")
{
    KxIpclibBootstrapRequest r;
    r.proc = proc;
    r.endpoint = {0x875ac244, 0xb80a, 0x420e, {0x90, 0xa2, 0x9c, 0x69, 0xdf, 0xd8, 0xe7, 0x28}};
    r.clientVersion = 1;
    r.clientLinkId = 0x4C00123400000007ull;
    r.clientLinkFlags = 0x10000;
    r.clientStreamId = 0x5300123400000009ull;
    r.clientStreamFlags = 0x20000;
    r.streamName = std::move(name);
    r.requestedSectionSize = 65536;
    return encodeBootstrapRequest(r);
}

uint32_t Parse(const std::vector<uint8_t>& bytes, KxIpclibBootstrapRequest& out)
{
    return parseBootstrapRequest(bytes.data(), bytes.size(), out);
}

} // namespace

TEST(IpclibBootstrapWire, BothProceduresRoundTripWithTheDocumentedLayoutAndRefuseEveryCutOrExtraByte)
{
    for (auto proc : {kV1, kV2}) {
        SCOPED_TRACE(static_cast<uint32_t>(proc));
        const auto bytes = Request(proc);
        // Header, then the counted name (version 1) or the terminated one (version 2), then the size.
        ASSERT_EQ(bytes.size(), kBootstrapRequestHeaderSize + (proc == kV1 ? 4 + 2 * 12 : 2 * 12 + 2) + 4);
        EXPECT_EQ(LoadLe<uint32_t>(bytes.data()), static_cast<uint32_t>(proc));
        EXPECT_EQ(LoadLe<uint32_t>(bytes.data() + 4), 0x875ac244u);
        EXPECT_EQ(bytes[12], 0x90);
        EXPECT_EQ(LoadLe<uint64_t>(bytes.data() + 24), 0x4C00123400000007ull);
        EXPECT_EQ(LoadLe<uint64_t>(bytes.data() + 36), 0x5300123400000009ull);
        KxIpclibBootstrapRequest out;
        ASSERT_EQ(Parse(bytes, out), 0u);
        EXPECT_EQ(out.streamName, u"tolvCommands");
        EXPECT_EQ(encodeBootstrapRequest(out), bytes) << "a field did not come back";
        for (size_t n = 0; n < bytes.size(); ++n)
            EXPECT_EQ(Parse({bytes.begin(), bytes.begin() + n}, out), kRpcStatusBadStubData) << "cut at " << n;
        auto longer = bytes;
        longer.push_back(0);
        EXPECT_EQ(Parse(longer, out), kRpcStatusBadStubData);
    }
}

TEST(IpclibBootstrapWire, ProcedureNumbersAndStreamNamesOutOfRange)
{
    KxIpclibBootstrapRequest out;
    auto bytes = Request(kV2);
    for (uint32_t proc : {2u, 7u, 0xFFFFFFFFu}) {
        StoreLe<uint32_t>(bytes.data(), proc);
        EXPECT_EQ(Parse(bytes, out), kRpcStatusProcNumOutOfRange) << proc;
    }
    // 1 to 512 whole UTF-16 units without a zero unit; a surrogate pair is fine.
    const std::pair<std::u16string, uint32_t> names[] = {
        {std::u16string(512, u'a'), 0u},
        {u"str\U0001F600", 0u},
        {std::u16string(513, u'a'), kRpcStatusBadStubData},
        {u"", kRpcStatusBadStubData},
        {std::u16string(u"a\u0000b", 3), kRpcStatusBadStubData},
        {std::u16string(1, char16_t(0xD800)), kRpcStatusBadStubData},
        {std::u16string(1, char16_t(0xDC00)), kRpcStatusBadStubData},
        {std::u16string(u"x") + char16_t(0xD83D), kRpcStatusBadStubData},
    };
    for (auto proc : {kV1, kV2})
        for (const auto& [name, status] : names) {
            SCOPED_TRACE(::testing::Message() << "procedure " << uint32_t(proc) << ", " << name.size());
            ASSERT_EQ(Parse(Request(proc, name), out), status);
            EXPECT_EQ(status == 0 ? out.streamName : name, name);
        }
    // A count that claims more than the datagram holds.
    auto lying = Request(kV1, u"abc");
    StoreLe<uint32_t>(lying.data() + kBootstrapRequestHeaderSize, 200);
    EXPECT_EQ(Parse(lying, out), kRpcStatusBadStubData);
}
