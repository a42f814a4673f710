// The peer's command line and its request/reply matching, without a worker:
// the transport seam is a function that answers like one.

#include "peer/DriveClient.h"
#include "peer/DriveSession.h"
#include "peer/InterruptWatch.h"
#include "peer/LocalDrivePath.h"
#include "peer/ProgressMeter.h"
#include "peer/NtStatusText.h"
#include "peer/PeerCommandLine.h"

#include "platform/LittleEndian.h"
#include <tolv/platform/NtStatus.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <thread>

using namespace tolv::worker;

namespace {

std::optional<PeerOptions> Parse(std::vector<std::string> args)
{
    std::string error;
    auto options = ParsePeerCommandLine(args, error);
    if (!options) {
        EXPECT_FALSE(error.empty());
    }
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
    if (!payload.empty())
        std::memcpy(record.data() + DR_RSP_HEADER_SIZE, payload.data(), payload.size());
    return record;
}

// The ioContext, offset and length of a read request as the peer encoded it.
struct ReadFields {
    uint64_t ioContext = 0;
    uint64_t offset = 0;
    uint32_t length = 0;
};

ReadFields DecodeRead(const std::vector<uint8_t>& record)
{
    DR_REQ_HEADER header;
    DecodeRequestHeader(record.data(), record.size(), header);
    tolv::platform::LeReader reader(record.data() + DR_REQ_HEADER_SIZE, record.size() - DR_REQ_HEADER_SIZE);
    uint32_t id = 0, reserved = 0;
    ReadFields fields;
    fields.ioContext = header.ioContext;
    reader.u32(id);
    reader.u32(reserved);
    reader.u64(fields.offset);
    reader.u32(fields.length);
    return fields;
}

// A successful read reply of `count` bytes, each its offset's low byte.
std::vector<uint8_t> OffsetBytesReply(uint64_t ioContext, uint64_t offset, uint32_t count)
{
    std::vector<uint8_t> payload(4 + count);
    tolv::platform::StoreLe<uint32_t>(payload.data(), count);
    for (uint32_t i = 0; i < count; ++i)
        payload[4 + i] = static_cast<uint8_t>(offset + i);
    return Reply(ioContext, 0, payload);
}

} // namespace

TEST(PeerCommandLine, StepsRunInOrderWithTheirArguments)
{
    auto options = Parse({"--timeout", "5", "--stream", "other", "query", "e:", "\\\\.\\loop3", "read", "E", "0x200",
                          "4096", "-", "write", "E", "512", "in.bin", "release", "e", "copy-out", "/dev/sdb",
                          "img", "copy-in", "img", "/dev/sdb"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->timeoutSeconds, 5u);
    EXPECT_EQ(options->streamName, "other");
    ASSERT_EQ(options->steps.size(), 6u);
    EXPECT_EQ(options->steps[0].kind, PeerStepKind::Query);
    EXPECT_EQ(options->steps[0].letter, 'E');
    EXPECT_EQ(options->steps[0].path, "\\\\.\\loop3");
    EXPECT_EQ(options->steps[1].offset, 0x200u);
    EXPECT_EQ(options->steps[1].length, 4096u);
    EXPECT_EQ(options->steps[1].file, "-");
    EXPECT_EQ(options->steps[2].offset, 512u);
    EXPECT_EQ(options->steps[3].kind, PeerStepKind::Release);
    EXPECT_EQ(options->steps[4].path, "/dev/sdb");
    EXPECT_EQ(options->steps[4].file, "img");
    EXPECT_EQ(options->steps[5].kind, PeerStepKind::CopyIn);
    EXPECT_EQ(options->steps[5].path, "/dev/sdb");
    EXPECT_EQ(options->steps[5].file, "img");
}

TEST(PeerCommandLine, RefusesWhatItCannotRun)
{
    auto help = Parse({"--help"});
    ASSERT_TRUE(help);
    EXPECT_TRUE(help->help);
    EXPECT_FALSE(Parse({}));
    EXPECT_FALSE(Parse({"--quiet"}));
    EXPECT_FALSE(Parse({"query", "E"}));
    EXPECT_FALSE(Parse({"query", "EE", "/x"}));
    EXPECT_FALSE(Parse({"query", "1", "/x"}));
    EXPECT_FALSE(Parse({"read", "E", "-1", "10", "out"}));
    EXPECT_FALSE(Parse({"read", "E", "0", "0", "out"}));
    EXPECT_FALSE(Parse({"read", "E", "0", "4294967296", "out"}));
    EXPECT_FALSE(Parse({"read", "E", "12x", "10", "out"}));
    EXPECT_FALSE(Parse({"frobnicate"}));
    EXPECT_FALSE(Parse({"--timeout", "0", "release", "E"}));
    EXPECT_FALSE(Parse({"--worker", "w", "--endpoint", "g", "release", "E"}));
    EXPECT_FALSE(Parse({"--worker"}));
    EXPECT_FALSE(Parse({"--bogus", "release", "E"}));
}

TEST(PeerCommandLine, OptionsAsLinuxToolsTakeThem)
{
    EXPECT_TRUE(Parse({"-h"})->help);
    EXPECT_TRUE(Parse({"--version"})->version);
    auto options = Parse({"-p", "--timeout=7", "--json", "--force", "--keep-partial", "--", "query", "E", "/x",
                          "query", "--json", "F", "/y"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->progress, ProgressMode::On);
    EXPECT_EQ(options->timeoutSeconds, 7u);
    EXPECT_TRUE(options->force);
    EXPECT_TRUE(options->keepPartial);
    EXPECT_TRUE(options->steps[0].json);
    EXPECT_TRUE(options->steps[1].json);
    EXPECT_FALSE(Parse({"query", "E", "/x"})->steps[0].json);
    EXPECT_TRUE(Parse({"query", "--json", "E", "/x"})->steps[0].json);
    EXPECT_EQ(Parse({"--progress", "--quiet", "release", "E"})->progress, ProgressMode::Off);
    EXPECT_EQ(Parse({"--no-progress", "-p", "release", "E"})->progress, ProgressMode::On);
    EXPECT_EQ(Parse({"release", "E"})->progress, ProgressMode::Auto);
    // Standard output holds either the data or the results.
    EXPECT_FALSE(Parse({"--json", "query", "E", "/x", "read", "E", "0", "1", "-"}));
    EXPECT_TRUE(Parse({"--json", "query", "E", "/x", "read", "E", "0", "1", "out"}));
    EXPECT_FALSE(Parse({"-x", "release", "E"}));
    EXPECT_FALSE(Parse({"--timeout"}));
}

TEST(PeerCommandLine, ByteCountsAreDecimalWithBinarySuffixesOrHex)
{
    struct Row {
        const char* text;
        std::optional<uint64_t> value;
    };
    const Row rows[] = {
        {"0", 0},
        {"4096", 4096},
        {"010", 10},  // never octal
        {"08", 8},
        {"1K", 1024},
        {"1k", 1024},
        {"3KiB", 3072},
        {"2M", 2u << 20},
        {"5MiB", 5u << 20},
        {"1G", 1ull << 30},
        {"7GiB", 7ull << 30},
        {"2T", 2ull << 40},
        {"1TiB", 1ull << 40},
        {"0x1f", 0x1f},
        {"0X1F", 0x1f},
        {"0xffffffffffffffff", UINT64_MAX},
        {"18446744073709551615", UINT64_MAX},
        {"16777215T", 16777215ull << 40},
        {"16777216T", std::nullopt},  // past 2^64-1
        {"18446744073709551616", std::nullopt},
        {"0x10000000000000000", std::nullopt},
        {"", std::nullopt},
        {"K", std::nullopt},
        {"1KB", std::nullopt},  // 1000 or 1024: refused rather than guessed
        {"1Ki", std::nullopt},
        {"1P", std::nullopt},
        {"1.5M", std::nullopt},
        {"0x", std::nullopt},
        {"0x1K", std::nullopt},
        {"-1", std::nullopt},
        {"+1", std::nullopt},
        {" 1", std::nullopt},
        {"1 ", std::nullopt},
        {"0b101", std::nullopt},
    };
    for (const Row& row : rows) {
        uint64_t value = 12345;
        const bool parsed = ParseByteCount(row.text, value);
        EXPECT_EQ(parsed, row.value.has_value()) << '"' << row.text << '"';
        if (parsed && row.value) {
            EXPECT_EQ(value, *row.value) << '"' << row.text << '"';
        }
    }
}

TEST(LocalDrivePath, RelativePathsBecomeAbsoluteAndDeviceNamesMapToTheirNodes)
{
    const auto relative = LocalDrivePath::Resolve("images/disk.img", "/srv/data");
    EXPECT_EQ(relative.sent(), "/srv/data/images/disk.img");
    EXPECT_EQ(relative.given(), "images/disk.img");
    EXPECT_FALSE(relative.isDevice());
    const auto backslash = LocalDrivePath::Resolve("\\\\.\\mapper\\vg-root");
    EXPECT_TRUE(backslash.isDevice());
    EXPECT_EQ(backslash.sent(), "\\\\.\\mapper\\vg-root");
    EXPECT_EQ(backslash.devicePath(), "/dev/mapper/vg-root");
    // Only a block device under /dev is sent as a device: /dev/null is a file path.
    const auto null = LocalDrivePath::Resolve("/dev/null");
    EXPECT_FALSE(null.isDevice());
    EXPECT_EQ(null.sent(), "/dev/null");
    EXPECT_EQ(null.WhyNotOpenable(), "not a regular file or block device");
    EXPECT_EQ(LocalDrivePath::Resolve("/nonexistent/x").WhyNotOpenable(), "no such file or directory");
    EXPECT_EQ(LocalDrivePath::Resolve("/").WhyNotOpenable(), "is a directory");
}

TEST(ProgressMeter, ShowsPercentBytesRateAndTimeLeft)
{
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    ASSERT_NE(out, nullptr);
    {
        ProgressMeter meter(out, false, "copy-out");
        const auto start = ProgressMeter::Clock::now();
        meter.Update(1u << 20, 100u << 20, start + std::chrono::seconds(1));  // too soon for a line
        meter.Update(25u << 20, 100u << 20, start + std::chrono::seconds(10));
        meter.Update(100u << 20, 100u << 20, start + std::chrono::seconds(40));
        meter.Update(100u << 20, 100u << 20, start + std::chrono::seconds(41));  // finished already
    }
    std::fclose(out);
    const std::string shown(text, size);
    std::free(text);
    // The rate is from the meter's start, so the times are approximate: the
    // meter began a moment before `start`.
    EXPECT_EQ(shown,
              "copy-out  25% 25.0 MiB of 100.0 MiB, 2.5 MiB/s, 0:30 left\n"
              "copy-out 100% 100.0 MiB of 100.0 MiB, 2.5 MiB/s, in 0:40\n");
    EXPECT_EQ(ProgressMeter::Bytes(1023), "1023 B");
    EXPECT_EQ(ProgressMeter::Bytes(1536), "1.5 KiB");
    EXPECT_EQ(ProgressMeter::Duration(3725), "1:02:05");
}

TEST(InterruptWatch, ASignalBecomesAFlagAndOneCallOnTheWatchThread)
{
    InterruptWatch watch;
    DriveClient client([](std::shared_ptr<const std::vector<uint8_t>>) { return true; });
    watch.OnInterrupt([&client] { client.Interrupt(); });
    const uint64_t io = client.NextIoContext();
    ASSERT_TRUE(client.Submit(io, EncodeReleaseDiskRequest(io, 'E')));
    ASSERT_EQ(kill(getpid(), SIGTERM), 0);  // blocked here, so it goes to the watch
    std::string error;
    EXPECT_FALSE(client.Wait(io, std::chrono::minutes(5), error));
    EXPECT_EQ(error, "interrupted");
    EXPECT_EQ(watch.signal(), SIGTERM);
    // No new requests; a release still goes out.
    EXPECT_FALSE(client.Submit(client.NextIoContext(), EncodeReleaseDiskRequest(0, 'E')));
    EXPECT_TRUE(client.SendOnly(EncodeReleaseDiskRequest(0, 'E')));
    // A callback set after the signal runs at once.
    bool called = false;
    watch.OnInterrupt([&called] { called = true; });
    EXPECT_TRUE(called);
}

TEST(NtStatusText, NamesTheStatusInWords)
{
    EXPECT_EQ(NtStatusText(0xC0000011), "STATUS_END_OF_FILE (0xC0000011): end of file");
    EXPECT_EQ(NtStatusText(0xC00000A2).rfind("STATUS_MEDIA_WRITE_PROTECTED", 0), 0u);
    EXPECT_EQ(NtStatusText(0xC0001234), "NT status 0xC0001234");
}

TEST(DriveClient, RepliesFindTheirRequestsWhateverTheirOrder)
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
    auto truncated = replyA;
    truncated.resize(DR_RSP_HEADER_SIZE + 2);  // payload shorter than it says
    client.OnMessage(truncated.data(), truncated.size());
    client.OnMessage(replyA.data(), replyA.size());
    EXPECT_EQ(client.StrayReplies(), 3u);

    std::string error;
    auto gotA = client.Wait(a, std::chrono::seconds(5), error);
    auto gotB = client.Wait(b, std::chrono::seconds(5), error);
    ASSERT_TRUE(gotA && gotB) << error;
    EXPECT_EQ(gotA->payload[4], 'a');
    EXPECT_EQ(gotB->payload[4], 'b');
}

TEST(DriveClient, NeverHandsOutTheNoResponseContextAndStopsWhenTheChannelGoesDown)
{
    DriveClient client([](std::shared_ptr<const std::vector<uint8_t>>) { return true; });
    for (uint64_t i = 0; i < 5; ++i)
        ASSERT_NE(client.NextIoContext(), DR_IOCONTEXT_NO_RESPONSE);

    const uint64_t io = client.NextIoContext();
    ASSERT_TRUE(client.Submit(io, EncodeReleaseDiskRequest(io, 'E')));
    std::thread down([&] { client.OnMessage(nullptr, 0); });
    std::string error;
    EXPECT_FALSE(client.Wait(io, std::chrono::minutes(5), error));
    down.join();
    EXPECT_EQ(error, "the worker closed the command stream");
    EXPECT_TRUE(client.ChannelDown());
    EXPECT_FALSE(client.Submit(client.NextIoContext(), EncodeReleaseDiskRequest(0, 'E')));
    EXPECT_FALSE(client.SendOnly(EncodeReleaseDiskRequest(0, 'E')));
}

TEST(DriveSession, ReadAllKeepsAWindowInFlightAndChecksEveryCount)
{
    // A worker that answers every read with bytes equal to their offset's low byte.
    std::vector<std::shared_ptr<const std::vector<uint8_t>>> queue;
    DriveClient* clientRef = nullptr;
    size_t maxInFlight = 0;
    uint32_t shortAt = UINT32_MAX;
    const uint64_t rangeEnd = 3 * DriveSession::kChunk + 123;
    DriveClient client([&](std::shared_ptr<const std::vector<uint8_t>> record) {
        queue.push_back(std::move(record));
        maxInFlight = std::max(maxInFlight, queue.size());
        // Hold the first request back until a second one is sent, so the test
        // fails if the session waits for each reply before sending on; the
        // last request of the range is answered at once.
        const ReadFields last = DecodeRead(*queue.back());
        if (queue.size() < 2 && last.offset + last.length < rangeEnd)
            return true;
        for (auto& r : queue) {
            const auto [ioContext, offset, length] = DecodeRead(*r);
            auto reply = OffsetBytesReply(ioContext, offset, offset == shortAt ? length - 1 : length);
            clientRef->OnMessage(reply.data(), reply.size());
        }
        queue.clear();
        return true;
    });
    clientRef = &client;
    DriveSession session(client, std::chrono::seconds(30));

    const uint64_t size = rangeEnd;
    uint64_t received = 0;
    bool inOrder = true;
    uint32_t crc = 0;
    uint64_t done = 0;
    std::string error;
    ASSERT_TRUE(session.ReadRange(
        'E', 0, size,
        [&](const uint8_t* bytes, size_t count) {
            for (size_t i = 0; i < count; ++i)
                inOrder = inOrder && bytes[i] == static_cast<uint8_t>(received + i);
            received += count;
            return true;
        },
        false, crc, done, nullptr, error))
        << error;
    EXPECT_EQ(received, size);
    EXPECT_EQ(done, size);
    EXPECT_TRUE(inOrder);
    EXPECT_GT(maxInFlight, 1u);

    shortAt = DriveSession::kChunk;  // the worker returns one byte less for the second chunk
    auto ignore = [](const uint8_t*, size_t) { return true; };
    EXPECT_FALSE(session.ReadRange('E', 0, size, ignore, false, crc, done, nullptr, error));
    EXPECT_NE(error.find("returned"), std::string::npos) << error;
    // Allowed, a short reply ends the range where the drive ends.
    ASSERT_TRUE(session.ReadRange('E', 0, size, ignore, true, crc, done, nullptr, error)) << error;
    EXPECT_EQ(done, 2 * DriveSession::kChunk - 1);
}

TEST(DriveSession, AReadLongerThanOneRequestIsSplitIntoRepliesThatFitAndPutBackInOrder)
{
    // A drive of `driveEnd` bytes, each equal to its offset's low byte.
    uint64_t driveEnd = 2 * uint64_t{DriveSession::kChunk} + 100;
    std::vector<uint32_t> lengths;
    DriveClient* clientRef = nullptr;
    DriveClient client([&](std::shared_ptr<const std::vector<uint8_t>> record) {
        const auto [ioContext, offset, length] = DecodeRead(*record);
        lengths.push_back(length);
        if (offset >= driveEnd) {
            auto reply = Reply(ioContext, tolv::platform::STATUS_END_OF_FILE, {});
            clientRef->OnMessage(reply.data(), reply.size());
            return true;
        }
        auto reply = OffsetBytesReply(ioContext, offset,
                                      static_cast<uint32_t>(std::min<uint64_t>(length, driveEnd - offset)));
        clientRef->OnMessage(reply.data(), reply.size());
        return true;
    });
    clientRef = &client;
    DriveSession session(client, std::chrono::seconds(30));
    auto inOrder = [](const std::vector<uint8_t>& data, uint64_t from) {
        for (size_t i = 0; i < data.size(); ++i)
            if (data[i] != static_cast<uint8_t>(from + i))
                return false;
        return true;
    };

    std::vector<uint8_t> data;
    std::string error;
    ASSERT_TRUE(session.Read('E', 7, 2 * DriveSession::kChunk + 50, data, error)) << error;
    EXPECT_EQ(data.size(), 2 * DriveSession::kChunk + 50);
    EXPECT_TRUE(inOrder(data, 7));
    EXPECT_EQ(lengths.size(), 3u);
    for (uint32_t length : lengths)
        EXPECT_LE(length, DriveSession::kChunk);

    // Past the drive's end the read comes back short, whichever request finds it.
    driveEnd = DriveSession::kChunk + 10;
    ASSERT_TRUE(session.Read('E', 0, 3 * DriveSession::kChunk, data, error)) << error;
    EXPECT_EQ(data.size(), DriveSession::kChunk + 10);
    EXPECT_TRUE(inOrder(data, 0));
    // One request's worth or less is one request, as before.
    lengths.clear();
    ASSERT_TRUE(session.Read('E', 4096, 4096, data, error)) << error;
    EXPECT_EQ(lengths.size(), 1u);
    EXPECT_TRUE(inOrder(data, 4096));
    // A read that starts past the end fails with the drive's status.
    EXPECT_FALSE(session.Read('E', driveEnd, 2 * DriveSession::kChunk, data, error));
    EXPECT_NE(error.find("STATUS_END_OF_FILE"), std::string::npos) << error;
}
