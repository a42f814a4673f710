#include "common/LogCapture.h"
#include <tolv/log/Log.h>
#include "log/LogMessageCache.h"
#include "log/LogTestSupport.h"
#include "log/PollLogWriter.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <vector>

using namespace tolv::log;

namespace {

TEST(LogMessage, GrowsToTheHeapAndKeepsTheWholeText)
{
    RCPtr<LogMessage> message = MakeRC<LogMessage>();
    const std::string head(200, 'a');
    const std::string tail(100, 'b');
    message->Append(head.c_str());
    EXPECT_FALSE(message->IsOnHeap());
    message->AppendFormatted(true, "%s", tail.c_str());
    EXPECT_TRUE(message->IsOnHeap());
    EXPECT_EQ(std::string(message->GetText()), head + tail + "\n");
    message->Append("\n", -1, true);  // already ends in a line feed: one is enough
    EXPECT_EQ(message->GetLength(), 302);
}

TEST(LogMessage, TheHundredAndFirstMessageOpensASecondBlockAndIdleBlocksGo)
{
    ScopedLogCapture capture(LOG_LEVEL_VERBOSE);
    RCPtr<LogMessageCache> cache = MakeRC<LogMessageCache>();
    std::vector<RCPtr<LogMessage>> inUse;
    for (int i = 0; i < 100; ++i)
        inUse.push_back(cache->NewMessage());
    EXPECT_EQ(cache->GetBlockCount(), 1);
    EXPECT_FALSE(cache->HasReleaseTimer());
    inUse.push_back(cache->NewMessage());
    EXPECT_EQ(cache->GetBlockCount(), 2);
    EXPECT_TRUE(cache->HasReleaseTimer());
    // The cache reports its growth in front of the next message, not through the logger.
    cache->MovePendingTextInto(*inUse.back());
    EXPECT_NE(std::string(inUse.back()->GetText()).find(" T LogMessageCache::NewMessage(): Log message cache size is 200\n"),
              std::string::npos);

    // Released messages are reused, not allocated again.
    inUse.erase(inUse.begin(), inUse.begin() + 50);
    for (int i = 0; i < 140; ++i)
        inUse.push_back(cache->NewMessage());
    EXPECT_EQ(cache->GetBlockCount(), 2);

    // A block in use is kept; entirely free blocks go, but never the last one.
    cache->SetIdleReleaseMs(0);
    cache->OnBlockReleaseTimer();
    EXPECT_EQ(cache->GetBlockCount(), 2);
    inUse.clear();
    capture.Clear();
    cache->OnBlockReleaseTimer();
    EXPECT_EQ(cache->GetBlockCount(), 1);
    EXPECT_EQ(capture.Count("Log message cache size is 100", "LogMessageCache::OnBlockReleaseTimer()"), 1u);
    cache->OnBlockReleaseTimer();
    EXPECT_EQ(cache->GetBlockCount(), 1);

    // Not yet idle long enough: kept.
    cache->SetIdleReleaseMs(600000);
    for (int i = 0; i < 101; ++i)
        inUse.push_back(cache->NewMessage());
    inUse.clear();
    cache->OnBlockReleaseTimer();
    EXPECT_EQ(cache->GetBlockCount(), 2);
}

using LogWriterQueue = FileLoggerFixture;

TEST_F(LogWriterQueue, MessagesRefusedByADisabledWriterAreReportedOnce)
{
    MakeLogger();
    Start();
    writer->SetEnabled(false);
    for (int i = 0; i < 5; ++i)
        Log("F()", LOG_LEVEL_INFO, "while disabled %d", i);
    writer->SetEnabled(true);
    Log("F()", LOG_LEVEL_INFO, "after");
    const std::string text = Finish();
    EXPECT_EQ(text.find("while disabled"), std::string::npos);
    EXPECT_NE(text.find("I F(): after\n"), std::string::npos);
    // One report, counting the five and any line of the logger's own poll
    // thread that fell into the same window.
    const std::string report = "\n******* Dropped ";
    const size_t at = text.find(report);
    ASSERT_NE(at, std::string::npos) << text;
    EXPECT_GE(std::strtoul(text.c_str() + at + report.size(), nullptr, 10), 5ul) << text;
    EXPECT_NE(text.find(" messages *******\n\n", at), std::string::npos) << text;
    EXPECT_EQ(text.find(report, at + 1), std::string::npos) << text;
}

TEST_F(LogWriterQueue, AFullQueueSwitchesToBatchModeAndLosesNothing)
{
    MakeLogger();
    Start();
    // Hold the poll drain off so the queue fills whatever the machine's speed.
    writer->GetPollItem()->Disable(true);
    for (int i = 0; i < 15050; ++i)
        Log("F()", LOG_LEVEL_INFO, "line %d", i);
    EXPECT_TRUE(writer->IsBatchMode());
    const std::string text = Finish();
    const std::string banner = "\n***** BATCH MODE ENABLED *****\n\n";
    ASSERT_NE(text.find(banner), std::string::npos);
    EXPECT_EQ(text.find(banner, text.find(banner) + 1), std::string::npos);
    size_t lines = 0;
    int expected = 0;
    bool inOrder = true;
    for (const std::string& line : SplitLines(text)) {
        const size_t at = line.find("I F(): line ");
        if (at == std::string::npos)
            continue;
        inOrder = inOrder && std::stoi(line.substr(at + 12)) == expected++;
        ++lines;
    }
    EXPECT_EQ(lines, 15050u);
    EXPECT_TRUE(inOrder);
}


// A buffering writer whose device holds the first message until let go, so a
// poll drain can be caught in progress.
class GatedWriter final : public LogWriter {
public:
    GatedWriter() : LogWriter(kStdOutWriter) { InitBuffering(true); }
    bool Open() override { return true; }
    bool Close() override { return true; }
    bool WriteMessage(const RCPtr<LogMessage>& message) override
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!entered) {
            entered = true;
            changed.notify_all();
            changed.wait_for(lock, std::chrono::seconds(60), [&] { return released; });
        }
        written.emplace_back(message->GetText());
        return true;
    }
    // Not "Release": that would hide the reference count's own.
    void LetGo()
    {
        std::lock_guard<std::mutex> lock(mutex);
        released = true;
        changed.notify_all();
    }
    bool WaitEntered()
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(60), [&] { return entered; });
    }

    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool released = false;
    std::vector<std::string> written;
};

RCPtr<LogMessage> Text(const char* text)
{
    RCPtr<LogMessage> message = MakeRC<LogMessage>();
    message->Append(text, -1, true);
    return message;
}

TEST(LogWriterSwitch, SwitchingOffWaitsForTheDrainAndWritesTheQueueInOrder)
{
    for (const bool buffering : {true, false}) {
        SCOPED_TRACE(buffering ? "buffering off" : "writer off");
        RCPtr<GatedWriter> writer = MakeRC<GatedWriter>();
        ASSERT_TRUE(writer->Start());
        writer->Write(Text("first"));
        ASSERT_TRUE(writer->WaitEntered());  // the poll drain holds "first"
        writer->Write(Text("second"));
        writer->Write(Text("third"));
        auto switched = std::async(std::launch::async, [&] {
            if (buffering)
                writer->SetBufferingEnabled(false);
            else
                writer->SetEnabled(false);
            std::lock_guard<std::mutex> lock(writer->mutex);
            return writer->written;
        });
        writer->LetGo();
        ASSERT_EQ(switched.wait_for(std::chrono::seconds(60)), std::future_status::ready);
        // Everything queued is out by the time the switch returns, in order.
        EXPECT_EQ(switched.get(), (std::vector<std::string>{"first\n", "second\n", "third\n"}));
        writer->Shutdown();
    }
}

} // namespace
