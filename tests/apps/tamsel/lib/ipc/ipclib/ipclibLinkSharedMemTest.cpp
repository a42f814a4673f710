// A shared-memory link of this process whose peer is played by hand: the
// peer's channels are the same sections and events, taken over from the
// link's duplicates, and the peer watch is a pipe whose write end the test holds.

#include "IpcTestSupport.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkSharedMemLinux.h"
#include <tamsel/ipc/ipclibTransfer.h>
#include "task/LinuxThreadPoolExecutor.h"

#include "common/LogCapture.h"

#include <fcntl.h>
#include <unistd.h>

using namespace tamsel::ipc;
using namespace tamsel::ipc::testing;

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
                                                            tolv::platform::UniqueFd(), tolv::platform::UniqueFd(fds[0]));
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

    std::shared_ptr<tamsel::task::LinuxThreadPoolExecutor> executor = tamsel::task::LinuxThreadPoolExecutor::create();
    std::shared_ptr<KxIpclibLinkSharedMemLinux> link;
    tolv::platform::UniqueFd pipeWrite;
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
    auto listener = std::make_shared<TestLinkListener>(tamsel::task::LinuxThreadPoolExecutor::create(), server.handler());
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
    Gate release;
    auto stream = hand.acceptedStream([&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
        if (msg->size() == 0) {
            ends.add();
            release.pass();
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
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors; })) << OpenDescriptors() << " open";
}
