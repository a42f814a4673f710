#include "log/DebugWriter.h"
#include "log/LogMessageCache.h"
#include "log/LogTestSupport.h"
#include "log/PollLogWriter.h"
#include "log/ProxyWriter.h"
#include "log/SocketWriter.h"
#include <tolv/platform/UniqueFd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cstdarg>
#include <future>

namespace {

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
    take(1);
    EXPECT_EQ(cache->GetBlockCount(), 2);
    // The cache reports its growth in front of the next message, not through the logger.
    cache->MovePendingTextInto(*inUse.back());
    EXPECT_TRUE(
        Has(inUse.back()->GetText(), " T LogMessageCache::NewMessage(): Log message cache size is 200\n"));
    // Released messages are reused, not allocated again.
    inUse.erase(inUse.begin(), inUse.begin() + 50);
    take(140);
    EXPECT_EQ(cache->GetBlockCount(), 2);
    // A block in use is kept; idle free blocks go, but never the last one.
    cache->SetIdleReleaseMs(0);
    cache->OnBlockReleaseTimer();
    EXPECT_EQ(cache->GetBlockCount(), 2);
    inUse.clear();
    capture.Clear();
    cache->OnBlockReleaseTimer();
    cache->OnBlockReleaseTimer();
    EXPECT_EQ(cache->GetBlockCount(), 1);
    EXPECT_EQ(capture.Count("Log message cache size is 100", "LogMessageCache::OnBlockReleaseTimer()"), 1u);
}

using LogWriterQueue = LoggerFixture;

TEST_F(LogWriterQueue, RefusedLinesAreReportedOnceAndAFullQueueLosesNothing)
{
    MakeLogger();
    Start();
    writer->SetEnabled(false);
    for (int i = 0; i < 5; ++i)
        Log("F()", LOG_LEVEL_INFO, "while disabled %d", i);
    writer->SetEnabled(true);
    // Hold the poll drain off so the queue fills whatever the machine's speed.
    writer->GetPollItem()->Disable(true);
    for (int i = 0; i < 15050; ++i)
        Log("F()", LOG_LEVEL_INFO, "line %d", i);
    const std::string text = Finish();
    EXPECT_FALSE(Has(text, "while disabled"));
    for (const std::string banner : {"\n******* Dropped ", "\n***** BATCH MODE ENABLED *****\n\n"}) {
        ASSERT_TRUE(Has(text, banner)) << banner;
        EXPECT_EQ(text.find(banner, text.find(banner) + 1), std::string::npos) << banner << " twice";
    }
    // The report counts the five and any line the logger's poll thread wrote meanwhile.
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(\n\*{7} Dropped ([5-9]|\d\d+) messages \*{7}\n\n)")));
    int expected = 0;
    for (const std::string& line : SplitLines(text)) {
        const size_t at = line.find("I F(): line ");
        if (at != std::string::npos) {
            ASSERT_EQ(std::stoi(line.substr(at + 12)), expected++);
        }
    }
    EXPECT_EQ(expected, 15050);
}

// Holds the first message until let go, so a poll drain can be caught in progress.
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

// A syslog collector on the loopback interface, on a port of the system's choice.
struct UdpListener {
    UdpListener()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length) == 0)
            port = ntohs(address.sin_port);
    }
    // Datagrams until one contains `part`; "" when none comes within a minute.
    std::string ReceiveContaining(const std::string& part)
    {
        std::string datagram;
        for (pollfd p{fd.get(), POLLIN, 0}; !Has(datagram, part);) {
            if (poll(&p, 1, 60000) != 1)
                return {};
            datagram.assign(70000, '\0');
            const ssize_t n = recv(fd.get(), datagram.data(), datagram.size(), 0);
            datagram.resize(n > 0 ? static_cast<size_t>(n) : 0);
        }
        return datagram;
    }

    tolv::platform::UniqueFd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    uint16_t port = 0;
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
    RCPtr<SocketWriter> writer = MakeSocketLogger("tolvTest");
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
    ASSERT_TRUE(
        std::regex_match(datagram, m, std::regex(R"(<1>1 (\S+)\.\d{3}Z (\S+) tolvTest - - hello 42\n)")))
        << datagram;
    char host[16] = {};
    const bool named = gethostname(host, sizeof host) == 0 && host[0] && memchr(host, '\0', sizeof host);
    EXPECT_EQ(m[2].str(), named ? host : "-");
    struct tm stamp {};
    ASSERT_STREQ(strptime(m[1].str().c_str(), "%Y-%m-%dT%H:%M:%S", &stamp), "") << datagram;
    EXPECT_LT(std::llabs(static_cast<long long>(timegm(&stamp) - before)), 300LL) << datagram;
    // The address is fixed once the logger runs.
    EXPECT_FALSE(writer->SetProperty("remoteAddress", "elsewhere"));
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
    EXPECT_TRUE(std::regex_match(datagram, std::regex(R"(<1>1 \S+ \S+ - - - after the big one\n)")))
        << datagram;
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

std::vector<std::string> TakeForwarded()
{
    std::lock_guard<std::mutex> guard(g_mutex);
    return std::exchange(g_forwarded, {});
}

using ProxyWriterTest = SocketWriterTest;

TEST_F(ProxyWriterTest, TaggedLinesReachTheTargetAndFormatTheOtherWritersLines)
{
    MakeSocketLogger("tolvTest");
    // At WARN, what the logger's poll thread says of itself stays away from the target.
    logger->SetLevel(LOG_LEVEL_WARN);
    RCPtr<ProxyWriter> writer = WriterOf<ProxyWriter>(LogWriter::kProxyWriter);
    ASSERT_TRUE(logger->GetWriter(LogWriter::kStdOutWriter) && logger->GetWriter(LogWriter::kStdErrWriter));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ASSERT_TRUE(logger->Start());
    writer->SetTarget(&Target);
    Log("A::B()", LOG_LEVEL_WARN, "value %d", 7);
    // The writer of the lowest type formats the line every writer gets; the
    // standard streams get it at once.
    const std::string line = "@PROXY/2A::B()/value 7\n";
    EXPECT_TRUE(Has(testing::internal::GetCapturedStdout(), line));
    EXPECT_TRUE(Has(testing::internal::GetCapturedStderr(), line));
    EXPECT_EQ(collector.ReceiveContaining("value 7"), line);
    Log("", LOG_LEVEL_WARN, "   indented continuation");
    Log("Path::Of()", LOG_LEVEL_ERROR, "a/b/c");
    // Texts not wholly tagged are forwarded as they are, or not at all.
    for (const char* text : {"@PROXY/3NoSlashAnywhere", "@PROXY/", "@PROXY/2F()/",
                             "2026-01-01 00:00:00.000 <0001> [0001] I F(): from a lower writer\n"}) {
        RCPtr<LogMessage> message = MakeRC<LogMessage>();
        message->Append(text);
        EXPECT_TRUE(writer->WriteMessage(message));
    }
    const std::vector<std::string> forwarded = {
        "A::B()|2|value 7\n", "|0|indented continuation\n", "Path::Of()|1|a/b/c\n", "F()|2|",
        "|0|2026-01-01 00:00:00.000 <0001> [0001] I F(): from a lower writer\n"};
    EXPECT_EQ(TakeForwarded(), forwarded);
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
    EXPECT_TRUE(std::regex_search(text, std::regex(kPrefix + R"(I Dbg\(\): a debugger sees this\n)")))
        << text;
    EXPECT_FALSE(Has(text, "nobody is watching")) << text;
}

TEST(DebugWriterTracer, TheTracerIsReadFromTheProcessStatus)
{
    const std::pair<const char*, int> statuses[] = {{"Name:\tx\nTracerPid:\t0\nUid:\t0\n", 0},
                                                    {"Name:\tx\nTracerPid:\t4711\nUid:\t0\n", 4711},
                                                    {"TracerPid:  12", 12},
                                                    {"NotTracerPid:\t5\n", 0},
                                                    {"TracerPid:\t99999999999999\n", 0},
                                                    {"", 0}};
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
