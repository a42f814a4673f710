#include "common/LogCapture.h"
#include "common/SettingsStore.h"
#include "platform/ErrnoText.h"
#include "support/LxPolicyValue.h"
#include "support/LxPolicyWatcher.h"
#include "support/LxPollThread.h"
#include "support/LxRegKey.h"
#include "support/LxRegValue.h"
#include "task/TaskTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;
using Keys = std::vector<std::string>;

// A private store and a running poll thread for the watchers.
class LxRegistryTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(thread->StartScheduler()); }
    void TearDown() override { thread->StopScheduler(); }
    SettingsStore store;
    RCPtr<LxPollThread> thread = MakeRC<LxPollThread>("RegTest");
};

TEST_F(LxRegistryTest, LocationsOpenTheSameKeyWhateverTheirSpellingAndBadOnesSayWhy)
{
    fs::create_directories(store.path() + "/HKLM/Software/Corvanta/Veltrane");
    LxRegKey longForm("HKEY_LOCAL_MACHINE\\Software\\Corvanta\\Veltrane");
    LxRegKey shortForm("hklm/SOFTWARE/corvanta/VELTRANE");
    ASSERT_EQ(longForm.OpenKey(), 0u);
    ASSERT_EQ(shortForm.OpenKey(), 0u);
    EXPECT_EQ(shortForm.GetPath(), store.path() + "/HKLM/Software/Corvanta/Veltrane");
    EXPECT_EQ(longForm.GetPath(), shortForm.GetPath());
    ScopedLogCapture log(LOG_LEVEL_WARN);
    for (const char* bad : {"HKXX\\Software", "", "HKLM", "HKLM\\Software\\..\\..\\etc"})
        EXPECT_EQ(LxRegKey(bad).OpenKey(), LxRegKey::kErrorBadFormat) << bad;
    EXPECT_EQ(log.Count("Invalid root key \"HKXX\\Software\"", "LxRegKey::OpenKey()"), 1u);
    const size_t before = log.Lines().size();
    EXPECT_EQ(LxRegKey("HKLM\\Software\\Missing").OpenKey(), LxRegKey::kErrorNotFound);
    EXPECT_EQ(log.Lines().size(), before); // a missing key is no error
}

// Loaded one after the other into the same value: Load says whether it changed.
TEST_F(LxRegistryTest, ValuesTakeTheirTypeFromTheirTextAndReportOnlyRealChanges)
{
    using V = LxRegValue;
    const struct {
        const char* text;
        bool changed;
        uint32_t type;
        const char* asString; // null: not checked
        int64_t uint32;       // what AsUInt32 gives, -1 when it refuses
    } cases[] = {
        {"42\n", true, V::REG_DWORD, "42", 42}, {"0x2a", false, V::REG_DWORD, "42", 42}, // the same bytes
        {"42 ", true, V::REG_SZ, nullptr, 42}, {"0x100000000", true, V::REG_QWORD, "4294967296", -1},
        {"4294967296 ", true, V::REG_SZ, nullptr, -1}, {"0xffffffff", true, V::REG_DWORD, nullptr, 0xFFFFFFFF},
        {"one\ntwo\n", true, V::REG_MULTI_SZ, "one,two", -1},
    };
    LxRegValue value(MakeRC<LxRegKey>("HKLM\\Software\\Test"), "Setting");
    EXPECT_FALSE(value.Load(LOG_LEVEL_VERBOSE)); // absent, and absent before
    EXPECT_FALSE(value.Exists());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        store.Put("HKLM/Software/Test", "SETTING", c.text); // names match without regard to case
        EXPECT_EQ(value.Load(LOG_LEVEL_VERBOSE), c.changed);
        EXPECT_EQ(value.GetType(), c.type);
        if (c.asString) {
            EXPECT_EQ(value.AsString(), c.asString);
        }
        uint32_t number = 0;
        EXPECT_EQ(value.AsUInt32(number) ? int64_t{number} : -1, c.uint32);
    }
    store.Remove("HKLM/Software/Test", "SETTING");
    EXPECT_TRUE(value.Load(LOG_LEVEL_VERBOSE));
    EXPECT_FALSE(value.Exists());
    EXPECT_FALSE(value.Load(LOG_LEVEL_VERBOSE));
    // A folder or an oversized file is no value.
    fs::create_directories(store.path() + "/HKLM/Software/Test/Setting");
    EXPECT_FALSE(value.Load(LOG_LEVEL_VERBOSE));
    fs::remove(store.path() + "/HKLM/Software/Test/Setting");
    store.Put("HKLM/Software/Test", "Setting", std::string(LxRegValue::kMaxSize + 1, 'x'));
    EXPECT_FALSE(value.Load(LOG_LEVEL_VERBOSE));
    EXPECT_FALSE(value.Exists());
    EXPECT_TRUE(value.AsBool(true)); // absent: the default
    EXPECT_FALSE(value.AsBool(false));
    store.Put("HKLM/Software/Test", "Setting", "no");
    value.Load(LOG_LEVEL_VERBOSE);
    EXPECT_FALSE(value.AsBool(true));
}

// A failed load names the step and its error; a value is dumped whole when
// short, as far as the dump holds when long.
TEST_F(LxRegistryTest, FailuresAndLongDumpsAreLoggedInTheirOwnWords)
{
    ScopedLogCapture log(LOG_LEVEL_VERBOSE);
    LxRegValue value(MakeRC<LxRegKey>("HKLM\\Software\\Texts"), "Blob");
    EXPECT_FALSE(value.Load(LOG_LEVEL_INFO));
    EXPECT_EQ(log.Count("RegOpenKeyEx(\"HKLM\\Software\\Texts\") failed; (2) " + tolv::platform::ErrnoText(ENOENT),
                        "LxRegValue::Load()"),
              1u);
    auto dumpOf = [&](const std::string& text) {
        store.Put("HKLM/Software/Texts", "Blob", text);
        log.Clear();
        value.Load(LOG_LEVEL_INFO);
        for (const CapturedLine& line : log.Lines())
            if (line.function == "LxRegValue::LogData()")
                return line.text;
        return std::string();
    };
    const std::string shortDump = dumpOf("short text");
    EXPECT_NE(shortDump.find("    0x0000: 73 68 6f 72 74 20 74 65 78 74 00"), std::string::npos) << shortDump;
    EXPECT_EQ(shortDump.find("BUFFER TOO SMALL"), std::string::npos);
    const std::string longDump = dumpOf(std::string(4000, 'x'));
    EXPECT_NE(longDump.find("    0x0000: 78 78"), std::string::npos) << longDump;
    EXPECT_NE(longDump.find("BUFFER TOO SMALL"), std::string::npos) << longDump;
}

// Policy keys before local ones, or the other way round, as the mode says;
// with the legacy fallback each policy key is followed by its former
// company's form, with the company and the product folder exchanged.
TEST_F(LxRegistryTest, PolicyModesOrderTheKeysAndTheFirstHolderDecides)
{
    ScopedLogCapture log(LOG_LEVEL_WARN);
    const std::string local = "HKLM\\Software\\Corvanta\\Veltrane";
    const std::string policy = "\\Software\\Policies\\Corvanta\\Veltrane";
    const std::string legacy = "\\Software\\Policies\\Pelloran, Inc.\\Pelloran Orvik";
    EXPECT_EQ(LxPolicyValue("HKCU" + policy, "x", LxPolicyValue::PolicyOverridesLocal, 0).GetSearchKeys(),
              (Keys{"HKLM" + policy, "HKCU" + policy, "HKCU\\Software\\Corvanta\\Veltrane", local}));
    EXPECT_EQ(LxPolicyValue("HKCU" + policy + "\\KxIpc", "x", LxPolicyValue::CheckPolicyKeysOnly, 1).GetSearchKeys(),
              (Keys{"HKLM" + policy + "\\KxIpc", "HKLM" + legacy + "\\KxIpc", "HKCU" + policy + "\\KxIpc",
                    "HKCU" + legacy + "\\KxIpc"}));
    EXPECT_EQ(LxPolicyValue("HKLM" + policy + "Lab", "x", LxPolicyValue::CheckPolicyKeysOnly, 1).GetSearchKeys(),
              Keys{"HKLM" + policy + "Lab"}); // another product folder has no legacy form
    EXPECT_EQ(LxPolicyValue("HKLM\\System\\Other", "x", LxPolicyValue::PolicyOverridesLocal, 0).GetSearchKeys(),
              Keys{"HKLM\\System\\Other"});
    LxPolicyValue odd(local, "x", 42, 0);
    EXPECT_EQ(odd.GetMode(), LxPolicyValue::CheckPassedKeyOnly);
    EXPECT_EQ(log.CountContaining("policy mode 42 not expected"), 1u);

    store.Put("HKLM/Software/Policies/Corvanta/Veltrane", "Limit", "10");
    store.Put("HKLM/Software/Corvanta/Veltrane", "Limit", "20");
    LxPolicyValue localFirst(local, "Limit", LxPolicyValue::LocalOverridesPolicy, 0);
    EXPECT_TRUE(localFirst.UpdateValue());
    EXPECT_EQ(localFirst.GetString(), "20");
    LxPolicyValue policyFirst(local, "Limit", LxPolicyValue::PolicyOverridesLocal, 0);
    EXPECT_TRUE(policyFirst.UpdateValue());
    EXPECT_EQ(policyFirst.GetString(), "10");
    EXPECT_FALSE(policyFirst.UpdateValue());
    store.Remove("HKLM/Software/Policies/Corvanta/Veltrane", "Limit");
    EXPECT_TRUE(policyFirst.UpdateValue());
    EXPECT_EQ(policyFirst.GetSourceLocation(), local + "\\Limit");
    // A value only the former company's key holds is found there; the machine's before the user's.
    LxPolicyValue ipc("HKCU" + policy + "\\KxIpc", "Path", LxPolicyValue::CheckPolicyKeysOnly, 1);
    store.Put("HKCU/Software/Policies/Pelloran, Inc./Pelloran Orvik/KxIpc", "Path", "/opt/user.so");
    EXPECT_TRUE(ipc.UpdateValue());
    EXPECT_EQ(ipc.GetSourceLocation(), "HKCU" + legacy + "\\KxIpc\\Path");
    store.Put("HKLM/Software/Policies/Pelloran, Inc./Pelloran Orvik/KxIpc", "Path", "/opt/machine.so");
    EXPECT_TRUE(ipc.UpdateValue());
    EXPECT_EQ(ipc.GetString(), "/opt/machine.so");
}

// The watcher reports when the effective value changes: the legacy fallback
// going on or off, and a legacy key watched while it is on.
TEST_F(LxRegistryTest, APolicyWatcherResolvesItsValueAgainWhenTheKeysOrTheLegacySwitchChange)
{
    const std::string legacyKey = "HKLM/Software/Policies/Pelloran, Inc./Pelloran Orvik";
    store.Put(legacyKey, "Limit", "10");
    store.Put("HKLM/Software/Corvanta/Veltrane", "Limit", "20");
    Counter changes; // callbacks
    auto watcher = MakeRC<LxPolicyWatcher>(
        MakeRC<LxPolicyValue>("HKLM\\Software\\Policies\\Corvanta\\Veltrane", "Limit"), LOG_LEVEL_INFO,
        [&](LxPolicyWatcher&) { changes.add(); });
    ASSERT_TRUE(watcher->Start(thread));
    const RCPtr<LxPolicyValue>& value = watcher->GetValue();
    EXPECT_EQ(value->GetString(), "20"); // the fallback is off
    // On at the policy place: the legacy policy now overrides the local key.
    store.Put("HKLM/Software/Policies/Corvanta/Veltrane", "FallbackToLegacyGPO", "1");
    ASSERT_TRUE(changes.waitFor(1));
    EXPECT_EQ(value->GetString(), "10");
    EXPECT_EQ(value->GetSourceLocation(), "HKLM\\Software\\Policies\\Pelloran, Inc.\\Pelloran Orvik\\Limit");
    store.Put(legacyKey, "Limit", "11"); // the legacy key is watched from then on
    ASSERT_TRUE(changes.waitFor(2));
    EXPECT_EQ(value->GetString(), "11");
    // Off again: the local key decides; on at the local place.
    store.Remove("HKLM/Software/Policies/Corvanta/Veltrane", "FallbackToLegacyGPO");
    ASSERT_TRUE(changes.waitFor(3));
    EXPECT_EQ(value->GetString(), "20");
    store.Put("HKLM/Software/Corvanta/Veltrane", "FallbackToLegacyGPO", "true");
    ASSERT_TRUE(changes.waitFor(4));
    EXPECT_EQ(value->GetString(), "11");
    EXPECT_TRUE(watcher->Stop());
    EXPECT_FALSE(watcher->Stop());
}

} // namespace
