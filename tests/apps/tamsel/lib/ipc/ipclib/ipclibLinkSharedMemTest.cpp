// Shared-memory links of this process: a link whose peer is played by hand
// (the peer's channels are the same sections and events, taken over from the
// link's duplicates, and its watch is a pipe whose write end the test holds),
// and streams over two links joined to each other: the open and close
// handshakes, ordered delivery, the close timer, and what out-of-order or
// malformed blocks do.

#include "IpcTestSupport.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkSharedMemLinux.h"
#include <tamsel/ipc/ipclibTransfer.h>
#include "task/LinuxThreadPoolExecutor.h"

#include "common/LogCapture.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

using namespace tamsel::ipc;
using namespace tamsel::ipc::testing;
using namespace std::chrono_literals;
using StreamPtr = std::shared_ptr<KxIpclibStream>;
using Executor = std::shared_ptr<tamsel::task::LinuxThreadPoolExecutor>;
using tolv::platform::UniqueFd;

namespace {

constexpr uint32_t kSection = 64 * 1024;

std::vector<uint8_t> Text(const char* text)
{
    return std::vector<uint8_t>(text, text + std::strlen(text));
}

struct HandPlayedLink {
    explicit HandPlayedLink(uint32_t section, std::shared_ptr<KxIpclibLinkListener> listener = nullptr)
        : peerReads(section), peerWrites(section)
    {
        int fds[2];
        EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        pipeWrite.reset(fds[1]);
        link = std::make_shared<KxIpclibLinkSharedMemLinux>(_GUID{}, 0, u"by-hand", 1, nullptr, listener, section,
                                                            UniqueFd(), UniqueFd(fds[0]));
        int error = 0;
        unsigned int out = 0;
        KxIpclibLinkChannelResourceLinux send, recv;
        EXPECT_EQ(link->create(error), 0);
        EXPECT_EQ(link->sendChannel()->duplicateHandles(send, error), 0);
        EXPECT_EQ(link->recvChannel()->duplicateHandles(recv, error), 0);
        EXPECT_EQ(peerReads.attach(std::move(send), error), 0);
        EXPECT_EQ(peerWrites.attach(std::move(recv), error), 0);
        EXPECT_EQ(link->connecting(), KxIpcStatusSuccess);
        EXPECT_EQ(link->start(executor, out), KxIpcStatusSuccess);
    }
    ~HandPlayedLink() { link->close(); }

    // A stream of the link as if the peer's stream 99 had opened it, accepted.
    std::shared_ptr<KxIpclibStream> acceptedStream(KxIpclibRecvFunction onRecv = Ignore())
    {
        auto stream = std::make_shared<KxIpclibStream>(link, executor, u"s", Flags<KxIpclibStreamFlag>(), 99,
                                                       KxIpclibStreamState::Init);
        EXPECT_EQ(link->addStream(stream), KxIpcStatusSuccess);
        EXPECT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(), std::move(onRecv)), KxIpcStatusSuccess);
        return stream;
    }

    // Writes transfer `seq` of `blocks` into the link's receive section, as
    // the peer would, and announces it; `corrupt` spoils its CRC.
    void inject(const Messages& blocks, uint64_t seq = 1, bool corrupt = false)
    {
        std::vector<uint8_t> unit(KxIpclibTransferHeaderSize);
        for (const auto& block : blocks)
            unit.insert(unit.end(), block.begin(), block.end());
        const auto used = static_cast<uint32_t>(unit.size());
        finishTransfer(unit.data(), used, static_cast<uint32_t>(blocks.size()), seq);
        unit[used - 1] ^= corrupt ? 0xFF : 0;
        std::memcpy(peerWrites.view(), unit.data(), used);
        peerWrites.signalDataReady();
    }

    // Whether the link stopped for `reason`, having told the peer of its error or not.
    bool stopped(uint32_t reason, bool told)
    {
        const bool gone = WaitUntil([&] {
            const auto state = link->state();
            return state == KxIpclibLinkState::ShuttingDown || state == KxIpclibLinkState::Closed;
        });
        return gone && link->stopReason() == reason &&
               KxIpclibLinkChannelSharedMemLinux::Consume(peerWrites.errorEvent()) == told;
    }

    Executor executor = tamsel::task::LinuxThreadPoolExecutor::create();
    std::shared_ptr<KxIpclibLinkSharedMemLinux> link;
    UniqueFd pipeWrite;
    KxIpclibLinkChannelSharedMemLinux peerReads;
    KxIpclibLinkChannelSharedMemLinux peerWrites;
};

class ShmLinkByHand : public ::testing::Test {
protected:
    ScopedLogCapture log{LOG_LEVEL_VERBOSE};
    HandPlayedLink hand{kSection};
    std::shared_ptr<KxIpclibLinkSharedMemLinux>& link = hand.link;
};

} // namespace

TEST_F(ShmLinkByHand, ABlockForAStreamItDoesNotKnowIsSkippedAndAHostileTransferFailsTheLinkAndTellsThePeer)
{
    EXPECT_EQ(log.CountContaining("start notification on peer pipe"), 1u);
    Counter received;
    auto stream = hand.acceptedStream([&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
        EXPECT_EQ(msg->size(), received.value() == 0 ? 8u : 0u);
        received.add();
    });
    hand.inject({Block(KxIpclibMsgType::Msg, 3, 98, 0x77, Text("vwxyz"), 5),
                 Block(KxIpclibMsgType::Msg, 3, 99, stream->streamId(), Text("abcdefgh"), 8)});
    ASSERT_TRUE(received.waitFor(1));
    EXPECT_EQ(link->state(), KxIpclibLinkState::Connected);
    hand.inject({Block(KxIpclibMsgType::Msg, 3, 5, 0, Text("abcdefgh"), 8)}, 2, true);  // its CRC does not match
    EXPECT_TRUE(hand.stopped(0, true));
    EXPECT_TRUE(received.waitFor(2));  // the stream's end
}

// Whatever would close or end the control stream, or breaks the block format,
// fails the link instead of leaving the peer with a link that silently opens
// nothing more.
TEST(ShmLinkControl, ABlockThatWouldEndTheControlStreamOrRunsPastItsTransferFailsTheLink)
{
    ScopedLogCapture quiet(LOG_LEVEL_ALWAYS);
    auto cut = Block(KxIpclibMsgType::Msg, 3, 5, 99, std::vector<uint8_t>(100), 100);
    cut.resize(80);
    const std::pair<const char*, std::vector<uint8_t>> cases[] = {
        {"a block running past its transfer", cut},
        {"Close", Block(KxIpclibMsgType::Close, 3, 5, 0, {}, 0)},
        {"CloseAck", Block(KxIpclibMsgType::CloseAck, 3, 5, 0, {}, 0)},
        {"Shutdown", Block(KxIpclibMsgType::Shutdown, 3, 5, 0, {}, 0)},
        {"OpenAck", Block(KxIpclibMsgType::OpenAck, 3, 5, 0, {}, 0)},
        {"empty Msg", Block(KxIpclibMsgType::Msg, 3, 5, 0, {}, 0)},
    };
    for (const auto& [what, block] : cases) {
        HandPlayedLink hand(kSection);
        hand.inject({block});
        EXPECT_TRUE(hand.stopped(0, true)) << what;
    }
}

TEST(ShmLinkControl, AMessageWithBytesForTheControlStreamIsContainedAndAnOpenBehindItServed)
{
    ScopedLogCapture log(LOG_LEVEL_ERROR);
    EchoServer server;
    auto executor = tamsel::task::LinuxThreadPoolExecutor::create();
    auto listener = std::make_shared<TestLinkListener>(executor, server.handler());
    HandPlayedLink hand(kSection, listener);
    const std::u16string name = u"tolvCommands";
    std::vector<uint8_t> open(4 + name.size() * 2);
    tolv::platform::StoreLe<uint32_t>(open.data(), static_cast<uint32_t>(name.size() * 2));
    for (size_t i = 0; i < name.size(); ++i)
        tolv::platform::StoreLe<uint16_t>(open.data() + 4 + 2 * i, name[i]);
    hand.inject({Block(KxIpclibMsgType::Msg, 3, 5, 0, Text("breaking"), 8),
                 Block(KxIpclibMsgType::Open, 3, 6, 0, open, static_cast<uint32_t>(open.size()))});
    const std::string thrown = "A task callback raised an exception: Control stream received an invalid message";
    EXPECT_TRUE(WaitUntil([&] { return log.Count(thrown) == 1; }));
    EXPECT_TRUE(WaitUntil([&] { return server.offered() == 1; })) << "the Open behind it was not served";
    EXPECT_EQ(hand.link->state(), KxIpclibLinkState::Connected);
    hand.link->close();
    EXPECT_TRUE(server.waitEnds());  // before the server goes
}

TEST_F(ShmLinkByHand, APeerThatNeverFreesTheBufferGetsNothingAndThePeerClosingItsPipeFailsTheLinkWithoutAnswer)
{
    auto stream = hand.acceptedStream();
    const auto data = PatternMessage(0, 0, 1000);
    std::mutex lock;
    std::vector<KxIpcStatusCode> completions;
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(stream->send(0, 1000, data.data(), [&](KxIpcStatusCode status, std::shared_ptr<KxIpclibMsg>) {
            std::lock_guard<std::mutex> guard(lock);
            completions.push_back(status);
        }));
    // Nothing was written: the section is as it was made.
    EXPECT_EQ(std::count(hand.peerReads.view(), hand.peerReads.view() + 64, 0), 64);
    hand.pipeWrite.reset();
    EXPECT_TRUE(hand.stopped(3, false));
    EXPECT_TRUE(WaitUntil([&] {
        std::lock_guard<std::mutex> guard(lock);
        return completions == std::vector<KxIpcStatusCode>(5, KxIpcStatusStreamClosed);
    }));
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
}

TEST_F(ShmLinkByHand, APeerThatStoppedHasItsStreamsClosedAndTakenOutOfTheLinkAtOnce)
{
    Counter ends;
    auto release = std::make_shared<Gate>();  // the callback may still leave it after the test
    auto stream = hand.acceptedStream([&ends, release](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
        if (msg->size() == 0) {
            ends.add();
            release->pass();
        }
    });
    hand.peerReads.signalStop();
    ASSERT_TRUE(ends.waitFor(1));
    // While the application still holds the end-of-stream message, the link
    // has let go of the stream and closed, and tells the peer nothing back.
    EXPECT_EQ(link->stopReason(), 1u);
    EXPECT_TRUE(WaitUntil([&] { return link->streamCount() == 0; }, std::chrono::seconds(5)));
    EXPECT_TRUE(WaitUntil([&] { return link->state() == KxIpclibLinkState::Closed; }, std::chrono::seconds(5)));
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
    EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(hand.peerWrites.stopEvent()));
    release->open();
    EXPECT_EQ(ends.value(), 1);
}

// 64 bytes leave 36 after the transfer header, less than one block needs: the
// first send fails the link instead of handing the peer a transfer without blocks.
TEST(ShmLinkStart, ASectionTooSmallForOneBlockFailsAtTheFirstSend)
{
    const size_t descriptors = OpenDescriptors();
    {
        HandPlayedLink tiny(64);
        auto stream = tiny.acceptedStream();
        tiny.peerReads.signalBufferFree();
        std::atomic<int> completed{-1};
        ASSERT_TRUE(stream->send(0, 10, "0123456789", [&](KxIpcStatusCode status, std::shared_ptr<KxIpclibMsg>) {
            completed = static_cast<int>(status);
        }));
        ASSERT_TRUE(WaitUntil([&] { return completed.load() != -1; }));
        EXPECT_EQ(completed.load(), static_cast<int>(KxIpcStatusStreamClosed));
        EXPECT_TRUE(tiny.stopped(0, true));
        EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(tiny.peerReads.dataReadyEvent()));
    }
    // At most: descriptors of earlier tests in this process may close meanwhile.
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors; })) << OpenDescriptors() << " open";
}

TEST(ShmLinkStart, WithoutAPeerToWatchTheLinkDoesNotStart)
{
    ScopedLogCapture log(LOG_LEVEL_VERBOSE);
    const size_t descriptors = OpenDescriptors();
    auto executor = tamsel::task::LinuxThreadPoolExecutor::create();
    auto link = std::make_shared<KxIpclibLinkSharedMemLinux>(_GUID{}, 0, u"x", 1, nullptr, nullptr, kSection,
                                                             UniqueFd(), UniqueFd());
    int error = 0;
    unsigned int out = 0;
    ASSERT_EQ(link->create(error), 0);
    ASSERT_EQ(link->connecting(), KxIpcStatusSuccess);
    EXPECT_EQ(link->start(executor, out), KxIpcStatusUnexpected);
    EXPECT_EQ(log.CountContaining("Error: peer handle or pipe not found"), 1u);
    link->close();
    // Nothing of the failed link outlives it: no section, event or executor.
    link.reset();
    executor.reset();
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors; })) << OpenDescriptors() << " open";
}

namespace {

constexpr uint32_t kStreamSection = 4096;
enum class Decision { Accept, Reject, Undecided, Hold };

std::vector<uint8_t> Bytes(size_t size, uint32_t seed)
{
    return PatternMessage(seed, 1, static_cast<uint32_t>(size));
}

// The client link opens streams; the server link's listener decides on them.
class StreamPair : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (auto* link : {&client, &server}) {
            const bool isClient = link == &client;
            UniqueFd self(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
            *link = std::make_shared<KxIpclibLinkSharedMemLinux>(
                _GUID{}, 0, u"pair", 4242, [closed = isClient ? &clientClosed : nullptr](KxIpclibLink&) {
                    if (closed)
                        closed->add();
                },
                isClient ? clientListener : serverListener, kStreamSection, std::move(self), UniqueFd());
        }
        int error = 0;
        KxIpclibLinkChannelResourceLinux send, recv;
        ASSERT_EQ(client->create(error), 0);
        ASSERT_EQ(client->sendChannel()->duplicateHandles(send, error), 0);
        ASSERT_EQ(client->recvChannel()->duplicateHandles(recv, error), 0);
        ASSERT_EQ(server->attach(std::move(recv), std::move(send), error), 0);
        for (auto& link : {client, server}) {
            unsigned int out = 0;
            ASSERT_EQ(link->connecting(), KxIpcStatusSuccess);
            ASSERT_EQ(link->start(executor, out), KxIpcStatusSuccess);
        }
    }

    void TearDown() override
    {
        holdGate.open();
        KxIpclibStream::setCloseTimeoutForTesting(KxIpclibStream::kCloseTimeout);
        closeLinks();
    }

    // Streams and links hold each other until the links have closed. A link's
    // last deliveries may still run then, some on no task: every inbox is
    // waited for until its stream's end was delivered.
    void closeLinks()
    {
        for (auto& link : {client, server}) {
            link->close();
            EXPECT_TRUE(WaitUntil([&] { return link->state() == KxIpclibLinkState::Closed; }));
        }
        std::lock_guard<std::mutex> guard(lock);
        for (Recorder& inbox : inboxes)
            EXPECT_TRUE(inbox.waitEnd());
        executor->closeAllTasks();
    }

    void onServerStream(StreamPtr stream)
    {
        EXPECT_EQ(stream->name(), u"tolvCommands");
        EXPECT_EQ(stream->peerProcessId(), 4242u);
        // A refusal held back answers only once the test lets it.
        if (decision == Decision::Reject || (decision == Decision::Hold && holdGate.pass()))
            stream->reject(KxIpcStatusAccessDenied);
        if (decision != Decision::Accept)
            return;
        std::weak_ptr<KxIpclibStream> weak = stream;
        Recorder& inbox = makeInbox([this, weak] {
            auto s = weak.lock();
            if (s && (!onServerEnd || onServerEnd(*s)))
                s->close(std::chrono::milliseconds::max());
        });
        EXPECT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(), inbox.function()), KxIpcStatusSuccess);
        EXPECT_EQ(closeAfterAccept ? stream->close(std::chrono::milliseconds::max()) : KxIpcStatusSuccess,
                  KxIpcStatusSuccess);
        std::lock_guard<std::mutex> guard(lock);
        served.emplace_back(stream, &inbox);
        servedCount.add();
    }

    tamsel::expected<StreamPtr, KxIpcStatusCode> tryOpen(Recorder& inbox, std::chrono::milliseconds timeout = 30s,
                                                         const std::u16string& name = u"tolvCommands")
    {
        return KxIpclibStream::open(client, executor, name, {}, inbox.function(), timeout);
    }

    // Opens a stream into a new inbox and waits until the server has taken it:
    // our stream, and the server's end with its inbox.
    std::tuple<StreamPtr, Recorder*, StreamPtr, Recorder*> open(std::function<void()> onEnd = nullptr)
    {
        const int before = servedCount.value();
        Recorder& inbox = makeInbox(std::move(onEnd));
        auto result = tryOpen(inbox);
        EXPECT_TRUE(result.has_value() && servedCount.waitFor(before + 1));
        std::lock_guard<std::mutex> guard(lock);
        if (!result || served.size() <= static_cast<size_t>(before))
            return {nullptr, &inbox, nullptr, nullptr};
        return {*result, &inbox, served.back().first, served.back().second};
    }

    // Inboxes live as long as the fixture: the links' last deliveries happen in TearDown.
    Recorder& makeInbox(std::function<void()> onEnd = nullptr)
    {
        std::lock_guard<std::mutex> guard(lock);
        return inboxes.emplace_back(std::move(onEnd));
    }

    Executor executor = tamsel::task::LinuxThreadPoolExecutor::create();
    std::mutex lock;
    std::deque<Recorder> inboxes;
    std::vector<std::pair<StreamPtr, Recorder*>> served;  // the server's streams, as taken
    Counter servedCount;
    Decision decision = Decision::Accept;
    Gate holdGate;
    // Runs in the server's end-of-stream callback: whether the server answers with its close.
    std::function<bool(KxIpclibStream&)> onServerEnd;
    bool closeAfterAccept = false;  // the server closes in its connect handler, right behind its "OpenAck"
    Counter clientClosed;
    std::shared_ptr<TestLinkListener> serverListener =
        std::make_shared<TestLinkListener>(executor, [this](StreamPtr s) { onServerStream(std::move(s)); });
    std::shared_ptr<TestLinkListener> clientListener =
        std::make_shared<TestLinkListener>(executor, [](StreamPtr) {});
    std::shared_ptr<KxIpclibLinkSharedMemLinux> client, server;
};

} // namespace

TEST_F(StreamPair, MessagesOfManySizesFromSeveralThreadsArriveWholeAndInOrderBothWaysAndBadSendsAreRefused)
{
    std::vector<std::tuple<StreamPtr, Recorder*, StreamPtr, Recorder*>> pairs;
    for (int i = 0; i < 4; ++i) {
        pairs.push_back(open());
        ASSERT_TRUE(std::get<0>(pairs.back()) && std::get<2>(pairs.back()));
    }
    const auto& [stream, inbox, peer, peerInbox] = pairs[0];
    const char four[4] = {1, 2, 3, 4};
    EXPECT_EQ(stream->send(0, 0, four, Ignore()).error(), KxIpcStatusInvalidParam);
    EXPECT_EQ(stream->send(0, 4, nullptr, Ignore()).error(), KxIpcStatusInvalidParam);
    EXPECT_EQ(stream->send(1, 4, four, Ignore()).error(), KxIpcStatusInvalidParam);
    EXPECT_EQ(stream->send(0, 4, four, nullptr).error(), KxIpcStatusInvalidParam);
    EXPECT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(), inbox->function()), KxIpcStatusInvalidState);
    EXPECT_EQ(stream->reject(KxIpcStatusAccessDenied), KxIpcStatusInvalidState);

    // Around a block and a transfer, a MiB, and many small ones, sent by both
    // sides of every stream at once, each from its own thread.
    Messages sent;
    for (uint32_t size : MessageSizes(kStreamSection))
        sent.push_back(Bytes(size, static_cast<uint32_t>(sent.size())));
    sent.push_back(Bytes(1 << 20, 99));
    for (uint32_t m = 0; m < 100; ++m)
        sent.push_back(Bytes(50 + m * 61, m));
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 2 * pairs.size(); ++t)
        threads.emplace_back([&, t] {
            const auto& on = t % 2 ? std::get<2>(pairs[t / 2]) : std::get<0>(pairs[t / 2]);
            for (const auto& data : sent)
                EXPECT_TRUE(on->send(0, static_cast<uint32_t>(data.size()), data.data(), Ignore()));
        });
    for (auto& thread : threads)
        thread.join();
    for (const auto& [ours, ourInbox, theirs, theirInbox] : pairs) {
        ASSERT_TRUE(theirInbox->waitMessages(sent.size()) && ourInbox->waitMessages(sent.size()));
        EXPECT_TRUE(theirInbox->got().messages == sent && ourInbox->got().messages == sent);
        EXPECT_TRUE(ours->waitForOutstandingSends(0, 30s) && theirs->waitForOutstandingSends(0, 30s));
        EXPECT_TRUE(ours->msgsSent() == sent.size() && theirs->msgsReceived() == sent.size());
        EXPECT_EQ(theirs->bytesReceived(), ours->bytesSent());
    }
}

TEST_F(StreamPair, RefusedOrUnansweredOpensReachTheOpenerAndLeaveNoStream)
{
    Recorder inbox;  // no stream ever delivers to it
    for (auto [how, status] : {std::pair{Decision::Reject, KxIpcStatusAccessDenied},
                               {Decision::Undecided, KxIpcStatusUnexpected},
                               {Decision::Hold, KxIpcStatusStreamClosed}}) {
        decision = how;
        auto refused = tryOpen(inbox, how == Decision::Hold ? 100ms : 30s);
        ASSERT_FALSE(refused);
        EXPECT_EQ(refused.error(), status);
        EXPECT_EQ(client->streamCount(), 0u);
        EXPECT_TRUE(how == Decision::Hold || server->streamCount() == 0);
    }
    holdGate.open();  // the late refusal finds no stream and is dropped
    EXPECT_EQ(client->state(), KxIpclibLinkState::Connected);
    EXPECT_EQ(tryOpen(inbox, 1s, u"").error(), KxIpcStatusInvalidParam);
    closeLinks();  // before `inbox` goes
}

TEST_F(StreamPair, ClosesFromEitherOrBothSidesDeliverEachEndOnceAfterAllDataAndOnlyALinkClosingEndsItsStreams)
{
    // A lost answer would wait for the close timer: an hour here.
    KxIpclibStream::setCloseTimeoutForTesting(std::chrono::hours(1));
    std::mutex mutex;
    StreamPtr crossing;
    std::unique_lock<std::mutex> guard(mutex);
    auto crossed = open([&] {  // closes again in its end-of-stream callback
        std::lock_guard<std::mutex> relock(mutex);
        crossing->close(1000ms);
    });
    crossing = std::get<0>(crossed);
    ASSERT_TRUE(crossing);
    // Both sides close at once: whichever way the two "Close" messages cross, both ends finish.
    std::thread closer([&] { std::get<2>(crossed)->close(1000ms); });
    crossing->close(1000ms);
    guard.unlock();
    closer.join();
    ASSERT_TRUE(std::get<1>(crossed)->waitEnd() && std::get<3>(crossed)->waitEnd());
    EXPECT_EQ(std::get<1>(crossed)->got().ends + std::get<3>(crossed)->got().ends, 2);
    EXPECT_TRUE(crossing->state() == KxIpclibStreamState::Closed &&
                std::get<2>(crossed)->state() == KxIpclibStreamState::Closed);

    auto [other, otherInbox, otherPeer, otherPeerInbox] = open();
    auto [stream, inbox, peer, peerInbox] = open();
    ASSERT_TRUE(stream && other);
    Messages sent;
    for (uint32_t i = 0; i < 50; ++i)
        sent.push_back(Bytes(100 + i * 97, i));
    for (const auto& data : sent)
        ASSERT_TRUE(stream->send(0, static_cast<uint32_t>(data.size()), data.data(), Ignore()));
    EXPECT_EQ(stream->close(1000ms), KxIpcStatusSuccess);
    // A second close is refused while ours is under way; the peer's answer may
    // already have closed the stream (it can come back on the sending thread).
    const KxIpcStatusCode again = stream->close(1000ms);
    EXPECT_TRUE(again == KxIpcStatusInvalidState || stream->state() == KxIpclibStreamState::Closed) << again;
    EXPECT_EQ(stream->send(0, 4, "late", Ignore()).error(), KxIpcStatusInvalidState);
    ASSERT_TRUE(peerInbox->waitEnd() && inbox->waitEnd());  // the server's close acknowledged ours
    const auto got = peerInbox->got();
    EXPECT_TRUE(got.messages == sent);
    EXPECT_EQ(got.endAfter, sent.size());
    EXPECT_EQ(got.ends + inbox->got().ends, 2);
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
    EXPECT_EQ(stream->close(1000ms), KxIpcStatusSuccess);  // closed: nothing to do
    // Both ends leave their links; the links stay up with the other stream.
    EXPECT_TRUE(WaitUntil([&] { return client->streamCount() + server->streamCount() == 2; }));
    EXPECT_EQ(client->state(), KxIpclibLinkState::Connected);
    EXPECT_EQ(clientClosed.value(), 0);

    client->close();  // the transport stops: streams end, then the link closes
    ASSERT_TRUE(otherInbox->waitEnd());
    EXPECT_TRUE(clientClosed.waitFor(1));  // the link is Closed before its onLinkClosed runs
    EXPECT_EQ(client->state(), KxIpclibLinkState::Closed);
    auto late = std::make_shared<KxIpclibStream>(client, executor, u"x", Flags<KxIpclibStreamFlag>(), 0,
                                                 KxIpclibStreamState::Init);
    EXPECT_EQ(client->addStream(late), KxIpcStatusInvalidState);
    EXPECT_EQ(other->send(0, 4, "late", Ignore()).error(), KxIpcStatusInvalidState);
    EXPECT_EQ(clientClosed.value(), 1);
    closeLinks();  // before the callback's locals go
}

TEST_F(StreamPair, ThePeerMaySendUntilItClosesItselfEvenRightBehindTheAcknowledgement)
{
    for (bool rightBehind : {false, true}) {
        SCOPED_TRACE(rightBehind ? "closed right behind the OpenAck" : "closed once open");
        closeAfterAccept = rightBehind;
        const size_t tasksBefore = executor->openTaskCount();
        // The client answers the moment it learns of the close: data first, then its close.
        const auto tail = Bytes(3000, 9);
        std::mutex mutex;
        StreamPtr stream;
        std::tuple<KxIpclibStreamState, KxIpcStatusCode, KxIpcStatusCode> seen;
        std::unique_lock<std::mutex> guard(mutex);  // the end may come before open() returns
        auto opened = open([&] {
            std::lock_guard<std::mutex> guard(mutex);
            auto sent = stream->send(0, static_cast<uint32_t>(tail.size()), tail.data(), Ignore());
            seen = {stream->state(), sent ? KxIpcStatusSuccess : sent.error(), stream->close(1000ms)};
        });
        stream = std::get<0>(opened);
        guard.unlock();
        Recorder* inbox = std::get<1>(opened);
        Recorder* peerInbox = std::get<3>(opened);
        ASSERT_TRUE(stream);
        if (!rightBehind) {
            ASSERT_EQ(std::get<2>(opened)->close(std::chrono::milliseconds::max()), KxIpcStatusSuccess);
        }
        // A "Close" that came before open() returned is delivered all the same, once.
        ASSERT_TRUE(inbox->waitEnd() && peerInbox->waitEnd());
        EXPECT_EQ(seen, std::make_tuple(KxIpclibStreamState::Closing, KxIpcStatusSuccess, KxIpcStatusSuccess));
        EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
        EXPECT_FALSE(stream->send(0, 4, "late", Ignore()));
        const auto got = peerInbox->got();
        EXPECT_TRUE(got.messages == Messages{tail});
        EXPECT_EQ(got.endAfter, 1u);  // the data came before the end
        EXPECT_EQ(got.ends + inbox->got().ends, 2);
        EXPECT_TRUE(inbox->got().messages.empty());
        // Both streams are still held here, but once they have left their links
        // their delivery tasks are closed.
        EXPECT_TRUE(WaitUntil([&] { return client->streamCount() + server->streamCount() == 0; }));
        EXPECT_EQ(executor->openTaskCount(), tasksBefore);
    }
}

TEST_F(StreamPair, OnlyAFiniteCloseTimeOutArmsTheTimerThatEndsAnUnansweredClose)
{
    KxIpclibStream::setCloseTimeoutForTesting(50ms);
    auto [waits, patient, answered, answeredInbox] = open();
    auto [times, hasty, unanswered, unansweredInbox] = open();
    ASSERT_TRUE(waits && times);
    // The server takes its time before it answers the first close, and never answers the second.
    Gate answer;
    Counter asked;
    onServerEnd = [&, first = answered.get()](KxIpclibStream& s) {
        if (&s != first)
            return false;
        asked.add();
        return answer.pass();
    };
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(waits->close(std::chrono::milliseconds::max()), KxIpcStatusSuccess);
    ASSERT_EQ(times->close(1ms), KxIpcStatusSuccess);  // any finite time-out arms the one timer
    ASSERT_TRUE(hasty->waitEnd());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    EXPECT_EQ(times->state(), KxIpclibStreamState::Closed);
    ASSERT_TRUE(asked.waitFor(1));
    std::this_thread::sleep_for(100ms);  // twice the timer more: none may end the other close
    EXPECT_EQ(patient->got().ends, 0);
    EXPECT_EQ(waits->state(), KxIpclibStreamState::Closing);
    answer.open();
    ASSERT_TRUE(patient->waitEnd());
    EXPECT_EQ(waits->state(), KxIpclibStreamState::Closed);
    EXPECT_EQ(hasty->got().ends, 1);
    closeLinks();  // before the callback's locals go
    onServerEnd = nullptr;
}

namespace {

KxIpcStatusCode Feed(KxIpclibStream& stream, const std::vector<uint8_t>& raw)
{
    KxIpclibBlock block;
    const auto status = readBlock(raw.data(), raw.size(), block);
    return status != KxIpcStatusSuccess ? status : stream.recvBlock(block.header, block.payload);
}

} // namespace

TEST_F(StreamPair, OutOfOrderAndMalformedBlocksAreProtocolErrorsAndALargeMessageKeepsItsReceiveBuffer)
{
    // A stream of the server link as if the client's stream 77 had opened it.
    auto stream = std::make_shared<KxIpclibStream>(server, executor, u"s", Flags<KxIpclibStreamFlag>(), 77,
                                                   KxIpclibStreamState::Init);
    ASSERT_EQ(server->addStream(stream), KxIpcStatusSuccess);
    const auto data = Bytes(10, 1);
    const auto whole = Block(KxIpclibMsgType::Msg, 3, 77, 1, data, 10);
    // Offered but not accepted: refused with InvalidState and nothing queued.
    EXPECT_EQ(Feed(*stream, whole), KxIpcStatusInvalidState);
    Recorder& inbox = makeInbox();
    ASSERT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(), inbox.function()), KxIpcStatusSuccess);

    const auto first = Block(KxIpclibMsgType::Msg, 1, 77, 1, data, 20);
    const auto middle = Block(KxIpclibMsgType::Msg, 0, 77, 1, data, 0);
    const auto last = Block(KxIpclibMsgType::Msg, 2, 77, 1, data, 0);
    auto open = [](uint32_t nameLength, size_t size) {
        std::vector<uint8_t> payload(size, 'a');
        tolv::platform::StoreLe<uint32_t>(payload.data(), nameLength);
        return Block(KxIpclibMsgType::Open, 3, 77, 0, payload, static_cast<uint32_t>(size));
    };
    constexpr auto kOk = KxIpcStatusSuccess, kBad = KxIpcStatusProtocolError;
    const std::tuple<const char*, std::vector<uint8_t>, KxIpcStatusCode> steps[] = {
        {"a middle block with nothing being rebuilt", middle, kBad},
        {"a first block", first, kOk},
        {"a first block while rebuilding", first, kBad},
        {"a last block after the half message was dropped", last, kBad},
        {"totalSize below the payload", Block(KxIpclibMsgType::Msg, 3, 77, 1, data, 9), kBad},
        {"a last block with room left", Block(KxIpclibMsgType::Msg, 3, 77, 1, data, 11), kBad},
        {"a first block again", first, kOk},
        {"a middle block", middle, kOk},
        {"30 bytes for a 20-byte message", last, kBad},
        {"an open whose name runs past its payload", open(2, 4), kBad},
        {"an open with an odd name length", open(1, 6), kBad},
        {"an open with an odd name length past its payload", open(3, 6), kBad},
        {"an open with a huge name length", open(0xFFFFFFFF, 6), kBad},
        {"a whole message", whole, kOk},
    };
    for (const auto& [what, raw, status] : steps)
        EXPECT_EQ(Feed(*stream, raw), status) << what;
    // Only the well-formed message was delivered.
    stream->deferredDispatch();
    ASSERT_TRUE(inbox.waitMessages(1));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(inbox.got().messages, Messages{data});

    // A message whole in one block of the receive buffer, large enough, keeps
    // that buffer until it is gone; a small one is copied.
    const uint64_t bytesBefore = stream->bytesReceived(), msgsBefore = stream->msgsReceived();
    const uint32_t bufferSize = 256 * 1024;
    auto pool = std::make_shared<KxIpclibRecvBufferPool>(bufferSize);
    KxIpclibRecvStorage storage;
    storage.buffer = pool->take();
    ASSERT_TRUE(storage.buffer);
    auto receive = [&](const std::vector<uint8_t>& bytes) {  // parsed inside the receive buffer, as the link does
        const auto raw = Block(KxIpclibMsgType::Msg, 3, 77, 1, bytes, static_cast<uint32_t>(bytes.size()));
        std::memcpy(storage.buffer.get(), raw.data(), raw.size());
        KxIpclibBlock block;
        EXPECT_EQ(readBlock(storage.buffer.get(), raw.size(), block), KxIpcStatusSuccess);
        return stream->recvBlock(block.header, block.payload, &storage);
    };
    const auto large = Bytes(KxIpclibStream::kBorrowBytes, 7);
    ASSERT_EQ(receive(large), KxIpcStatusSuccess);
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
    ASSERT_EQ(receive(small), KxIpcStatusSuccess);
    EXPECT_FALSE(storage.lent) << "a small message is copied, not holding a whole buffer";
    std::memset(storage.buffer.get(), 0xEE, bufferSize);
    stream->deferredDispatch();
    ASSERT_TRUE(inbox.waitMessages(3));
    EXPECT_EQ(inbox.got().messages, (Messages{data, large, small}));
    EXPECT_EQ(stream->bytesReceived() - bytesBefore, large.size() + small.size());
    EXPECT_EQ(stream->msgsReceived() - msgsBefore, 2u);
    // Delivered and dropped: the lent buffer is back for reuse, beside the spare.
    EXPECT_TRUE(WaitUntil([&] { return pool->freeCount() == 2; }));
    storage.buffer.reset();
    EXPECT_EQ(pool->freeCount(), 3u);
}
