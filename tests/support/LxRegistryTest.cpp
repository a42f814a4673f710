// Settings in a private store; sessions against real logins: a process of a
// user made for the test sets its login uid, which starts an audit session.

#include "common/ChildProcess.h"
#include "common/SettingsStore.h"
#include "common/TempDir.h"
#include "support/LxImpersonateSession.h"
#include "support/LxPolicyValue.h"
#include "support/LxRegKey.h"
#include "support/LxRegValue.h"
#include "support/ProcessUtils.h"
#include "SupportTestSupport.h"

#include <pwd.h>
#include <sys/wait.h>

#include <fstream>
#include <future>

namespace {

namespace fs = std::filesystem;
using Keys = std::vector<std::string>;
using ProcessUtils::kNoSession;

class LxRegistryTest : public ::testing::Test {
protected:
    SettingsStore store;
};

TEST_F(LxRegistryTest, LocationsOpenTheSameKeyWhateverTheirSpellingAndBadOnesAreRefused)
{
    fs::create_directories(store.path() + "/HKLM/Software/Corvanta/Veltrane");
    LxRegKey longForm("HKEY_LOCAL_MACHINE\\Software\\Corvanta\\Veltrane");
    LxRegKey shortForm("hklm/SOFTWARE/corvanta/VELTRANE");
    ASSERT_EQ(longForm.OpenKey(), 0u);
    ASSERT_EQ(shortForm.OpenKey(), 0u);
    EXPECT_EQ(shortForm.GetPath(), store.path() + "/HKLM/Software/Corvanta/Veltrane");
    EXPECT_EQ(longForm.GetPath(), shortForm.GetPath());
    for (const char* bad : {"HKXX\\Software", "", "HKLM", "HKLM\\Software\\..\\..\\etc"})
        EXPECT_EQ(LxRegKey(bad).OpenKey(), LxRegKey::kErrorBadFormat) << bad;
    EXPECT_EQ(LxRegKey("HKLM\\Software\\Missing").OpenKey(), LxRegKey::kErrorNotFound);
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
    store.Put("HKLM/Software/Test", "Setting", "no");
    value.Load(LOG_LEVEL_VERBOSE);
    EXPECT_FALSE(value.AsBool(true));
}

// A value is dumped whole when short, as far as the dump holds when long.
TEST_F(LxRegistryTest, ShortValuesAreDumpedWholeLongOnesAsFarAsTheDumpHolds)
{
    ScopedLogCapture log(LOG_LEVEL_VERBOSE);
    LxRegValue value(MakeRC<LxRegKey>("HKLM\\Software\\Texts"), "Blob");
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

// A legacy form exchanges the company and the product folder of a policy key.
TEST_F(LxRegistryTest, PolicyModesOrderTheKeysAndTheFirstHolderDecides)
{
    ScopedLogCapture log(LOG_LEVEL_WARN);
    const std::string local = "HKLM\\Software\\Corvanta\\Veltrane";
    const std::string policy = "\\Software\\Policies\\Corvanta\\Veltrane";
    const std::string legacy = "\\Software\\Policies\\Pelloran, Inc.\\Pelloran Orvik";
    EXPECT_EQ(LxPolicyValue("HKCU" + policy, "x", LxPolicyValue::PolicyOverridesLocal, 0).GetSearchKeys(),
              (Keys{"HKLM" + policy, "HKCU" + policy, "HKCU\\Software\\Corvanta\\Veltrane", local}));
    EXPECT_EQ(LxPolicyValue("HKCU" + policy, "x", LxPolicyValue::CheckPolicyKeysOnly, 1).GetSearchKeys(),
              (Keys{"HKLM" + policy, "HKLM" + legacy, "HKCU" + policy, "HKCU" + legacy}));
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
    // "FallbackToLegacyGPO", at the policy place or the local one, puts the legacy policy before the local key.
    store.Put("HKLM/Software/Policies/Pelloran, Inc./Pelloran Orvik", "Limit", "30");
    for (const char* place : {"HKLM/Software/Policies/Corvanta/Veltrane", "HKLM/Software/Corvanta/Veltrane"}) {
        LxPolicyValue following("HKLM" + policy, "Limit");
        EXPECT_TRUE(following.UpdateValue());
        EXPECT_EQ(following.GetString(), "20") << place;
        store.Put(place, "FallbackToLegacyGPO", "1");
        EXPECT_TRUE(following.DetermineKeyOrder());
        EXPECT_TRUE(following.UpdateValue());
        EXPECT_EQ(following.GetString(), "30") << place;
        EXPECT_EQ(following.GetSourceLocation(), "HKLM" + legacy + "\\Limit");
        store.Remove(place, "FallbackToLegacyGPO");
    }
}

// The effective uid and gid and the groups of the calling thread, which the kernel keeps per thread.
std::vector<unsigned> Credentials()
{
    gid_t groups[256];
    std::vector<unsigned> ids{geteuid(), getegid()};
    ids.insert(ids.end(), groups, groups + std::max(0, getgroups(256, groups)));
    return ids;
}

// A user made for the test and a process logged on as that user in a login
// session of its own. Anything the machine does not allow leaves `why` set.
class LoginSession {
public:
    LoginSession()
    {
        const std::string name = "tolvimp" + std::to_string(getpid());
        const struct passwd* entry = nullptr;
        const std::vector<std::string> add{"/usr/sbin/useradd", "--no-create-home", "--no-user-group", name};
        if (geteuid() != 0 || ChildProcess(add).Wait() != 0 || !(entry = getpwnam(name.c_str()))) {
            why = "needs root and useradd to make a user";
            return;
        }
        userName = name;
        uid = entry->pw_uid;
        gid = entry->pw_gid;
        // The login: setting the login uid starts a new audit session.
        const std::string login =
            "echo " + std::to_string(uid) + " >/proc/self/loginuid; cat /proc/self/sessionid";
        m_process.reset(new ChildProcess({"/bin/sh", "-c", login + "; echo; exec sleep 1000"}));
        WaitUntil([&] { return m_process->Stdout().find('\n') != std::string::npos; });
        sessionId = static_cast<uint32_t>(std::stoul("0" + m_process->Stdout()));
        if (sessionId == 0 || sessionId == kNoSession)
            why = "this machine does not let a process set its login uid";
    }
    // Logs the session's process off and waits until it is gone.
    void End() { m_process.reset(); }
    ~LoginSession()
    {
        End();
        if (!userName.empty())
            ChildProcess({"/usr/sbin/userdel", userName}).Wait();
    }
    std::string why;
    std::string userName;
    uid_t uid = 0;
    gid_t gid = 0;
    uint32_t sessionId = kNoSession;

private:
    std::unique_ptr<ChildProcess> m_process;
};

TEST(LxImpersonateSession, SwitchesOnlyTheCallingThreadToTheSessionUserAndBack)
{
    LoginSession login;
    if (!login.why.empty())
        GTEST_SKIP() << login.why;
    EXPECT_TRUE(ProcessUtils::IsValidSession(login.sessionId));
    EXPECT_EQ(ProcessUtils::GetSessionUserName(login.sessionId),
              std::u16string(login.userName.begin(), login.userName.end()));
    char* sid = nullptr;
    ASSERT_TRUE(ProcessUtils::GetUserSIDForSession(login.sessionId, &sid, LOG_LEVEL_ERROR));
    EXPECT_EQ(std::string(sid), std::to_string(login.uid));
    free(sid);
    LxImpersonateSession session;
    ASSERT_TRUE(session.Init(login.sessionId));
    EXPECT_TRUE(session.Init(login.sessionId));
    const std::vector<unsigned> own = Credentials();
    std::promise<std::vector<unsigned>> during;
    std::promise<void> checked;
    bool stopped = false;
    std::vector<unsigned> after;
    std::thread worker([&] {
        EXPECT_TRUE(session.Start());
        EXPECT_EQ(ProcessUtils::GetSessionID(true, kNoSession), login.sessionId);
        during.set_value(Credentials());
        checked.get_future().wait();
        stopped = session.Stop();
        after = Credentials();
    });
    const std::vector<unsigned> user = during.get_future().get();
    EXPECT_EQ(user[0], login.uid);
    EXPECT_EQ(user[1], login.gid);
    // The other threads keep their own credentials and session, and a Stop
    // from a thread that did not start it changes nothing.
    EXPECT_EQ(Credentials(), own);
    EXPECT_NE(ProcessUtils::GetSessionID(true, kNoSession), login.sessionId);
    EXPECT_FALSE(session.Stop());
    EXPECT_TRUE(session.IsImpersonating());
    checked.set_value();
    worker.join();
    EXPECT_TRUE(stopped);
    EXPECT_FALSE(session.IsImpersonating());
    EXPECT_EQ(after, own);
    EXPECT_TRUE(ProcessUtils::IsServiceAccount());
    auto childAnswer = [](uid_t uid) { // each user in a process of its own
        const pid_t pid = fork();
        if (pid == 0)
            _exit(setuid(uid) != 0 ? 2 : ProcessUtils::IsServiceAccount() ? 1 : 0);
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    EXPECT_EQ(childAnswer(login.uid), 0) << "uid " << login.uid;
    if (const struct passwd* daemonUser = getpwnam("daemon")) {
        EXPECT_EQ(childAnswer(daemonUser->pw_uid), 1);
    }
    SettingsStore store; // the current user key of the session is its user's hive
    const std::string theirs = store.path() + "/HKU/" + std::to_string(login.uid) + "/software/test";
    std::filesystem::create_directories(theirs);
    LxRegKey theirKey("HKEY_CURRENT_USER/Software/Test", LxRegKey::Win32Default, int32_t(login.sessionId));
    EXPECT_EQ(theirKey.OpenKey(), 0u);
    EXPECT_EQ(theirKey.GetPath(), theirs);
    // Session 0 has no user, so it has no hive either.
    EXPECT_EQ(LxRegKey("HKCU\\Software\\Test", LxRegKey::Win32Default, 0).OpenKey(), LxRegKey::kErrorNotFound);
    // Once its last process has gone the session no longer exists.
    login.End();
    session.Reset();
    EXPECT_FALSE(ProcessUtils::IsValidSession(login.sessionId));
    EXPECT_FALSE(session.Init(login.sessionId));
    EXPECT_EQ(session.SessionId(), kNoSession);
}

TEST(LxImpersonateSession, RefusesSessionZeroAndNeedsInitBeforeStart)
{
    ScopedLogCapture capture(LOG_LEVEL_VERBOSE);
    LxImpersonateSession session;
    EXPECT_TRUE(session.Stop());
    EXPECT_FALSE(session.Init(0));
    EXPECT_EQ(capture.Count("SessionID(0) - Impersonating session 0 not allowed"), 1u);
    EXPECT_FALSE(session.Start());
    EXPECT_FALSE(session.IsImpersonating());
    // Session 0 has no user: the SID query fails, quietly when asked to.
    char* sid = reinterpret_cast<char*>(1);
    capture.Clear();
    EXPECT_FALSE(ProcessUtils::GetUserSIDForSession(0, &sid, -1));
    EXPECT_EQ(sid, nullptr);
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_FALSE(ProcessUtils::GetUserSIDForSession(0, &sid, LOG_LEVEL_WARN));
    EXPECT_EQ(capture.CountContaining("Unable to get user token of session (id: 0)"), 1u);
    EXPECT_TRUE(ProcessUtils::GetSessionUserName(0).empty());
}

// Half an ELF header: read as a file without a version record, never past its end.
TEST(LxProcessUtils, VersionTextOfAFileWithoutARecord)
{
    TempDir dir;
    const std::string path = dir.file("half-elf");
    std::ofstream(path, std::ios::binary).write("\x7f" "ELF\2\1\1", 8);
    ASSERT_EQ(ChildProcess({"touch", "-d", "2021-03-05 04:05:06", path}).Wait(), 0);
    EXPECT_EQ(ProcessUtils::GetFileProductVersionText(path), "");
    EXPECT_EQ(ProcessUtils::GetModuleVersionText(path), "No version information (Mar  5 2021 04:05:06)");
    unlink(path.c_str());
    EXPECT_EQ(ProcessUtils::GetModuleVersionText(path), "No version information");
}

} // namespace
