#include <tamsel/ipc/ipclibBlock.h>
#include <tamsel/ipc/ipclibMsg.h>

#include "common/LogCapture.h"
#include "platform/LittleEndian.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

using namespace tolv::log;

using namespace tamsel::ipc;
using tolv::platform::LoadLe;

namespace {

std::vector<uint8_t> Bytes(size_t size, uint8_t seed)
{
    std::vector<uint8_t> out(size);
    for (size_t i = 0; i < size; ++i)
        out[i] = static_cast<uint8_t>(i * 13 + seed);
    return out;
}

std::shared_ptr<KxIpclibMsg> Outgoing(const std::vector<uint8_t>& data, uint32_t flags = 0,
                                      KxIpclibMsgType type = KxIpclibMsgType::Msg)
{
    return std::make_shared<KxIpclibMsg>(type, flags, 0, nullptr, 0x5300000000000011ull, 0x5300000000000022ull,
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

} // namespace

TEST(KxIpclibBlock, EmptyMessageIsOneFortyByteBlock)
{
    auto msg = Outgoing({});
    const auto blocks = Cut(*msg, 4096);
    ASSERT_EQ(blocks.size(), 1u);
    ASSERT_EQ(blocks[0].size(), 40u);
    EXPECT_EQ(LoadLe<uint32_t>(blocks[0].data() + 0), 6u);            // Msg
    EXPECT_EQ(LoadLe<uint32_t>(blocks[0].data() + 4), 0x0003u);       // first and last
    EXPECT_EQ(LoadLe<uint64_t>(blocks[0].data() + 12), 0x5300000000000011ull);
    EXPECT_EQ(LoadLe<uint64_t>(blocks[0].data() + 20), 0x5300000000000022ull);
    EXPECT_EQ(LoadLe<uint32_t>(blocks[0].data() + 28), 40u);
    EXPECT_EQ(LoadLe<uint32_t>(blocks[0].data() + 32), 0u);
    EXPECT_EQ(LoadLe<uint32_t>(blocks[0].data() + 36), 0u);
}

TEST(KxIpclibBlock, SplitsExactlyAtTheRoomBoundary)
{
    constexpr uint32_t kRoom = 1000;
    // room - 40 bytes fit in one block.
    auto data = Bytes(kRoom - 40, 1);
    auto fits = Outgoing(data, 0xABCD0001u);
    auto blocks = Cut(*fits, kRoom);
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].size(), kRoom);
    EXPECT_EQ(LoadLe<uint32_t>(blocks[0].data() + 4), 0xABCD0003u);  // upper bits carried, bit 0 of the message not

    // One byte more: a full first block, then a 36-byte header with the last flag only.
    data = Bytes(kRoom - 39, 2);
    auto spills = Outgoing(data, 0xABCD0000u);
    blocks = Cut(*spills, kRoom);
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[0].size(), kRoom);
    EXPECT_EQ(LoadLe<uint32_t>(blocks[0].data() + 4), 0xABCD0001u);
    EXPECT_EQ(LoadLe<uint32_t>(blocks[0].data() + 36), kRoom - 39);  // totalSize
    EXPECT_EQ(blocks[1].size(), 36u + 1u);
    EXPECT_EQ(LoadLe<uint32_t>(blocks[1].data() + 4), 0xABCD0002u);
    EXPECT_EQ(LoadLe<uint32_t>(blocks[1].data() + 28), 37u);
    EXPECT_EQ(LoadLe<uint32_t>(blocks[1].data() + 32), 1u);
    EXPECT_EQ(blocks[1][36], data.back());

    // No block starts in 40 bytes or less.
    const auto tenBytes = Bytes(10, 3);  // the message only references them
    auto another = Outgoing(tenBytes);
    uint8_t small[40];
    EXPECT_EQ(writeBlock(*another, small, 40), 0u);
    EXPECT_EQ(another->remaining(), 10u);
    uint8_t just[41];
    EXPECT_EQ(writeBlock(*another, just, 41), 41u);  // one payload byte
    EXPECT_EQ(another->remaining(), 9u);
}

TEST(KxIpclibBlock, BlocksReassembleIntoTheSameMessage)
{
    for (uint32_t size : {1u, 63u, 64u, 4096u, 100000u}) {
        for (uint32_t room : {41u, 77u, 4096u, 65536u}) {
            SCOPED_TRACE(std::to_string(size) + " bytes in rooms of " + std::to_string(room));
            const auto data = Bytes(size, static_cast<uint8_t>(size + room));
            auto out = Outgoing(data, 0x12340000u);
            std::shared_ptr<KxIpclibMsg> in;
            for (const auto& raw : Cut(*out, room)) {
                KxIpclibBlock block;
                ASSERT_EQ(readBlock(raw.data(), raw.size(), block), KxIpcStatusSuccess);
                if (block.header.first())
                    in = std::make_shared<KxIpclibMsg>(static_cast<KxIpclibMsgType>(block.header.msgType),
                                                       block.header.flags, block.header.status,
                                                       block.header.srcStreamId, block.header.destStreamId,
                                                       block.header.totalSize);
                ASSERT_TRUE(in);
                ASSERT_EQ(in->appendData(block.header.payloadLength, block.payload), KxIpcStatusSuccess);
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

namespace {

std::vector<uint8_t> RawBlock(uint32_t type, uint32_t flags, uint64_t dest, uint32_t blockLength,
                              uint32_t payloadLength, size_t bufferSize)
{
    std::vector<uint8_t> raw(bufferSize, 0xEE);
    tolv::platform::StoreLe<uint32_t>(raw.data() + 0, type);
    tolv::platform::StoreLe<uint32_t>(raw.data() + 4, flags);
    tolv::platform::StoreLe<uint32_t>(raw.data() + 8, 0);
    tolv::platform::StoreLe<uint64_t>(raw.data() + 12, 0x53);
    tolv::platform::StoreLe<uint64_t>(raw.data() + 20, dest);
    tolv::platform::StoreLe<uint32_t>(raw.data() + 28, blockLength);
    tolv::platform::StoreLe<uint32_t>(raw.data() + 32, payloadLength);
    if (raw.size() >= 40 && (flags & 1))
        tolv::platform::StoreLe<uint32_t>(raw.data() + 36, payloadLength);
    return raw;
}

KxIpcStatusCode Read(const std::vector<uint8_t>& raw, size_t available = SIZE_MAX)
{
    KxIpclibBlock block;
    return readBlock(raw.data(), std::min(available, raw.size()), block);
}

} // namespace

TEST(KxIpclibBlock, MalformedHeadersAreProtocolErrors)
{
    constexpr auto kBad = KxIpcStatusProtocolError;
    // Well formed, for contrast.
    EXPECT_EQ(Read(RawBlock(6, 3, 9, 45, 5, 45)), KxIpcStatusSuccess);
    EXPECT_EQ(Read(RawBlock(6, 2, 9, 41, 5, 41)), KxIpcStatusSuccess);  // continuation: 36 + 5
    EXPECT_EQ(Read(RawBlock(1, 3, 0, 44, 4, 44)), KxIpcStatusSuccess);  // open to stream 0
    EXPECT_EQ(Read(RawBlock(3, 3, 9, 40, 0, 40)), KxIpcStatusSuccess);  // close
    EXPECT_EQ(Read(RawBlock(6, 3, 9, 40, 0, 40)), KxIpcStatusSuccess);  // an empty message
    EXPECT_EQ(Read(RawBlock(6, 2, 9, 36, 0, 36)), KxIpcStatusSuccess);  // an empty continuation
    EXPECT_EQ(Read(RawBlock(6, 0x7FFF0003, 9, 45, 5, 45)), KxIpcStatusSuccess);

    EXPECT_EQ(Read(RawBlock(6, 3, 9, 45, 5, 45), 35), kBad);  // header cut short
    EXPECT_EQ(Read(RawBlock(6, 3, 9, 45, 5, 45), 39), kBad);  // first block needs 40
    EXPECT_EQ(Read(RawBlock(6, 3, 9, 45, 5, 45), 44), kBad);  // payload past the end
    EXPECT_EQ(Read(RawBlock(0, 3, 9, 45, 5, 45)), kBad);      // type None
    EXPECT_EQ(Read(RawBlock(7, 3, 9, 45, 5, 45)), kBad);      // unknown type
    EXPECT_EQ(Read(RawBlock(2, 3, 9, 41, 1, 41)), kBad);      // control with payload
    EXPECT_EQ(Read(RawBlock(4, 1, 9, 40, 0, 40)), kBad);      // control not a single block
    EXPECT_EQ(Read(RawBlock(5, 2, 9, 36, 0, 40)), kBad);
    EXPECT_EQ(Read(RawBlock(1, 3, 5, 44, 4, 44)), kBad);      // open addressed to a stream
    EXPECT_EQ(Read(RawBlock(6, 3, 9, 46, 5, 46)), kBad);      // blockLength != header + payload
    EXPECT_EQ(Read(RawBlock(6, 3, 9, 45, 0xFFFFFFFD, 45)), kBad);  // a payload length that wraps the sum
    EXPECT_EQ(Read(RawBlock(6, 7, 9, 45, 5, 45)), kBad);      // unknown low flag bit
    EXPECT_EQ(Read(RawBlock(6, 0x8003, 9, 45, 5, 45)), kBad);
    EXPECT_EQ(readBlock(nullptr, 100, *std::make_unique<KxIpclibBlock>()), kBad);
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

    auto empty = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, 0, 0, 1, 2, 0);
    EXPECT_EQ(empty->appendData(0, nullptr), KxIpcStatusSuccess);

    const std::vector<uint8_t> data = {1, 2, 3};
    auto out = Outgoing(data);
    EXPECT_EQ(out->appendData(0, nullptr), KxIpcStatusInvalidState);  // the sender's bytes are never written
    EXPECT_EQ(out->data(), data.data());                              // and never copied
}

TEST(KxIpclibMsg, SendCompleteCallsTheCompletionOnceWithItself)
{
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
}

TEST(KxIpclibMsg, TraceLinesGoToTheMessageLogger)
{
    ScopedLogCapture log(LOG_LEVEL_VERBOSE);
    uint64_t id = 0;
    {
        auto msg = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::Msg, 0, 0, 0x53000000000000AAull,
                                                 0x53000000000000BBull, 4);
        id = msg->msgId();
        msg->appendData(4, "abcd");
    }
    const std::string note = fmt::format("- srcStreamId: 0x53000000000000aa, destStreamId: 0x53000000000000bb, msgId: {}", id);
    EXPECT_EQ(log.Count(note, "KxIpclibMsg"), 1u);
    EXPECT_EQ(log.Count(note, "~KxIpclibMsg"), 1u);
    EXPECT_EQ(log.Count(fmt::format("< srcStreamId: 0x53000000000000aa, destStreamId: 0x53000000000000bb, msgId: {}, ", id),
                        "appendData"),
              1u);
    for (const auto& line : log.Lines()) {
        EXPECT_EQ(line.loggerName, "ipc::msg");
        EXPECT_EQ(line.level, 6);
    }
}
