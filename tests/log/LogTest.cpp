#include "log/LogMessageCache.h"
#include "log/LogTestSupport.h"
#include "log/PollLogWriter.h"
#include <tolv/log/IpcTrace.h>
#include <tolv/log/LogLevel.h>

#include <condition_variable>
#include <future>

// Counts how often the trace front end formats it.
struct Counted {
    int* formatted;
};
template <>
struct fmt::formatter<Counted> : fmt::formatter<int> {
    auto format(const Counted& c, format_context& ctx) const
    {
        ++*c.formatted;
        return fmt::formatter<int>::format(42, ctx);
    }
};

namespace {

TEST(LogLevel, LettersNamesAndParsing)
{
    for (int level = 0; level <= 7; ++level)
        EXPECT_EQ(LogLevelLetter(level), "AEWIDTVN"[level]) << level;
    EXPECT_STREQ(LogLevelName(0), "ALWAYS");
    EXPECT_STREQ(LogLevelName(6), "VERBOSE");
    EXPECT_STREQ(LogLevelName(8), "UNKNOWN");
    EXPECT_STREQ(LogLevelName(-1), "UNKNOWN");
    EXPECT_EQ(ParseLogLevel("Debug", 1), LOG_LEVEL_DEBUG);
    EXPECT_EQ(ParseLogLevel("NEVER", 1), LOG_LEVEL_NEVER);
    EXPECT_EQ(ParseLogLevel("debugging", 1), LOG_LEVEL_ERROR);
    EXPECT_EQ(ParseLogLevel("", 9), LOG_LEVEL_INFO); // a bad default becomes INFO
}

// A sink that logs from inside Write: that nested call must be dropped.
class ReentrantSink final : public LogSink {
public:
    void Write(const LogLine& line) override
    {
        texts.emplace_back(line.text);
        Log("Sink()", LOG_LEVEL_ERROR, "nested");
    }
    std::vector<std::string> texts;
};

// Without a default logger only the sink sees a line: nothing reaches the standard streams.
TEST(Log, SinksGetWholeLongTextsAndNoNestedCalls)
{
    RCPtr<Logger> savedLogger = LoggerManager::GetInstance()->GetDefaultLogger();
    LoggerManager::GetInstance()->SetDefaultLogger({});
    ReentrantSink sink;
    LogSink* previous = SetLogSink(&sink);
    const int32_t savedLevel = CurrentLogLevel;
    SetCurrentLogLevel(LOG_LEVEL_INFO);
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    const std::string big(5000, 'x');
    Log("F()", LOG_LEVEL_INFO, "outer");
    Log("F()", LOG_LEVEL_INFO, "%s", big.c_str());
    const std::string streams = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    SetCurrentLogLevel(savedLevel);
    SetLogSink(previous);
    LoggerManager::GetInstance()->SetDefaultLogger(savedLogger);
    EXPECT_EQ(sink.texts, (std::vector<std::string>{"outer", big}));
    EXPECT_EQ(streams, "");
}

// The file's text shows the line's fields; here, when it is formatted and the loggers' names.
TEST(IpcTrace, FormatsOnlyWhenTraceIsOnAndNamesItsLogger)
{
    int formatted = 0;
    ScopedLogCapture capture(LOG_LEVEL_TRACE); // below the trace level
    IpcTrace(IpcTraceLogger::Link, {"f", 1, "g"}, "{}", Counted{&formatted});
    SetCurrentLogLevel(LOG_LEVEL_VERBOSE);
    IpcTrace(IpcTraceLogger::Stream, {"ipclibStream", 10, "recvBlock"}, "n: {}", Counted{&formatted});
    EXPECT_EQ(formatted, 1);
    EXPECT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Count("n: 42", "recvBlock"), 1u);
    const std::pair<IpcTraceLogger, std::string> names[] = {
        {IpcTraceLogger::Lib, "ipc::lib"},   {IpcTraceLogger::Listener, "ipc::listener"},
        {IpcTraceLogger::Link, "ipc::link"}, {IpcTraceLogger::Stream, "ipc::stream"},
        {IpcTraceLogger::Msg, "ipc::msg"},
    };
    for (const auto& [logger, name] : names)
        EXPECT_EQ(IpcTraceLoggerName(logger), name);
}

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
    message->Append("\n", -1, true); // already ends in a line feed: one is enough
    EXPECT_EQ(message->GetLength(), 302);
}

TEST(LogMessage, TheHundredAndFirstMessageOpensASecondBlockAndIdleBlocksGo)
{
    ScopedLogCapture capture(LOG_LEVEL_VERBOSE);
    RCPtr<LogMessageCache> cache = MakeRC<LogMessageCache>();
    std::vector<RCPtr<LogMessage>> inUse;
    auto take = [&](int count) {
        for (int i = 0; i < count; ++i)
            inUse.push_back(cache->NewMessage());
    };
    take(100);
    EXPECT_EQ(cache->GetBlockCount(), 1);
    EXPECT_FALSE(cache->HasReleaseTimer());
    take(1);
    EXPECT_EQ(cache->GetBlockCount(), 2);
    EXPECT_TRUE(cache->HasReleaseTimer());
    // The cache reports its growth in front of the next message, not through the logger.
    cache->MovePendingTextInto(*inUse.back());
    EXPECT_TRUE(Has(inUse.back()->GetText(), " T LogMessageCache::NewMessage(): Log message cache size is 200\n"));

    // Released messages are reused, not allocated again.
    inUse.erase(inUse.begin(), inUse.begin() + 50);
    take(140);
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
    take(101);
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
    EXPECT_FALSE(Has(text, "while disabled"));
    EXPECT_TRUE(Has(text, "I F(): after\n"));
    // One report, of the five and of any line the logger's own poll thread
    // wrote in the same window.
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
    ASSERT_TRUE(Has(text, banner));
    EXPECT_EQ(text.find(banner, text.find(banner) + 1), std::string::npos);
    int expected = 0;
    for (const std::string& line : SplitLines(text)) {
        const size_t at = line.find("I F(): line ");
        if (at != std::string::npos) {
            ASSERT_EQ(std::stoi(line.substr(at + 12)), expected++);
        }
    }
    EXPECT_EQ(expected, 15050);
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
        if (!gated.exchange(true)) {
            entered.set_value();
            release.wait_for(std::chrono::seconds(60));
        }
        std::lock_guard<std::mutex> lock(mutex);
        written.emplace_back(message->GetText());
        return true;
    }

    std::atomic<bool> gated{false};
    std::promise<void> entered;
    std::promise<void> letGo;
    std::shared_future<void> release = letGo.get_future().share();
    std::mutex mutex;
    std::vector<std::string> written;
};

TEST(LogWriterSwitch, SwitchingOffWaitsForTheDrainAndWritesTheQueueInOrder)
{
    for (const bool buffering : {true, false}) {
        SCOPED_TRACE(buffering ? "buffering off" : "writer off");
        RCPtr<GatedWriter> writer = MakeRC<GatedWriter>();
        auto entered = writer->entered.get_future();
        ASSERT_TRUE(writer->Start());
        for (const char* text : {"first", "second", "third"}) {
            RCPtr<LogMessage> message = MakeRC<LogMessage>();
            message->Append(text, -1, true);
            writer->Write(message);
            // The poll drain holds "first" while the others queue.
            ASSERT_EQ(entered.wait_for(std::chrono::seconds(60)), std::future_status::ready);
        }
        auto switched = std::async(std::launch::async, [&] {
            if (buffering)
                writer->SetBufferingEnabled(false);
            else
                writer->SetEnabled(false);
            std::lock_guard<std::mutex> lock(writer->mutex);
            return writer->written;
        });
        writer->letGo.set_value();
        ASSERT_EQ(switched.wait_for(std::chrono::seconds(60)), std::future_status::ready);
        // Everything queued is out by the time the switch returns, in order.
        EXPECT_EQ(switched.get(), (std::vector<std::string>{"first\n", "second\n", "third\n"}));
        writer->Shutdown();
    }
}

} // namespace
