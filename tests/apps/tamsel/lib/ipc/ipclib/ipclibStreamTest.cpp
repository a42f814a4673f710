// Streams over two links joined back to back in one process: the open and
// close handshakes, ordered delivery, the close timer, and what a hostile
// peer's blocks do.

#include "LoopbackLink.h"
#include "common/ProcessProbe.h"

#include <tamsel/ipc/ipclibStream.h>
#include "task/LinuxThreadPoolExecutor.h"
#include "task/TaskTestSupport.h"

#include "common/LogCapture.h"
#include "platform/LittleEndian.h"

#include <gtest/gtest.h>

#include <cstring>

#include <condition_variable>
#include <deque>
#include <thread>

using namespace tolv::log;

using namespace tamsel::ipc;
using namespace tamsel::ipc::testing;
using namespace std::chrono_literals;

namespace {

// What one stream received: whole messages in order, and end-of-stream.
class Inbox {
public:
    explicit Inbox(std::function<void()> onEndOfStream = nullptr) : m_onEndOfStream(std::move(onEndOfStream)) {}

    KxIpclibRecvFunction function()
    {
        return [this](KxIpcStatusCode status, std::shared_ptr<KxIpclibMsg> msg) {
            EXPECT_EQ(status, KxIpcStatusSuccess);
            if (msg->size() == 0) {
                if (m_onEndOfStream)
                    m_onEndOfStream();
                std::lock_guard<std::mutex> guard(m_lock);
                ++m_endOfStream;
                m_eosAfter = m_messages.size();
            } else {
                std::lock_guard<std::mutex> guard(m_lock);
                m_messages.emplace_back(msg->data(), msg->data() + msg->size());
            }
            m_changed.notify_all();
        };
    }
    bool waitMessages(size_t count)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        return m_changed.wait_for(lock, kTestDeadline, [&] { return m_messages.size() >= count; });
    }
    bool waitEndOfStream()
    {
        std::unique_lock<std::mutex> lock(m_lock);
        return m_changed.wait_for(lock, kTestDeadline, [&] { return m_endOfStream > 0; });
    }
    std::vector<std::vector<uint8_t>> messages()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_messages;
    }
    int endOfStream()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_endOfStream;
    }
    size_t eosAfter()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_eosAfter;
    }

private:
    std::function<void()> m_onEndOfStream;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<std::vector<uint8_t>> m_messages;
    int m_endOfStream = 0;
    size_t m_eosAfter = 0;
};

std::vector<uint8_t> Bytes(size_t size, uint32_t seed)
{
    std::vector<uint8_t> out(size);
    for (size_t i = 0; i < size; ++i)
        out[i] = static_cast<uint8_t>((i * 31 + seed) ^ (i >> 7));
    return out;
}

// Compares message lists without dumping megabytes on failure.
::testing::AssertionResult SameMessages(const std::vector<std::vector<uint8_t>>& got,
                                        const std::vector<std::vector<uint8_t>>& want)
{
    if (got.size() != want.size())
        return ::testing::AssertionFailure() << got.size() << " messages, expected " << want.size();
    for (size_t i = 0; i < got.size(); ++i) {
        if (got[i].size() != want[i].size())
            return ::testing::AssertionFailure() << "message " << i << " has " << got[i].size() << " bytes, expected "
                                                 << want[i].size();
        if (got[i] != want[i])
            return ::testing::AssertionFailure() << "message " << i << " differs";
    }
    return ::testing::AssertionSuccess();
}

KxIpclibMsgCompletion Ignore()
{
    return [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {};
}

enum class Decision { Accept, Reject, Undecided, Hold };

// Two links back to back. The server side decides on streams opened towards it.
class StreamPair : public ::testing::Test {
protected:
    void SetUp() override
    {
        executor = tamsel::task::LinuxThreadPoolExecutor::create();
        auto serverListener = std::make_shared<TestLinkListener>(executor, [this](std::shared_ptr<KxIpclibStream> s) {
            onServerStream(std::move(s));
        });
        auto clientListener = std::make_shared<TestLinkListener>(executor, [](std::shared_ptr<KxIpclibStream>) {});
        listeners = {clientListener, serverListener};
        std::tie(client, server) = LoopbackLink::CreatePair(executor, clientListener, serverListener);
    }

    void TearDown() override
    {
        holdGate.open();
        KxIpclibStream::setCloseTimeoutForTesting(KxIpclibStream::kCloseTimeout);
        // Streams and links hold each other until the links stop.
        for (auto& link : {client, server}) {
            if (link) {
                EXPECT_TRUE(link->closeAndDrain());
            }
        }
    }

    void onServerStream(std::shared_ptr<KxIpclibStream> stream)
    {
        EXPECT_EQ(stream->name(), u"tolvCommands");
        EXPECT_EQ(stream->peerProcessId(), 4242u);
        if (decision == Decision::Reject) {
            EXPECT_EQ(stream->reject(KxIpcStatusAccessDenied), KxIpcStatusSuccess);
            return;
        }
        if (decision == Decision::Undecided)
            return;
        if (decision == Decision::Hold) {  // answers only once the test lets it
            holdGate.pass();
            stream->reject(KxIpcStatusAccessDenied);
            return;
        }
        std::weak_ptr<KxIpclibStream> weak = stream;
        serverInbox = &makeInbox([this, weak] {
            if (beforeServerClose)
                beforeServerClose();
            if (closeOnEndOfStream)
                if (auto s = weak.lock())
                    s->close(std::chrono::milliseconds::max());
        });
        EXPECT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(), serverInbox->function()), KxIpcStatusSuccess);
        if (closeAfterAccept) {
            EXPECT_EQ(stream->close(std::chrono::milliseconds::max()), KxIpcStatusSuccess);
        }
        std::lock_guard<std::mutex> guard(serverLock);
        serverStream = stream;
        serverReady.notify_all();
    }

    std::shared_ptr<KxIpclibStream> open(Inbox& inbox)
    {
        auto result = KxIpclibStream::open(client, executor, u"tolvCommands", Flags<KxIpclibStreamFlag>(),
                                           inbox.function(), 30s);
        EXPECT_TRUE(result.has_value()) << (result ? "" : fmt::format("{}", result.error()));
        if (!result)
            return nullptr;
        std::unique_lock<std::mutex> lock(serverLock);
        serverReady.wait_for(lock, kTestDeadline, [&] { return serverStream != nullptr; });
        return *result;
    }

    std::shared_ptr<tamsel::task::LinuxThreadPoolExecutor> executor;
    std::vector<std::shared_ptr<TestLinkListener>> listeners;
    std::shared_ptr<LoopbackLink> client, server;
    Decision decision = Decision::Accept;
    bool closeOnEndOfStream = true;
    bool closeAfterAccept = false;  // the server closes in its connect handler, right behind its "OpenAck"
    std::function<void()> beforeServerClose;  // runs in the server's end-of-stream callback
    Gate holdGate;
    // Inboxes live as long as the fixture: the links' last end-of-stream
    // deliveries happen in TearDown.
    Inbox& makeInbox(std::function<void()> onEndOfStream = nullptr)
    {
        std::lock_guard<std::mutex> guard(inboxesLock);
        inboxes.push_back(std::make_unique<Inbox>(std::move(onEndOfStream)));
        return *inboxes.back();
    }
    std::mutex inboxesLock;
    std::deque<std::unique_ptr<Inbox>> inboxes;
    Inbox* serverInbox = nullptr;
    std::mutex serverLock;
    std::condition_variable serverReady;
    std::shared_ptr<KxIpclibStream> serverStream;
};

} // namespace

TEST_F(StreamPair, MessagesOfManySizesArriveWholeAndInOrderBothWays)
{
    Inbox& clientInbox = makeInbox();
    auto stream = open(clientInbox);
    ASSERT_TRUE(stream && serverStream);
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Connected);
    EXPECT_EQ(stream->peerStreamId(), serverStream->streamId());
    EXPECT_EQ(serverStream->peerStreamId(), stream->streamId());

    const std::vector<size_t> sizes = {1, 2, 39, 40, 41, 4015, 4016, 4017, 4096, 10000, 100000, 1u << 20};
    std::vector<std::vector<uint8_t>> sent;
    for (size_t i = 0; i < sizes.size(); ++i)
        sent.push_back(Bytes(sizes[i], static_cast<uint32_t>(i)));
    for (const auto& data : sent) {
        ASSERT_TRUE(stream->send(0, static_cast<uint32_t>(data.size()), data.data(), Ignore()));
        ASSERT_TRUE(serverStream->send(0, static_cast<uint32_t>(data.size()), data.data(), Ignore()));
    }
    ASSERT_TRUE(serverInbox->waitMessages(sent.size()));
    ASSERT_TRUE(clientInbox.waitMessages(sent.size()));
    EXPECT_TRUE(SameMessages(serverInbox->messages(), sent));
    EXPECT_TRUE(SameMessages(clientInbox.messages(), sent));
    EXPECT_TRUE(stream->waitForOutstandingSends(0, 30s));
    EXPECT_EQ(stream->outstandingSends(), 0u);
    EXPECT_EQ(stream->msgsSent(), sent.size());
    EXPECT_EQ(serverStream->msgsReceived(), sent.size());
    EXPECT_EQ(serverStream->bytesReceived(), stream->bytesSent());
}

TEST_F(StreamPair, RefusedOpensReachTheOpenerAndLeaveNoStream)
{
    decision = Decision::Reject;
    Inbox& inbox = makeInbox();
    auto refused = KxIpclibStream::open(client, executor, u"tolvCommands", Flags<KxIpclibStreamFlag>(),
                                        inbox.function(), 30s);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error(), KxIpcStatusAccessDenied);
    decision = Decision::Undecided;
    auto undecided = KxIpclibStream::open(client, executor, u"tolvCommands", Flags<KxIpclibStreamFlag>(),
                                          inbox.function(), 30s);
    ASSERT_FALSE(undecided);
    EXPECT_EQ(undecided.error(), KxIpcStatusUnexpected);
    EXPECT_EQ(client->streamCount(), 0u);
    EXPECT_EQ(server->streamCount(), 0u);
    EXPECT_EQ(client->state(), KxIpclibLinkState::Connected);

    auto bad = KxIpclibStream::open(client, executor, u"", Flags<KxIpclibStreamFlag>(), inbox.function(), 1s);
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.error(), KxIpcStatusInvalidParam);
}

TEST_F(StreamPair, CloseFromTheOpenerDeliversEndOfStreamOnceAfterAllData)
{
    Inbox& clientInbox = makeInbox();
    auto stream = open(clientInbox);
    ASSERT_TRUE(stream);
    std::vector<std::vector<uint8_t>> sent;
    for (uint32_t i = 0; i < 50; ++i)
        sent.push_back(Bytes(100 + i * 97, i));
    for (const auto& data : sent)
        ASSERT_TRUE(stream->send(0, static_cast<uint32_t>(data.size()), data.data(), Ignore()));
    EXPECT_EQ(stream->close(1000ms), KxIpcStatusSuccess);
    // A second close is refused while ours is under way; the peer's answer may
    // already have closed the stream (it can come back on the sending thread),
    // and then there is nothing to do.
    const KxIpcStatusCode again = stream->close(1000ms);
    if (again == KxIpcStatusSuccess)
        EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
    else
        EXPECT_EQ(again, KxIpcStatusInvalidState);
    auto late = stream->send(0, 4, "late", Ignore());
    ASSERT_FALSE(late);
    EXPECT_EQ(late.error(), KxIpcStatusInvalidState);

    ASSERT_TRUE(serverInbox->waitEndOfStream());
    ASSERT_TRUE(clientInbox.waitEndOfStream());  // the server's close acknowledged ours
    EXPECT_TRUE(SameMessages(serverInbox->messages(), sent));
    EXPECT_EQ(serverInbox->eosAfter(), sent.size());
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
    EXPECT_EQ(stream->close(1000ms), KxIpcStatusSuccess);  // closed: nothing to do
    EXPECT_EQ(serverInbox->endOfStream(), 1);
    EXPECT_EQ(clientInbox.endOfStream(), 1);
    // Both streams leave their links; a connected link stays up without streams.
    const auto deadline = std::chrono::steady_clock::now() + kTestDeadline;
    while ((client->streamCount() || server->streamCount()) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(client->streamCount() + server->streamCount(), 0u);
    EXPECT_EQ(client->state(), KxIpclibLinkState::Connected);
    EXPECT_EQ(client->closedCalls(), 0);
}

TEST_F(StreamPair, ThePeerMaySendUntilItClosesItself)
{
    // The server closes first; the client answers inside its end-of-stream
    // callback, the moment it learns of the close: data first, then its close.
    const auto tail = Bytes(3000, 9);
    std::shared_ptr<KxIpclibStream> stream;
    KxIpcStatusCode sendStatus = KxIpcStatusUnexpected, closeStatus = KxIpcStatusUnexpected;
    KxIpclibStreamState stateSeen = KxIpclibStreamState::Init;
    std::mutex lock;
    Inbox& clientInbox = makeInbox([&] {
        std::lock_guard<std::mutex> guard(lock);
        stateSeen = stream->state();
        auto sent = stream->send(0, static_cast<uint32_t>(tail.size()), tail.data(), Ignore());
        sendStatus = sent ? KxIpcStatusSuccess : sent.error();
        closeStatus = stream->close(std::chrono::milliseconds(1000));
    });
    {
        std::lock_guard<std::mutex> guard(lock);
        stream = open(clientInbox);
    }
    ASSERT_TRUE(stream);
    ASSERT_EQ(serverStream->close(std::chrono::milliseconds::max()), KxIpcStatusSuccess);
    ASSERT_TRUE(clientInbox.waitEndOfStream());
    ASSERT_TRUE(serverInbox->waitEndOfStream());
    std::lock_guard<std::mutex> guard(lock);
    EXPECT_EQ(stateSeen, KxIpclibStreamState::Closing);
    EXPECT_EQ(sendStatus, KxIpcStatusSuccess);
    EXPECT_EQ(closeStatus, KxIpcStatusSuccess);
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
    EXPECT_FALSE(stream->send(0, 4, "late", Ignore()));
    EXPECT_TRUE(SameMessages(serverInbox->messages(), {tail}));
    EXPECT_EQ(serverInbox->eosAfter(), 1u);  // the data came before the end
    EXPECT_EQ(serverInbox->endOfStream(), 1);
    EXPECT_TRUE(client->closeAndDrain());  // before the callback's locals go
}

TEST_F(StreamPair, BothSidesClosingAtOnceEachSeeEndOfStreamOnce)
{
    // Whichever way the two "Close" messages cross, both ends finish without
    // their timers (an hour here, so a lost answer would fail the test).
    KxIpclibStream::setCloseTimeoutForTesting(std::chrono::hours(1));
    std::shared_ptr<KxIpclibStream> stream;
    std::mutex lock;
    Inbox& clientInbox = makeInbox([&] {
        std::lock_guard<std::mutex> guard(lock);
        stream->close(1000ms);
    });
    {
        std::lock_guard<std::mutex> guard(lock);
        stream = open(clientInbox);
    }
    ASSERT_TRUE(stream);
    std::thread other([&] { serverStream->close(1000ms); });
    {
        std::lock_guard<std::mutex> guard(lock);
        stream->close(1000ms);
    }
    other.join();
    ASSERT_TRUE(clientInbox.waitEndOfStream());
    ASSERT_TRUE(serverInbox->waitEndOfStream());
    EXPECT_EQ(clientInbox.endOfStream(), 1);
    EXPECT_EQ(serverInbox->endOfStream(), 1);
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
    EXPECT_EQ(serverStream->state(), KxIpclibStreamState::Closed);
    EXPECT_TRUE(client->closeAndDrain());
}

TEST_F(StreamPair, AnUnansweredCloseEndsWhenTheTimerExpires)
{
    KxIpclibStream::setCloseTimeoutForTesting(50ms);
    closeOnEndOfStream = false;  // the server never answers
    Inbox& clientInbox = makeInbox();
    auto stream = open(clientInbox);
    ASSERT_TRUE(stream);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(stream->close(1ms), KxIpcStatusSuccess);  // any finite time-out arms the one timer
    ASSERT_TRUE(clientInbox.waitEndOfStream());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
    EXPECT_EQ(clientInbox.endOfStream(), 1);
}

TEST_F(StreamPair, CloseWithoutTimeOutWaitsForTheAcknowledgement)
{
    KxIpclibStream::setCloseTimeoutForTesting(20ms);
    Gate answer;
    Counter asked;
    beforeServerClose = [&] {  // the server takes its time before it acknowledges
        asked.add();
        answer.pass();
    };
    Inbox& clientInbox = makeInbox();
    auto stream = open(clientInbox);
    ASSERT_TRUE(stream);
    ASSERT_EQ(stream->close(std::chrono::milliseconds::max()), KxIpcStatusSuccess);
    ASSERT_TRUE(asked.waitFor(1));
    std::this_thread::sleep_for(100ms);  // several times the test timer: no timer may fire
    EXPECT_EQ(clientInbox.endOfStream(), 0);
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closing);
    answer.open();
    ASSERT_TRUE(clientInbox.waitEndOfStream());
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
    EXPECT_TRUE(server->closeAndDrain());  // before the callback's locals go
    beforeServerClose = nullptr;
}

TEST_F(StreamPair, SendRefusesBadArguments)
{
    Inbox& clientInbox = makeInbox();
    auto stream = open(clientInbox);
    ASSERT_TRUE(stream);
    const char data[4] = {1, 2, 3, 4};
    EXPECT_EQ(stream->send(0, 0, data, Ignore()).error(), KxIpcStatusInvalidParam);
    EXPECT_EQ(stream->send(0, 4, nullptr, Ignore()).error(), KxIpcStatusInvalidParam);
    EXPECT_EQ(stream->send(1, 4, data, Ignore()).error(), KxIpcStatusInvalidParam);
    EXPECT_EQ(stream->send(0, 4, data, nullptr).error(), KxIpcStatusInvalidParam);
    EXPECT_EQ(stream->outstandingSends(), 0u);
    EXPECT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(), clientInbox.function()), KxIpcStatusInvalidState);
    EXPECT_EQ(stream->reject(KxIpcStatusAccessDenied), KxIpcStatusInvalidState);
}

TEST_F(StreamPair, ALinkClosesWhenItsLastStreamEndsOnlyWhileClosing)
{
    Inbox& clientInbox = makeInbox();
    auto stream = open(clientInbox);
    ASSERT_TRUE(stream);
    client->close();  // the transport stops: streams end, then the link closes
    ASSERT_TRUE(clientInbox.waitEndOfStream());
    const auto deadline = std::chrono::steady_clock::now() + kTestDeadline;
    // The link is Closed before its onLinkClosed runs: wait for the call.
    while (client->closedCalls() == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(client->state(), KxIpclibLinkState::Closed);
    EXPECT_EQ(client->closedCalls(), 1);
    auto refused = client->addStream(std::make_shared<KxIpclibStream>(client, executor, u"x",
                                                                      Flags<KxIpclibStreamFlag>(), 0,
                                                                      KxIpclibStreamState::Init));
    EXPECT_EQ(refused, KxIpcStatusInvalidState);
    EXPECT_EQ(stream->send(0, 4, "late", Ignore()).error(), KxIpcStatusInvalidState);
}

TEST_F(StreamPair, ManyStreamsSendAtOnceFromSeveralThreads)
{
    constexpr int kStreams = 8, kMessages = 150;
    std::vector<std::shared_ptr<KxIpclibStream>> streams;
    std::vector<Inbox*> serverInboxes;
    for (int i = 0; i < kStreams; ++i) {
        {
            std::lock_guard<std::mutex> guard(serverLock);
            serverStream.reset();
        }
        streams.push_back(open(makeInbox()));
        ASSERT_TRUE(streams.back());
        serverInboxes.push_back(serverInbox);
    }
    std::vector<std::vector<uint8_t>> payloads;
    for (int m = 0; m < kMessages; ++m)
        payloads.push_back(Bytes(50 + m * 61, static_cast<uint32_t>(m)));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int s = t; s < kStreams; s += 4)
                for (const auto& data : payloads)
                    EXPECT_TRUE(streams[s]->send(0, static_cast<uint32_t>(data.size()), data.data(), Ignore()));
        });
    for (auto& thread : threads)
        thread.join();
    for (int s = 0; s < kStreams; ++s) {
        ASSERT_TRUE(serverInboxes[s]->waitMessages(kMessages));
        EXPECT_TRUE(SameMessages(serverInboxes[s]->messages(), payloads));
        EXPECT_TRUE(streams[s]->waitForOutstandingSends(0, 30s));
    }
}

namespace {

std::vector<uint8_t> Block(KxIpclibMsgType type, uint32_t blockFlags, uint64_t src, uint64_t dest,
                           const std::vector<uint8_t>& payload, uint32_t totalSize)
{
    const uint32_t header = (blockFlags & KxIpclibBlockFirst) ? 40 : 36;
    std::vector<uint8_t> raw(header + payload.size());
    tolv::platform::StoreLe<uint32_t>(raw.data() + 0, static_cast<uint32_t>(type));
    tolv::platform::StoreLe<uint32_t>(raw.data() + 4, blockFlags);
    tolv::platform::StoreLe<uint64_t>(raw.data() + 12, src);
    tolv::platform::StoreLe<uint64_t>(raw.data() + 20, dest);
    tolv::platform::StoreLe<uint32_t>(raw.data() + 28, static_cast<uint32_t>(raw.size()));
    tolv::platform::StoreLe<uint32_t>(raw.data() + 32, static_cast<uint32_t>(payload.size()));
    if (header == 40)
        tolv::platform::StoreLe<uint32_t>(raw.data() + 36, totalSize);
    std::copy(payload.begin(), payload.end(), raw.begin() + header);
    return raw;
}

KxIpcStatusCode Feed(KxIpclibStream& stream, const std::vector<uint8_t>& raw)
{
    KxIpclibBlock block;
    const auto status = readBlock(raw.data(), raw.size(), block);
    if (status != KxIpcStatusSuccess)
        return status;
    return stream.recvBlock(block.header, block.payload);
}

std::vector<uint8_t> OpenPayload(uint32_t nameLength, size_t size)
{
    std::vector<uint8_t> payload(size, 'a');
    if (size >= 4)
        tolv::platform::StoreLe<uint32_t>(payload.data(), nameLength);
    return payload;
}

} // namespace

TEST_F(StreamPair, OutOfOrderAndMalformedBlocksAreProtocolErrors)
{
    auto stream = std::make_shared<KxIpclibStream>(server, executor, u"s", Flags<KxIpclibStreamFlag>(), 77,
                                                   KxIpclibStreamState::Init);
    ASSERT_EQ(server->addStream(stream), KxIpcStatusSuccess);
    const auto data = Bytes(10, 1);
    // Offered but not accepted: refused with InvalidState and nothing queued.
    EXPECT_EQ(Feed(*stream, Block(KxIpclibMsgType::Msg, 3, 77, 1, data, 10)), KxIpcStatusInvalidState);
    Inbox& inbox = makeInbox();
    ASSERT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(), inbox.function()), KxIpcStatusSuccess);

    const auto first = Block(KxIpclibMsgType::Msg, 1, 77, 1, data, 20);
    const auto middle = Block(KxIpclibMsgType::Msg, 0, 77, 1, data, 0);
    const auto last = Block(KxIpclibMsgType::Msg, 2, 77, 1, data, 0);
    constexpr auto kBad = KxIpcStatusProtocolError;
    EXPECT_EQ(Feed(*stream, middle), kBad);                               // nothing being rebuilt
    EXPECT_EQ(Feed(*stream, first), KxIpcStatusSuccess);
    EXPECT_EQ(Feed(*stream, first), kBad);                                // a first block while rebuilding
    EXPECT_EQ(Feed(*stream, last), kBad);                                 // the half message was dropped
    EXPECT_EQ(Feed(*stream, Block(KxIpclibMsgType::Msg, 3, 77, 1, data, 9)), kBad);   // totalSize < payload
    EXPECT_EQ(Feed(*stream, Block(KxIpclibMsgType::Msg, 3, 77, 1, data, 11)), kBad);  // last block, room left
    EXPECT_EQ(Feed(*stream, first), KxIpcStatusSuccess);
    EXPECT_EQ(Feed(*stream, middle), KxIpcStatusSuccess);
    EXPECT_EQ(Feed(*stream, last), kBad);                                 // 30 bytes for a 20-byte message
    // Opens whose payload is not a name inside the message.
    EXPECT_EQ(Feed(*stream, Block(KxIpclibMsgType::Open, 3, 77, 0, OpenPayload(2, 4), 4)), kBad);
    EXPECT_EQ(Feed(*stream, Block(KxIpclibMsgType::Open, 3, 77, 0, OpenPayload(1, 6), 6)), kBad);
    EXPECT_EQ(Feed(*stream, Block(KxIpclibMsgType::Open, 3, 77, 0, OpenPayload(3, 6), 6)), kBad);
    EXPECT_EQ(Feed(*stream, Block(KxIpclibMsgType::Open, 3, 77, 0, OpenPayload(0xFFFFFFFF, 6), 6)), kBad);

    // A well-formed message still gets through, and only it was delivered.
    EXPECT_EQ(Feed(*stream, Block(KxIpclibMsgType::Msg, 3, 77, 1, data, 10)), KxIpcStatusSuccess);
    stream->deferredDispatch();
    ASSERT_TRUE(inbox.waitMessages(1));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(inbox.messages(), std::vector<std::vector<uint8_t>>{data});
}

TEST_F(StreamPair, ALargeMessageWholeInOneBlockKeepsTheReceiveBufferUntilItIsGone)
{
    auto stream = std::make_shared<KxIpclibStream>(server, executor, u"s", Flags<KxIpclibStreamFlag>(), 77,
                                                   KxIpclibStreamState::Init);
    ASSERT_EQ(server->addStream(stream), KxIpcStatusSuccess);
    Inbox& inbox = makeInbox();
    ASSERT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(), inbox.function()), KxIpcStatusSuccess);

    const uint32_t bufferSize = 256 * 1024;
    auto pool = std::make_shared<KxIpclibRecvBufferPool>(bufferSize);
    KxIpclibRecvStorage storage;
    storage.buffer = pool->take();
    ASSERT_TRUE(storage.buffer);
    // As the link does: the block is parsed inside the receive buffer.
    auto receive = [&](const std::vector<uint8_t>& raw) {
        std::memcpy(storage.buffer.get(), raw.data(), raw.size());
        KxIpclibBlock block;
        EXPECT_EQ(readBlock(storage.buffer.get(), raw.size(), block), KxIpcStatusSuccess);
        return stream->recvBlock(block.header, block.payload, &storage);
    };
    const auto large = Bytes(KxIpclibStream::kBorrowBytes, 7);
    ASSERT_EQ(receive(Block(KxIpclibMsgType::Msg, 3, 77, 1, large, KxIpclibStream::kBorrowBytes)),
              KxIpcStatusSuccess);
    ASSERT_TRUE(storage.lent);
    // The link reads its next transfer into another buffer; were the message
    // not holding the first, the pool would hand that one out again here.
    storage.lent = false;
    storage.buffer.reset();
    storage.buffer = pool->take();
    auto spare = pool->take();
    std::memset(storage.buffer.get(), 0xEE, bufferSize);
    std::memset(spare.get(), 0xEE, bufferSize);
    spare.reset();
    const auto small = Bytes(1000, 9);
    ASSERT_EQ(receive(Block(KxIpclibMsgType::Msg, 3, 77, 1, small, 1000)), KxIpcStatusSuccess);
    EXPECT_FALSE(storage.lent) << "a small message is copied, not holding a whole buffer";
    std::memset(storage.buffer.get(), 0xEE, bufferSize);

    stream->deferredDispatch();
    ASSERT_TRUE(inbox.waitMessages(2));
    EXPECT_EQ(inbox.messages(), (std::vector<std::vector<uint8_t>>{large, small}));
    EXPECT_EQ(stream->bytesReceived(), large.size() + small.size());
    EXPECT_EQ(stream->msgsReceived(), 2u);
    // Delivered and dropped: the lent buffer is back for reuse, beside the spare.
    EXPECT_TRUE(WaitUntil([&] { return pool->freeCount() == 2; }));
    storage.buffer.reset();
    EXPECT_EQ(pool->freeCount(), 3u);
}

TEST_F(StreamPair, AHostileUnitFailsTheLinkAndAControlMessageOtherThanOpenIsContained)
{
    ScopedLogCapture log(LOG_LEVEL_ERROR);
    // A data message addressed to the control stream (the peer broke the
    // protocol) and, in the same unit, a good "Open" behind it.
    auto unit = Block(KxIpclibMsgType::Msg, 3, 5, 0, Bytes(8, 0), 8);
    const std::u16string name = u"tolvCommands";
    std::vector<uint8_t> openPayload(4 + name.size() * 2);
    tolv::platform::StoreLe<uint32_t>(openPayload.data(), static_cast<uint32_t>(name.size() * 2));
    for (size_t i = 0; i < name.size(); ++i)
        tolv::platform::StoreLe<uint16_t>(openPayload.data() + 4 + 2 * i, name[i]);
    const auto open = Block(KxIpclibMsgType::Open, 3, 6, 0, openPayload, static_cast<uint32_t>(openPayload.size()));
    unit.insert(unit.end(), open.begin(), open.end());
    server->injectUnit(unit);
    const auto deadline = std::chrono::steady_clock::now() + kTestDeadline;
    while (log.CountContaining("Control stream received an invalid message") == 0 &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(log.Count("A task callback raised an exception: Control stream received an invalid message"), 1u);
    // The violation is contained: the "Open" behind it is still served.
    {
        std::unique_lock<std::mutex> lock(serverLock);
        EXPECT_TRUE(serverReady.wait_for(lock, kTestDeadline, [&] { return serverStream != nullptr; }));
    }

    // A unit whose block runs past its end.
    auto cut = Block(KxIpclibMsgType::Msg, 3, 5, 99, Bytes(100, 0), 100);
    cut.resize(80);
    client->injectUnit(cut);
    while (client->lastError() == KxIpcStatusSuccess && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(client->lastError(), KxIpcStatusProtocolError);
    EXPECT_EQ(client->state(), KxIpclibLinkState::Error);
}

// Nothing but an "Open" or a message with bytes may reach the control stream;
// anything that would close or end it fails the link instead of leaving the
// peer with a link that silently opens nothing more.
TEST_F(StreamPair, AMessageThatWouldEndTheControlStreamFailsTheLink)
{
    struct Case {
        const char* what;
        KxIpclibMsgType type;
    };
    const Case cases[] = {{"Close", KxIpclibMsgType::Close},       {"CloseAck", KxIpclibMsgType::CloseAck},
                          {"Shutdown", KxIpclibMsgType::Shutdown}, {"OpenAck", KxIpclibMsgType::OpenAck},
                          {"empty Msg", KxIpclibMsgType::Msg}};
    for (const Case& c : cases) {
        std::shared_ptr<LoopbackLink> near, far;
        std::tie(near, far) = LoopbackLink::CreatePair(executor, listeners[0], listeners[1]);
        far->injectUnit(Block(c.type, 3, 5, 0, {}, 0));
        EXPECT_TRUE(WaitUntil([&] { return far->lastError() != KxIpcStatusSuccess; })) << c.what;
        EXPECT_EQ(far->lastError(), KxIpcStatusProtocolError) << c.what;
        EXPECT_EQ(far->state(), KxIpclibLinkState::Error) << c.what;
        EXPECT_TRUE(near->closeAndDrain()) << c.what;
        EXPECT_TRUE(far->closeAndDrain()) << c.what;
    }
}

TEST_F(StreamPair, AnOpenNobodyAnswersTimesOut)
{
    decision = Decision::Hold;
    Inbox& inbox = makeInbox();
    auto result = KxIpclibStream::open(client, executor, u"tolvCommands", Flags<KxIpclibStreamFlag>(),
                                       inbox.function(), 100ms);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), KxIpcStatusStreamClosed);
    EXPECT_EQ(client->streamCount(), 0u);
    holdGate.open();  // the late refusal finds no stream and is dropped
}

TEST_F(StreamPair, ACloseRightBehindTheAcknowledgementReachesTheOpenerAndAnEndedStreamLetsGoOfItsTasks)
{
    closeAfterAccept = true;
    const size_t tasksBefore = executor->openTaskCount();
    // The client answers the server's close in its end-of-stream callback.
    std::shared_ptr<KxIpclibStream> stream;
    KxIpcStatusCode sendStatus = KxIpcStatusUnexpected, closeStatus = KxIpcStatusUnexpected;
    KxIpclibStreamState stateSeen = KxIpclibStreamState::Init;
    std::mutex lock;
    Inbox& clientInbox = makeInbox([&] {
        std::lock_guard<std::mutex> guard(lock);
        stateSeen = stream->state();
        auto sent = stream->send(0, 4, "tail", Ignore());
        sendStatus = sent ? KxIpcStatusSuccess : sent.error();
        closeStatus = stream->close(std::chrono::milliseconds::max());
    });
    {
        std::lock_guard<std::mutex> guard(lock);
        ScopedLogCapture log(LOG_LEVEL_VERBOSE);
        stream = open(clientInbox);
        ASSERT_TRUE(stream);
        // The acknowledgement only wakes the opener: its receive pass leaves
        // the stream as it was, and open() connects it.
        const std::string mine = fmt::format(", streamId: {:#x}, status: ", stream->streamId());
        std::string firstExit;
        for (const auto& line : log.Lines())
            if (line.loggerName == "ipc::stream" && line.text.rfind("< state: ", 0) == 0 &&
                line.text.find(mine) != std::string::npos) {
                firstExit = line.text;
                break;
            }
        EXPECT_EQ(firstExit.rfind("< state: Connecting,", 0), 0u) << "the OpenAck's pass ended with: " << firstExit;
    }
    // The server's "Close" may have come before open() woke: it is delivered
    // all the same, once, and our close answers it.
    ASSERT_TRUE(clientInbox.waitEndOfStream());
    ASSERT_TRUE(serverInbox->waitEndOfStream());
    {
        std::lock_guard<std::mutex> guard(lock);
        EXPECT_EQ(stateSeen, KxIpclibStreamState::Closing);
        EXPECT_EQ(sendStatus, KxIpcStatusSuccess);
        EXPECT_EQ(closeStatus, KxIpcStatusSuccess);
    }
    EXPECT_EQ(clientInbox.endOfStream(), 1);
    EXPECT_TRUE(clientInbox.messages().empty());
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
    EXPECT_EQ(serverInbox->messages(), (std::vector<std::vector<uint8_t>>{{'t', 'a', 'i', 'l'}}));
    EXPECT_EQ(serverInbox->eosAfter(), 1u);  // the tail came before the end

    // Both streams are still held here, but once they have left their links
    // their delivery tasks are closed.
    EXPECT_TRUE(WaitUntil([&] { return client->streamCount() == 0 && server->streamCount() == 0; }));
    EXPECT_EQ(executor->openTaskCount(), tasksBefore);
    ASSERT_TRUE(serverStream);
}
