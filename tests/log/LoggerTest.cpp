#include "common/SettingsStore.h"
#include "log/FunctionTrace.h"
#include "log/LogTestSupport.h"
#include <tolv/log/IpcTrace.h>
#include <tolv/log/LogLevel.h>

#include <cerrno>
#include <set>

namespace {

const std::string kUtcStamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)";

using LoggerTest = LoggerFixture;

TEST_F(LoggerTest, LinesCarryThePrefixSeparatorsAndContinuations)
{
    MakeLogger();
    // At WARN, what the logger's poll thread says of itself stays out of the file.
    logger->SetLevel(LOG_LEVEL_WARN);
    logger->SetUseLocalTime(false);
    writer->SetHeader("my header");
    writer->SetFooter("bye");
    Start();
    Log("EnvSetup::Init()", LOG_LEVEL_WARN, "text %d", 5);
    Log("", LOG_LEVEL_WARN, "continued\n"); // ends in a line feed already: no empty line follows
    long otherTid = 0;
    std::thread([&] {
        otherTid = gettid();
        Log("Other::Run()", LOG_LEVEL_WARN, "from another thread");
    }).join();
    Log("EnvSetup::Init()", LOG_LEVEL_ERROR, "back");
    const std::string text = Finish();
    // The header, then the start-up block from this thread, in the other time base.
    const std::string pid = "\\[" + fmt::format("{:04X}", getpid()) + "\\] ";
    const std::string head = kUtcStamp + " <" + fmt::format("{:04X}", gettid()) + "> " + pid;
    const std::string build =
        R"(version=\d+\.\d+\.\d+ \(\w{3} [ \d]\d \d{4} \d\d:\d\d:\d\d\), buildtype=\w+/x64, )";
    EXPECT_TRUE(std::regex_search(text, std::regex("^" + head + "A Logger Header: my header\n" + head +
                                                   "A .+: " + build + R"(sessionId=-?\d+\n)")))
        << text;
    const std::string zone = R"(A Time Zone: .*\(UTC [+-]\d+(:\d\d)?\), Local time is )" + kStamp + "\n";
    EXPECT_TRUE(std::regex_search(text, std::regex(zone))) << text;
    // A continuation is indented by exactly the prefix; one separator line on
    // the way to another thread's line, and one on the way back.
    std::smatch m;
    const std::string separator = std::string(39, '-') + "\n";
    const std::string other = kUtcStamp + " <" + fmt::format("{:04X}", otherTid) + "> " + pid;
    const std::regex sequence("\n(" + head + R"(W EnvSetup::Init\(\): )text 5\n( *)continued\n)" + separator +
                              other + R"(W Other::Run\(\): from another thread\n)" + separator + head +
                              R"(E EnvSetup::Init\(\): back\n)");
    ASSERT_TRUE(std::regex_search(text, m, sequence)) << text;
    EXPECT_EQ(m.length(1), m.length(2));
    EXPECT_GT(text.find(separator), static_cast<size_t>(m.position(0))); // none before
    EXPECT_TRUE(std::regex_search(text, std::regex(kUtcStamp + ".* A Logger Shutdown: bye\n$"))) << text;
}

// A sink beside the logger that logs from inside Write: that nested call must be dropped.
class ReentrantSink final : public LogSink {
public:
    void Write(const LogLine& line) override
    {
        texts.emplace_back(line.text);
        Log("Sink()", LOG_LEVEL_ERROR, "nested");
    }
    size_t Count(const std::string& text) const { return std::count(texts.begin(), texts.end(), text); }
    std::vector<std::string> texts;
};

// The file and a sink both get what the front end's calls write, each at its level.
TEST_F(LoggerTest, FrontEndCallsReachTheFileAndTheSinkAtTheirLevel)
{
    MakeLogger();
    Start();
    int evaluated = 0;
    auto count = [&] { return ++evaluated; };
    ReentrantSink sink;
    LogSink* previous = SetLogSink(&sink);
    SetCurrentLogLevel(LOG_LEVEL_VERBOSE); // the default logger's level
    LOG_DEBUG("F()", "debug %d", count());
    errno = ENOENT;
    LogWithLastError("Drive::Open()", LOG_LEVEL_WARN, "no %s", "file");
    LogWithErrorCode(5, "Drive::Open()", LOG_LEVEL_ERROR, "open of %s failed\n", "x");
    EXPECT_EQ(errno, ENOENT);
    IpcTrace(IpcTraceLogger::Stream, {"ipclibStream", 10, "recvBlock"}, "> state: {}, streamId: {:#x}",
             "Connected", 0x53000001u);
    const std::string big(5000, 'x');
    Log("Big()", LOG_LEVEL_INFO, "%s", big.c_str());
    SetCurrentLogLevel(LOG_LEVEL_INFO);
    SetLogSink(previous);
    EXPECT_EQ(logger->GetLevel(), LOG_LEVEL_INFO);
    for (const char* line :
         {"debug 1", "no file; (2) No such file or directory", "open of x failed; (5) Input/output error"})
        EXPECT_EQ(sink.Count(line), 1u) << line;
    EXPECT_EQ(sink.Count(big), 1u);
    LOG_DEBUG("F()", "debug %d", count());       // suppressed: not even evaluated
    Log("F()", LOG_LEVEL_DEBUG, "direct debug"); // direct calls obey the level too
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
    for (const char* line :
         {"D F(): debug 1\n", "W Drive::Open(): no file; (2) No such file or directory\n",
          "E Drive::Open(): open of x failed; (5) Input/output error\n",
          "V ipc::stream recvBlock: > state: Connected, streamId: 0x53000001\n", "I Traced::Plain(): Enter\n",
          "I Traced::Plain(): Exit\n", "I Traced::WithText(): Enter - id 7\n",
          "W Traced::WithText(): Exit - failed with 3\n"})
        EXPECT_TRUE(Has(text, line)) << line;
    EXPECT_TRUE(Has(text, "I Big(): " + big + "\n"));
    for (const char* unseen : {"nested", "direct debug", "ipc not written", "Traced::Hidden()"})
        EXPECT_FALSE(Has(text, unseen)) << unseen;
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(I Traced::Timed\(\): Exit\(\d+ms\)\n)")));
    // A level out of range still has a name.
    EXPECT_STREQ(LogLevelName(8), "UNKNOWN");
    EXPECT_STREQ(LogLevelName(-1), "UNKNOWN");
}

TEST_F(LoggerTest, NamesAreUniqueAndAStartNeedsAUsableWriter)
{
    MakeLogger(false);
    LoggerManager* manager = LoggerManager::GetInstance();
    EXPECT_FALSE(manager->CreateLogger(logger->GetName(), "other", true));
    EXPECT_FALSE(manager->CreateLogger("", "app", false));
    EXPECT_FALSE(logger->GetWriter(42));
    EXPECT_FALSE(logger->AddRegistrySettings("Software\\X", HKEY_USERS)); // the machine's or user's keys only
    NewLogger("app", false);
    EXPECT_FALSE(logger->Start()); // no writer at all
    auto file = WriterOf<FileWriter>(LogWriter::kFileWriter);
    ASSERT_TRUE(file->SetProperty("folderPath", dir.path() + "/missing/folder"));
    EXPECT_FALSE(logger->Start());
    ASSERT_TRUE(file->SetProperty("folderPath", dir.path()));
    EXPECT_TRUE(logger->Start()); // a failed start may be retried
}

// The manager stays shut down for the rest of its process: a child of its own
// checks it and exits 0 when every expectation held.
TEST_F(LoggerTest, NothingIsLostWhenManyThreadsLogUpToTheManagersShutdown)
{
    auto shutDownAndCheck = [this] {
        std::string failed;
        auto check = [&](bool held, const std::string& what) { failed += held ? "" : what + "; "; };
        MakeLogger();
        Start();
        const std::string path = writer->GetFilePath();
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([t] {
                for (int i = 0; i < 5000; ++i)
                    LOG_INFO("Worker::Run()", "thread %d line %d", t, i);
            });
        for (std::thread& thread : threads)
            thread.join();
        LoggerManager* manager = LoggerManager::GetInstance();
        manager->Shutdown();
        check(manager->IsShuttingDown() && !manager->GetDefaultLogger() &&
                  !manager->FindLogger(logger->GetName()),
              "shut down, logger gone");
        check(CurrentLogLevel.load() == LOG_LEVEL_ALWAYS, "level back to ALWAYS");
        const std::string text = ReadWholeFile(path);
        std::set<std::pair<int, int>> seen;
        for (const std::string& line : SplitLines(text)) {
            std::pair<int, int> id;
            const size_t at = line.find("I Worker::Run(): thread ");
            if (at != std::string::npos)
                check(sscanf(line.c_str() + at, "I Worker::Run(): thread %d line %d", &id.first,
                             &id.second) == 2 &&
                          seen.insert(id).second,
                      "once: " + line);
        }
        check(seen.size() == 20000, "all of 20000 lines, not " + std::to_string(seen.size()));
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
class RegSettingsReaderTest : public LoggerFixture {
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

TEST_F(RegSettingsReaderTest, SettingsShapeTheLoggerAtItsStartAndChangesApplyWhileItRuns)
{
    Set("logLevel", "Debug");
    Set("logToStdout", "1");
    Set("useLocalTime", "no");
    Set("logMaxNumFiles", "7");
    Set("logRemoteAddress", "collector.example"); // no socket writer is switched on: not read
    StartWithSettings();
    EXPECT_EQ(logger->GetLevel(), LOG_LEVEL_DEBUG);
    EXPECT_FALSE(logger->UsesLocalTime());
    EXPECT_TRUE(logger->FindWriter(LogWriter::kStdOutWriter));
    EXPECT_FALSE(logger->FindWriter(LogWriter::kSocketWriter));
    EXPECT_TRUE(logger->IsRedactEnabled());
    std::string value;
    EXPECT_TRUE(writer->GetProperty("maxNumFiles", value) && value == "7") << value;
    Set("logLevel", "warn");
    ASSERT_TRUE(WaitUntil([&] { return logger->GetLevel() == LOG_LEVEL_WARN; }));
    EXPECT_EQ(CurrentLogLevel.load(), LOG_LEVEL_WARN);
    Set("logMaxNumFiles", "5");
    ASSERT_TRUE(WaitUntil([&] { return writer->GetProperty("maxNumFiles", value) && value == "5"; }));
    // The directory is fixed once the logger runs, and no writer is made now.
    Set("logDirectory", "/elsewhere");
    Set("logToStderr", "1");
    store.Remove(kKeyFolder, "logLevel"); // back to INFO while running
    ASSERT_TRUE(WaitUntil([&] { return logger->GetLevel() == LOG_LEVEL_INFO; }));
    EXPECT_EQ(writer->GetFolderPath(), dir.path());
    EXPECT_FALSE(logger->FindWriter(LogWriter::kStdErrWriter));
    // The redaction policy has a key of its own.
    const std::string policy = "HKLM/Software/Policies/Corvanta/Veltrane";
    store.Put(policy, "legacyRedactEnabled", "0");
    ASSERT_TRUE(WaitUntil([&] { return !logger->IsRedactEnabled(); }));
    store.Put(policy, "legacyRedactEnabled", "yes");
    ASSERT_TRUE(WaitUntil([&] { return logger->IsRedactEnabled(); }));
    // Switching the file off: its own message still reaches it, later lines do not.
    Set("logEnabled", "false");
    ASSERT_TRUE(WaitUntil([&] { return !writer->IsEnabled(); }));
    Set("logLevel", "debugging"); // unknown, not taken for DEBUG: NEVER
    ASSERT_TRUE(WaitUntil([&] { return logger->GetLevel() == LOG_LEVEL_NEVER; }));
    Log("After()", LOG_LEVEL_ALWAYS, "not in the file");
    const std::string text = Finish();
    for (const char* line :
         {"A Log Level: DEBUG (read from HKLM\\Software\\Corvanta\\Veltrane\\TOLV\\logLevel)\n",
          "A RegistryReader: logLevel changed to WARN\n",
          "A RegistryReader: FILE - logMaxNumFiles changed to 5\n",
          "A RegistryReader: logLevel changed to INFO\n",
          "RegSettingsReader::OnRedactPolicyChanged(): "
          "HKLM\\Software\\Policies\\Corvanta\\Veltrane\\legacyRedactEnabled is now disabled\n",
          "A RegistryReader: FILE - logEnabled changed to FALSE\n"})
        EXPECT_TRUE(Has(text, line)) << line << "\n" << text;
    EXPECT_FALSE(Has(text, "not in the file"));
}

} // namespace
