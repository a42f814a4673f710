#include <tolv/log/Log.h>
#include "log/LoggerManager.h"
#include "log/ProxyWriter.h"
#include "support/ProcessUtils.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <cstdarg>
#include <mutex>
#include <string>
#include <vector>

using namespace tolv::log;

namespace {

struct Forwarded {
    std::string function;
    int32_t level;
    std::string text;
    bool operator==(const Forwarded&) const = default;
};

std::mutex g_mutex;
std::vector<Forwarded> g_forwarded;

// Another logging front end, as a host would hand it in.
void Target(const char* functionName, int32_t level, const char* format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::lock_guard<std::mutex> guard(g_mutex);
    g_forwarded.push_back({functionName, level, text});
}

// What the target got, without the lines the logging poll thread writes of
// itself whenever it starts.
std::vector<Forwarded> TakeForwarded()
{
    std::lock_guard<std::mutex> guard(g_mutex);
    std::vector<Forwarded> taken = std::exchange(g_forwarded, {});
    std::erase_if(taken, [](const Forwarded& f) { return f.function == "LxThreadData::Run()"; });
    return taken;
}

class ProxyWriterTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        static int counter = 0;
        // The first thread named in a process logs, once, whether naming
        // works; have that happen before the target listens.
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        ProcessUtils::SetThreadName(ProcessUtils::kNoSession, name);
        TakeForwarded();
        logger = LoggerManager::GetInstance()->CreateLogger("proxy-logger-" + std::to_string(++counter), "tolvTest",
                                                            true);
        ASSERT_TRUE(logger);
        writer = RCPtr<ProxyWriter>(static_cast<ProxyWriter*>(logger->GetWriter(LogWriter::kProxyWriter).get()));
        ASSERT_TRUE(writer);
    }
    void TearDown() override
    {
        logger->Shutdown();
        if (LoggerManager::GetInstance()->GetDefaultLogger() == logger)
            LoggerManager::GetInstance()->SetDefaultLogger({});
    }
    RCPtr<Logger> logger;
    RCPtr<ProxyWriter> writer;
};

TEST_F(ProxyWriterTest, LinesReachTheTargetWithTheirFunctionAndLevel)
{
    ASSERT_TRUE(logger->Start());
    writer->SetTarget(&Target);
    Log("A::B()", LOG_LEVEL_WARN, "value %d", 7);
    Log("", LOG_LEVEL_INFO, "   indented continuation");
    Log("Path::Of()", LOG_LEVEL_INFO, "a/b/c");
    const std::vector<Forwarded> expected{
        {"A::B()", LOG_LEVEL_WARN, "value 7\n"},
        {"", 0, "indented continuation\n"},
        {"Path::Of()", LOG_LEVEL_INFO, "a/b/c\n"},
    };
    EXPECT_EQ(TakeForwarded(), expected);

    // The footer is the last line the target gets.
    logger->Shutdown();
    EXPECT_EQ(TakeForwarded(), (std::vector<Forwarded>{{"Logger Shutdown", 0, "*** LOG FILE COMPLETE ***\n"}}));
    Log("A::B()", LOG_LEVEL_WARN, "gone");
    EXPECT_TRUE(TakeForwarded().empty());
}

TEST_F(ProxyWriterTest, TextsThatAreNotWhollyTaggedAreForwardedAsTheyAreOrNotAtAll)
{
    writer->SetTarget(&Target);
    auto send = [&](const char* text) {
        RCPtr<LogMessage> message = MakeRC<LogMessage>();
        message->Append(text);
        EXPECT_TRUE(writer->WriteMessage(message));
    };
    send("@PROXY/3NoSlashAnywhere");
    send("@PROXY/");
    send("@PROXY/2F()/");
    send("2026-01-01 00:00:00.000 <0001> [0001] I F(): from a lower writer\n");
    const std::vector<Forwarded> expected{
        {"F()", 2, ""},
        {"", 0, "2026-01-01 00:00:00.000 <0001> [0001] I F(): from a lower writer\n"},
    };
    EXPECT_EQ(TakeForwarded(), expected);
    // Prefixes that do not fit are cut, never overrun.
    char small[8];
    EXPECT_EQ(writer->FormatPrefix(small, sizeof small, "Long::Name()", 3), 7);
    EXPECT_STREQ(small, "@PROXY/");
}

} // namespace
