#include "common/SettingsStore.h"
#include <tolv/log/Log.h>
#include "log/LogTestSupport.h"
#include "log/RegSettingsReader.h"
#include "log/StdOutWriter.h"

#include <gtest/gtest.h>

using namespace tolv::log;


namespace {

constexpr const char* kKey = "Software\\Corvanta\\Veltrane\\TOLV";
constexpr const char* kKeyFolder = "HKLM/Software/Corvanta/Veltrane/TOLV";

// A logger whose settings come from a private settings store.
class RegSettingsReaderTest : public FileLoggerFixture {
protected:
    void Put(const std::string& key, const std::string& name, const std::string& text) { store.Put(key, name, text); }
    void Set(const std::string& name, const std::string& text) { store.Put(kKeyFolder, name, text); }
    void Unset(const std::string& name) { store.Remove(kKeyFolder, name); }

    SettingsStore store;
};

TEST_F(RegSettingsReaderTest, SettingsBeforeTheStartShapeTheLoggerAndItsWriters)
{
    Set("logLevel", "Debug");
    Set("logToStdout", "1");
    Set("useLocalTime", "no");
    Set("logMaxNumFiles", "7");
    Set("logRemoteAddress", "collector.example");
    MakeLogger();
    ASSERT_TRUE(logger->AddRegistrySettings(kKey, HKEY_LOCAL_MACHINE));
    // The socket writer is not switched on: its address stays unread.
    EXPECT_FALSE(logger->FindWriter(LogWriter::kSocketWriter));
    Start();
    EXPECT_EQ(logger->GetLevel(), LOG_LEVEL_DEBUG);
    EXPECT_FALSE(logger->UsesLocalTime());
    EXPECT_TRUE(logger->FindWriter(LogWriter::kStdOutWriter));
    std::string value;
    ASSERT_TRUE(writer->GetProperty("maxNumFiles", value));
    EXPECT_EQ(value, "7");
    const std::string text = Finish();
    EXPECT_NE(text.find("Log Level: DEBUG (read from HKLM\\Software\\Corvanta\\Veltrane\\TOLV\\logLevel)"),
              std::string::npos)
        << text;
}

TEST_F(RegSettingsReaderTest, ChangesWhileRunningApplyAndSayWhatChanged)
{
    Set("logLevel", "nonsense");  // unknown before the start: the level stays
    MakeLogger();
    ASSERT_TRUE(logger->AddRegistrySettings(kKey, HKEY_LOCAL_MACHINE));
    Start();
    EXPECT_EQ(logger->GetLevel(), LOG_LEVEL_INFO);

    Set("logLevel", "warn");
    ASSERT_TRUE(WaitUntil([&] { return logger->GetLevel() == LOG_LEVEL_WARN; }));
    EXPECT_EQ(CurrentLogLevel.load(), LOG_LEVEL_WARN);
    Set("logMaxNumFiles", "5");
    std::string value;
    ASSERT_TRUE(WaitUntil([&] { return writer->GetProperty("maxNumFiles", value) && value == "5"; }));
    // The directory is fixed once the logger runs, and no writer is made now.
    Set("logDirectory", "/elsewhere");
    Set("logToStdout", "1");
    Unset("logLevel");  // back to INFO while running
    ASSERT_TRUE(WaitUntil([&] { return logger->GetLevel() == LOG_LEVEL_INFO; }));
    EXPECT_EQ(writer->GetFolderPath(), dir.path());
    EXPECT_FALSE(logger->FindWriter(LogWriter::kStdOutWriter));
    Set("logLevel", "nonsense");  // unknown while running: NEVER
    ASSERT_TRUE(WaitUntil([&] { return logger->GetLevel() == LOG_LEVEL_NEVER; }));
    Set("logLevel", "info");
    ASSERT_TRUE(WaitUntil([&] { return logger->GetLevel() == LOG_LEVEL_INFO; }));

    // Switching the file off: its own message still reaches it, later lines do not.
    Set("logEnabled", "false");
    ASSERT_TRUE(WaitUntil([&] { return !writer->IsEnabled(); }));
    Log("After()", LOG_LEVEL_ALWAYS, "not in the file");
    const std::string text = Finish();
    for (const char* line : {"A RegistryReader: logLevel changed to WARN\n",
                             "A RegistryReader: FILE - logMaxNumFiles changed to 5\n",
                             "A RegistryReader: logLevel changed to INFO\n",
                             "A RegistryReader: FILE - logEnabled changed to FALSE\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
    EXPECT_EQ(text.find("not in the file"), std::string::npos);
}

TEST_F(RegSettingsReaderTest, TheRedactionPolicyFollowsThePolicyKey)
{
    MakeLogger();
    ASSERT_TRUE(logger->AddRegistrySettings(kKey, HKEY_LOCAL_MACHINE));
    Start();
    EXPECT_TRUE(logger->IsRedactEnabled());
    Put("HKLM/Software/Policies/Corvanta/Veltrane", "legacyRedactEnabled", "0");
    ASSERT_TRUE(WaitUntil([&] { return !logger->IsRedactEnabled(); }));
    Put("HKLM/Software/Policies/Corvanta/Veltrane", "legacyRedactEnabled", "yes");
    ASSERT_TRUE(WaitUntil([&] { return logger->IsRedactEnabled(); }));
    const std::string text = Finish();
    EXPECT_NE(text.find("RegSettingsReader::OnRedactPolicyChanged(): "
                        "HKLM\\Software\\Policies\\Corvanta\\Veltrane\\legacyRedactEnabled is now disabled\n"),
              std::string::npos)
        << text;
}

} // namespace
