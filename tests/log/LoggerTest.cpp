#include "common/SettingsStore.h"
#include "log/FunctionTrace.h"
#include "log/LogTestSupport.h"
#include <tolv/log/IpcTrace.h>

#include <cerrno>
#include <set>

namespace {

const std::string kUtcStamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)";
const std::string kSeparator(39, '-');

std::string Hex4(unsigned value)
{
    char text[16];
    snprintf(text, sizeof text, "%04X", value);
    return text;
}

size_t IndexOf(const std::vector<std::string>& lines, const std::string& part)
{
    auto it = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) { return Has(line, part); });
    return it == lines.end() ? std::string::npos : static_cast<size_t>(it - lines.begin());
}

using LoggerTest = FileLoggerFixture;

TEST_F(LoggerTest, LinesCarryThePrefixSeparatorsAndContinuations)
{
    // At WARN, what the logger's poll thread says of itself stays out of the
    // file: only this test's lines are in it, in their order.
    MakeLogger();
    logger->SetLevel(LOG_LEVEL_WARN);
    logger->SetUseLocalTime(false);
    writer->SetHeader("my header");
    writer->SetFooter("bye");
    Start();
    const std::string pid = Hex4(static_cast<unsigned>(getpid()));
    Log("EnvSetup::Init()", LOG_LEVEL_WARN, "text %d", 5);
    Log("", LOG_LEVEL_WARN, "continued");
    unsigned otherTid = 0;
    std::thread([&] {
        otherTid = static_cast<unsigned>(gettid());
        Log("Other::Run()", LOG_LEVEL_WARN, "from another thread");
    }).join();
    Log("EnvSetup::Init()", LOG_LEVEL_ERROR, "back");
    const std::vector<std::string> lines = SplitLines(Finish());

    // The header, then the start-up block from this thread, with no separator.
    ASSERT_GT(lines.size(), 2u);
    const std::string head = kUtcStamp + " <" + Hex4(static_cast<unsigned>(gettid())) + "> \\[" + pid + "\\] ";
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(head + "A Logger Header: my header"))) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(head + "A .+: version=\\d+\\.\\d+\\.\\d+ " +
                                                      "\\(\\w{3} [ \\d]\\d \\d{4} \\d\\d:\\d\\d:\\d\\d\\)" +
                                                      ", buildtype=\\w+/x64, sessionId=-?\\d+")))
        << lines[1];
    EXPECT_NE(IndexOf(lines, "A OS Version: "), std::string::npos);
    // The start-up block shows the other time base.
    const size_t zone = IndexOf(lines, "A Time Zone: ");
    ASSERT_NE(zone, std::string::npos);
    EXPECT_TRUE(std::regex_search(lines[zone], std::regex(R"(\(UTC [+-]\d+(:\d\d)?\), Local time is )" + kStamp + "$")))
        << lines[zone];
    const size_t text = IndexOf(lines, "text 5");
    ASSERT_NE(text, std::string::npos);
    ASSERT_GT(lines.size(), text + 6);
    EXPECT_TRUE(std::regex_match(lines[text], std::regex(head + "W EnvSetup::Init\\(\\): text 5"))) << lines[text];
    // A continuation is indented by exactly the previous prefix.
    const size_t prefixLength = lines[text].size() - std::string("text 5").size();
    EXPECT_EQ(lines[text + 1], std::string(prefixLength, ' ') + "continued");
    // Exactly one separator line on the way to another thread's line, and one on the way back.
    EXPECT_EQ(lines[text + 2], kSeparator);
    EXPECT_TRUE(std::regex_match(lines[text + 3], std::regex(kUtcStamp + " <" + Hex4(otherTid) + "> \\[" + pid +
                                                             "\\] W Other::Run\\(\\): from another thread")))
        << lines[text + 3];
    EXPECT_EQ(lines[text + 4], kSeparator);
    EXPECT_TRUE(std::regex_match(lines[text + 5], std::regex(head + "E EnvSetup::Init\\(\\): back")));
    EXPECT_TRUE(std::regex_match(lines.back(), std::regex(kUtcStamp + ".* A Logger Shutdown: bye"))) << lines.back();
    for (size_t i = 0; i < text; ++i)
        EXPECT_NE(lines[i], kSeparator);
}

// The file and a test's capture both get what the front end's calls write, each at its level.
TEST_F(LoggerTest, FrontEndCallsReachTheFileAndTheCaptureAtTheirLevel)
{
    MakeLogger();
    Start();
    int evaluated = 0;
    auto count = [&] { return ++evaluated; };
    {
        ScopedLogCapture capture(LOG_LEVEL_VERBOSE); // the logger's level too, while it lives
        LOG_DEBUG("F()", "debug %d", count());
        errno = ENOENT;
        LogWithLastError("Drive::Open()", LOG_LEVEL_WARN, "no %s", "file");
        LogWithErrorCode(5, "Drive::Open()", LOG_LEVEL_ERROR, "open of %s failed\n", "x");
        EXPECT_EQ(errno, ENOENT);
        IpcTrace(IpcTraceLogger::Stream, {"ipclibStream", 10, "recvBlock"}, "> state: {}, streamId: {:#x}",
                 "Connected", 0x53000001u);
        EXPECT_EQ(capture.Count("debug 1", "F()"), 1u);
        EXPECT_EQ(capture.Count("no file; (2) No such file or directory", "Drive::Open()"), 1u);
        EXPECT_EQ(capture.Count("open of x failed; (5) Input/output error", "Drive::Open()"), 1u);
    }
    EXPECT_EQ(logger->GetLevel(), LOG_LEVEL_INFO); // the capture put the level back
    LOG_DEBUG("F()", "debug %d", count());        // suppressed: not even evaluated
    Log("F()", LOG_LEVEL_DEBUG, "direct debug");   // direct calls obey the level too
    IpcTrace(IpcTraceLogger::Link, {"f", 1, "send"}, "ipc not written");
    // Each trace ends with its statement.
    FunctionTrace(LOG_LEVEL_INFO, "Traced::Plain()");
    FunctionTrace(LOG_LEVEL_INFO, "Traced::WithText()", {}, "id %d", 7)
        .SetExitText(LOG_LEVEL_WARN, "failed with %d", 3);
    FunctionTrace(LOG_LEVEL_DEBUG, "Traced::Hidden()");
    FunctionTrace(LOG_LEVEL_INFO, "Traced::Timed()").SetTiming(true);
    const std::string text = Finish();
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(CurrentLogLevel.load(), LOG_LEVEL_ALWAYS); // no default logger any more
    for (const char* line : {"D F(): debug 1\n", "W Drive::Open(): no file; (2) No such file or directory\n",
                             "E Drive::Open(): open of x failed; (5) Input/output error\n",
                             "V ipc::stream recvBlock: > state: Connected, streamId: 0x53000001\n",
                             "I Traced::Plain(): Enter\n", "I Traced::Plain(): Exit\n",
                             "I Traced::WithText(): Enter - id 7\n", "W Traced::WithText(): Exit - failed with 3\n"})
        EXPECT_TRUE(Has(text, line)) << line << text;
    for (const char* unseen : {"direct debug", "ipc not written", "Traced::Hidden()"})
        EXPECT_FALSE(Has(text, unseen)) << unseen;
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(I Traced::Timed\(\): Exit\(\d+ms\)\n)")));
}

TEST_F(LoggerTest, NamesAreUniqueAndAStartNeedsAUsableWriter)
{
    MakeLogger(false);
    LoggerManager* manager = LoggerManager::GetInstance();
    EXPECT_FALSE(manager->CreateLogger(logger->GetName(), "other", true));
    EXPECT_EQ(manager->FindLogger(logger->GetName()), logger);
    EXPECT_FALSE(manager->CreateLogger("", "app", false));
    EXPECT_FALSE(logger->GetWriter(42));
    // Settings come from the machine's or the user's keys only.
    EXPECT_TRUE(logger->AddRegistrySettings("Software\\Corvanta\\Veltrane\\TOLV", HKEY_LOCAL_MACHINE));
    EXPECT_TRUE(logger->AddRegistrySettings("Software\\X", HKEY_CURRENT_USER));
    EXPECT_FALSE(logger->AddRegistrySettings("Software\\X", HKEY_USERS));
    EXPECT_FALSE(logger->AddRegistrySettings("", HKEY_LOCAL_MACHINE));
    EXPECT_EQ(logger->GetSettingsLocations(),
              (std::vector<std::string>{"HKLM\\Software\\Corvanta\\Veltrane\\TOLV", "HKCU\\Software\\X"}));

    NewLogger("app", false);
    EXPECT_FALSE(logger->Start()); // no writer at all
    auto file = WriterOf<FileWriter>(LogWriter::kFileWriter);
    ASSERT_TRUE(file->SetProperty("folderPath", dir.path() + "/missing/folder"));
    EXPECT_FALSE(logger->Start());
    EXPECT_FALSE(logger->IsStarted());
    ASSERT_TRUE(file->SetProperty("folderPath", dir.path()));
    EXPECT_TRUE(logger->Start()); // a failed start may be retried
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
    for (const std::string& line : SplitLines(text)) {
        int t = 0;
        int i = 0;
        const size_t at = line.find("I Worker::Run(): thread ");
        if (at == std::string::npos)
            continue;
        ASSERT_EQ(sscanf(line.c_str() + at, "I Worker::Run(): thread %d line %d", &t, &i), 2) << line;
        EXPECT_TRUE(seen.emplace(t, i).second) << "twice: " << line;
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
    EXPECT_TRUE(Has(text, "*** LOG FILE COMPLETE ***\n"));
}

TEST_F(LoggerTest, ManagerShutdownCompletesEveryFileAndClearsTheLevel)
{
    // The manager stays shut down for the rest of its process: a child of its
    // own checks it and exits 0 when every expectation held.
    auto shutDownAndCheck = [this] {
        std::string failed;
        auto check = [&](bool held, const char* what) { failed += held ? "" : std::string(what) + "; "; };
        MakeLogger();
        Start();
        const std::string path = writer->GetFilePath();
        Log("F()", LOG_LEVEL_INFO, "last words");
        LoggerManager* manager = LoggerManager::GetInstance();
        manager->Shutdown();
        check(manager->IsShuttingDown(), "shutting down");
        check(!manager->GetDefaultLogger() && !manager->FindLogger(logger->GetName()), "logger gone");
        check(CurrentLogLevel.load() == LOG_LEVEL_ALWAYS, "level back to ALWAYS");
        const std::string text = ReadWholeFile(path);
        check(Has(text, "I F(): last words\n"), "last words written");
        check(text.ends_with("*** LOG FILE COMPLETE ***\n"), "footer last");
        Log("F()", LOG_LEVEL_ALWAYS, "after shutdown"); // finds no writer
        check(ReadWholeFile(path) == text, "nothing after shutdown");
        fprintf(stderr, "failed: %s\n", failed.c_str());
        _exit(failed.empty() ? 0 : 1);
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(shutDownAndCheck(), ::testing::ExitedWithCode(0), "");
}

// A logger whose settings come from a private settings store.
class RegSettingsReaderTest : public FileLoggerFixture {
protected:
    void StartWithSettings()
    {
        MakeLogger();
        ASSERT_TRUE(logger->AddRegistrySettings("Software\\Corvanta\\Veltrane\\TOLV", HKEY_LOCAL_MACHINE));
        Start();
    }
    void Set(const std::string& name, const std::string& text) { store.Put(kKeyFolder, name, text); }

    static constexpr const char* kKeyFolder = "HKLM/Software/Corvanta/Veltrane/TOLV";
    SettingsStore store;
};

TEST_F(RegSettingsReaderTest, SettingsBeforeTheStartShapeTheLoggerAndItsWriters)
{
    Set("logLevel", "Debug");
    Set("logToStdout", "1");
    Set("useLocalTime", "no");
    Set("logMaxNumFiles", "7");
    Set("logRemoteAddress", "collector.example"); // no socket writer is switched on: not read
    StartWithSettings();
    EXPECT_FALSE(logger->FindWriter(LogWriter::kSocketWriter));
    EXPECT_EQ(logger->GetLevel(), LOG_LEVEL_DEBUG);
    EXPECT_FALSE(logger->UsesLocalTime());
    EXPECT_TRUE(logger->FindWriter(LogWriter::kStdOutWriter));
    std::string value;
    ASSERT_TRUE(writer->GetProperty("maxNumFiles", value));
    EXPECT_EQ(value, "7");
    const std::string text = Finish();
    EXPECT_TRUE(Has(text, "Log Level: DEBUG (read from HKLM\\Software\\Corvanta\\Veltrane\\TOLV\\logLevel)")) << text;
}

TEST_F(RegSettingsReaderTest, ChangesWhileRunningApplyAndSayWhatChanged)
{
    Set("logLevel", "nonsense"); // unknown before the start: the level stays
    StartWithSettings();
    EXPECT_EQ(logger->GetLevel(), LOG_LEVEL_INFO);
    EXPECT_TRUE(logger->IsRedactEnabled());

    Set("logLevel", "warn");
    ASSERT_TRUE(WaitUntil([&] { return logger->GetLevel() == LOG_LEVEL_WARN; }));
    EXPECT_EQ(CurrentLogLevel.load(), LOG_LEVEL_WARN);
    Set("logMaxNumFiles", "5");
    std::string value;
    ASSERT_TRUE(WaitUntil([&] { return writer->GetProperty("maxNumFiles", value) && value == "5"; }));
    // The directory is fixed once the logger runs, and no writer is made now.
    Set("logDirectory", "/elsewhere");
    Set("logToStdout", "1");
    store.Remove(kKeyFolder, "logLevel"); // back to INFO while running
    ASSERT_TRUE(WaitUntil([&] { return logger->GetLevel() == LOG_LEVEL_INFO; }));
    EXPECT_EQ(writer->GetFolderPath(), dir.path());
    EXPECT_FALSE(logger->FindWriter(LogWriter::kStdOutWriter));
    Set("logLevel", "nonsense"); // unknown while running: NEVER
    ASSERT_TRUE(WaitUntil([&] { return logger->GetLevel() == LOG_LEVEL_NEVER; }));
    Set("logLevel", "info");
    ASSERT_TRUE(WaitUntil([&] { return logger->GetLevel() == LOG_LEVEL_INFO; }));

    // The redaction policy has a key of its own.
    const std::string policy = "HKLM/Software/Policies/Corvanta/Veltrane";
    store.Put(policy, "legacyRedactEnabled", "0");
    ASSERT_TRUE(WaitUntil([&] { return !logger->IsRedactEnabled(); }));
    store.Put(policy, "legacyRedactEnabled", "yes");
    ASSERT_TRUE(WaitUntil([&] { return logger->IsRedactEnabled(); }));

    // Switching the file off: its own message still reaches it, later lines do not.
    Set("logEnabled", "false");
    ASSERT_TRUE(WaitUntil([&] { return !writer->IsEnabled(); }));
    Log("After()", LOG_LEVEL_ALWAYS, "not in the file");
    const std::string text = Finish();
    for (const char* line : {"A RegistryReader: logLevel changed to WARN\n",
                             "A RegistryReader: FILE - logMaxNumFiles changed to 5\n",
                             "A RegistryReader: logLevel changed to INFO\n",
                             "RegSettingsReader::OnRedactPolicyChanged(): "
                             "HKLM\\Software\\Policies\\Corvanta\\Veltrane\\legacyRedactEnabled is now disabled\n",
                             "A RegistryReader: FILE - logEnabled changed to FALSE\n"})
        EXPECT_TRUE(Has(text, line)) << line << "\n" << text;
    EXPECT_FALSE(Has(text, "not in the file"));
}

} // namespace
