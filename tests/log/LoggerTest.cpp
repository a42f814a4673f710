#include "common/LogCapture.h"
#include "log/FunctionTrace.h"
#include <tolv/log/IpcTrace.h>
#include <tolv/log/Log.h>
#include "log/LogTestSupport.h"

#include "support/LxPollItem.h"
#include "support/LxPollThread.h"

#include <gtest/gtest.h>

#include <future>

#include <unistd.h>

#include <atomic>
#include <regex>
#include <set>
#include <thread>

using namespace tolv::log;

namespace {

const std::string kStamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})";
const std::string kUtcStamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)";
const std::string kSeparator(39, '-');

std::string Hex4(unsigned value)
{
    char text[16];
    snprintf(text, sizeof text, "%04X", value);
    return text;
}

size_t IndexOf(const std::vector<std::string>& lines, const std::string& part, size_t from = 0)
{
    for (size_t i = from; i < lines.size(); ++i)
        if (lines[i].find(part) != std::string::npos)
            return i;
    return std::string::npos;
}

using LoggerTest = FileLoggerFixture;

TEST_F(LoggerTest, LinesCarryThePrefixSeparatorsAndContinuations)
{
    // The "Logger" poll thread announces its start from its own thread; have
    // it do so now, before there is a file, so that only this test's lines
    // and their order are in it.
    {
        struct Ping final : LxPollItem {
            Ping() : LxPollItem("test-ping", 0) {}
            bool Run(bool) override
            {
                ran.set_value();
                return false;
            }
            std::promise<void> ran;
        };
        RCPtr<Ping> ping(new Ping());
        auto ran = ping->ran.get_future();
        ASSERT_TRUE(LoggerManager::GetInstance()->GetPollThread()->AddItem(ping));
        ASSERT_EQ(ran.wait_for(std::chrono::minutes(1)), std::future_status::ready);
    }
    MakeLogger();
    Start();
    const std::string pid = Hex4(static_cast<unsigned>(getpid()));
    const std::string mainTid = Hex4(static_cast<unsigned>(gettid()));
    Log("EnvSetup::Init()", LOG_LEVEL_INFO, "text %d", 5);
    Log("", LOG_LEVEL_INFO, "continued");
    unsigned otherTid = 0;
    std::thread([&] {
        otherTid = static_cast<unsigned>(gettid());
        Log("Other::Run()", LOG_LEVEL_WARN, "from another thread");
    }).join();
    Log("EnvSetup::Init()", LOG_LEVEL_ERROR, "back");
    const std::vector<std::string> lines = SplitLines(Finish());

    // The start-up block comes first, from this thread, with no separator.
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(kStamp + " <" + mainTid + "> \\[" + pid + "\\] A .+: version=\\d+\\.\\d+\\.\\d+ " +
                                                      "\\(\\w{3} [ \\d]\\d \\d{4} \\d\\d:\\d\\d:\\d\\d\\)" +
                                                      ", buildtype=\\w+/x64, sessionId=-?\\d+")))
        << lines[0];
    EXPECT_NE(IndexOf(lines, "A OS Version: "), std::string::npos);
    EXPECT_NE(IndexOf(lines, "A Time Zone: "), std::string::npos);
    EXPECT_NE(IndexOf(lines, "A Log Level: INFO (read from "), std::string::npos);

    const size_t text = IndexOf(lines, "text 5");
    ASSERT_NE(text, std::string::npos);
    const std::string prefix = kStamp + " <" + mainTid + "> \\[" + pid + "\\] I EnvSetup::Init\\(\\): ";
    EXPECT_TRUE(std::regex_match(lines[text], std::regex(prefix + "text 5"))) << lines[text];
    // A continuation is indented by exactly the previous prefix.
    const size_t prefixLength = lines[text].size() - std::string("text 5").size();
    EXPECT_EQ(lines[text + 1], std::string(prefixLength, ' ') + "continued");
    // A line of another thread gets exactly one separator line, and so does
    // the way back.
    EXPECT_EQ(lines[text + 2], kSeparator);
    EXPECT_TRUE(std::regex_match(lines[text + 3], std::regex(kStamp + " <" + Hex4(otherTid) + "> \\[" + pid +
                                                             "\\] W Other::Run\\(\\): from another thread")))
        << lines[text + 3];
    EXPECT_EQ(lines[text + 4], kSeparator);
    EXPECT_TRUE(std::regex_match(lines[text + 5], std::regex(kStamp + ".* E EnvSetup::Init\\(\\): back")));
    for (size_t i = 0; i < text; ++i)
        EXPECT_NE(lines[i], kSeparator);
}

TEST_F(LoggerTest, UtcStampsAndTheStartupBlockShowTheOtherTimeBase)
{
    MakeLogger();
    logger->SetUseLocalTime(false);
    Start();
    Log("F()", LOG_LEVEL_INFO, "in utc");
    const std::vector<std::string> lines = SplitLines(Finish());
    const size_t line = IndexOf(lines, "in utc");
    ASSERT_NE(line, std::string::npos);
    EXPECT_TRUE(std::regex_match(lines[line], std::regex(kUtcStamp + " <[0-9A-F]{4,}> \\[[0-9A-F]{4,}\\] I F\\(\\): in utc")))
        << lines[line];
    const size_t zone = IndexOf(lines, "A Time Zone: ");
    ASSERT_NE(zone, std::string::npos);
    EXPECT_TRUE(std::regex_search(lines[zone], std::regex(R"(\(UTC [+-]\d+(:\d\d)?\), Local time is )" + kStamp + "$")))
        << lines[zone];
}

TEST_F(LoggerTest, SuppressedLevelsFormatNothingAndWriteNothing)
{
    MakeLogger();
    Start();
    EXPECT_EQ(CurrentLogLevel.load(), LOG_LEVEL_INFO);
    int evaluated = 0;
    auto count = [&] { return ++evaluated; };
    LOG_INFO("F()", "info %d", count());
    LOG_DEBUG("F()", "debug %d", count());
    EXPECT_EQ(evaluated, 1);
    // Calling the entry point directly still obeys the logger's level.
    Log("F()", LOG_LEVEL_DEBUG, "direct debug");
    logger->SetLevel(LOG_LEVEL_DEBUG);
    EXPECT_EQ(CurrentLogLevel.load(), LOG_LEVEL_DEBUG);
    LOG_DEBUG("F()", "debug %d", count());
    const std::string text = Finish();
    EXPECT_NE(text.find("I F(): info 1\n"), std::string::npos);
    EXPECT_NE(text.find("D F(): debug 2\n"), std::string::npos);
    EXPECT_EQ(text.find("direct debug"), std::string::npos);
    EXPECT_EQ(CurrentLogLevel.load(), LOG_LEVEL_ALWAYS);  // no default logger any more
}

TEST_F(LoggerTest, ErrorVariantsDropTheLineFeedAndAppendTheSystemText)
{
    MakeLogger();
    Start();
    LogWithErrorCode(5, "Drive::Open()", LOG_LEVEL_ERROR, "open of %s failed\n", "x");
    errno = ENOENT;
    LogWithLastError("Drive::Open()", LOG_LEVEL_WARN, "no %s", "file");
    EXPECT_EQ(errno, ENOENT);
    const std::string text = Finish();
    EXPECT_NE(text.find("E Drive::Open(): open of x failed; (5) Input/output error\n"), std::string::npos) << text;
    EXPECT_NE(text.find("W Drive::Open(): no file; (2) No such file or directory\n"), std::string::npos);
}

TEST_F(LoggerTest, NamesAreUniqueAndEmptyNamesRefused)
{
    MakeLogger(false);
    LoggerManager* manager = LoggerManager::GetInstance();
    EXPECT_FALSE(manager->CreateLogger(logger->GetName(), "other", true));
    EXPECT_EQ(manager->FindLogger(logger->GetName()), logger);
    EXPECT_EQ(manager->FindLogger(logger->GetName())->GetAppName(), "tolvTest");
    EXPECT_FALSE(manager->CreateLogger("", "app", false));
    EXPECT_FALSE(logger->GetWriter(42));
    EXPECT_EQ(logger->GetWriter(LogWriter::kFileWriter), RCPtr<LogWriter>(writer));
    EXPECT_TRUE(logger->AddRegistrySettings("Software\\Corvanta\\Veltrane\\TOLV", HKEY_LOCAL_MACHINE));
    EXPECT_TRUE(logger->AddRegistrySettings("Software\\X", HKEY_CURRENT_USER));
    EXPECT_FALSE(logger->AddRegistrySettings("Software\\X", HKEY_USERS));
    EXPECT_FALSE(logger->AddRegistrySettings("", HKEY_LOCAL_MACHINE));
    EXPECT_EQ(logger->GetSettingsLocations(),
              (std::vector<std::string>{"HKLM\\Software\\Corvanta\\Veltrane\\TOLV", "HKCU\\Software\\X"}));
}

TEST_F(LoggerTest, AStartWithoutAUsableWriterFails)
{
    logger = LoggerManager::GetInstance()->CreateLogger("no-writers", "app", false);
    EXPECT_FALSE(logger->Start());
    auto file = RCPtr<FileWriter>(static_cast<FileWriter*>(logger->GetWriter(LogWriter::kFileWriter).get()));
    ASSERT_TRUE(file->SetProperty("folderPath", dir.path() + "/missing/folder"));
    EXPECT_FALSE(logger->Start());
    EXPECT_FALSE(logger->IsStarted());
    ASSERT_TRUE(file->SetProperty("folderPath", dir.path()));
    EXPECT_TRUE(logger->Start());  // a failed start may be retried
}

TEST_F(LoggerTest, HeaderAndFooterFrameTheFile)
{
    MakeLogger();
    writer->SetHeader("my header");
    Start();
    Log("F()", LOG_LEVEL_INFO, "body");
    std::vector<std::string> lines = SplitLines(Finish());
    ASSERT_GE(lines.size(), 3u);
    EXPECT_NE(lines.front().find("A Logger Header: my header"), std::string::npos) << lines.front();
    EXPECT_TRUE(std::regex_match(lines.back(), std::regex(kStamp + ".* A Logger Shutdown: \\*\\*\\* LOG FILE COMPLETE \\*\\*\\*")))
        << lines.back();

    MakeLogger();
    writer->SetFooter("bye");
    Start();
    lines = SplitLines(Finish());
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().find("A Logger Shutdown: bye"), std::string::npos);
}

TEST_F(LoggerTest, NothingIsLostWhenManyThreadsLogUpToShutdown)
{
    MakeLogger();
    Start();
    constexpr int kThreads = 4;
    constexpr int kLines = 5000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i)
                LOG_INFO("Worker::Run()", "thread %d line %d", t, i);
        });
    for (std::thread& thread : threads)
        thread.join();
    const std::string text = Finish();
    std::set<std::pair<int, int>> seen;
    int duplicates = 0;
    for (const std::string& line : SplitLines(text)) {
        int t = 0;
        int i = 0;
        const size_t at = line.find("I Worker::Run(): thread ");
        if (at == std::string::npos)
            continue;
        ASSERT_EQ(sscanf(line.c_str() + at, "I Worker::Run(): thread %d line %d", &t, &i), 2) << line;
        duplicates += seen.emplace(t, i).second ? 0 : 1;
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
    EXPECT_EQ(duplicates, 0);
    EXPECT_NE(text.rfind("*** LOG FILE COMPLETE ***\n"), std::string::npos);
}

TEST_F(LoggerTest, IpcTraceLinesReachTheFileThroughTheDefaultLogger)
{
    MakeLogger();
    logger->SetLevel(LOG_LEVEL_VERBOSE);
    Start();
    IpcTrace(IpcTraceLogger::Stream, {"apps\\tamsel\\lib\\ipc\\ipclib\\ipclibStream", 10, "recvBlock"},
             "> state: {}, streamId: {:#x}", "Connected", 0x53000001u);
    logger->SetLevel(LOG_LEVEL_TRACE);
    IpcTrace(IpcTraceLogger::Link, {"f", 1, "send"}, "not written");
    const std::string text = Finish();
    EXPECT_NE(text.find("V ipc::stream recvBlock: > state: Connected, streamId: 0x53000001\n"), std::string::npos)
        << text;
    EXPECT_EQ(text.find("not written"), std::string::npos);
}

TEST_F(LoggerTest, CapturesSeeLinesBesideTheLogger)
{
    MakeLogger();
    Start();
    {
        ScopedLogCapture capture(LOG_LEVEL_DEBUG);
        LOG_DEBUG("F()", "both %d", 1);
        EXPECT_EQ(capture.Count("both 1", "F()"), 1u);
    }
    EXPECT_EQ(logger->GetLevel(), LOG_LEVEL_INFO);  // the capture put the level back
    EXPECT_NE(Finish().find("D F(): both 1\n"), std::string::npos);
}

TEST_F(LoggerTest, FunctionTraceWritesEnterAndExit)
{
    MakeLogger();
    Start();
    {
        FunctionTrace trace(LOG_LEVEL_INFO, "Traced::Plain()");
    }
    {
        FunctionTrace trace(LOG_LEVEL_INFO, "Traced::WithText()", {}, "id %d", 7);
        trace.SetExitText(LOG_LEVEL_WARN, "failed with %d", 3);
    }
    {
        FunctionTrace trace(LOG_LEVEL_DEBUG, "Traced::Hidden()");
    }
    {
        FunctionTrace trace(LOG_LEVEL_INFO, "Traced::Timed()");
        trace.SetTiming(true);
    }
    const std::string text = Finish();
    EXPECT_NE(text.find("I Traced::Plain(): Enter\n"), std::string::npos);
    EXPECT_NE(text.find("I Traced::Plain(): Exit\n"), std::string::npos);
    EXPECT_NE(text.find("I Traced::WithText(): Enter - id 7\n"), std::string::npos);
    EXPECT_NE(text.find("W Traced::WithText(): Exit - failed with 3\n"), std::string::npos);
    EXPECT_EQ(text.find("Traced::Hidden()"), std::string::npos);
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(I Traced::Timed\(\): Exit\(\d+ms\)\n)")));
}

TEST_F(LoggerTest, ManagerShutdownCompletesEveryFileAndClearsTheLevel)
{
    // The manager stays shut down for the rest of its process, so this runs
    // in a child of its own, which exits 0 when every expectation held.
    auto shutDownAndCheck = [this] {
        int failures = 0;
        auto check = [&](bool held, const char* what) {
            if (!held) {
                fprintf(stderr, "failed: %s\n", what);
                ++failures;
            }
        };
        MakeLogger();
        Start();
        const std::string path = writer->GetFilePath();
        Log("F()", LOG_LEVEL_INFO, "last words");
        LoggerManager::GetInstance()->Shutdown();
        check(LoggerManager::GetInstance()->IsShuttingDown(), "shutting down");
        check(!LoggerManager::GetInstance()->GetDefaultLogger(), "no default logger");
        check(CurrentLogLevel.load() == LOG_LEVEL_ALWAYS, "level back to ALWAYS");
        check(!LoggerManager::GetInstance()->FindLogger(logger->GetName()), "logger gone");
        const std::string text = ReadWholeFile(path);
        check(text.find("I F(): last words\n") != std::string::npos, "last words written");
        check(text.size() >= 26 && text.substr(text.size() - 26) == "*** LOG FILE COMPLETE ***\n", "footer last");
        // Later calls find no writer and do nothing.
        Log("F()", LOG_LEVEL_ALWAYS, "after shutdown");
        check(ReadWholeFile(path) == text, "nothing after shutdown");
        fflush(stderr);
        _exit(failures == 0 ? 0 : 1);
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(shutDownAndCheck(), ::testing::ExitedWithCode(0), "");
}

} // namespace
