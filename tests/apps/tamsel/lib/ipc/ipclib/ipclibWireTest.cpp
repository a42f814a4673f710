// What goes over the wire, in one process: blocks and the messages they
// rebuild, the shared-memory channels and the transfers they carry, and the
// bootstrap datagrams; and every way bytes from an untrusted peer can be wrong.

#include "ShmHandOver.h"
#include "common/LogCapture.h"
#include "common/ProcessProbe.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkChannelSharedMemLinux.h"
#include <tamsel/ipc/ipclibBlock.h>
#include <tamsel/ipc/ipclibBootstrap.h>
#include <tamsel/ipc/ipclibMsg.h>
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

namespace {

constexpr uint64_t kSrc = 0x5300000000000011ull, kDest = 0x5300000000000022ull;

std::vector<uint8_t> Bytes(uint32_t size, uint32_t seed)
{
    return PatternMessage(seed, 0, size);
}

std::shared_ptr<KxIpclibMsg> Outgoing(const std::vector<uint8_t>& data, uint32_t flags = 0)
{
    return std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, flags, 0, nullptr, kSrc, kDest,
                                         static_cast<uint32_t>(data.size()), data.empty() ? nullptr : data.data(),
                                         [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
}

// Cuts `msg` into blocks of at most `room` bytes each, as consecutive transfer units would.
std::vector<std::vector<uint8_t>> Cut(KxIpclibMsg& msg, uint32_t room)
{
    std::vector<std::vector<uint8_t>> blocks;
    for (;;) {
        std::vector<uint8_t> unit(room);
        const uint32_t written = writeBlock(msg, unit.data(), room);
        if (written == 0)
            break;
        unit.resize(written);
        blocks.push_back(unit);
        if (LoadLe<uint32_t>(unit.data() + 4) & KxIpclibBlockLast)
            break;
    }
    return blocks;
}

// A block's type, flags, blockLength, payloadLength and, for a first block, totalSize.
std::vector<uint32_t> Fields(const std::vector<uint8_t>& raw)
{
    std::vector<uint32_t> f;
    for (size_t offset : {0, 4, 28, 32, 36})
        if (offset < 36 || (f[1] & KxIpclibBlockFirst))
            f.push_back(LoadLe<uint32_t>(raw.data() + offset));
    return f;
}

} // namespace

TEST(KxIpclibBlock, LayoutAndSplitAtTheRoomBoundary)
{
    auto empty = Outgoing({});
    const auto one = Cut(*empty, 4096);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0].size(), 40u);
    EXPECT_EQ(Fields(one[0]), (std::vector<uint32_t>{6, 3, 40, 0, 0}));  // Msg, first and last
    EXPECT_EQ(LoadLe<uint64_t>(one[0].data() + 12), kSrc);
    EXPECT_EQ(LoadLe<uint64_t>(one[0].data() + 20), kDest);

    constexpr uint32_t kRoom = 1000;
    // room - 40 bytes fit in one block; the upper flag bits are carried, bit 0 of the message's not.
    auto fits = Outgoing(Bytes(kRoom - 40, 1), 0xABCD0001u);
    auto blocks = Cut(*fits, kRoom);
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(Fields(blocks[0]), (std::vector<uint32_t>{6, 0xABCD0003u, kRoom, kRoom - 40, kRoom - 40}));
    // One byte more: a full first block, then a 36-byte header with the last flag only.
    const auto data = Bytes(kRoom - 39, 2);
    auto spills = Outgoing(data, 0xABCD0000u);
    blocks = Cut(*spills, kRoom);
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(Fields(blocks[0]), (std::vector<uint32_t>{6, 0xABCD0001u, kRoom, kRoom - 40, kRoom - 39}));
    EXPECT_EQ(Fields(blocks[1]), (std::vector<uint32_t>{6, 0xABCD0002u, 37, 1}));
    EXPECT_EQ(blocks[1].back(), data.back());

    // No block starts in 40 bytes or less.
    const auto tenBytes = Bytes(10, 3);  // the message only references them
    auto another = Outgoing(tenBytes);
    uint8_t room[41];
    EXPECT_EQ(writeBlock(*another, room, 40), 0u);
    EXPECT_EQ(another->remaining(), 10u);
    EXPECT_EQ(writeBlock(*another, room, 41), 41u);  // one payload byte
    EXPECT_EQ(another->remaining(), 9u);
}

TEST(KxIpclibBlock, BlocksReassembleIntoTheSameMessage)
{
    for (uint32_t size : {1u, 63u, 64u, 4096u, 100000u}) {
        for (uint32_t room : {41u, 77u, 4096u, 65536u}) {
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
            ASSERT_TRUE(in);
            EXPECT_EQ(in->remaining(), 0u);
            ASSERT_EQ(in->size(), size);
            EXPECT_EQ(std::vector<uint8_t>(in->data(), in->data() + size), data);
            EXPECT_EQ(in->flags() & 0xFFFF0000u, 0x12340000u);
            EXPECT_TRUE(in->flags() & KxIpclibBlockFirst);
            EXPECT_EQ(out->remaining(), 0u);
            out->resetCursor();
            EXPECT_EQ(out->remaining(), size);
        }
    }
}

TEST(KxIpclibBlock, MalformedHeadersAreProtocolErrors)
{
    struct Case {
        const char* what;
        uint32_t type, flags;
        uint64_t dest;
        uint32_t blockLength, payloadLength;
        size_t size, available;
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
        StoreLe<uint32_t>(raw.data() + 0, c.type);
        StoreLe<uint32_t>(raw.data() + 4, c.flags);
        StoreLe<uint32_t>(raw.data() + 8, 0);
        StoreLe<uint64_t>(raw.data() + 12, 0x53);
        StoreLe<uint64_t>(raw.data() + 20, c.dest);
        StoreLe<uint32_t>(raw.data() + 28, c.blockLength);
        StoreLe<uint32_t>(raw.data() + 32, c.payloadLength);
        if (c.size >= 40 && (c.flags & 1))
            StoreLe<uint32_t>(raw.data() + 36, c.payloadLength);
        KxIpclibBlock block;
        EXPECT_EQ(readBlock(raw.data(), c.available, block), c.status) << c.what;
    }
    KxIpclibBlock block;
    EXPECT_EQ(readBlock(nullptr, 100, block), kBad);
}

TEST(KxIpclibMsg, AppendDataRefusals)
{
    auto in = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, 0, 0, 1, 2, 8);
    EXPECT_EQ(in->data(), nullptr);  // allocated at the first append
    EXPECT_EQ(in->appendData(0, nullptr), KxIpcStatusSuccess);
    EXPECT_NE(in->data(), nullptr);
    const uint8_t bytes[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(in->appendData(9, bytes), KxIpcStatusBufferTooSmall);
    EXPECT_EQ(in->remaining(), 8u);
    EXPECT_EQ(in->appendData(5, bytes), KxIpcStatusSuccess);
    EXPECT_EQ(in->appendData(4, bytes), KxIpcStatusBufferTooSmall);  // 3 left
    EXPECT_EQ(in->appendData(3, bytes + 5), KxIpcStatusSuccess);
    EXPECT_EQ(std::vector<uint8_t>(in->data(), in->data() + 8), std::vector<uint8_t>(bytes, bytes + 8));
    EXPECT_EQ(std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, 0, 0, 1, 2, 0)->appendData(0, nullptr),
              KxIpcStatusSuccess);

    const std::vector<uint8_t> data = {1, 2, 3};
    auto out = Outgoing(data);
    EXPECT_EQ(out->appendData(0, nullptr), KxIpcStatusInvalidState);  // the sender's bytes are never written
    EXPECT_EQ(out->data(), data.data());                              // and never copied
}

TEST(KxIpclibMsg, SendCompleteCallsTheCompletionOnceWithItselfAndTracesToTheMessageLogger)
{
    ScopedLogCapture log(LOG_LEVEL_VERBOSE);
    int calls = 0;
    KxIpcStatusCode seen = KxIpcStatusSuccess;
    std::shared_ptr<KxIpclibMsg> seenMsg;
    auto msg = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, 1, 0, nullptr, 1, 2, 0, nullptr,
                                             [&](KxIpcStatusCode status, std::shared_ptr<KxIpclibMsg> m) {
                                                 ++calls;
                                                 seen = status;
                                                 seenMsg = std::move(m);
                                             });
    EXPECT_EQ(msg->completionStatus(), 0xFFFFu);
    msg->sendComplete(KxIpcStatusStreamClosed);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(seen, KxIpcStatusStreamClosed);
    EXPECT_EQ(seenMsg, msg);
    EXPECT_EQ(msg->completionStatus(), 12u);
    auto noCompletion = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, 0, 0, nullptr, 1, 2, 0, nullptr, nullptr);
    EXPECT_THROW(noCompletion->sendComplete(KxIpcStatusSuccess), std::bad_function_call);

    log.Clear();
    uint64_t id = 0;
    {
        auto in = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, 0, 0, 0x53000000000000AAull,
                                                0x53000000000000BBull, 4);
        id = in->msgId();
        in->appendData(4, "abcd");
    }
    const std::string ids = fmt::format("srcStreamId: 0x53000000000000aa, destStreamId: 0x53000000000000bb, msgId: {}", id);
    EXPECT_EQ(log.Count("- " + ids, "KxIpclibMsg"), 1u);
    EXPECT_EQ(log.Count("- " + ids, "~KxIpclibMsg"), 1u);
    EXPECT_EQ(log.Count("< " + ids + ", ", "appendData"), 1u);
    for (const auto& line : log.Lines()) {
        EXPECT_EQ(line.loggerName, "ipc::msg");
        EXPECT_EQ(line.level, 6);
    }
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
        KxIpclibLinkChannelSharedMemLinux ours(65536);
        int error = 0;
        ASSERT_EQ(ours.create(error), 0) << error;
        KxIpclibLinkChannelResourceLinux handed, wrongSize, unsealed;
        ASSERT_EQ(ours.duplicateHandles(handed, error), 0);
        // Truncating the sealed section is refused, so a mapping can never fault.
        EXPECT_NE(::ftruncate(handed.section.get(), 4096), 0);
        EXPECT_EQ(errno, EPERM);

        KxIpclibLinkChannelSharedMemLinux theirs(65536);
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
        KxIpclibLinkChannelSharedMemLinux other(4096);
        EXPECT_EQ(other.attach(std::move(wrongSize), error), 1);
        EXPECT_EQ(error, EINVAL);
        ASSERT_EQ(ours.duplicateHandles(unsealed, error), 0);
        unsealed.section.reset(::memfd_create("unsealed", MFD_CLOEXEC));
        ASSERT_EQ(::ftruncate(unsealed.section.get(), 65536), 0);
        KxIpclibLinkChannelSharedMemLinux another(65536);
        EXPECT_EQ(another.attach(std::move(unsealed), error), 1);
        EXPECT_EQ(another.view(), nullptr);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

namespace {

constexpr uint32_t kSection = 8192;
using Section = std::vector<uint8_t>;

// One transfer holding `messages` as a writer would, at sequence `seq`.
Section Transfer(const std::vector<std::vector<uint8_t>>& messages, uint64_t seq)
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
std::pair<KxIpcStatusCode, std::vector<std::vector<uint8_t>>> ReadOne(const Section& section, uint64_t& recvSeqNo)
{
    std::vector<uint8_t> buffer(kSection);
    std::vector<std::vector<uint8_t>> payloads;
    const auto status = readTransfer(section.data(), kSection, buffer.data(), recvSeqNo, [&](const KxIpclibBlock& block) {
        payloads.emplace_back(block.payload, block.payload + block.header.payloadLength);
        return KxIpcStatusSuccess;
    });
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

TEST(KxIpclibTransfer, BlocksComeOutAsTheyWentIn)
{
    // An empty message is one block of header alone, and valid.
    const std::vector<std::vector<uint8_t>> messages = {Bytes(1, 1), {}, Bytes(500, 2), Bytes(3000, 3)};
    const auto section = Transfer(messages, 1);
    EXPECT_EQ(LoadLe<uint32_t>(section.data() + KxIpclibTransferHeaderSize + 41 + 28), 40u);
    uint64_t recvSeqNo = 0;
    const auto first = ReadOne(section, recvSeqNo);
    EXPECT_EQ(first.first, KxIpcStatusSuccess);
    EXPECT_EQ(first.second, messages);
    EXPECT_EQ(ReadOne(Transfer(messages, 2), recvSeqNo).first, KxIpcStatusSuccess);
    EXPECT_EQ(recvSeqNo, 2u);
}

TEST(KxIpclibTransfer, EveryFaultFailsTheWholeTransferAndDeliversNothing)
{
    constexpr size_t kSecond = KxIpclibTransferHeaderSize + 40 + 100;  // the second block
    struct Fault {
        const char* what;
        uint64_t recvSeqNo;
        std::function<void(Section&)> apply;
    };
    const Fault faults[] = {
        {"a flipped payload bit", 0, [](Section& s) { s[300] ^= 1; }},
        {"a repeated sequence number", 1, [](Section&) {}},
        {"a skipped sequence number", 1, [](Section& s) { Edit(s, 8, 3); }},
        {"a size below 64", 0, [](Section& s) { Edit(s, 20, 63); }},
        {"a size past the section", 0, [](Section& s) { Edit(s, 20, kSection + 1, false); }},
        {"a size below the header", 0, [](Section& s) { Edit(s, 20, 27, false); }},
        {"no blocks", 0, [](Section& s) { Edit(s, 24, 0); }},
        {"more blocks than the transfer holds", 0, [](Section& s) { Edit(s, 24, 3); }},
        {"a control block with payload", 0,
         [](Section& s) { Edit(s, kSecond, static_cast<uint32_t>(KxIpclibMsgType::Close)); }},
        // The first, well-formed block must not be delivered either.
        {"a block running past the transfer", 0,
         [](Section& s) {
             Edit(s, kSecond + 28, 40 + 5000);
             Edit(s, kSecond + 32, 5000);
             Edit(s, kSecond + 36, 5000);
         }},
    };
    for (const Fault& f : faults) {
        auto section = Transfer({Bytes(100, 1), Bytes(200, 2)}, 1);
        f.apply(section);
        uint64_t recvSeqNo = f.recvSeqNo;
        const auto read = ReadOne(section, recvSeqNo);
        EXPECT_EQ(read.first, KxIpcStatusProtocolError) << f.what;
        EXPECT_TRUE(read.second.empty()) << f.what;
    }
}

namespace {

KxIpclibBootstrapRequest Sample(KxIpclibBootstrapProc proc, std::u16string name = u"tolvCommands")
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
    return r;
}

uint32_t Parse(const std::vector<uint8_t>& bytes, KxIpclibBootstrapRequest& out)
{
    return parseBootstrapRequest(bytes.data(), bytes.size(), out);
}

constexpr auto kV1 = KxIpclibBootstrapProc::CreateSharedMemoryLink;
constexpr auto kV2 = KxIpclibBootstrapProc::CreateSharedMemoryLinkV2;

} // namespace

TEST(IpclibBootstrapWire, BothProceduresRoundTripWithTheDocumentedLayoutAndRefuseEveryCutOrExtraByte)
{
    for (auto proc : {kV1, kV2}) {
        SCOPED_TRACE(static_cast<uint32_t>(proc));
        const auto in = Sample(proc);
        const auto bytes = encodeBootstrapRequest(in);
        // Header, then the counted name (version 1) or the terminated one (version 2), then the size.
        ASSERT_EQ(bytes.size(), kBootstrapRequestHeaderSize + (proc == kV1 ? 4 + 2 * 12 : 2 * 12 + 2) + 4);
        EXPECT_EQ(LoadLe<uint32_t>(bytes.data()), static_cast<uint32_t>(proc));
        EXPECT_EQ(LoadLe<uint32_t>(bytes.data() + 4), 0x875ac244u);
        EXPECT_EQ(bytes[12], 0x90);
        EXPECT_EQ(LoadLe<uint64_t>(bytes.data() + 24), in.clientLinkId);
        EXPECT_EQ(LoadLe<uint64_t>(bytes.data() + 36), in.clientStreamId);
        KxIpclibBootstrapRequest out;
        ASSERT_EQ(Parse(bytes, out), 0u);
        EXPECT_EQ(out.proc, proc);
        EXPECT_EQ(fmt::format("{}", out.endpoint), fmt::format("{}", in.endpoint));
        EXPECT_EQ(out.clientLinkId, in.clientLinkId);
        EXPECT_EQ(out.clientLinkFlags, in.clientLinkFlags);
        EXPECT_EQ(out.clientStreamId, in.clientStreamId);
        EXPECT_EQ(out.clientStreamFlags, in.clientStreamFlags);
        EXPECT_EQ(out.streamName, in.streamName);
        EXPECT_EQ(out.requestedSectionSize, in.requestedSectionSize);

        for (size_t n = 0; n < bytes.size(); ++n)
            EXPECT_EQ(Parse(std::vector<uint8_t>(bytes.begin(), bytes.begin() + n), out), kRpcStatusBadStubData)
                << "cut at " << n;
        auto longer = bytes;
        longer.push_back(0);
        EXPECT_EQ(Parse(longer, out), kRpcStatusBadStubData);
    }
}

TEST(IpclibBootstrapWire, ProcedureNumbersAndStreamNamesOutOfRange)
{
    KxIpclibBootstrapRequest out;
    auto bytes = encodeBootstrapRequest(Sample(kV2));
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
            SCOPED_TRACE(::testing::Message() << "version " << static_cast<uint32_t>(proc) + 1 << ", "
                                              << name.size() << " units");
            ASSERT_EQ(Parse(encodeBootstrapRequest(Sample(proc, name)), out), status);
            if (status == 0) {
                EXPECT_EQ(out.streamName, name);
            }
        }
    // A count that claims more than the datagram holds.
    auto lying = encodeBootstrapRequest(Sample(kV1, u"abc"));
    StoreLe<uint32_t>(lying.data() + kBootstrapRequestHeaderSize, 200);
    EXPECT_EQ(Parse(lying, out), kRpcStatusBadStubData);
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
    EXPECT_EQ(LoadLe<uint32_t>(bytes.data() + kBootstrapReplySize - 4), 7u);
    KxIpclibBootstrapReply out;
    ASSERT_TRUE(parseBootstrapReply(bytes.data(), bytes.size(), out));
    EXPECT_EQ(out.serverLinkId, in.serverLinkId);
    EXPECT_EQ(out.handles[10], 10u);
    EXPECT_EQ(out.serverPid, 4242u);
    EXPECT_EQ(out.serverStreamId, in.serverStreamId);
    EXPECT_EQ(out.status, KxIpcStatusAccessDenied);
    EXPECT_FALSE(parseBootstrapReply(bytes.data(), bytes.size() - 1, out));
}
