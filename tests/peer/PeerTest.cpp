// The peer's command line and its request/reply matching, without a worker:
// the transport seam is a function that answers like one.

#include "peer/DriveClient.h"
#include "peer/DriveSession.h"
#include "peer/PeerCommandLine.h"

#include "platform/LittleEndian.h"
#include <tolv/platform/NtStatus.h>

#include <gtest/gtest.h>

#include <thread>

using namespace tolv::worker;
using tolv::platform::LoadLe;

namespace {

std::optional<PeerOptions> Parse(std::vector<std::string> args)
{
    std::string error;
    auto options = ParsePeerCommandLine(args, error);
    EXPECT_EQ(options.has_value(), error.empty()) << error;
    return options;
}

std::vector<uint8_t> Reply(uint64_t ioContext, uint32_t status, const std::vector<uint8_t>& payload)
{
    std::vector<uint8_t> record(DR_RSP_HEADER_SIZE + payload.size());
    DR_RSP_HEADER header;
    header.ioContext = ioContext;
    header.status = status;
    header.information = payload.size() >= 4 ? payload.size() - 4 : 0;
    header.payloadLength = static_cast<uint32_t>(payload.size());
    EncodeResponseHeader(record.data(), header);
    std::copy(payload.begin(), payload.end(), record.begin() + DR_RSP_HEADER_SIZE);
    return record;
}

// A worker for a drive of `driveEnd` bytes, each its offset's low byte; the
// read at `shortAt` gets one byte less than asked.
struct FakeReadWorker {
    struct ReadFields {
        uint64_t ioContext = 0;
        uint64_t offset = 0;
        uint32_t length = 0;
    };
    static ReadFields Decode(const std::vector<uint8_t>& record)  // ioContext, offset, length
    {
        return {LoadLe<uint64_t>(&record.at(0)), LoadLe<uint64_t>(&record.at(32)), LoadLe<uint32_t>(&record.at(40))};
    }

    uint64_t driveEnd = UINT64_MAX;
    uint64_t shortAt = UINT64_MAX;
    // A lone request waits for a second unless it is the drive's last: a
    // session that awaits each reply before sending on never ends.
    bool holdFirst = false;
    std::vector<uint32_t> lengths;
    size_t maxInFlight = 0;
    std::vector<ReadFields> queue;
    DriveClient client{[this](std::shared_ptr<const std::vector<uint8_t>> record) {
        queue.push_back(Decode(*record));
        lengths.push_back(queue.back().length);
        maxInFlight = std::max(maxInFlight, queue.size());
        if (holdFirst && queue.size() < 2 && queue.back().offset + queue.back().length < driveEnd)
            return true;
        for (const ReadFields& read : queue) {
            std::vector<uint8_t> reply;
            if (read.offset >= driveEnd) {
                reply = Reply(read.ioContext, tolv::platform::STATUS_END_OF_FILE, {});
            } else {
                uint32_t count = static_cast<uint32_t>(std::min<uint64_t>(read.length, driveEnd - read.offset));
                count -= read.offset == shortAt;
                std::vector<uint8_t> payload(4 + count);
                tolv::platform::StoreLe<uint32_t>(payload.data(), count);
                for (uint32_t i = 0; i < count; ++i)
                    payload[4 + i] = static_cast<uint8_t>(read.offset + i);
                reply = Reply(read.ioContext, 0, payload);
            }
            client.OnMessage(reply.data(), reply.size());
        }
        queue.clear();
        return true;
    }};
};

bool OffsetBytes(const std::vector<uint8_t>& data, uint64_t from)
{
    for (size_t i = 0; i < data.size(); ++i)
        if (data[i] != static_cast<uint8_t>(from + i))
            return false;
    return true;
}

} // namespace

TEST(PeerCommandLine, OptionsAsLinuxToolsTakeThemAndRefusalsOfWhatItCannotRun)
{
    auto options = Parse({"--timeout=7", "--", "query", "e:", "/x", "query", "--json", "F", "/y"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->timeoutSeconds, 7u);
    EXPECT_EQ(options->steps.at(0).letter, 'E');
    EXPECT_TRUE(options->steps.at(1).json && !options->steps.at(0).json);
    // The last of the progress options wins; without one, a terminal decides.
    EXPECT_EQ(Parse({"--progress", "--quiet", "release", "E"})->progress, ProgressMode::Off);
    EXPECT_EQ(Parse({"--no-progress", "-p", "release", "E"})->progress, ProgressMode::On);
    EXPECT_EQ(Parse({"release", "E"})->progress, ProgressMode::Auto);
    const std::vector<std::vector<std::string>> refused = {
        {}, {"--quiet"}, {"query", "E"}, {"query", "EE", "/x"}, {"query", "1", "/x"},
        {"read", "E", "-1", "10", "out"}, {"read", "E", "0", "0", "out"}, {"read", "E", "0", "4294967296", "out"},
        {"read", "E", "12x", "10", "out"}, {"frobnicate"}, {"--timeout", "0", "release", "E"}, {"--timeout"},
        {"--worker", "w", "--endpoint", "g", "release", "E"}, {"--worker"}, {"--bogus", "release", "E"},
        {"-x", "release", "E"},
        {"--json", "query", "E", "/x", "read", "E", "0", "1", "-"}};  // standard output holds data or results
    for (size_t i = 0; i < refused.size(); ++i)
        EXPECT_FALSE(Parse(refused[i])) << "refusal " << i;
}

TEST(PeerCommandLine, ByteCountsAreDecimalWithBinarySuffixesOrHex)
{
    const std::pair<const char*, std::optional<uint64_t>> rows[] = {
        {"0", 0}, {"4096", 4096}, {"010", 10} /* never octal */, {"08", 8}, {"1K", 1024}, {"1k", 1024},
        {"3KiB", 3072}, {"2M", 2u << 20}, {"5MiB", 5u << 20}, {"1G", 1ull << 30}, {"7GiB", 7ull << 30},
        {"2T", 2ull << 40}, {"1TiB", 1ull << 40}, {"0x1f", 0x1f}, {"0X1F", 0x1f},
        {"0xffffffffffffffff", UINT64_MAX}, {"18446744073709551615", UINT64_MAX},
        {"16777215T", 16777215ull << 40},
        // Refused: past 2^64-1, 1000 or 1024 (rather than guessed), and all else.
        {"16777216T", {}}, {"18446744073709551616", {}}, {"0x10000000000000000", {}}, {"1KB", {}},
        {"", {}}, {"K", {}}, {"1Ki", {}}, {"1P", {}}, {"1.5M", {}}, {"0x", {}}, {"0x1K", {}}, {"-1", {}},
        {"+1", {}}, {" 1", {}}, {"1 ", {}}, {"0b101", {}}};
    for (const auto& row : rows) {
        uint64_t value = 12345;
        const bool parsed = ParseByteCount(row.first, value);
        EXPECT_EQ(parsed ? std::optional<uint64_t>(value) : std::nullopt, row.second) << '"' << row.first << '"';
    }
}

TEST(DriveClient, RepliesFindTheirRequestsWhateverTheirOrderUntilTheChannelGoesDown)
{
    std::vector<std::shared_ptr<const std::vector<uint8_t>>> sent;
    DriveClient client([&](std::shared_ptr<const std::vector<uint8_t>> record) {
        sent.push_back(std::move(record));
        return true;
    });
    const uint64_t a = client.NextIoContext();
    const uint64_t b = client.NextIoContext();
    ASSERT_NE(a, b);
    ASSERT_TRUE(client.Submit(a, EncodeReadRequest(a, 'E', 0, 0, 4)));
    ASSERT_TRUE(client.Submit(b, EncodeReadRequest(b, 'E', 0, 4, 4)));
    EXPECT_FALSE(client.Submit(a, EncodeReadRequest(a, 'E', 0, 0, 4)));  // one request per ioContext
    ASSERT_EQ(sent.size(), 2u);

    auto replyB = Reply(b, 0, {4, 0, 0, 0, 'b', 'b', 'b', 'b'});
    auto replyA = Reply(a, 0, {4, 0, 0, 0, 'a', 'a', 'a', 'a'});
    client.OnMessage(replyB.data(), replyB.size());
    client.OnMessage(replyB.data(), replyB.size());  // a second answer to the same request is stray
    auto unknown = Reply(99, 0, {});
    client.OnMessage(unknown.data(), unknown.size());
    client.OnMessage(replyA.data(), DR_RSP_HEADER_SIZE + 2);  // payload shorter than it says
    client.OnMessage(replyA.data(), DR_RSP_HEADER_SIZE - 1);  // not even a header
    client.OnMessage(replyA.data(), replyA.size());
    EXPECT_EQ(client.StrayReplies(), 4u);

    std::string error;
    auto gotA = client.Wait(a, std::chrono::seconds(5), error);
    auto gotB = client.Wait(b, std::chrono::seconds(5), error);
    ASSERT_TRUE(gotA && gotB) << error;
    EXPECT_EQ(gotA->payload[4], 'a');
    EXPECT_EQ(gotB->payload[4], 'b');

    // When the channel goes down, a waiter wakes and nothing more is sent.
    const uint64_t io = client.NextIoContext();
    ASSERT_TRUE(client.Submit(io, EncodeReleaseDiskRequest(io, 'E')));
    std::thread down([&] { client.OnMessage(nullptr, 0); });
    EXPECT_FALSE(client.Wait(io, std::chrono::minutes(5), error));
    down.join();
    EXPECT_EQ(error, "the worker closed the command stream");
    EXPECT_TRUE(client.ChannelDown());
    EXPECT_FALSE(client.Submit(client.NextIoContext(), EncodeReleaseDiskRequest(0, 'E')));
    EXPECT_FALSE(client.SendOnly(EncodeReleaseDiskRequest(0, 'E')));
}

TEST(DriveSession, ReadsKeepAWindowInFlightFitEachReplyAndCheckEveryCount)
{
    FakeReadWorker worker;
    worker.driveEnd = 3 * DriveSession::kChunk + 123;
    worker.holdFirst = true;
    DriveSession session(worker.client, std::chrono::seconds(30));
    const uint64_t size = worker.driveEnd;
    uint64_t received = 0;
    bool inOrder = true;
    uint32_t crc = 0;
    uint64_t done = 0;
    std::string error;
    ASSERT_TRUE(session.ReadRange(
        'E', 0, size,
        [&](const uint8_t* bytes, size_t count) {
            inOrder = inOrder && OffsetBytes(std::vector<uint8_t>(bytes, bytes + count), received);
            received += count;
            return true;
        },
        false, crc, done, nullptr, error))
        << error;
    EXPECT_EQ(received, size);
    EXPECT_EQ(done, size);
    EXPECT_TRUE(inOrder);
    EXPECT_GT(worker.maxInFlight, 1u);

    worker.shortAt = DriveSession::kChunk;  // one byte less for the second chunk
    auto ignore = [](const uint8_t*, size_t) { return true; };
    EXPECT_FALSE(session.ReadRange('E', 0, size, ignore, false, crc, done, nullptr, error));
    EXPECT_NE(error.find("returned"), std::string::npos) << error;
    // Allowed, a short reply ends the range where the drive ends.
    ASSERT_TRUE(session.ReadRange('E', 0, size, ignore, true, crc, done, nullptr, error)) << error;
    EXPECT_EQ(done, 2 * DriveSession::kChunk - 1);

    // A read longer than one request is split into replies that fit, put back in order.
    worker.holdFirst = false;
    worker.shortAt = UINT64_MAX;
    worker.driveEnd = 2 * uint64_t{DriveSession::kChunk} + 100;
    worker.lengths.clear();
    std::vector<uint8_t> data;
    ASSERT_TRUE(session.Read('E', 7, 2 * DriveSession::kChunk + 50, data, error)) << error;
    EXPECT_EQ(data.size(), 2 * DriveSession::kChunk + 50);
    EXPECT_TRUE(OffsetBytes(data, 7));
    EXPECT_EQ(worker.lengths.size(), 3u);
    for (uint32_t length : worker.lengths)
        EXPECT_LE(length, DriveSession::kChunk);

    // Past the drive's end the read comes back short, whichever request finds it.
    worker.driveEnd = DriveSession::kChunk + 10;
    ASSERT_TRUE(session.Read('E', 0, 3 * DriveSession::kChunk, data, error)) << error;
    EXPECT_EQ(data.size(), DriveSession::kChunk + 10);
    EXPECT_TRUE(OffsetBytes(data, 0));
    // One request's worth or less is one request, as before.
    worker.lengths.clear();
    ASSERT_TRUE(session.Read('E', 4096, 4096, data, error)) << error;
    EXPECT_EQ(worker.lengths.size(), 1u);
    EXPECT_TRUE(OffsetBytes(data, 4096));
    // A read that starts past the end fails with the drive's status.
    EXPECT_FALSE(session.Read('E', worker.driveEnd, 2 * DriveSession::kChunk, data, error));
    EXPECT_NE(error.find("STATUS_END_OF_FILE"), std::string::npos) << error;
}
