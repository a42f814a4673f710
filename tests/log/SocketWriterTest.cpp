#include "common/LogCapture.h"
#include <tolv/log/Log.h>
#include "log/LoggerManager.h"
#include "log/ProxyWriter.h"
#include "log/SocketWriter.h"
#include <tolv/platform/UniqueFd.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>

using namespace tolv::log;

namespace {

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
            m_port = ntohs(address.sin_port);
    }
    uint16_t port() const { return m_port; }

    // The next datagram, or "" when none comes within the limit.
    std::string Receive(int limitMs = 60000)
    {
        pollfd p {m_fd.get(), POLLIN, 0};
        if (poll(&p, 1, limitMs) != 1)
            return {};
        std::string datagram(70000, '\0');
        const ssize_t n = recv(m_fd.get(), datagram.data(), datagram.size(), 0);
        datagram.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return datagram;
    }

    // Datagrams until one contains `part`; "" when it never comes.
    std::string ReceiveContaining(const std::string& part)
    {
        for (;;) {
            std::string datagram = Receive();
            if (datagram.empty() || datagram.find(part) != std::string::npos)
                return datagram;
        }
    }

private:
    tolv::platform::UniqueFd m_fd;
    uint16_t m_port = 0;
};

std::string ExpectedHost()
{
    char name[16] = {};
    if (gethostname(name, sizeof name) != 0 || name[0] == '\0' || memchr(name, '\0', sizeof name) == nullptr)
        return "-";
    return name;
}

class SocketWriterTest : public ::testing::Test {
protected:
    RCPtr<SocketWriter> MakeLogger(const std::string& appName)
    {
        static int counter = 0;
        logger = LoggerManager::GetInstance()->CreateLogger("socket-logger-" + std::to_string(++counter), appName,
                                                            true);
        if (!logger)
            return {};
        return RCPtr<SocketWriter>(static_cast<SocketWriter*>(logger->GetWriter(LogWriter::kSocketWriter).get()));
    }

    void TearDown() override
    {
        if (logger) {
            logger->Shutdown();
            if (LoggerManager::GetInstance()->GetDefaultLogger() == logger)
                LoggerManager::GetInstance()->SetDefaultLogger({});
        }
    }

    UdpListener collector;
    RCPtr<Logger> logger;
};

TEST_F(SocketWriterTest, EachLineIsOneDatagramWithTheSyslogHeaderInUtc)
{
    ASSERT_NE(collector.port(), 0);
    RCPtr<SocketWriter> writer = MakeLogger("tolvTest");
    ASSERT_TRUE(writer);
    ASSERT_TRUE(writer->SetProperty("REMOTEADDRESS", "127.0.0.1"));
    ASSERT_TRUE(writer->SetProperty("remotePort", std::to_string(collector.port())));
    // A zone far from UTC: the header must not follow it.
    const char* savedZone = getenv("TZ");
    const std::string saved = savedZone ? savedZone : "";
    setenv("TZ", "XYZ-10", 1);
    tzset();
    ASSERT_TRUE(logger->Start());
    const time_t before = time(nullptr);
    Log("Collector::Test()", LOG_LEVEL_WARN, "hello %d", 42);
    const std::string datagram = collector.ReceiveContaining("hello 42");
    if (savedZone)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();

    std::smatch m;
    ASSERT_TRUE(std::regex_match(datagram, m,
                                 std::regex(R"(<1>1 (\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d):(\d\d)\.\d{3}Z (\S+) tolvTest - - )"
                                            R"(hello 42\n)")))
        << datagram;
    EXPECT_EQ(m[7].str(), ExpectedHost());
    struct tm stamp {};
    stamp.tm_year = std::stoi(m[1].str()) - 1900;
    stamp.tm_mon = std::stoi(m[2].str()) - 1;
    stamp.tm_mday = std::stoi(m[3].str());
    stamp.tm_hour = std::stoi(m[4].str());
    stamp.tm_min = std::stoi(m[5].str());
    stamp.tm_sec = std::stoi(m[6].str());
    EXPECT_LT(std::llabs(static_cast<long long>(timegm(&stamp) - before)), 300LL) << datagram;
}

TEST_F(SocketWriterTest, AnEmptyApplicationNameIsTheNilValueAndAnOverlongLineLeavesTheSocketUsable)
{
    RCPtr<SocketWriter> writer = MakeLogger("");
    ASSERT_TRUE(writer);
    ASSERT_TRUE(writer->SetProperty("remoteAddress", "localhost"));
    ASSERT_TRUE(writer->SetProperty("remotePort", std::to_string(collector.port())));
    ASSERT_TRUE(logger->Start());
    // More than a datagram can carry: this line is dropped, the next one is not.
    Log("Big()", LOG_LEVEL_INFO, "%s", std::string(70000, 'x').c_str());
    Log("Small()", LOG_LEVEL_INFO, "after the big one");
    const std::string datagram = collector.ReceiveContaining("after the big one");
    EXPECT_TRUE(std::regex_match(datagram, std::regex(R"(<1>1 \S+ \S+ - - - after the big one\n)"))) << datagram;
}

TEST_F(SocketWriterTest, AddressAndPortAreFixedOnceTheLoggerRuns)
{
    RCPtr<SocketWriter> writer = MakeLogger("tolvTest");
    ASSERT_TRUE(writer);
    std::string value;
    ASSERT_TRUE(writer->GetProperty("remoteAddress", value));
    EXPECT_EQ(value, "localhost");
    ASSERT_TRUE(writer->GetProperty("remotePort", value));
    EXPECT_EQ(value, "514");
    EXPECT_TRUE(writer->SetProperty("remotePort", "0x10"));
    ASSERT_TRUE(writer->GetProperty("RemotePort", value));
    EXPECT_EQ(value, "16");
    EXPECT_FALSE(writer->SetProperty("remotePort", "port"));
    EXPECT_FALSE(writer->SetProperty("remoteAddress", ""));
    EXPECT_FALSE(writer->SetProperty("", "x"));
    EXPECT_FALSE(writer->SetProperty("somethingElse", "x"));
    EXPECT_FALSE(writer->GetProperty("somethingElse", value));

    ASSERT_TRUE(writer->SetProperty("remoteAddress", "127.0.0.1"));
    ASSERT_TRUE(writer->SetProperty("remotePort", std::to_string(collector.port())));
    ASSERT_TRUE(logger->Start());
    EXPECT_FALSE(writer->SetProperty("remotePort", "515"));
    EXPECT_FALSE(writer->SetProperty("remoteAddress", "elsewhere"));
    ASSERT_TRUE(writer->GetProperty("remotePort", value));
    EXPECT_EQ(value, std::to_string(collector.port()));
}

TEST_F(SocketWriterTest, AWriterOfALowerTypeFormatsTheLineTheCollectorGets)
{
    RCPtr<SocketWriter> writer = MakeLogger("tolvTest");
    ASSERT_TRUE(writer);
    ASSERT_TRUE(writer->SetProperty("remoteAddress", "127.0.0.1"));
    ASSERT_TRUE(writer->SetProperty("remotePort", std::to_string(collector.port())));
    ASSERT_TRUE(logger->GetWriter(LogWriter::kProxyWriter));
    ASSERT_TRUE(logger->Start());
    Log("A::B()", LOG_LEVEL_ERROR, "formatted by the proxy writer");
    EXPECT_EQ(collector.ReceiveContaining("formatted by"), "@PROXY/1A::B()/formatted by the proxy writer\n");
}

TEST_F(SocketWriterTest, AnUnknownHostFailsTheStartWithItsReason)
{
    RCPtr<SocketWriter> writer = MakeLogger("tolvTest");
    ASSERT_TRUE(writer);
    ASSERT_TRUE(writer->SetProperty("remoteAddress", "no-such-host.invalid"));
    ScopedLogCapture capture(LOG_LEVEL_ERROR);
    EXPECT_FALSE(logger->Start());
    EXPECT_FALSE(writer->IsActive());
    EXPECT_EQ(capture.Count("Failed to resolve name.", "LxSocket::Connect()"), 1u);
    ASSERT_TRUE(writer->SetProperty("remoteAddress", "127.0.0.1"));
    ASSERT_TRUE(writer->SetProperty("remotePort", std::to_string(collector.port())));
    EXPECT_TRUE(logger->Start()); // the socket kept from the failed open is replaced
    Log("Retry()", LOG_LEVEL_INFO, "second start");
    EXPECT_FALSE(collector.ReceiveContaining("second start").empty());
}

} // namespace
