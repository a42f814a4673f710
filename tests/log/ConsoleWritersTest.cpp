#include "common/TempDir.h"
#include "log/DebugWriter.h"
#include <tolv/log/Log.h>
#include "log/LoggerManager.h"
#include "log/StdErrWriter.h"
#include "log/StdOutWriter.h"
#include <tolv/platform/UniqueFd.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

using namespace tolv::log;

namespace {

// Sends one standard stream to a file while it lives.
class StreamToFile {
public:
    StreamToFile(FILE* stream, const std::string& path) : m_stream(stream), m_fd(fileno(stream)), m_path(path)
    {
        fflush(m_stream);
        m_saved = tolv::platform::UniqueFd(dup(m_fd));
        tolv::platform::UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        dup2(file.get(), m_fd);
    }
    ~StreamToFile()
    {
        fflush(m_stream);
        dup2(m_saved.get(), m_fd);
    }
    std::string Text() const
    {
        fflush(m_stream);
        std::ifstream in(m_path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

private:
    FILE* m_stream;
    int m_fd;
    std::string m_path;
    tolv::platform::UniqueFd m_saved;
};

std::atomic<bool> g_attached{false};
bool FakeAttached()
{
    return g_attached.load();
}

class ConsoleWritersTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        static int counter = 0;
        logger = LoggerManager::GetInstance()->CreateLogger("console-logger-" + std::to_string(++counter),
                                                            "tolvTest", true);
        ASSERT_TRUE(logger);
    }
    void TearDown() override
    {
        logger->Shutdown();
        if (LoggerManager::GetInstance()->GetDefaultLogger() == logger)
            LoggerManager::GetInstance()->SetDefaultLogger({});
    }
    TempDir dir;
    RCPtr<Logger> logger;
};

const std::string kPrefix = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] )";

TEST_F(ConsoleWritersTest, StandardStreamsGetEachLineAtOnceWithTheCommonPrefix)
{
    ASSERT_TRUE(logger->GetWriter(LogWriter::kStdOutWriter));
    ASSERT_TRUE(logger->GetWriter(LogWriter::kStdErrWriter));
    StreamToFile out(stdout, dir.file("out"));
    StreamToFile err(stderr, dir.file("err"));
    ASSERT_TRUE(logger->Start());
    Log("Console::Test()", LOG_LEVEL_WARN, "to both streams %s", "now");
    // Unbuffered: on the streams before the logger stops.
    const std::string outText = out.Text();
    const std::string errText = err.Text();
    const std::regex line(kPrefix + R"(W Console::Test\(\): to both streams now\n)");
    EXPECT_TRUE(std::regex_search(outText, line)) << outText;
    EXPECT_TRUE(std::regex_search(errText, line)) << errText;
    EXPECT_NE(outText.find("Log Level: INFO"), std::string::npos);  // the start-up block too
}

TEST_F(ConsoleWritersTest, TheDebuggerWriterWritesOnlyWhileADebuggerIsAttached)
{
    auto writer = RCPtr<DebugWriter>(static_cast<DebugWriter*>(logger->GetWriter(LogWriter::kDebugWriter).get()));
    ASSERT_TRUE(writer);
    writer->SetAttachedQuery(&FakeAttached);
    StreamToFile err(stderr, dir.file("err"));
    g_attached = false;
    ASSERT_TRUE(logger->Start());
    Log("Dbg()", LOG_LEVEL_INFO, "nobody is watching");
    EXPECT_EQ(err.Text().find("nobody is watching"), std::string::npos);
    g_attached = true;
    writer->SetAttachedQuery(&FakeAttached);  // asks again at once
    Log("Dbg()", LOG_LEVEL_INFO, "a debugger sees this");
    // The poll thread may say it started at any time; nothing else may appear.
    const std::string text = err.Text();
    EXPECT_TRUE(std::regex_search(text, std::regex(kPrefix + R"(I Dbg\(\): a debugger sees this\n)"))) << text;
    EXPECT_EQ(text.find("nobody is watching"), std::string::npos) << text;
    g_attached = false;
    writer->SetAttachedQuery(&FakeAttached);
}

TEST(DebugWriterTracer, TheTracerIsReadFromTheProcessStatus)
{
    EXPECT_EQ(DebugWriter::TracerPidIn("Name:\tx\nTracerPid:\t0\nUid:\t0\n"), 0);
    EXPECT_EQ(DebugWriter::TracerPidIn("Name:\tx\nTracerPid:\t4711\nUid:\t0\n"), 4711);
    EXPECT_EQ(DebugWriter::TracerPidIn("TracerPid:  12"), 12);
    EXPECT_EQ(DebugWriter::TracerPidIn("NotTracerPid:\t5\n"), 0);
    EXPECT_EQ(DebugWriter::TracerPidIn("TracerPid:\t99999999999999\n"), 0);
    EXPECT_EQ(DebugWriter::TracerPidIn(""), 0);

    // A real tracer: this process traces a child of its own.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(2);
        raise(SIGSTOP);
        _exit(DebugWriter::DebuggerAttached() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 2)
        GTEST_SKIP() << "this machine does not allow tracing";
    ASSERT_TRUE(WIFSTOPPED(status));
    ASSERT_EQ(ptrace(PTRACE_CONT, child, nullptr, nullptr), 0);
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_FALSE(DebugWriter::DebuggerAttached());
}

} // namespace
