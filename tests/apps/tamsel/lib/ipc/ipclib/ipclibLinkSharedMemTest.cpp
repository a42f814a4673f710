// A shared-memory link between this process and a real second process
// (shmLinkPeer), with the descriptors handed over a Unix socket.

#include "common/ProcessProbe.h"
#include "LoopbackLink.h"
#include "ShmHandOver.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkSharedMemLinux.h"
#include <tamsel/ipc/ipclibStream.h>
#include <tamsel/ipc/ipclibTransfer.h>
#include "task/LinuxThreadPoolExecutor.h"
#include "task/TaskTestSupport.h"

#include "common/LogCapture.h"

#include <dirent.h>
#include <fmt/format.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <thread>

using namespace tolv::log;

extern char** environ;

using namespace tamsel::ipc;
using namespace tamsel::ipc::testing;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t kSection = 64 * 1024;

// Server streams echo every message back; what they received is kept per stream.
struct EchoServer {
    std::mutex lock;
    std::vector<std::shared_ptr<KxIpclibStream>> streams;
    std::vector<std::vector<std::vector<uint8_t>>> received;
    Counter messages;
    // Deliveries of stream `gated` call `gate` after recording the message.
    size_t gated = SIZE_MAX;
    std::function<void()> gate;

    void accept(std::shared_ptr<KxIpclibStream> stream)
    {
        size_t index;
        {
            std::lock_guard<std::mutex> guard(lock);
            index = streams.size();
            streams.push_back(stream);
            received.emplace_back();
        }
        std::weak_ptr<KxIpclibStream> weak = stream;
        stream->accept(Flags<KxIpclibStreamFlag>(), [this, index, weak](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
            auto self = weak.lock();
            if (!self)
                return;
            if (msg->size() == 0) {
                self->close(std::chrono::milliseconds::max());
                return;
            }
            std::function<void()> wait;
            {
                std::lock_guard<std::mutex> guard(lock);
                received[index].emplace_back(msg->data(), msg->data() + msg->size());
                if (index == gated)
                    wait = gate;
            }
            if (wait)
                wait();
            // The received message stays alive until its echo has gone out.
            self->send(0, msg->size(), msg->data(), [msg](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
            messages.add();
        });
    }
};

// One server-side link to a freshly started peer process (shmLinkPeer in `mode`).
struct PeerLink {
    std::shared_ptr<TestLinkListener> listener;
    std::shared_ptr<KxIpclibLinkSharedMemLinux> link;
    tolv::platform::UniqueFd control;
    pid_t peer = -1;
    std::shared_ptr<Counter> closed = std::make_shared<Counter>();

    void start(const std::shared_ptr<tamsel::task::LinuxThreadPoolExecutor>& executor, uint32_t mode,
               TestLinkListener::Handler handler)
    {
        int pair[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
        tolv::platform::UniqueFd ours(pair[0]);
        tolv::platform::UniqueFd theirs(pair[1]);
        // The peer's end must survive exec: a copy without close-on-exec.
        tolv::platform::UniqueFd inherited(::fcntl(theirs.get(), F_DUPFD, 0));
        const std::string path = TOLV_SHM_PEER_PATH;
        const std::string fd = std::to_string(inherited.get());
        char* argv[] = {const_cast<char*>(path.c_str()), const_cast<char*>(fd.c_str()), nullptr};
        ASSERT_EQ(::posix_spawn(&peer, path.c_str(), nullptr, nullptr, argv, environ), 0);
        inherited.reset();
        theirs.reset();

        listener = std::make_shared<TestLinkListener>(executor, std::move(handler));
        tolv::platform::UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, peer, 0)));
        ASSERT_TRUE(pidfd);
        link = std::make_shared<KxIpclibLinkSharedMemLinux>(
            _GUID{}, 0, u"test", static_cast<uint32_t>(peer), [closed = closed](KxIpclibLink&) { closed->add(); },
            listener,
            kSection, std::move(pidfd), tolv::platform::UniqueFd());
        int error = 0;
        ASSERT_EQ(link->create(error), 0) << error;
        KxIpclibLinkChannelResourceLinux send, recv;
        ASSERT_EQ(link->sendChannel()->duplicateHandles(send, error), 0);
        ASSERT_EQ(link->recvChannel()->duplicateHandles(recv, error), 0);
        ASSERT_TRUE(SendHandOver(ours.get(), HandOver{kSection, mode}, send, recv));
        control = std::move(ours);
        ASSERT_EQ(link->connecting(), KxIpcStatusSuccess);
        unsigned int out = 0;
        ASSERT_EQ(link->start(executor, out), KxIpcStatusSuccess);
    }

    // The peer's exit code, once it has seen our side stop and been let go.
    int finish()
    {
        if (!closed->waitFor(1))
            return -1;
        control.reset();
        int status = 0;
        if (::waitpid(peer, &status, 0) != peer)
            return -1;
        peer = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
};

class ShmLinkProcess : public ::testing::Test {
protected:
    void startPeer(uint32_t mode, TestLinkListener::Handler handler)
    {
        executor = tamsel::task::LinuxThreadPoolExecutor::create();
        PeerLink started;
        started.closed = closed;
        started.start(executor, mode, std::move(handler));
        listener = std::move(started.listener);
        link = std::move(started.link);
        control = std::move(started.control);
        peer = started.peer;
    }

    int waitPeer()
    {
        int status = 0;
        if (::waitpid(peer, &status, 0) != peer)
            return -1;
        peer = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    void TearDown() override
    {
        if (peer > 0) {
            ::kill(peer, SIGKILL);
            waitPeer();
        }
        if (link) {
            link->close();
            // Streams and the link hold each other until the link has closed.
            EXPECT_TRUE(WaitUntil([&] { return link->state() == KxIpclibLinkState::Closed; }));
        }
        link.reset();
        listener.reset();
        {
            // Streams hold task handles; the executor's destruction waits for them.
            std::lock_guard<std::mutex> guard(server.lock);
            server.streams.clear();
        }
        executor.reset();
    }

    std::shared_ptr<tamsel::task::LinuxThreadPoolExecutor> executor;
    std::shared_ptr<TestLinkListener> listener;
    std::shared_ptr<KxIpclibLinkSharedMemLinux> link;
    tolv::platform::UniqueFd control;
    pid_t peer = -1;
    std::shared_ptr<Counter> closed = std::make_shared<Counter>();
    // Lives as long as the fixture: its receive functions may run until TearDown
    // has closed the link.
    EchoServer server;
};

} // namespace

TEST_F(ShmLinkProcess, TwoProcessesExchangeEveryByteInBothDirections)
{
    const size_t descriptors = OpenDescriptors();
    {
        startPeer(1, [&](std::shared_ptr<KxIpclibStream> s) { server.accept(std::move(s)); });
        EXPECT_TRUE(closed->waitFor(1));  // the peer stopped its side and waits to be let go
        control.reset();
        ASSERT_EQ(waitPeer(), 0) << "the peer saw a wrong echo or failed";
        const auto sizes = MessageSizes(kSection);
        std::lock_guard<std::mutex> guard(server.lock);
        ASSERT_EQ(server.received.size(), 3u);
        for (uint32_t s = 0; s < 3; ++s) {
            ASSERT_EQ(server.received[s].size(), sizes.size());
            for (uint32_t i = 0; i < sizes.size(); ++i)
                EXPECT_TRUE(server.received[s][i] == PatternMessage(s, i, sizes[i])) << "stream " << s << " message " << i;
        }
        EXPECT_EQ(link->stopReason(), 1u);  // the peer stopped its side
        EXPECT_TRUE(closed->waitFor(1));
        EXPECT_EQ(link->state(), KxIpclibLinkState::Closed);
        server.streams.clear();
    }
    link.reset();
    listener.reset();
    executor.reset();
    control.reset();
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(ShmLinkProcess, AReceiveFunctionThatBlocksHoldsUpNoOtherStreamOrLink)
{
    // The first stream's receive function blocks on its first message, as a
    // request on a slow drive does; it runs on whichever thread received it.
    std::mutex gateLock;
    std::condition_variable gateChanged;
    bool open = false;
    Counter blocked;
    const size_t first = 0;  // the first stream the peer opens
    server.gated = first;
    server.gate = [&] {
        std::unique_lock<std::mutex> guard(gateLock);
        blocked.add();
        gateChanged.wait(guard, [&] { return open; });
    };
    startPeer(1, [&](std::shared_ptr<KxIpclibStream> s) { server.accept(std::move(s)); });
    ASSERT_TRUE(blocked.waitFor(1));
    const auto sizes = MessageSizes(kSection);
    // Meanwhile the link's other streams get every message echoed...
    EXPECT_TRUE(WaitUntil([&] {
        std::lock_guard<std::mutex> guard(server.lock);
        return server.received.size() == 3 && server.received[1].size() == sizes.size() &&
               server.received[2].size() == sizes.size();
    })) << "the other streams of the link were held up";
    // ...and a second link on the same executor is served whole.
    EchoServer other;
    PeerLink second;
    second.start(executor, 1, [&](std::shared_ptr<KxIpclibStream> s) { other.accept(std::move(s)); });
    EXPECT_EQ(second.finish(), 0) << "the second link's peer saw a wrong echo or failed";
    {
        std::lock_guard<std::mutex> guard(server.lock);
        EXPECT_LE(server.received[first].size(), 1u);
    }
    {
        std::lock_guard<std::mutex> guard(gateLock);
        open = true;
        gateChanged.notify_all();
    }
    EXPECT_TRUE(closed->waitFor(1));
    control.reset();
    ASSERT_EQ(waitPeer(), 0) << "the peer saw a wrong echo or failed";
    std::lock_guard<std::mutex> guard(server.lock);
    ASSERT_EQ(server.received[first].size(), sizes.size());
    for (uint32_t i = 0; i < sizes.size(); ++i)
        EXPECT_TRUE(server.received[first][i] == PatternMessage(static_cast<uint32_t>(first), i, sizes[i]))
            << "message " << i << " of the held stream";
    second.link.reset();
    other.streams.clear();
}

TEST_F(ShmLinkProcess, APeerThatNeverFreesTheBufferGetsNothingAndItsDeathFailsTheLink)
{
    ScopedLogCapture quiet(LOG_LEVEL_ALWAYS);
    startPeer(2, [](std::shared_ptr<KxIpclibStream>) {});
    auto stream = std::make_shared<KxIpclibStream>(link, executor, u"s", Flags<KxIpclibStreamFlag>(), 99,
                                                   KxIpclibStreamState::Init);
    ASSERT_EQ(link->addStream(stream), KxIpcStatusSuccess);
    ASSERT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(), [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}),
              KxIpcStatusSuccess);
    const auto data = PatternMessage(0, 0, 1000);
    std::mutex lock;
    std::vector<KxIpcStatusCode> completions;
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(stream->send(0, 1000, data.data(), [&](KxIpcStatusCode status, std::shared_ptr<KxIpclibMsg>) {
            std::lock_guard<std::mutex> guard(lock);
            completions.push_back(status);
        }));
    // Nothing was written: the section is as it was made.
    const uint8_t* section = link->sendChannel()->view();
    EXPECT_EQ(std::count(section, section + 64, 0), 64);

    ASSERT_EQ(::kill(peer, SIGKILL), 0);
    EXPECT_EQ(waitPeer(), 128 + SIGKILL);
    ASSERT_TRUE(WaitUntil([&] {
        std::lock_guard<std::mutex> guard(lock);
        return completions.size() == 5;
    }));
    EXPECT_EQ(std::count(completions.begin(), completions.end(), KxIpcStatusStreamClosed), 5);
    EXPECT_EQ(link->stopReason(), 3u);
    const auto state = link->state();
    EXPECT_TRUE(state == KxIpclibLinkState::ShuttingDown || state == KxIpclibLinkState::Closed);
    // The dead peer is not signalled back.
    EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(link->recvChannel()->errorEvent()));
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
}

TEST_F(ShmLinkProcess, APeerKilledMidStreamLeavesTheSurvivorShutDown)
{
    ScopedLogCapture quiet(LOG_LEVEL_ALWAYS);
    startPeer(1, [&](std::shared_ptr<KxIpclibStream> s) { server.accept(std::move(s)); });
    ASSERT_TRUE(server.messages.waitFor(3));
    ASSERT_EQ(::kill(peer, SIGKILL), 0);
    waitPeer();
    ASSERT_TRUE(WaitUntil([&] {
        const auto state = link->state();
        return state == KxIpclibLinkState::ShuttingDown || state == KxIpclibLinkState::Closed;
    }));
    EXPECT_EQ(link->stopReason(), 3u);
    EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(link->recvChannel()->errorEvent()));
    std::lock_guard<std::mutex> guard(server.lock);
    for (auto& stream : server.streams)
        EXPECT_FALSE(stream->send(0, 4, "late", [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}));
}

namespace {

// Makes the link's channels, hands them to the peer's side as the bootstrap
// would, and puts the link into "Connecting".
void CreateAndHandOver(KxIpclibLinkSharedMemLinux& link, KxIpclibLinkChannelSharedMemLinux& peerReads,
                       KxIpclibLinkChannelSharedMemLinux& peerWrites)
{
    int error = 0;
    ASSERT_EQ(link.create(error), 0);
    KxIpclibLinkChannelResourceLinux send, recv;
    ASSERT_EQ(link.sendChannel()->duplicateHandles(send, error), 0);
    ASSERT_EQ(link.recvChannel()->duplicateHandles(recv, error), 0);
    ASSERT_EQ(peerReads.attach(std::move(send), error), 0);
    ASSERT_EQ(peerWrites.attach(std::move(recv), error), 0);
    ASSERT_EQ(link.connecting(), KxIpcStatusSuccess);
}

// A link of this process whose peer is played by hand: the peer's channels
// are the same sections and events, taken over from the link's duplicates,
// and the peer watch is a pipe whose write end the test holds.
class ShmLinkByHand : public ::testing::Test {
protected:
    void SetUp() override
    {
        executor = tamsel::task::LinuxThreadPoolExecutor::create();
        int fds[2];
        ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        pipeWrite.reset(fds[1]);
        link = std::make_shared<KxIpclibLinkSharedMemLinux>(_GUID{}, 0, u"by-hand", 1, nullptr, nullptr, kSection,
                                                            tolv::platform::UniqueFd(), tolv::platform::UniqueFd(fds[0]));
        ASSERT_NO_FATAL_FAILURE(CreateAndHandOver(*link, peerReads, peerWrites));
    }

    void TearDown() override
    {
        if (link)
            link->close();
    }

    std::shared_ptr<tamsel::task::LinuxThreadPoolExecutor> executor;
    std::shared_ptr<KxIpclibLinkSharedMemLinux> link;
    tolv::platform::UniqueFd pipeWrite;
    KxIpclibLinkChannelSharedMemLinux peerReads{kSection};
    KxIpclibLinkChannelSharedMemLinux peerWrites{kSection};
};

} // namespace

TEST_F(ShmLinkByHand, AHostileTransferFailsTheLinkAndTellsThePeer)
{
    ScopedLogCapture log(LOG_LEVEL_VERBOSE);
    unsigned int out = 0;
    ASSERT_EQ(link->start(executor, out), KxIpcStatusSuccess);
    EXPECT_EQ(log.CountContaining("start notification on peer pipe"), 1u);
    // A transfer whose CRC does not match, announced as ready.
    uint8_t* section = peerWrites.view();
    std::vector<uint8_t> unit(100, 0);
    KxIpclibMsg msg(KxIpclibMsgType::Msg, 0, 0, nullptr, 5, 0, 8, "abcdefgh", nullptr);
    const uint32_t used = KxIpclibTransferHeaderSize + writeBlock(msg, unit.data() + KxIpclibTransferHeaderSize, 72);
    finishTransfer(unit.data(), used, 1, 1);
    unit[used - 1] ^= 0xFF;
    std::memcpy(section, unit.data(), used);
    peerWrites.signalDataReady();
    ASSERT_TRUE(WaitUntil([&] { return link->state() != KxIpclibLinkState::Connected; }));
    EXPECT_TRUE(WaitUntil([&] { return KxIpclibLinkChannelSharedMemLinux::Consume(peerWrites.errorEvent()); }));
    EXPECT_EQ(link->stopReason(), 0u);
    const auto state = link->state();
    EXPECT_TRUE(state == KxIpclibLinkState::ShuttingDown || state == KxIpclibLinkState::Closed);
}

TEST_F(ShmLinkByHand, ThePeerClosingItsPipeFailsTheLinkWithoutAnswer)
{
    unsigned int out = 0;
    ASSERT_EQ(link->start(executor, out), KxIpcStatusSuccess);
    pipeWrite.reset();
    ASSERT_TRUE(WaitUntil([&] { return link->stopReason() == 3; }));
    EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(peerWrites.errorEvent()));
}

TEST_F(ShmLinkByHand, ByteCountersAndTheReadTraceFollowEveryBlockBothWays)
{
    ScopedLogCapture log(LOG_LEVEL_VERBOSE);
    unsigned int out = 0;
    ASSERT_EQ(link->start(executor, out), KxIpcStatusSuccess);
    auto stream = std::make_shared<KxIpclibStream>(link, executor, u"s", Flags<KxIpclibStreamFlag>(), 99,
                                                   KxIpclibStreamState::Init);
    ASSERT_EQ(link->addStream(stream), KxIpcStatusSuccess);
    Counter received;
    ASSERT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(),
                             [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
                                 if (msg->size() != 0)
                                     received.add();
                             }),
              KxIpcStatusSuccess);

    // Out: one message of 1000 bytes is one 40-byte-header block.
    peerReads.signalBufferFree();
    std::vector<uint8_t> data(1000, 0x11);
    ASSERT_TRUE(stream->send(0, 1000, data.data(), [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}));
    ASSERT_TRUE(WaitUntil([&] { return KxIpclibLinkChannelSharedMemLinux::Consume(peerReads.dataReadyEvent()); }));
    EXPECT_EQ(link->bytesSent(), 1040u);
    EXPECT_EQ(link->payloadBytesSent(), 1000u);

    // In: a data block for the stream and one for a stream the link does not
    // know; both arrived, so both count.
    std::vector<uint8_t> unit(400, 0);
    KxIpclibMsg known(KxIpclibMsgType::Msg, 0, 0, nullptr, 99, stream->streamId(), 8, "abcdefgh", nullptr);
    KxIpclibMsg unknown(KxIpclibMsgType::Msg, 0, 0, nullptr, 98, 0x77, 5, "vwxyz", nullptr);
    uint32_t used = KxIpclibTransferHeaderSize;
    used += writeBlock(known, unit.data() + used, static_cast<uint32_t>(unit.size()) - used);
    used += writeBlock(unknown, unit.data() + used, static_cast<uint32_t>(unit.size()) - used);
    finishTransfer(unit.data(), used, 2, 1);
    std::memcpy(peerWrites.view(), unit.data(), used);
    peerWrites.signalDataReady();
    ASSERT_TRUE(received.waitFor(1));
    EXPECT_EQ(link->bytesReceived(), 48u + 45u);
    EXPECT_EQ(link->payloadBytesReceived(), 13u);
    EXPECT_EQ(log.CountContaining(fmt::format("linkId: {:#x}, trxSeqNo: 1, trxSize: {:#x}", link->linkId(), used)),
              1u);
    EXPECT_EQ(link->state(), KxIpclibLinkState::Connected);
}

TEST_F(ShmLinkByHand, APeerThatStoppedHasItsStreamsClosedAndTakenOutOfTheLinkAtOnce)
{
    unsigned int out = 0;
    ASSERT_EQ(link->start(executor, out), KxIpcStatusSuccess);
    auto stream = std::make_shared<KxIpclibStream>(link, executor, u"s", Flags<KxIpclibStreamFlag>(), 99,
                                                   KxIpclibStreamState::Init);
    ASSERT_EQ(link->addStream(stream), KxIpcStatusSuccess);
    Counter ends;
    Gate release;
    ASSERT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(),
                             [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
                                 if (msg->size() == 0) {
                                     ends.add();
                                     release.pass();
                                 }
                             }),
              KxIpcStatusSuccess);
    peerReads.signalStop();
    ASSERT_TRUE(ends.waitFor(1));
    // While the application still holds the end-of-stream message, the link
    // has let go of the stream and closed.
    EXPECT_EQ(link->stopReason(), 1u);
    EXPECT_TRUE(WaitUntil([&] { return link->streamCount() == 0; }, std::chrono::seconds(5)));
    EXPECT_TRUE(WaitUntil([&] { return link->state() == KxIpclibLinkState::Closed; }, std::chrono::seconds(5)));
    EXPECT_EQ(stream->state(), KxIpclibStreamState::Closed);
    // The peer is told nothing back: it stopped first.
    EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(peerWrites.stopEvent()));
    release.open();
    EXPECT_EQ(ends.value(), 1);
}

// 64 bytes leave 36 after the transfer header, less than one block needs: the
// link can carry nothing, so its first send fails it instead of handing the
// peer a transfer without blocks.
TEST(ShmLinkStart, ASectionTooSmallForOneBlockFailsAtTheFirstSend)
{
    constexpr uint32_t kTiny = 64;
    const size_t descriptors = OpenDescriptors();
    auto executor = tamsel::task::LinuxThreadPoolExecutor::create();
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    tolv::platform::UniqueFd pipeWrite(fds[1]);
    auto link = std::make_shared<KxIpclibLinkSharedMemLinux>(_GUID{}, 0, u"tiny", 1, nullptr, nullptr, kTiny,
                                                             tolv::platform::UniqueFd(), tolv::platform::UniqueFd(fds[0]));
    auto peerReads = std::make_unique<KxIpclibLinkChannelSharedMemLinux>(kTiny);
    auto peerWrites = std::make_unique<KxIpclibLinkChannelSharedMemLinux>(kTiny);
    ASSERT_NO_FATAL_FAILURE(CreateAndHandOver(*link, *peerReads, *peerWrites));
    unsigned int out = 0;
    ASSERT_EQ(link->start(executor, out), KxIpcStatusSuccess);
    auto stream = std::make_shared<KxIpclibStream>(link, executor, u"s", Flags<KxIpclibStreamFlag>(), 99,
                                                   KxIpclibStreamState::Init);
    ASSERT_EQ(link->addStream(stream), KxIpcStatusSuccess);
    ASSERT_EQ(stream->accept(Flags<KxIpclibStreamFlag>(), [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}),
              KxIpcStatusSuccess);

    peerReads->signalBufferFree();
    std::atomic<int> completed{-1};
    ASSERT_TRUE(stream->send(0, 10, "0123456789", [&](KxIpcStatusCode status, std::shared_ptr<KxIpclibMsg>) {
        completed = static_cast<int>(status);
    }));
    ASSERT_TRUE(WaitUntil([&] { return completed.load() != -1; }));
    EXPECT_EQ(completed.load(), static_cast<int>(KxIpcStatusStreamClosed));
    EXPECT_TRUE(KxIpclibLinkChannelSharedMemLinux::Consume(peerWrites->errorEvent()));
    EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(peerReads->dataReadyEvent()));
    const auto state = link->state();
    EXPECT_TRUE(state == KxIpclibLinkState::ShuttingDown || state == KxIpclibLinkState::Closed);
    stream.reset();
    link->close();
    link.reset();
    executor.reset();
    pipeWrite.reset();
    peerReads.reset();
    peerWrites.reset();
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
    ASSERT_EQ(link->create(error), 0);
    ASSERT_EQ(link->connecting(), KxIpcStatusSuccess);
    unsigned int out = 0;
    EXPECT_EQ(link->start(executor, out), KxIpcStatusUnexpected);
    EXPECT_EQ(log.CountContaining("Error: peer handle or pipe not found"), 1u);
    link->close();
    // Nothing of the failed link outlives it: no section, event or executor.
    link.reset();
    executor.reset();
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() == descriptors; }))
        << OpenDescriptors() << " descriptors open, " << descriptors << " before";
}
