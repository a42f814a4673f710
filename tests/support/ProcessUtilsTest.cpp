// Sessions, impersonation and the system texts, against real login sessions:
// a child process of a user made for the test sets its login uid, which gives
// it a new audit session, the way a login does.

#include "common/ChildProcess.h"
#include "common/SettingsStore.h"
#include "common/TempDir.h"
#include "support/LxImpersonateSession.h"
#include "support/LxRegKey.h"
#include "support/ProcessUtils.h"
#include "SupportTestSupport.h"

#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <sstream>
#include <thread>

namespace {

using ProcessUtils::kNoSession;

// The effective uid and gid and the groups of a thread of this process, as the kernel shows them.
std::string ThreadStatus(pid_t tid)
{
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/status");
    std::string text;
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string key, real, effective;
        fields >> key >> real >> effective;
        if (key == "Uid:" || key == "Gid:")
            text += key + effective + " ";
        else if (key == "Groups:")
            text += line;
    }
    return text;
}

// A user made for the test and a process logged on as that user in a login
// session of its own. Anything the machine does not allow leaves `why` set.
class LoginSession {
public:
    LoginSession()
    {
        const std::string name = "tolvimp" + std::to_string(getpid());
        const struct passwd* entry = nullptr;
        if (geteuid() != 0 || ChildProcess({"/usr/sbin/useradd", "--no-create-home", "--no-user-group", name}).Wait() ||
            !(entry = getpwnam(name.c_str()))) {
            why = "needs root and useradd to make a user";
            return;
        }
        userName = name;
        uid = entry->pw_uid;
        gid = entry->pw_gid;
        // The login: setting the login uid starts a new audit session.
        m_process = std::make_unique<ChildProcess>(std::vector<std::string>{"/bin/sh", "-c",
            "echo " + std::to_string(uid) + " >/proc/self/loginuid; cat /proc/self/sessionid; echo; exec sleep 1000"});
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

// A session's user is taken on by one thread only, is no service account and
// has a hive of its own.
TEST(LxImpersonateSession, SwitchesOnlyTheCallingThreadToTheSessionUserAndBack)
{
    LoginSession login;
    if (!login.why.empty())
        GTEST_SKIP() << login.why;
    uint32_t resolved = 0;
    EXPECT_TRUE(ProcessUtils::IsValidSession(login.sessionId, &resolved));
    EXPECT_EQ(resolved, login.sessionId);
    EXPECT_EQ(ProcessUtils::GetSessionUserName(login.sessionId),
              std::u16string(login.userName.begin(), login.userName.end()));
    char* sid = nullptr;
    ASSERT_TRUE(ProcessUtils::GetUserSIDForSession(login.sessionId, &sid, LOG_LEVEL_ERROR));
    EXPECT_EQ(std::string(sid), std::to_string(login.uid));
    free(sid);
    LxImpersonateSession session;
    ASSERT_TRUE(session.Init(login.sessionId));
    EXPECT_TRUE(session.Init(login.sessionId));
    const std::string own = ThreadStatus(gettid());
    std::promise<std::string> during;
    std::promise<void> checked;
    bool stopped = false;
    std::string after;
    std::thread worker([&] {
        EXPECT_TRUE(session.Start());
        EXPECT_EQ(ProcessUtils::GetSessionID(true, kNoSession), login.sessionId);
        during.set_value(ThreadStatus(gettid()));
        checked.get_future().wait();
        stopped = session.Stop();
        after = ThreadStatus(gettid());
    });
    const std::string user = during.get_future().get();
    EXPECT_EQ(user.substr(0, user.find("Groups:")),
              "Uid:" + std::to_string(login.uid) + " Gid:" + std::to_string(login.gid) + " ");
    // The other threads keep their own credentials and session, and a Stop
    // from a thread that did not start it changes nothing.
    EXPECT_EQ(ThreadStatus(gettid()), own);
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
    SettingsStore store;
    const std::string ours = store.path() + "/HKCU/Software/Test";
    const std::string theirs = store.path() + "/HKU/" + std::to_string(login.uid) + "/software/test";
    std::filesystem::create_directories(ours);
    std::filesystem::create_directories(theirs);
    LxRegKey ourKey("HKCU\\Software\\Test");
    EXPECT_EQ(ourKey.OpenKey(), 0u);
    EXPECT_EQ(ourKey.GetPath(), ours);
    LxRegKey theirKey("HKEY_CURRENT_USER/Software/Test", LxRegKey::Win32Default, static_cast<int32_t>(login.sessionId));
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
TEST(LxProcessUtils, VersionTextsOfAFileWithoutARecordAndOfTheSystem)
{
    TempDir dir;
    const std::string path = dir.file("half-elf");
    std::ofstream(path, std::ios::binary).write("\x7f" "ELF\2\1\1", 8);
    ASSERT_EQ(ChildProcess({"touch", "-d", "2021-03-05 04:05:06", path}).Wait(), 0);
    EXPECT_EQ(ProcessUtils::GetFileProductVersionText(path), "");
    EXPECT_EQ(ProcessUtils::GetModuleVersionText(path), "No version information (Mar  5 2021 04:05:06)");
    unlink(path.c_str());
    EXPECT_EQ(ProcessUtils::GetModuleVersionText(path), "No version information");
    struct utsname names{};
    ASSERT_EQ(uname(&names), 0);
    const std::string os = ProcessUtils::GetOSVersionText();
    EXPECT_NE(os.find(std::string(", Version ") + names.release + ", 64-bit"), std::string::npos) << os;
}

} // namespace
