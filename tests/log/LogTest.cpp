#include "common/LogCapture.h"

#include <tolv/log/IpcTrace.h>
#include <tolv/log/Log.h>
#include <tolv/log/LogLevel.h>
#include "log/Logger.h"
#include "log/LoggerManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <regex>

using namespace tolv::log;

TEST(LogLevel, LettersNamesAndParsing)
{
    const char* letters = "AEWIDTVN";
    for (int level = 0; level <= 7; ++level)
        EXPECT_EQ(LogLevelLetter(level), letters[level]);
    EXPECT_STREQ(LogLevelName(0), "ALWAYS");
    EXPECT_STREQ(LogLevelName(6), "VERBOSE");
    EXPECT_STREQ(LogLevelName(8), "UNKNOWN");
    EXPECT_STREQ(LogLevelName(-1), "UNKNOWN");
    EXPECT_EQ(ParseLogLevel("Debug", 1), LOG_LEVEL_DEBUG);
    EXPECT_EQ(ParseLogLevel("NEVER", 1), LOG_LEVEL_NEVER);
    EXPECT_EQ(ParseLogLevel("debugging", 1), LOG_LEVEL_ERROR);
    EXPECT_EQ(ParseLogLevel("", 9), LOG_LEVEL_INFO);  // a bad default becomes INFO
}

TEST(Log, WritesAtOrBelowTheCurrentLevelOnly)
{
    ScopedLogCapture capture(LOG_LEVEL_WARN);
    int evaluated = 0;
    auto count = [&] { return ++evaluated; };
    LOG_ERROR("F()", "error %d", count());
    LOG_WARN("F()", "warn %d", count());
    LOG_INFO("F()", "info %d", count());  // suppressed: its arguments are not evaluated
    EXPECT_EQ(evaluated, 2);
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "error 1");
    EXPECT_EQ(lines[0].function, "F()");
    EXPECT_EQ(lines[0].level, LOG_LEVEL_ERROR);
    EXPECT_EQ(lines[1].text, "warn 2");

    // Calling the entry point directly still obeys the level.
    Log("F()", LOG_LEVEL_DEBUG, "never seen");
    EXPECT_EQ(capture.Lines().size(), 2u);
}

TEST(Log, ErrorVariantsAppendTheErrorTextAndKeepErrno)
{
    ScopedLogCapture capture;
    errno = ENOENT;
    LogWithLastError("Open()", LOG_LEVEL_ERROR, "open of %s failed\n", "x");
    EXPECT_EQ(errno, ENOENT);
    LogWithErrorCode(EACCES, "Open()", LOG_LEVEL_ERROR, "denied");
    errno = EBUSY;
    Log("Open()", LOG_LEVEL_INFO, "plain");
    EXPECT_EQ(errno, EBUSY);
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "open of x failed; (2) No such file or directory");
    EXPECT_EQ(lines[1].text, "denied; (13) Permission denied");
    EXPECT_EQ(lines[2].text, "plain");
}

TEST(Log, LongTextsAreWrittenWhole)
{
    ScopedLogCapture capture;
    const std::string big(5000, 'x');
    Log("F()", LOG_LEVEL_INFO, "%s", big.c_str());
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0].text, big);
}

namespace {
// A sink that logs from inside Write: the nested call must be dropped.
class ReentrantSink final : public LogSink {
public:
    void Write(const LogLine& line) override
    {
        texts.emplace_back(line.text);
        Log("Sink()", LOG_LEVEL_ERROR, "nested");
    }
    std::vector<std::string> texts;
};
} // namespace

TEST(Log, NestedCallsFromASinkAreDropped)
{
    ReentrantSink sink;
    LogSink* previous = SetLogSink(&sink);
    const int32_t savedLevel = CurrentLogLevel;
    SetCurrentLogLevel(LOG_LEVEL_INFO);
    Log("F()", LOG_LEVEL_INFO, "outer");
    SetCurrentLogLevel(savedLevel);
    SetLogSink(previous);
    EXPECT_THAT(sink.texts, testing::ElementsAre("outer"));
}

TEST(Log, WithoutADefaultLoggerNothingIsWrittenAnywhere)
{
    RCPtr<Logger> saved = LoggerManager::GetInstance()->GetDefaultLogger();
    LoggerManager::GetInstance()->SetDefaultLogger({});
    const int32_t savedLevel = CurrentLogLevel;
    SetCurrentLogLevel(LOG_LEVEL_INFO);
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    Log("EnvSetup::Init()", LOG_LEVEL_ALWAYS, "text %d", 5);
    LogWithErrorCode(5, "EnvSetup::Init()", LOG_LEVEL_ERROR, "text\n");
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();
    SetCurrentLogLevel(savedLevel);
    LoggerManager::GetInstance()->SetDefaultLogger(saved);
    EXPECT_EQ(err, "");
    EXPECT_EQ(out, "");
}

namespace {
struct Counted {
    int* formatted;
};
} // namespace

template <>
struct fmt::formatter<Counted> : fmt::formatter<int> {
    auto format(const Counted& c, format_context& ctx) const
    {
        ++*c.formatted;
        return fmt::formatter<int>::format(42, ctx);
    }
};

TEST(IpcTrace, WritesThroughTheNamedLoggerAtLevelSix)
{
    int formatted = 0;
    {
        ScopedLogCapture capture(LOG_LEVEL_VERBOSE);
        const IpcTraceSite site{"apps\\tamsel\\lib\\ipc\\ipclib\\ipclibStream", 10, "recvBlock"};
        IpcTrace(IpcTraceLogger::Stream, site, "> state: {}, streamId: {:#x}, n: {}", "Connected", 0x53000001u,
                 Counted{&formatted});
        const auto lines = capture.Lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].loggerName, "ipc::stream");
        EXPECT_EQ(lines[0].function, "recvBlock");
        EXPECT_EQ(lines[0].level, 6);
        EXPECT_EQ(lines[0].text, "> state: Connected, streamId: 0x53000001, n: 42");
    }
    EXPECT_EQ(formatted, 1);
    {
        ScopedLogCapture capture(LOG_LEVEL_TRACE);  // 5: trace lines are off
        IpcTrace(IpcTraceLogger::Link, {"f", 1, "g"}, "{}", Counted{&formatted});
        EXPECT_TRUE(capture.Lines().empty());
    }
    EXPECT_EQ(formatted, 1);  // nothing formatted while trace is off
    EXPECT_STREQ(IpcTraceLoggerName(IpcTraceLogger::Lib), "ipc::lib");
    EXPECT_STREQ(IpcTraceLoggerName(IpcTraceLogger::Listener), "ipc::listener");
    EXPECT_STREQ(IpcTraceLoggerName(IpcTraceLogger::Link), "ipc::link");
    EXPECT_STREQ(IpcTraceLoggerName(IpcTraceLogger::Msg), "ipc::msg");
}
