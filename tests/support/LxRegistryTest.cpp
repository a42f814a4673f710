#include "common/LogCapture.h"
#include "common/SettingsStore.h"
#include "platform/ErrnoText.h"
#include "support/LxPolicyValue.h"
#include "support/LxPolicyWatcher.h"
#include "support/LxPollThread.h"
#include "support/LxRegKey.h"
#include "support/LxRegKeyWatcher.h"
#include "support/LxRegValue.h"
#include "support/LxRegValueWatcher.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>

using namespace tolv::log;

namespace {

namespace fs = std::filesystem;

class LxRegistryTest : public ::testing::Test {
protected:
    void Put(const std::string& key, const std::string& name, const std::string& text) { store.Put(key, name, text); }
    void Remove(const std::string& key, const std::string& name) { store.Remove(key, name); }

    SettingsStore store;
};

// Counts callbacks and lets the test wait for the next one.
struct Signal {
    std::mutex mutex;
    std::condition_variable changed;
    int count = 0;
    void Raise()
    {
        std::lock_guard<std::mutex> guard(mutex);
        ++count;
        changed.notify_all();
    }
    bool WaitFor(int wanted)
    {
        std::unique_lock<std::mutex> guard(mutex);
        return changed.wait_for(guard, std::chrono::seconds(60), [&] { return count >= wanted; });
    }
};

TEST_F(LxRegistryTest, LocationsOpenTheSameKeyWhateverTheirSpellingAndBadOnesSayWhy)
{
    fs::create_directories(store.path() + "/HKLM/Software/Corvanta/Veltrane");
    LxRegKey longForm("HKEY_LOCAL_MACHINE\\Software\\Corvanta\\Veltrane");
    LxRegKey shortForm("hklm/SOFTWARE/corvanta/VELTRANE");
    ASSERT_EQ(longForm.OpenKey(), 0u);
    ASSERT_EQ(shortForm.OpenKey(), 0u);
    EXPECT_EQ(longForm.GetPath(), shortForm.GetPath());
    EXPECT_EQ(longForm.GetPath(), store.path() + "/HKLM/Software/Corvanta/Veltrane");

    ScopedLogCapture log(LOG_LEVEL_WARN);
    LxRegKey unknownRoot("HKXX\\Software");
    EXPECT_EQ(unknownRoot.OpenKey(), LxRegKey::kErrorBadFormat);
    EXPECT_EQ(log.Count("Invalid root key \"HKXX\\Software\"", "LxRegKey::OpenKey()"), 1u);
    EXPECT_EQ(LxRegKey("").OpenKey(), LxRegKey::kErrorBadFormat);
    EXPECT_EQ(LxRegKey("HKLM").OpenKey(), LxRegKey::kErrorBadFormat);
    EXPECT_EQ(LxRegKey("HKLM\\Software\\..\\..\\etc").OpenKey(), LxRegKey::kErrorBadFormat);
    const size_t before = log.Lines().size();
    EXPECT_EQ(LxRegKey("HKLM\\Software\\Missing").OpenKey(), LxRegKey::kErrorNotFound);
    EXPECT_EQ(log.Lines().size(), before); // a missing key is no error
}

TEST_F(LxRegistryTest, ValuesTakeTheirTypeFromTheirTextAndReportOnlyRealChanges)
{
    auto key = MakeRC<LxRegKey>("HKLM\\Software\\Test");
    LxRegValue value(key, "Setting");
    EXPECT_FALSE(value.Load(LOG_LEVEL_VERBOSE));  // absent, and absent before
    EXPECT_FALSE(value.Exists());

    Put("HKLM/Software/Test", "SETTING", "42\n");  // names match without regard to case
    EXPECT_TRUE(value.Load(LOG_LEVEL_VERBOSE));
    EXPECT_EQ(value.GetType(), LxRegValue::REG_DWORD);
    EXPECT_EQ(value.GetData(), (std::vector<uint8_t>{42, 0, 0, 0}));
    EXPECT_EQ(value.AsString(), "42");
    Put("HKLM/Software/Test", "SETTING", "0x2a");  // the same number: the same bytes
    EXPECT_FALSE(value.Load(LOG_LEVEL_VERBOSE));
    Put("HKLM/Software/Test", "SETTING", "42 ");   // now text
    EXPECT_TRUE(value.Load(LOG_LEVEL_VERBOSE));
    EXPECT_EQ(value.GetType(), LxRegValue::REG_SZ);
    uint32_t number = 0;
    EXPECT_TRUE(value.AsUInt32(number));
    EXPECT_EQ(number, 42u);

    Put("HKLM/Software/Test", "SETTING", "0x100000000");
    EXPECT_TRUE(value.Load(LOG_LEVEL_VERBOSE));
    EXPECT_EQ(value.GetType(), LxRegValue::REG_QWORD);
    EXPECT_EQ(value.AsString(), "4294967296");
    EXPECT_FALSE(value.AsUInt32(number)) << "2^32 is out of range, not 0";
    Put("HKLM/Software/Test", "SETTING", "4294967296 ");  // as text too
    EXPECT_TRUE(value.Load(LOG_LEVEL_VERBOSE));
    EXPECT_EQ(value.GetType(), LxRegValue::REG_SZ);
    EXPECT_FALSE(value.AsUInt32(number));
    Put("HKLM/Software/Test", "SETTING", "0xffffffff");
    EXPECT_TRUE(value.Load(LOG_LEVEL_VERBOSE));
    EXPECT_TRUE(value.AsUInt32(number));
    EXPECT_EQ(number, 0xFFFFFFFFu);
    Put("HKLM/Software/Test", "SETTING", "one\ntwo\n");
    EXPECT_TRUE(value.Load(LOG_LEVEL_VERBOSE));
    EXPECT_EQ(value.GetType(), LxRegValue::REG_MULTI_SZ);
    EXPECT_EQ(value.AsString(), "one,two");
    EXPECT_FALSE(value.AsUInt32(number));

    Remove("HKLM/Software/Test", "SETTING");
    EXPECT_TRUE(value.Load(LOG_LEVEL_VERBOSE));
    EXPECT_FALSE(value.Exists());
    EXPECT_FALSE(value.Load(LOG_LEVEL_VERBOSE));

    // A folder or an oversized file is no value.
    fs::create_directories(store.path() + "/HKLM/Software/Test/Setting");
    EXPECT_FALSE(value.Load(LOG_LEVEL_VERBOSE));
    fs::remove(store.path() + "/HKLM/Software/Test/Setting");
    Put("HKLM/Software/Test", "Setting", std::string(LxRegValue::kMaxSize + 1, 'x'));
    EXPECT_FALSE(value.Load(LOG_LEVEL_VERBOSE));
    EXPECT_FALSE(value.Exists());
}

TEST_F(LxRegistryTest, FailuresAndLongDumpsAreLoggedInTheirOwnWords)
{
    ScopedLogCapture log(LOG_LEVEL_VERBOSE);
    const char* load = "LxRegValue::Load()";
    LxRegValue value(MakeRC<LxRegKey>("HKLM\\Software\\Texts"), "Blob");
    EXPECT_FALSE(value.Load(LOG_LEVEL_INFO));
    EXPECT_EQ(log.Count("RegOpenKeyEx(\"HKLM\\Software\\Texts\") failed; (2) " + tolv::platform::ErrnoText(ENOENT), load),
              1u);
    Put("HKLM/Software/Texts", "Other", "1");
    EXPECT_FALSE(value.Load(LOG_LEVEL_INFO));
    EXPECT_EQ(log.Count("RegQueryValueEx(\"HKLM\\Software\\Texts\\Blob\") failed; (2) " + tolv::platform::ErrnoText(ENOENT),
                        load),
              1u);

    // A short value is dumped whole; a long one as far as the dump holds.
    auto dumpOf = [&](const std::string& text) {
        Put("HKLM/Software/Texts", "Blob", text);
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

    // A key watcher that is on a poll thread already cannot be added again.
    auto thread = MakeRC<LxPollThread>("TextsThread");
    ASSERT_TRUE(thread->StartScheduler());
    auto watcher = MakeRC<LxRegKeyWatcher>(MakeRC<LxRegKey>("HKLM\\Software\\Texts"));
    ASSERT_TRUE(watcher->Start(thread));
    EXPECT_FALSE(watcher->Start(thread));
    EXPECT_EQ(log.Count("Failed to add LxRegKeyWatcher(HKLM\\Software\\Texts) to TextsThread", "LxRegKeyWatcher::Start()"),
              1u);
    EXPECT_TRUE(watcher->Stop());
    thread->StopScheduler();
}

TEST_F(LxRegistryTest, BooleansFollowTheirTypes)
{
    auto key = MakeRC<LxRegKey>("HKLM\\Software\\Bools");
    auto boolOf = [&](const std::string& text) {
        Put("HKLM/Software/Bools", "v", text);
        LxRegValue value(key, "v");
        value.Load(LOG_LEVEL_VERBOSE);
        return value.AsBool(true) ? 1 : 0;
    };
    EXPECT_EQ(boolOf("TRUE"), 1);
    EXPECT_EQ(boolOf("Yes"), 1);
    EXPECT_EQ(boolOf("no"), 0);
    EXPECT_EQ(boolOf("False"), 0);
    EXPECT_EQ(boolOf("maybe"), 1);  // unrecognised text: the default
    EXPECT_EQ(boolOf("0"), 0);      // a number
    EXPECT_EQ(boolOf("7"), 1);
    LxRegValue absent(key, "absent");
    absent.Load(LOG_LEVEL_VERBOSE);
    EXPECT_FALSE(absent.AsBool(false));
    EXPECT_TRUE(absent.AsBool(true));
}

TEST_F(LxRegistryTest, AWatchedValueCallsBackOnEachChangeEvenWhenItsKeyComesLater)
{
    auto thread = MakeRC<LxPollThread>("RegTest");
    ASSERT_TRUE(thread->StartScheduler());
    auto key = MakeRC<LxRegKey>("HKLM\\Software\\Later");
    auto keyWatcher = MakeRC<LxRegKeyWatcher>(key);
    Signal changes;
    auto valueWatcher = MakeRC<LxRegValueWatcher>(MakeRC<LxRegValue>(MakeRC<LxRegKey>("HKLM\\Software\\Later"), "Level"),
                                                  [&](LxRegValueWatcher&) { changes.Raise(); });
    ASSERT_TRUE(valueWatcher->Start(keyWatcher));
    EXPECT_FALSE(valueWatcher->Start(MakeRC<LxRegKeyWatcher>(key)));  // one key watcher at a time
    ASSERT_TRUE(keyWatcher->Start(thread));
    EXPECT_FALSE(keyWatcher->IsWatching());  // no key yet: looked for every 2 seconds

    Put("HKLM/Software/Later", "Level", "debug");
    ASSERT_TRUE(changes.WaitFor(1));
    EXPECT_EQ(valueWatcher->WithValue([](LxRegValue& v) { return v.AsString(); }), "debug");
    Put("HKLM/Software/Later", "Level", "trace");
    ASSERT_TRUE(changes.WaitFor(2));
    EXPECT_EQ(valueWatcher->WithValue([](LxRegValue& v) { return v.AsString(); }), "trace");
    Put("HKLM/Software/Later", "Other", "x");  // another value: no callback for this one
    Remove("HKLM/Software/Later", "Level");
    ASSERT_TRUE(changes.WaitFor(3));
    EXPECT_FALSE(valueWatcher->WithValue([](LxRegValue& v) { return v.Exists(); }));

    // The key goes and comes back: the watcher finds it again.
    fs::remove_all(store.path() + "/HKLM/Software/Later");
    Put("HKLM/Software/Later", "Level", "info");
    ASSERT_TRUE(changes.WaitFor(4));
    EXPECT_EQ(valueWatcher->WithValue([](LxRegValue& v) { return v.AsString(); }), "info");

    EXPECT_TRUE(valueWatcher->Stop());
    EXPECT_EQ(keyWatcher->WatcherCount(), 0u);
    EXPECT_TRUE(keyWatcher->Stop());
    thread->StopScheduler();
}

// A sub-tree watcher that reads some values of its sub-keys each time it
// wakes; a test waits until it has seen a value it wrote.
class SubtreeProbe final : public LxRegKeyWatcher {
public:
    SubtreeProbe(const std::string& key, std::vector<std::string> subKeys)
        : LxRegKeyWatcher(MakeRC<LxRegKey>(key), true), m_key(key), m_subKeys(std::move(subKeys))
    {
    }

    bool OnKeyChanged() override
    {
        for (const std::string& subKey : m_subKeys) {
            LxRegValue value(MakeRC<LxRegKey>(subKey.empty() ? m_key : m_key + "\\" + subKey), "v");
            value.Load(LOG_LEVEL_VERBOSE);
            std::lock_guard<std::mutex> guard(m_mutex);
            m_seen[subKey] = value.AsString();
        }
        m_changed.notify_all();
        return true;
    }

    bool WaitToSee(const std::string& subKey, const std::string& text)
    {
        std::unique_lock<std::mutex> guard(m_mutex);
        return m_changed.wait_for(guard, std::chrono::seconds(60), [&] { return m_seen[subKey] == text; });
    }

private:
    const std::string m_key;
    const std::vector<std::string> m_subKeys;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::string, std::string> m_seen;
};

TEST_F(LxRegistryTest, ASubtreeWatcherWakesForChangesInSubKeysOldAndNew)
{
    auto thread = MakeRC<LxPollThread>("SubtreeTest");
    ASSERT_TRUE(thread->StartScheduler());
    Put("HKLM/Software/Tree/A", "v", "a0");
    auto probe = MakeRC<SubtreeProbe>("HKLM\\Software\\Tree", std::vector<std::string>{"", "A", "B\\C"});
    ASSERT_TRUE(probe->Start(thread));
    ASSERT_TRUE(probe->IsWatching());

    // A sub-key that was there at the start.
    Put("HKLM/Software/Tree/A", "v", "a1");
    ASSERT_TRUE(probe->WaitToSee("A", "a1"));

    // Sub-keys made later, two levels at once. The value in the key itself
    // shows when the watcher has taken in their making.
    fs::create_directories(store.path() + "/HKLM/Software/Tree/B/C");
    Put("HKLM/Software/Tree", "v", "m1");
    ASSERT_TRUE(probe->WaitToSee("", "m1"));
    Put("HKLM/Software/Tree/B/C", "v", "c1");
    ASSERT_TRUE(probe->WaitToSee("B\\C", "c1"));

    // A sub-key going is not the key going; the others stay watched.
    fs::remove_all(store.path() + "/HKLM/Software/Tree/B");
    Put("HKLM/Software/Tree", "v", "m2");
    ASSERT_TRUE(probe->WaitToSee("", "m2"));
    EXPECT_TRUE(probe->IsWatching());
    Put("HKLM/Software/Tree/A", "v", "a2");
    ASSERT_TRUE(probe->WaitToSee("A", "a2"));

    EXPECT_TRUE(probe->Stop());
    thread->StopScheduler();
}

TEST_F(LxRegistryTest, PolicyModesOrderTheKeysAndTheFirstHolderDecides)
{
    ScopedLogCapture log(LOG_LEVEL_WARN);
    LxPolicyValue userPolicy("HKCU\\Software\\Policies\\Corvanta\\Veltrane", "x", LxPolicyValue::PolicyOverridesLocal,
                             0);
    EXPECT_EQ(userPolicy.GetSearchKeys(), (std::vector<std::string>{
                                              "HKLM\\Software\\Policies\\Corvanta\\Veltrane",
                                              "HKCU\\Software\\Policies\\Corvanta\\Veltrane",
                                              "HKCU\\Software\\Corvanta\\Veltrane",
                                              "HKLM\\Software\\Corvanta\\Veltrane",
                                          }));
    LxPolicyValue preference("HKLM\\Software\\Corvanta\\Veltrane", "x", LxPolicyValue::PreferenceReader, 0);
    EXPECT_EQ(preference.GetMode(), LxPolicyValue::CheckPassedKeyOnly);
    LxPolicyValue typeFirst("HKLM\\Software\\Corvanta\\Veltrane", "x", LxPolicyValue::CheckPassedTypeFirst, 0);
    EXPECT_EQ(typeFirst.GetMode(), LxPolicyValue::LocalOverridesPolicy);
    LxPolicyValue odd("HKLM\\Software\\Corvanta\\Veltrane", "x", 42, 0);
    EXPECT_EQ(odd.GetMode(), LxPolicyValue::CheckPassedKeyOnly);
    EXPECT_EQ(odd.GetRequestedMode(), 42);
    EXPECT_EQ(log.CountContaining("policy mode 42 not expected"), 1u);
    LxPolicyValue neither("HKLM\\System\\Other", "x", LxPolicyValue::PolicyOverridesLocal, 0);
    EXPECT_EQ(neither.GetSearchKeys(), (std::vector<std::string>{"HKLM\\System\\Other"}));

    Put("HKLM/Software/Policies/Corvanta/Veltrane", "Limit", "10");
    Put("HKLM/Software/Corvanta/Veltrane", "Limit", "20");
    LxPolicyValue localFirst("HKLM\\Software\\Corvanta\\Veltrane", "Limit", LxPolicyValue::LocalOverridesPolicy, 0);
    EXPECT_TRUE(localFirst.UpdateValue());
    EXPECT_EQ(localFirst.GetString(), "20");
    LxPolicyValue policyFirst("HKLM\\Software\\Corvanta\\Veltrane", "Limit", LxPolicyValue::PolicyOverridesLocal, 0);
    EXPECT_TRUE(policyFirst.UpdateValue());
    EXPECT_EQ(policyFirst.GetString(), "10");
    EXPECT_FALSE(policyFirst.UpdateValue());
    Remove("HKLM/Software/Policies/Corvanta/Veltrane", "Limit");
    EXPECT_TRUE(policyFirst.UpdateValue());
    EXPECT_EQ(policyFirst.GetString(), "20");
    EXPECT_EQ(policyFirst.GetSourceLocation(), "HKLM\\Software\\Corvanta\\Veltrane\\Limit");
}

TEST_F(LxRegistryTest, LegacyPolicyKeysExchangeTheCompanyAndTheProductFolder)
{
    ScopedLogCapture log(LOG_LEVEL_DEBUG);
    LxPolicyValue ipc("HKCU\\Software\\Policies\\Corvanta\\Veltrane\\KxIpc", "RpcRegLibPath",
                      LxPolicyValue::CheckPolicyKeysOnly, 1);
    EXPECT_EQ(ipc.GetSearchKeys(), (std::vector<std::string>{
                                       "HKLM\\Software\\Policies\\Corvanta\\Veltrane\\KxIpc",
                                       "HKLM\\Software\\Policies\\Pelloran, Inc.\\Pelloran Orvik\\KxIpc",
                                       "HKCU\\Software\\Policies\\Corvanta\\Veltrane\\KxIpc",
                                       "HKCU\\Software\\Policies\\Pelloran, Inc.\\Pelloran Orvik\\KxIpc",
                                   }));
    EXPECT_EQ(log.Count("Mapping 1: \"HKCU\\Software\\Policies\\Corvanta\\Veltrane\\KxIpc\" -> "
                        "\"HKCU\\Software\\Policies\\Pelloran, Inc.\\Pelloran Orvik\\KxIpc\"",
                        "LxPolicyValue::DetermineKeyOrder()"),
              1u);

    // A value that only the former company's key holds is found there.
    Put("HKCU/Software/Policies/Pelloran, Inc./Pelloran Orvik/KxIpc", "RpcRegLibPath", "/opt/legacy.so");
    EXPECT_TRUE(ipc.UpdateValue());
    EXPECT_EQ(ipc.GetSourceLocation(),
              "HKCU\\Software\\Policies\\Pelloran, Inc.\\Pelloran Orvik\\KxIpc\\RpcRegLibPath");
    // The machine's legacy policy comes before the user's.
    Put("HKLM/Software/Policies/Pelloran, Inc./Pelloran Orvik/KxIpc", "RpcRegLibPath", "/opt/machine.so");
    EXPECT_TRUE(ipc.UpdateValue());
    EXPECT_EQ(ipc.GetString(), "/opt/machine.so");

    // Another product folder has no legacy form.
    LxPolicyValue other("HKLM\\Software\\Policies\\Corvanta\\VeltraneLab", "x", LxPolicyValue::CheckPolicyKeysOnly, 1);
    EXPECT_EQ(other.GetSearchKeys(), (std::vector<std::string>{"HKLM\\Software\\Policies\\Corvanta\\VeltraneLab"}));
    EXPECT_EQ(log.Count("Mapping -: \"HKLM\\Software\\Policies\\Corvanta\\VeltraneLab\""), 1u);
}

TEST_F(LxRegistryTest, TurningTheLegacyFallbackOnOrOffResolvesAWatchedPolicyAgain)
{
    auto thread = MakeRC<LxPollThread>("LegacyTest");
    ASSERT_TRUE(thread->StartScheduler());
    const std::string legacyKey = "HKLM/Software/Policies/Pelloran, Inc./Pelloran Orvik";
    Put(legacyKey, "Limit", "10");
    Put("HKLM/Software/Corvanta/Veltrane", "Limit", "20");
    Signal changes;
    auto watcher = MakeRC<LxPolicyWatcher>(
        MakeRC<LxPolicyValue>("HKLM\\Software\\Policies\\Corvanta\\Veltrane", "Limit"), LOG_LEVEL_INFO,
        [&](LxPolicyWatcher&) { changes.Raise(); });
    ASSERT_TRUE(watcher->Start(thread));
    const RCPtr<LxPolicyValue>& value = watcher->GetValue();
    EXPECT_EQ(value->GetString(), "20"); // the fallback is off

    // On at the policy place: the legacy policy now overrides the local key.
    Put("HKLM/Software/Policies/Corvanta/Veltrane", "FallbackToLegacyGPO", "1");
    ASSERT_TRUE(changes.WaitFor(1));
    EXPECT_EQ(value->GetString(), "10");
    EXPECT_EQ(value->GetSourceLocation(), "HKLM\\Software\\Policies\\Pelloran, Inc.\\Pelloran Orvik\\Limit");
    // ... and the legacy key is watched from then on.
    Put(legacyKey, "Limit", "11");
    ASSERT_TRUE(changes.WaitFor(2));
    EXPECT_EQ(value->GetString(), "11");

    // Off again: the local key decides.
    Remove("HKLM/Software/Policies/Corvanta/Veltrane", "FallbackToLegacyGPO");
    ASSERT_TRUE(changes.WaitFor(3));
    EXPECT_EQ(value->GetString(), "20");

    // On at the local place.
    Put("HKLM/Software/Corvanta/Veltrane", "FallbackToLegacyGPO", "true");
    ASSERT_TRUE(changes.WaitFor(4));
    EXPECT_EQ(value->GetString(), "11");

    EXPECT_TRUE(watcher->Stop());
    thread->StopScheduler();
}

TEST_F(LxRegistryTest, APolicyWatcherReportsWhenTheEffectiveValueChanges)
{
    auto thread = MakeRC<LxPollThread>("PolicyTest");
    ASSERT_TRUE(thread->StartScheduler());
    Put("HKLM/Software/Corvanta/Veltrane", "Redact", "1");
    Signal changes;
    auto watcher = MakeRC<LxPolicyWatcher>(
        MakeRC<LxPolicyValue>("HKLM\\Software\\Policies\\Corvanta\\Veltrane", "Redact",
                              LxPolicyValue::PolicyOverridesLocal, 0),
        LOG_LEVEL_INFO, [&](LxPolicyWatcher&) { changes.Raise(); });
    ASSERT_TRUE(watcher->Start(thread));
    EXPECT_TRUE(watcher->GetValue()->GetBool(false));
    // The policy key appears with the other answer: it overrides the local one.
    Put("HKLM/Software/Policies/Corvanta/Veltrane", "Redact", "0");
    ASSERT_TRUE(changes.WaitFor(1));
    EXPECT_FALSE(watcher->GetValue()->GetBool(true));
    EXPECT_TRUE(watcher->Stop());
    EXPECT_FALSE(watcher->Stop());
    thread->StopScheduler();
}

} // namespace
