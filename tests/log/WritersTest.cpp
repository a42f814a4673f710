#include "log/DebugWriter.h"
#include "log/LogTestSupport.h"
#include "log/ProxyWriter.h"
#include "log/SocketWriter.h"
#include "support/ProcessUtils.h"
#include <tolv/platform/UniqueFd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cstdarg>
#include <ctime>
#include <mutex>

namespace {

using tolv::platform::UniqueFd;

// A syslog collector on the loopback interface, on a port of the system's choice.
class UdpListener {
public:
    UdpListener() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(m_fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            getsockname(m_fd.get(), reinterpret_cast<sockaddr*>(&address), &length) == 0)
            port = ntohs(address.sin_port);
    }
    // Datagrams until one contains `part`; "" when none comes within a minute.
    std::string ReceiveContaining(const std::string& part)
    {
        std::string datagram;
        for (pollfd p {m_fd.get(), POLLIN, 0}; !Has(datagram, part);) {
            if (poll(&p, 1, 60000) != 1)
                return {};
            datagram.assign(70000, '\0');
            const ssize_t n = recv(m_fd.get(), datagram.data(), datagram.size(), 0);
            datagram.resize(n > 0 ? static_cast<size_t>(n) : 0);
        }
        return datagram;
    }

    uint16_t port = 0;

private:
    UniqueFd m_fd;
};

class SocketWriterTest : public LoggerFixture {
protected:
    // A default logger whose socket writer sends to the collector.
    RCPtr<SocketWriter> MakeSocketLogger(const std::string& appName)
    {
        NewLogger(appName);
        RCPtr<SocketWriter> writer = WriterOf<SocketWriter>(LogWriter::kSocketWriter);
        EXPECT_TRUE(writer->SetProperty("REMOTEADDRESS", "127.0.0.1"));
        EXPECT_TRUE(writer->SetProperty("remotePort", std::to_string(collector.port)));
        return writer;
    }

    UdpListener collector;
};

TEST_F(SocketWriterTest, EachLineIsOneDatagramWithTheSyslogHeaderInUtc)
{
    ASSERT_NE(collector.port, 0);
    RCPtr<SocketWriter> writer = MakeSocketLogger("tolvTest");
    std::string value;
    EXPECT_FALSE(writer->SetProperty("remotePort", "port"));
    EXPECT_FALSE(writer->SetProperty("remoteAddress", ""));
    EXPECT_FALSE(writer->SetProperty("somethingElse", "x"));
    EXPECT_FALSE(writer->GetProperty("somethingElse", value));
    // A zone far from UTC: the header must not follow it.
    const char* savedZone = getenv("TZ");
    const std::string saved = savedZone ? savedZone : "";
    setenv("TZ", "XYZ-10", 1);
    tzset();
    ASSERT_TRUE(logger->Start());
    const time_t before = time(nullptr);
    Log("Collector::Test()", LOG_LEVEL_WARN, "hello %d", 42);
    const std::string datagram = collector.ReceiveContaining("hello 42");
    savedZone ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();

    std::smatch m;
    ASSERT_TRUE(std::regex_match(datagram, m, std::regex(R"(<1>1 (\S+)\.\d{3}Z (\S+) tolvTest - - hello 42\n)")))
        << datagram;
    char host[16] = {};
    const bool named = gethostname(host, sizeof host) == 0 && host[0] && memchr(host, '\0', sizeof host);
    EXPECT_EQ(m[2].str(), named ? host : "-");
    struct tm stamp {};
    ASSERT_NE(strptime(m[1].str().c_str(), "%Y-%m-%dT%H:%M:%S", &stamp), nullptr) << datagram;
    EXPECT_LT(std::llabs(static_cast<long long>(timegm(&stamp) - before)), 300LL) << datagram;

    // Address and port are fixed once the logger runs.
    EXPECT_FALSE(writer->SetProperty("remotePort", "515"));
    EXPECT_FALSE(writer->SetProperty("remoteAddress", "elsewhere"));
    ASSERT_TRUE(writer->GetProperty("RemotePort", value));
    EXPECT_EQ(value, std::to_string(collector.port));
}

TEST_F(SocketWriterTest, AnUnknownHostFailsTheStartAndARetrySurvivesAnOverlongLine)
{
    RCPtr<SocketWriter> writer = MakeSocketLogger(""); // no application name: the nil value
    ASSERT_TRUE(writer->SetProperty("remoteAddress", "no-such-host.invalid"));
    {
        ScopedLogCapture capture(LOG_LEVEL_ERROR);
        EXPECT_FALSE(logger->Start());
        EXPECT_FALSE(writer->IsActive());
        EXPECT_EQ(capture.Count("Failed to resolve name.", "LxSocket::Connect()"), 1u);
    }
    ASSERT_TRUE(writer->SetProperty("remoteAddress", "localhost"));
    char hexPort[16];
    snprintf(hexPort, sizeof hexPort, "%#x", collector.port);
    ASSERT_TRUE(writer->SetProperty("remotePort", hexPort));
    EXPECT_TRUE(logger->Start()); // the socket kept from the failed open is replaced
    // More than a datagram can carry: this line is dropped, the next one is not.
    Log("Big()", LOG_LEVEL_INFO, "%s", std::string(70000, 'x').c_str());
    Log("Small()", LOG_LEVEL_INFO, "after the big one");
    const std::string datagram = collector.ReceiveContaining("after the big one");
    EXPECT_TRUE(std::regex_match(datagram, std::regex(R"(<1>1 \S+ \S+ - - - after the big one\n)"))) << datagram;
}

TEST_F(SocketWriterTest, AWriterOfALowerTypeFormatsTheLineTheCollectorGets)
{
    MakeSocketLogger("tolvTest");
    ASSERT_TRUE(logger->GetWriter(LogWriter::kProxyWriter));
    ASSERT_TRUE(logger->Start());
    Log("A::B()", LOG_LEVEL_ERROR, "formatted by the proxy writer");
    EXPECT_EQ(collector.ReceiveContaining("formatted by"), "@PROXY/1A::B()/formatted by the proxy writer\n");
}

std::mutex g_mutex;
std::vector<std::string> g_forwarded;

// Another logging front end, as a host would hand it in: "function|level|text".
void Target(const char* functionName, int32_t level, const char* format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::lock_guard<std::mutex> guard(g_mutex);
    g_forwarded.push_back(std::string(functionName) + "|" + std::to_string(level) + "|" + text);
}

// What the target got, less what the logging poll thread writes of itself when it starts.
std::vector<std::string> TakeForwarded()
{
    std::lock_guard<std::mutex> guard(g_mutex);
    std::vector<std::string> taken = std::exchange(g_forwarded, {});
    std::erase_if(taken, [](const std::string& f) { return f.starts_with("LxThreadData::Run()|"); });
    return taken;
}

using ProxyWriterTest = LoggerFixture;

TEST_F(ProxyWriterTest, TaggedLinesReachTheTargetWithTheirFunctionAndLevelOthersAsTheyAre)
{
    // The first thread named in a process logs, once, whether naming works;
    // have that happen before the target listens.
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    ProcessUtils::SetThreadName(ProcessUtils::kNoSession, name);
    NewLogger();
    RCPtr<ProxyWriter> writer = WriterOf<ProxyWriter>(LogWriter::kProxyWriter);
    ASSERT_TRUE(logger->Start());
    writer->SetTarget(&Target);
    Log("A::B()", LOG_LEVEL_WARN, "value %d", 7);
    Log("", LOG_LEVEL_INFO, "   indented continuation");
    Log("Path::Of()", LOG_LEVEL_INFO, "a/b/c");
    // Texts not wholly tagged are forwarded as they are, or not at all.
    for (const char* text : {"@PROXY/3NoSlashAnywhere", "@PROXY/", "@PROXY/2F()/",
                             "2026-01-01 00:00:00.000 <0001> [0001] I F(): from a lower writer\n"}) {
        RCPtr<LogMessage> message = MakeRC<LogMessage>();
        message->Append(text);
        EXPECT_TRUE(writer->WriteMessage(message));
    }
    EXPECT_EQ(TakeForwarded(), (std::vector<std::string>{"A::B()|2|value 7\n", "|0|indented continuation\n",
                                                          "Path::Of()|3|a/b/c\n", "F()|2|",
                                                          "|0|2026-01-01 00:00:00.000 <0001> [0001] I F(): from a lower writer\n"}));
    // The footer is the last line the target gets.
    logger->Shutdown();
    EXPECT_EQ(TakeForwarded(), std::vector<std::string>{"Logger Shutdown|0|*** LOG FILE COMPLETE ***\n"});
    Log("A::B()", LOG_LEVEL_WARN, "gone");
    EXPECT_TRUE(TakeForwarded().empty());
    // Prefixes that do not fit are cut, never overrun.
    char small[8];
    EXPECT_EQ(writer->FormatPrefix(small, sizeof small, "Long::Name()", 3), 7);
    EXPECT_STREQ(small, "@PROXY/");
}

using ConsoleWritersTest = LoggerFixture;

TEST_F(ConsoleWritersTest, StandardStreamsGetEachLineAtOnceWithTheCommonPrefix)
{
    NewLogger();
    ASSERT_TRUE(logger->GetWriter(LogWriter::kStdOutWriter));
    ASSERT_TRUE(logger->GetWriter(LogWriter::kStdErrWriter));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ASSERT_TRUE(logger->Start());
    Log("Console::Test()", LOG_LEVEL_WARN, "to both streams %s", "now");
    // Unbuffered: on the streams before the logger stops.
    const std::regex line(kPrefix + R"(W Console::Test\(\): to both streams now\n)");
    for (const std::string& text : {testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()})
        EXPECT_TRUE(std::regex_search(text, line)) << text;
}

std::atomic<bool> g_attached{false};

TEST_F(ConsoleWritersTest, TheDebuggerWriterWritesOnlyWhileADebuggerIsAttached)
{
    NewLogger();
    auto writer = WriterOf<DebugWriter>(LogWriter::kDebugWriter);
    auto attached = [] { return g_attached.load(); };
    writer->SetAttachedQuery(attached);
    testing::internal::CaptureStderr();
    ASSERT_TRUE(logger->Start());
    Log("Dbg()", LOG_LEVEL_INFO, "nobody is watching");
    g_attached = true;
    writer->SetAttachedQuery(attached); // asks again at once
    Log("Dbg()", LOG_LEVEL_INFO, "a debugger sees this");
    const std::string text = testing::internal::GetCapturedStderr();
    g_attached = false;
    writer->SetAttachedQuery(attached);
    EXPECT_TRUE(std::regex_search(text, std::regex(kPrefix + R"(I Dbg\(\): a debugger sees this\n)"))) << text;
    EXPECT_FALSE(Has(text, "nobody is watching")) << text;
}

TEST(DebugWriterTracer, TheTracerIsReadFromTheProcessStatus)
{
    const std::pair<const char*, int> statuses[] = {
        {"Name:\tx\nTracerPid:\t0\nUid:\t0\n", 0},    {"Name:\tx\nTracerPid:\t4711\nUid:\t0\n", 4711},
        {"TracerPid:  12", 12},                         {"NotTracerPid:\t5\n", 0},
        {"TracerPid:\t99999999999999\n", 0},            {"", 0},
    };
    for (const auto& [status, tracer] : statuses)
        EXPECT_EQ(DebugWriter::TracerPidIn(status), tracer) << status;

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
