// A shared-memory link to a real second process (ipcPeer), with the
// descriptors handed over a Unix socket, and to a peer played by hand.

#include "IpcTestSupport.h"
#include "ShmHandOver.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkSharedMemLinux.h"
#include <tamsel/ipc/ipclibTransfer.h>
#include "task/LinuxThreadPoolExecutor.h"

#include "common/LogCapture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace tamsel::ipc;
using namespace tamsel::ipc::testing;
using Executor = std::shared_ptr<tamsel::task::LinuxThreadPoolExecutor>;

namespace {

constexpr uint32_t kSection = 64 * 1024;

bool Stopped(KxIpclibLinkSharedMemLinux& link)
{
    const auto state = link.state();
    return state == KxIpclibLinkState::ShuttingDown || state == KxIpclibLinkState::Closed;
}

// A stream added to `link` by hand, as if the peer had opened it, and accepted.
std::shared_ptr<KxIpclibStream> AcceptedStream(const std::shared_ptr<KxIpclibLinkSharedMemLinux>& link,
                                               const Executor& executor, KxIpclibRecvFunction onRecv = Ignore())
{
    auto stream = std::make_shared<KxIpclibStream>(link, executor, u"s", Flags<KxIpclibStreamFlag>(), 99,
                                                   KxIpclibStreamState::Init);
    EXPECT_EQ(link->addStream(stream), KxIpcStatusSuccess);
    EXPECT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(), std::move(onRecv)), KxIpcStatusSuccess);
    return stream;
}

// A server-side link to a freshly started peer process in hand-over `mode`.
struct PeerLink {
    std::shared_ptr<TestLinkListener> listener;
    std::shared_ptr<KxIpclibLinkSharedMemLinux> link;
    tolv::platform::UniqueFd control;
    pid_t peer = -1;
    std::shared_ptr<Counter> closed = std::make_shared<Counter>();

    void start(const Executor& executor, uint32_t mode, TestLinkListener::Handler handler)
    {
        int pair[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
        control.reset(pair[0]);
        tolv::platform::UniqueFd theirs(pair[1]);
        // The peer's end must survive exec: a copy without close-on-exec.
        tolv::platform::UniqueFd inherited(::fcntl(theirs.get(), F_DUPFD, 0));
        peer = SpawnPeer({"link", std::to_string(inherited.get())});
        ASSERT_GT(peer, 0);
        listener = std::make_shared<TestLinkListener>(executor, std::move(handler));
        tolv::platform::UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, peer, 0)));
        ASSERT_TRUE(pidfd);
        link = std::make_shared<KxIpclibLinkSharedMemLinux>(
            _GUID{}, 0, u"test", static_cast<uint32_t>(peer), [closed = closed](KxIpclibLink&) { closed->add(); },
            listener, kSection, std::move(pidfd), tolv::platform::UniqueFd());
        int error = 0;
        KxIpclibLinkChannelResourceLinux send, recv;
        ASSERT_EQ(link->create(error), 0) << error;
        ASSERT_EQ(link->sendChannel()->duplicateHandles(send, error), 0);
        ASSERT_EQ(link->recvChannel()->duplicateHandles(recv, error), 0);
        ASSERT_TRUE(SendHandOver(control.get(), HandOver{kSection, mode}, send, recv));
        ASSERT_EQ(link->connecting(), KxIpcStatusSuccess);
        unsigned int out = 0;
        ASSERT_EQ(link->start(executor, out), KxIpcStatusSuccess);
    }

    // The peer's exit code, once it has stopped its side and been let go.
    int finish()
    {
        if (!closed->waitFor(1))
            return -1;
        control.reset();
        return ExitCode(peer);
    }

    ~PeerLink() { stop(); }
    void stop()
    {
        KillPeer(peer);
        if (link) {
            link->close();
            // Streams and the link hold each other until the link has closed.
            EXPECT_TRUE(WaitUntil([&] { return link->state() == KxIpclibLinkState::Closed; }));
        }
    }
};

// Whether server stream `s` received every pattern message of the echo peer, in order.
bool GotPattern(EchoServer& server, uint32_t s)
{
    Messages want;
    for (uint32_t size : MessageSizes(kSection))
        want.push_back(PatternMessage(s, static_cast<uint32_t>(want.size()), size));
    return server.received(s) == want;
}

class ShmLinkProcess : public ::testing::Test {
protected:
    void startPeer(uint32_t mode, TestLinkListener::Handler handler)
    {
        executor = tamsel::task::LinuxThreadPoolExecutor::create();
        peer.start(executor, mode, std::move(handler));
    }
    void TearDown() override
    {
        peer.stop();
        EXPECT_TRUE(server.waitEnds());
    }

    EchoServer server;  // its receive functions may run until the link has closed
    Executor executor;
    PeerLink peer;
};

} // namespace

TEST_F(ShmLinkProcess, TwoProcessesExchangeEveryByteInBothDirections)
{
    const size_t descriptors = OpenDescriptors();
    ASSERT_NO_FATAL_FAILURE(startPeer(1, server.handler()));
    ASSERT_EQ(peer.finish(), 0) << "the peer saw a wrong echo or failed";
    for (uint32_t s = 0; s < 3; ++s)
        EXPECT_TRUE(GotPattern(server, s)) << "stream " << s;
    EXPECT_EQ(server.offered(), 3u);
    EXPECT_EQ(peer.link->stopReason(), 1u);  // the peer stopped its side
    EXPECT_EQ(peer.link->state(), KxIpclibLinkState::Closed);
    peer.link.reset();
    peer.listener.reset();
    executor.reset();
    // At most: descriptors of earlier tests in this process may close meanwhile.
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors; })) << OpenDescriptors() << " open";
}

TEST_F(ShmLinkProcess, AReceiveFunctionThatBlocksHoldsUpNoOtherStreamOrLink)
{
    // The first stream's receive function blocks, as a request on a slow
    // drive does, on whichever thread received it.
    Gate gate;
    Counter blocked;
    server.beforeEcho = [&](size_t s) {
        if (s == 0) {
            blocked.add();
            gate.pass();
        }
    };
    ASSERT_NO_FATAL_FAILURE(startPeer(1, server.handler()));
    ASSERT_TRUE(blocked.waitFor(1));
    // Meanwhile the link's other streams get every message echoed...
    EXPECT_TRUE(WaitUntil([&] { return GotPattern(server, 1) && GotPattern(server, 2); }));
    // ...and a second link on the same executor is served whole.
    EchoServer other;
    PeerLink second;
    ASSERT_NO_FATAL_FAILURE(second.start(executor, 1, other.handler()));
    EXPECT_EQ(second.finish(), 0) << "the second link's peer saw a wrong echo or failed";
    EXPECT_EQ(server.received(0).size(), 1u);
    gate.open();
    ASSERT_EQ(peer.finish(), 0) << "the peer saw a wrong echo or failed";
    EXPECT_TRUE(GotPattern(server, 0));
    EXPECT_TRUE(other.waitEnds());
}

TEST_F(ShmLinkProcess, APeerThatNeverFreesTheBufferGetsNothingAndItsDeathFailsTheLink)
{
    ScopedLogCapture quiet(LOG_LEVEL_ALWAYS);
    ASSERT_NO_FATAL_FAILURE(startPeer(2, [](std::shared_ptr<KxIpclibStream>) {}));
    auto stream = AcceptedStream(peer.link, executor);
    const auto data = PatternMessage(0, 0, 1000);
    std::mutex lock;
    std::vector<KxIpcStatusCode> completions;
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(stream->send(0, 1000, data.data(), [&](KxIpcStatusCode status, std::shared_ptr<KxIpclibMsg>) {
            std::lock_guard<std::mutex> guard(lock);
            completions.push_back(status);
        }));
    // Nothing was written: the section is as it was made.
    const uint8_t* section = peer.link->sendChannel()->view();
    EXPECT_EQ(std::count(section, section + 64, 0), 64);

    ASSERT_EQ(::kill(peer.peer, SIGKILL), 0);
    EXPECT_EQ(ExitCode(peer.peer), 128 + SIGKILL);
    ASSERT_TRUE(WaitUntil([&] {
        std::lock_guard<std::mutex> guard(lock);
        return completions.size() == 5;
    }));
    EXPECT_EQ(std::count(completions.begin(), completions.end(), KxIpcStatusStreamClosed), 5);
    EXPECT_EQ(peer.link->stopReason(), 3u);
    EXPECT_TRUE(Stopped(*peer.link));
    // The dead peer is not signalled back.
    EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(peer.link->recvChannel()->errorEvent()));
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
}

TEST_F(ShmLinkProcess, APeerKilledMidStreamLeavesTheSurvivorShutDown)
{
    ScopedLogCapture quiet(LOG_LEVEL_ALWAYS);
    ASSERT_NO_FATAL_FAILURE(startPeer(1, server.handler()));
    ASSERT_TRUE(server.messages.waitFor(3));
    ASSERT_EQ(::kill(peer.peer, SIGKILL), 0);
    ExitCode(peer.peer);
    ASSERT_TRUE(WaitUntil([&] { return Stopped(*peer.link); }));
    EXPECT_EQ(peer.link->stopReason(), 3u);
    EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(peer.link->recvChannel()->errorEvent()));
    std::lock_guard<std::mutex> guard(server.lock);
    for (auto& weak : server.streams)
        if (auto stream = weak.lock()) {
            EXPECT_FALSE(stream->send(0, 4, "late", Ignore()));
        }
}

namespace {

// A started link of this process whose peer is played by hand: the peer's
// channels are the same sections and events, taken over from the link's
// duplicates, and the peer watch is a pipe whose write end the test holds.
struct HandPlayedLink {
    explicit HandPlayedLink(uint32_t section, std::shared_ptr<KxIpclibLinkListener> listener = nullptr)
        : peerReads(section), peerWrites(section)
    {
        int fds[2];
        EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        pipeWrite.reset(fds[1]);
        link = std::make_shared<KxIpclibLinkSharedMemLinux>(_GUID{}, 0, u"by-hand", 1, nullptr, listener, section,
                                                            tolv::platform::UniqueFd(), tolv::platform::UniqueFd(fds[0]));
        int error = 0;
        KxIpclibLinkChannelResourceLinux send, recv;
        EXPECT_EQ(link->create(error), 0);
        EXPECT_EQ(link->sendChannel()->duplicateHandles(send, error), 0);
        EXPECT_EQ(link->recvChannel()->duplicateHandles(recv, error), 0);
        EXPECT_EQ(peerReads.attach(std::move(send), error), 0);
        EXPECT_EQ(peerWrites.attach(std::move(recv), error), 0);
        EXPECT_EQ(link->connecting(), KxIpcStatusSuccess);
        unsigned int out = 0;
        EXPECT_EQ(link->start(executor, out), KxIpcStatusSuccess);
    }
    ~HandPlayedLink() { link->close(); }

    // Writes the first transfer of `blocks` into the link's receive section,
    // as the peer would, and announces it; `corrupt` spoils its CRC.
    uint32_t inject(const std::vector<std::vector<uint8_t>>& blocks, bool corrupt = false)
    {
        std::vector<uint8_t> unit(KxIpclibTransferHeaderSize);
        for (const auto& block : blocks)
            unit.insert(unit.end(), block.begin(), block.end());
        const auto used = static_cast<uint32_t>(unit.size());
        finishTransfer(unit.data(), used, static_cast<uint32_t>(blocks.size()), 1);
        unit[used - 1] ^= corrupt ? 0xFF : 0;
        std::memcpy(peerWrites.view(), unit.data(), used);
        peerWrites.signalDataReady();
        return used;
    }

    // The link failed (not stopped by the peer) and told the peer so.
    void expectFailedAndTold()
    {
        EXPECT_TRUE(WaitUntil([&] { return KxIpclibLinkChannelSharedMemLinux::Consume(peerWrites.errorEvent()); }));
        EXPECT_EQ(link->stopReason(), 0u);
        EXPECT_TRUE(WaitUntil([&] { return Stopped(*link); }));
    }

    Executor executor = tamsel::task::LinuxThreadPoolExecutor::create();
    std::shared_ptr<KxIpclibLinkSharedMemLinux> link;
    tolv::platform::UniqueFd pipeWrite;
    KxIpclibLinkChannelSharedMemLinux peerReads;
    KxIpclibLinkChannelSharedMemLinux peerWrites;
};

std::vector<uint8_t> Text(const char* text)
{
    return std::vector<uint8_t>(text, text + std::strlen(text));
}

class ShmLinkByHand : public ::testing::Test {
protected:
    ScopedLogCapture log{LOG_LEVEL_VERBOSE};
    HandPlayedLink hand{kSection};
    std::shared_ptr<KxIpclibLinkSharedMemLinux>& link = hand.link;
};

} // namespace

TEST_F(ShmLinkByHand, AHostileTransferFailsTheLinkAndTellsThePeer)
{
    EXPECT_EQ(log.CountContaining("start notification on peer pipe"), 1u);
    hand.inject({Block(KxIpclibMsgType::Msg, 3, 5, 0, Text("abcdefgh"), 8)}, true);  // its CRC does not match
    hand.expectFailedAndTold();
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
        SCOPED_TRACE(what);
        HandPlayedLink hand(kSection);
        hand.inject({block});
        hand.expectFailedAndTold();
    }
}

TEST(ShmLinkControl, AMessageWithBytesForTheControlStreamIsContainedAndAnOpenBehindItServed)
{
    ScopedLogCapture log(LOG_LEVEL_ERROR);
    auto executor = tamsel::task::LinuxThreadPoolExecutor::create();
    EchoServer server;
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
}

TEST_F(ShmLinkByHand, ThePeerClosingItsPipeFailsTheLinkWithoutAnswer)
{
    hand.pipeWrite.reset();
    ASSERT_TRUE(WaitUntil([&] { return link->stopReason() == 3; }));
    EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(hand.peerWrites.errorEvent()));
}

TEST_F(ShmLinkByHand, ByteCountersAndTheReadTraceFollowEveryBlockBothWays)
{
    Counter received;
    auto stream = AcceptedStream(link, hand.executor, [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
        if (msg->size() != 0)
            received.add();
    });
    // Out: one message of 1000 bytes is one 40-byte-header block.
    hand.peerReads.signalBufferFree();
    std::vector<uint8_t> data(1000, 0x11);
    ASSERT_TRUE(stream->send(0, 1000, data.data(), Ignore()));
    ASSERT_TRUE(WaitUntil([&] { return KxIpclibLinkChannelSharedMemLinux::Consume(hand.peerReads.dataReadyEvent()); }));
    EXPECT_EQ(link->bytesSent(), 1040u);
    EXPECT_EQ(link->payloadBytesSent(), 1000u);
    // In: a data block for the stream and one for a stream the link does not
    // know; both arrived, so both count.
    const uint32_t used = hand.inject({Block(KxIpclibMsgType::Msg, 3, 99, stream->streamId(), Text("abcdefgh"), 8),
                                       Block(KxIpclibMsgType::Msg, 3, 98, 0x77, Text("vwxyz"), 5)});
    ASSERT_TRUE(received.waitFor(1));
    EXPECT_EQ(link->bytesReceived(), 48u + 45u);
    EXPECT_EQ(link->payloadBytesReceived(), 13u);
    EXPECT_EQ(log.CountContaining(fmt::format("linkId: {:#x}, trxSeqNo: 1, trxSize: {:#x}", link->linkId(), used)), 1u);
    EXPECT_EQ(link->state(), KxIpclibLinkState::Connected);
}

TEST_F(ShmLinkByHand, APeerThatStoppedHasItsStreamsClosedAndTakenOutOfTheLinkAtOnce)
{
    Counter ends;
    Gate release;
    auto stream = AcceptedStream(link, hand.executor, [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
        if (msg->size() == 0) {
            ends.add();
            release.pass();
        }
    });
    hand.peerReads.signalStop();
    ASSERT_TRUE(ends.waitFor(1));
    // While the application still holds the end-of-stream message, the link
    // has let go of the stream and closed.
    EXPECT_EQ(link->stopReason(), 1u);
    EXPECT_TRUE(WaitUntil([&] { return link->streamCount() == 0; }, std::chrono::seconds(5)));
    EXPECT_TRUE(WaitUntil([&] { return link->state() == KxIpclibLinkState::Closed; }, std::chrono::seconds(5)));
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
    // The peer is told nothing back: it stopped first.
    EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(hand.peerWrites.stopEvent()));
    release.open();
    EXPECT_EQ(ends.value(), 1);
}

// 64 bytes leave 36 after the transfer header, less than one block needs: the
// first send fails the link instead of handing the peer a transfer without blocks.
TEST(ShmLinkStart, ASectionTooSmallForOneBlockFailsAtTheFirstSend)
{
    const size_t descriptors = OpenDescriptors();
    {
        HandPlayedLink tiny(64);
        auto stream = AcceptedStream(tiny.link, tiny.executor);
        tiny.peerReads.signalBufferFree();
        std::atomic<int> completed{-1};
        ASSERT_TRUE(stream->send(0, 10, "0123456789", [&](KxIpcStatusCode status, std::shared_ptr<KxIpclibMsg>) {
            completed = static_cast<int>(status);
        }));
        ASSERT_TRUE(WaitUntil([&] { return completed.load() != -1; }));
        EXPECT_EQ(completed.load(), static_cast<int>(KxIpcStatusStreamClosed));
        EXPECT_TRUE(KxIpclibLinkChannelSharedMemLinux::Consume(tiny.peerWrites.errorEvent()));
        EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(tiny.peerReads.dataReadyEvent()));
        EXPECT_TRUE(Stopped(*tiny.link));
    }
    // At most: descriptors of earlier tests in this process may close meanwhile.
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors; }))
        << OpenDescriptors() << " descriptors open, " << descriptors << " before";
}

TEST(ShmLinkStart, WithoutAPeerToWatchTheLinkDoesNotStart)
{
    ScopedLogCapture log(LOG_LEVEL_VERBOSE);
    const size_t descriptors = OpenDescriptors();
    auto executor = tamsel::task::LinuxThreadPoolExecutor::create();
    auto link = std::make_shared<KxIpclibLinkSharedMemLinux>(_GUID{}, 0, u"x", 1, nullptr, nullptr, kSection,
                                                             tolv::platform::UniqueFd(), tolv::platform::UniqueFd());
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
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() == descriptors; }))
        << OpenDescriptors() << " descriptors open, " << descriptors << " before";
}
