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

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>

namespace {

using ProcessUtils::kNoSession;

// What the kernel shows of one thread of this process: its name, or its
// effective uid and gid and its groups.
std::string ThreadStatus(pid_t tid, const char* file = "status")
{
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/" + file);
    std::string text;
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string key, real, effective;
        fields >> key >> real >> effective;
        if (key == "Uid:" || key == "Gid:")
            text += key + effective + " ";
        else if (key == "Groups:" || std::string(file) != "status")
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
        const std::vector<std::string> add = {"/usr/sbin/useradd", "--no-create-home", "--no-user-group", name};
        const struct passwd* entry = nullptr;
        if (geteuid() != 0 || ChildProcess(add).Wait() != 0 || !(entry = getpwnam(name.c_str()))) {
            why = "needs root and useradd to make a user";
            return;
        }
        userName = name;
        uid = entry->pw_uid;
        gid = entry->pw_gid;
        int report[2];
        if (pipe2(report, O_CLOEXEC) != 0) {
            why = "no pipe";
            return;
        }
        m_child = fork();
        if (m_child == 0) {
            // The login: setting the login uid starts a new audit session.
            const std::string text = std::to_string(uid);
            const int fd = open("/proc/self/loginuid", O_WRONLY);
            uint32_t session = kNoSession;
            if (fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()))
                session = ProcessUtils::GetSessionID(false, kNoSession);
            if (setgid(gid) != 0 || setuid(uid) != 0)
                session = kNoSession;
            if (write(report[1], &session, sizeof session) == sizeof session)
                pause(); // stays logged on until the test ends it
            _exit(0);
        }
        close(report[1]);
        if (read(report[0], &sessionId, sizeof sessionId) != sizeof sessionId || sessionId == 0)
            sessionId = kNoSession;
        close(report[0]);
        if (sessionId == kNoSession)
            why = "this machine does not let a process set its login uid";
    }
    // Logs the session's process off and waits until it is gone.
    void End()
    {
        if (m_child > 0) {
            kill(m_child, SIGKILL);
            waitpid(m_child, nullptr, 0);
        }
        m_child = -1;
    }
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
    pid_t m_child = -1;
};

TEST(LxImpersonateSession, SwitchesOnlyTheCallingThreadToTheSessionUserAndBack)
{
    LoginSession login;
    if (!login.why.empty())
        GTEST_SKIP() << login.why;

    // The session as the queries see it.
    uint32_t resolved = 0;
    EXPECT_TRUE(ProcessUtils::IsValidSession(login.sessionId, &resolved));
    EXPECT_EQ(resolved, login.sessionId);
    EXPECT_EQ(ProcessUtils::GetSessionUserName(login.sessionId),
              std::u16string(login.userName.begin(), login.userName.end()));
    char* sid = nullptr;
    ASSERT_TRUE(ProcessUtils::GetUserSIDForSession(login.sessionId, &sid, LOG_LEVEL_ERROR));
    EXPECT_EQ(std::string(sid), std::to_string(login.uid));
    free(sid);

    ScopedLogCapture capture(LOG_LEVEL_DEBUG);
    const std::string id = std::to_string(login.sessionId);
    LxImpersonateSession session;
    ASSERT_TRUE(session.Init(login.sessionId));
    EXPECT_TRUE(session.Init(login.sessionId));
    EXPECT_EQ(capture.Count("Already impersonating session " + id), 1u);

    const pid_t mainThread = gettid();
    const std::string own = ThreadStatus(mainThread);
    std::promise<void> switched;
    std::promise<void> checked;
    bool started = false;
    bool stopped = false;
    uint32_t sessionSeen = 0;
    std::string during;
    std::string after;
    std::thread worker([&] {
        started = session.Start();
        sessionSeen = ProcessUtils::GetSessionID(true, kNoSession);
        during = ThreadStatus(gettid());
        switched.set_value();
        checked.get_future().wait();
        stopped = session.Stop();
        after = ThreadStatus(gettid());
    });
    switched.get_future().wait();
    // While one thread acts as the user, the others keep their own credentials,
    // and a Stop from a thread that did not start it changes nothing.
    EXPECT_EQ(ThreadStatus(mainThread), own);
    EXPECT_NE(ProcessUtils::GetSessionID(true, kNoSession), login.sessionId);
    EXPECT_FALSE(session.Stop());
    EXPECT_TRUE(session.IsImpersonating());
    checked.set_value();
    worker.join();

    ASSERT_TRUE(started);
    EXPECT_EQ(during.substr(0, during.find("Groups:")),
              "Uid:" + std::to_string(login.uid) + " Gid:" + std::to_string(login.gid) + " ");
    EXPECT_EQ(sessionSeen, login.sessionId);
    EXPECT_TRUE(stopped);
    EXPECT_FALSE(session.IsImpersonating());
    EXPECT_EQ(after, own);
    EXPECT_EQ(capture.Count("Impersonating " + login.userName + " on session " + id + " started"), 1u);
    EXPECT_EQ(capture.Count("Impersonating " + login.userName + " on session " + id + " stopped"), 1u);

    // Once its last process has gone the session no longer exists.
    login.End();
    session.Reset();
    EXPECT_FALSE(ProcessUtils::IsValidSession(login.sessionId));
    EXPECT_FALSE(session.Init(login.sessionId));
    EXPECT_EQ(capture.Count("Invalid session ID " + id), 1u);
    EXPECT_EQ(session.SessionId(), kNoSession);
}

TEST(LxImpersonateSession, RefusesSessionZeroAndNeedsInitBeforeStart)
{
    ScopedLogCapture capture(LOG_LEVEL_VERBOSE);
    LxImpersonateSession session;
    EXPECT_TRUE(session.Stop());
    EXPECT_TRUE(capture.Lines().empty());

    EXPECT_FALSE(session.Init(0));
    EXPECT_EQ(capture.Count("SessionID(0) - Impersonating session 0 not allowed"), 1u);
    EXPECT_EQ(capture.Count("Failed to get user token for session 0"), 1u);
    EXPECT_EQ(session.SessionId(), kNoSession);
    EXPECT_FALSE(session.Start());
    EXPECT_EQ(capture.Count("Not initialized on session -1"), 1u);
    EXPECT_FALSE(session.IsImpersonating());

    // Session 0 has no user: the SID query fails, quietly when asked to.
    char* sid = reinterpret_cast<char*>(1);
    const size_t before = capture.Lines().size();
    EXPECT_FALSE(ProcessUtils::GetUserSIDForSession(0, &sid, -1));
    EXPECT_EQ(sid, nullptr);
    EXPECT_EQ(capture.Lines().size(), before);
    EXPECT_FALSE(ProcessUtils::GetUserSIDForSession(0, &sid, LOG_LEVEL_WARN));
    EXPECT_EQ(capture.CountContaining("Unable to get user token of session (id: 0)"), 1u);
    EXPECT_TRUE(ProcessUtils::GetSessionUserName(0).empty());
}

// An ordinary user is no service account and has a hive of its own.
TEST(LxProcessUtils, AnOrdinaryUserIsNoServiceAccountAndItsSessionHasItsOwnHive)
{
    LoginSession login;
    if (!login.why.empty())
        GTEST_SKIP() << login.why;
    EXPECT_TRUE(ProcessUtils::IsServiceAccount());
    // Each user in a process of its own.
    auto childAnswer = [](uid_t uid) {
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

    // The current user key of a session is its user's hive.
    SettingsStore store;
    const std::string own = store.path() + "/HKCU/Software/Test";
    const std::string users = store.path() + "/HKU/" + std::to_string(login.uid) + "/software/test";
    std::filesystem::create_directories(own);
    std::filesystem::create_directories(users);
    LxRegKey mine("HKCU\\Software\\Test");
    EXPECT_EQ(mine.OpenKey(), 0u);
    EXPECT_EQ(mine.GetPath(), own);
    LxRegKey theirs("HKEY_CURRENT_USER/Software/Test", LxRegKey::Win32Default, static_cast<int32_t>(login.sessionId));
    EXPECT_EQ(theirs.OpenKey(), 0u);
    EXPECT_EQ(theirs.GetPath(), users);
    // Session 0 has no user, so it has no hive either.
    EXPECT_EQ(LxRegKey("HKCU\\Software\\Test", LxRegKey::Win32Default, 0).OpenKey(), LxRegKey::kErrorNotFound);
}

TEST(LxProcessUtils, ThreadNamesReachTheKernelKeepingTheThreadPart)
{
    std::promise<pid_t> tid;
    std::promise<void> named;
    std::thread other([&] {
        tid.set_value(gettid());
        named.get_future().wait();
    });
    const pid_t otherTid = tid.get_future().get();
    ProcessUtils::SetThreadName(static_cast<uint32_t>(otherTid), "tolvClientWorker!LogPollThread");
    EXPECT_EQ(ThreadStatus(otherTid, "comm"), "LogPollThread");
    ProcessUtils::SetThreadName(static_cast<uint32_t>(otherTid), "w!Poll");
    EXPECT_EQ(ThreadStatus(otherTid, "comm"), "w!Poll");
    named.set_value();
    other.join();

    const std::string before = ThreadStatus(gettid(), "comm");
    ProcessUtils::SetThreadName(kNoSession, "a-very-long-thread-name-without-module");
    EXPECT_EQ(ThreadStatus(gettid(), "comm"), "a-very-long-thr");
    ProcessUtils::SetThreadName(kNoSession, before.c_str());
}

TEST(LxProcessUtils, VersionTextsOfModulesAndFiles)
{
    // This test program carries the version record of the library it links.
    const std::string image = std::filesystem::read_symlink("/proc/self/exe");
    const std::string time = ProcessUtils::GetFileTimeText(image);
    ASSERT_FALSE(time.empty());
    EXPECT_EQ(ProcessUtils::GetModuleVersionText(image), "version=" TOLV_VERSION_TEXT " (" + time + ")");

    // Half an ELF header: read as a file without a version record, never past its end.
    TempDir dir;
    const std::string path = dir.file("half-elf");
    std::ofstream(path, std::ios::binary).write("\x7f" "ELF\2\1\1", 8);
    ASSERT_EQ(ChildProcess({"touch", "-d", "2021-03-05 04:05:06", path}).Wait(), 0);
    EXPECT_EQ(ProcessUtils::GetFileTimeText(path), "Mar  5 2021 04:05:06");
    EXPECT_EQ(ProcessUtils::GetFileProductVersionText(path), "");
    EXPECT_EQ(ProcessUtils::GetModuleVersionText(path), "No version information (Mar  5 2021 04:05:06)");
    unlink(path.c_str());
    EXPECT_EQ(ProcessUtils::GetModuleVersionText(path), "No version information");
    EXPECT_EQ(ProcessUtils::GetFileTimeText(""), "");

    struct utsname names {};
    ASSERT_EQ(uname(&names), 0);
    const std::string os = ProcessUtils::GetOSVersionText();
    EXPECT_NE(os.find(std::string(", Version ") + names.release + ", 64-bit"), std::string::npos) << os;
}

} // namespace
