// The base library: GUID texts, the private temporary directory, the poll
// loop, process image names and the crash report.

#include "corvantabase/CoreDump.h"
#include "corvantabase/Poll.h"
#include "corvantabase/SafeTmpDir.h"
#include "corvantabase/TolvProcessUtils.h"
#include "corvantabase/Uuid.h"

#include "common/ChildProcess.h"
#include "common/LogCapture.h"
#include "common/TempDir.h"
#include "platform/Utf.h"
#include <tamsel/ipc/ipclibTypes.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <thread>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

TEST(GuidText, EveryAcceptedFormReadsBackAsTheEndpointGuidAndAnythingElseIsRefused)
{
    for (const char* text : {"875ac244b80a420e90a29c69dfd8e728", "{875AC244B80A420E90A29C69DFD8E728}",
                             "875ac244-b80a-420e-90a2-9c69dfd8e728", "{875AC244-B80A-420E-90A2-9C69DFD8E728}"}) {
        _GUID guid{};
        ASSERT_TRUE(UUID_ConvertPackedToBin(&guid, text)) << text;
        EXPECT_EQ(fmt::format("{}", guid), "875ac244-b80a-420e-90a2-9c69dfd8e728") << text;
    }
    // Refused text leaves the output alone.
    const char* refused[] = {
        "", "875ac244b80a420e90a29c69dfd8e72", "875ac244b80a420e90a29c69dfd8e7289",
        "875ac244b80a420e90a29c69dfd8e72g", "0x875ac244b80a420e90a29c69dfd8e7",
        "875ac244-b80a-420e-90a2-9c69dfd8e72", "875ac244-b80a-420e-90a2-9c69dfd8e7289",
        "875ac244b-80a-420e-90a2-9c69dfd8e728", "875ac244-b80a-420e-90a2-9c69dfd8e7-8",
        "{875ac244-b80a-420e-90a2-9c69dfd8e728", "875ac244-b80a-420e-90a2-9c69dfd8e728}",
        "{{875ac244b80a420e90a29c69dfd8e728}}", " 875ac244b80a420e90a29c69dfd8e728",
        "875ac244b80a420e90a29c69dfd8e728\n", "875ac244-b80a-420e-90a2-9c69dfd8e7\xc3\xa9", nullptr,
    };
    for (const char* text : refused) {
        std::vector<uint8_t> bin(16, 0x5a);
        EXPECT_FALSE(UUID_ConvertPackedToBin(bin.data(), text)) << '"' << (text ? text : "(null)") << '"';
        EXPECT_EQ(bin, std::vector<uint8_t>(16, 0x5a)) << (text ? text : "(null)");
    }
}

// The directory File_GetSafeTmpDir gives, or "" for none.
std::string SafeTmpDir()
{
    std::unique_ptr<char, decltype(&std::free)> dir(File_GetSafeTmpDir(false), &std::free);
    return dir ? dir.get() : "";
}

class SafeTmpDirTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const char* old = std::getenv("TMPDIR"))
            saved = old;
        setenv("TMPDIR", base.path().c_str(), 1);
    }
    void TearDown() override { saved.empty() ? unsetenv("TMPDIR") : setenv("TMPDIR", saved.c_str(), 1); }
    std::string saved;
    TempDir base;
    const std::string ownName = "corvanta-" + std::to_string(geteuid());
    const std::string expected = base.path() + "/" + ownName;
};

TEST_F(SafeTmpDirTest, RefusesWhatIsNotOurPrivateDirectoryAndMakesOneWhateverTheUmask)
{
    ScopedLogCapture log;
    TempDir target; // private and ours, but reached through a symlink someone could repoint
    ASSERT_EQ(symlink(target.path().c_str(), expected.c_str()), 0);
    EXPECT_EQ(SafeTmpDir(), "");
    ASSERT_EQ(unlink(expected.c_str()), 0);
    ASSERT_EQ(close(open(expected.c_str(), O_CREAT | O_WRONLY, 0600)), 0);
    EXPECT_EQ(SafeTmpDir(), "");
    ASSERT_EQ(unlink(expected.c_str()), 0);
    ASSERT_EQ(mkdir(expected.c_str(), 0700), 0);
    for (mode_t open : {0777, 0750, 0701}) {
        ASSERT_EQ(chmod(expected.c_str(), open), 0);
        EXPECT_EQ(SafeTmpDir(), "") << std::oct << open;
    }
    EXPECT_EQ(log.CountContaining(expected), 5u);
    if (geteuid() == 0) {
        ASSERT_EQ(chmod(expected.c_str(), 0700), 0);
        ASSERT_EQ(chown(expected.c_str(), 65534, 65534), 0);
        EXPECT_EQ(SafeTmpDir(), "");
        EXPECT_EQ(log.CountContaining("belongs to user 65534"), 1u);
    }
    ASSERT_EQ(rmdir(expected.c_str()), 0);
    const mode_t oldMask = umask(0);
    EXPECT_EQ(SafeTmpDir(), expected);
    umask(oldMask);
    struct stat st{};
    ASSERT_EQ(lstat(expected.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_EQ(SafeTmpDir(), expected);
    for (const char* value : {"", "relative/dir"}) {
        setenv("TMPDIR", value, 1);
        EXPECT_EQ(SafeTmpDir(), "/tmp/" + ownName) << value;
    }
    setenv("TMPDIR", (base.path() + "/missing/").c_str(), 1);
    EXPECT_EQ(SafeTmpDir(), "");
    EXPECT_EQ(log.CountContaining("Failed to create the directory " + base.path() + "/missing/" + ownName), 1u);
}

class PollTest : public ::testing::Test {
protected:
    void SetUp() override { Poll_InitDefault(); }
    void TearDown() override { Poll_Exit(); }
    PollExitFlag quit;
};

void RaiseFlag(void* flag) { static_cast<PollExitFlag*>(flag)->Raise(); }

struct Counter {
    std::atomic<int> runs{0};
    int stopAt = 0; // a periodic one removes itself at this run
    std::thread::id thread;
    Clock::time_point firstRun;
};

void Count(void* data)
{
    auto* c = static_cast<Counter*>(data);
    if (c->runs++ == 0) {
        c->thread = std::this_thread::get_id();
        c->firstRun = Clock::now();
    }
    if (c->runs == c->stopAt) {
        EXPECT_TRUE(Poll_CB_RTimeRemove(Count, c, true));
    }
}

TEST_F(PollTest, TimersRunOnTheLoopThreadOnceOrUntilRemovedAndRemovalMatchesAllThree)
{
    Counter once, periodic, both; // `both` is registered once and periodically; its periodic one goes
    periodic.stopAt = 5;
    const auto start = Clock::now();
    ASSERT_EQ(Poll_CB_RTime(Count, &once, 30'000, false, nullptr), kPollSuccess);
    ASSERT_EQ(Poll_CB_RTime(Count, &periodic, 5'000, true, nullptr), kPollSuccess);
    ASSERT_EQ(Poll_CB_RTime(Count, &both, 10'000, false, nullptr), kPollSuccess);
    ASSERT_EQ(Poll_CB_RTime(Count, &both, 10'000, true, nullptr), kPollSuccess);
    EXPECT_FALSE(Poll_CB_RTimeRemove(RaiseFlag, &both, false));
    EXPECT_FALSE(Poll_CB_RTimeRemove(Count, &once, true));
    EXPECT_TRUE(Poll_CB_RTimeRemove(Count, &both, true));
    EXPECT_FALSE(Poll_CB_RTimeRemove(Count, &both, true));
    Poll_Loop(false, &quit, POLL_CLASS_MAIN); // a single pass runs only what is due
    EXPECT_EQ(once.runs + periodic.runs + both.runs, 0);
    // Well past further periods, so a periodic that still re-armed would show.
    ASSERT_EQ(Poll_CB_RTime(RaiseFlag, &quit, 300'000, false, nullptr), kPollSuccess);
    Poll_Loop(true, &quit, POLL_CLASS_MAIN);
    EXPECT_EQ(once.runs, 1);
    EXPECT_EQ(once.thread, std::this_thread::get_id());
    EXPECT_GE(once.firstRun - start, 30ms);
    EXPECT_EQ(periodic.runs, 5);
    EXPECT_EQ(both.runs, 1);
    EXPECT_FALSE(Poll_CB_RTimeRemove(Count, &once, false)); // fired: nothing left
}

TEST_F(PollTest, FlagOrTimerFromAnotherThreadWakesAWaitOfAnHour)
{
    ASSERT_EQ(Poll_CB_RTime(RaiseFlag, nullptr, 3600LL * 1000 * 1000, false, nullptr), kPollSuccess);
    for (bool viaTimer : {false, true}) {
        quit.Reset();
        const auto start = Clock::now();
        std::thread other([&] {
            if (viaTimer)
                EXPECT_EQ(Poll_CB_RTime(RaiseFlag, &quit, 0, false, nullptr), kPollSuccess);
            else
                quit.Raise();
        });
        Poll_Loop(true, &quit, POLL_CLASS_MAIN);
        other.join();
        EXPECT_LT(Clock::now() - start, 30s) << viaTimer;
    }
}

struct Blocking {
    std::promise<void> entered, removing;
    std::atomic<bool> finished{false};
};

void BlockUntilRemoving(void* data)
{
    auto* b = static_cast<Blocking*>(data);
    b->entered.set_value();
    b->removing.get_future().wait();
    std::this_thread::sleep_for(20ms); // room for a faulty removal to return early; a correct one waits anyway
    b->finished = true;
}

TEST_F(PollTest, RemovalFromAnotherThreadWaitsForTheRunningCallback)
{
    Blocking b;
    std::mutex clientLock; // held around the run
    ASSERT_EQ(Poll_CB_RTime(BlockUntilRemoving, &b, 1000, true, &clientLock), kPollSuccess);
    bool lockFree = true, removed = false, finishedFirst = false;
    std::thread remover([&] {
        b.entered.get_future().wait();
        if ((lockFree = clientLock.try_lock()))
            clientLock.unlock();
        b.removing.set_value();
        removed = Poll_CB_RTimeRemove(BlockUntilRemoving, &b, true);
        finishedFirst = b.finished;
        quit.Raise();
    });
    Poll_Loop(true, &quit, POLL_CLASS_MAIN);
    remover.join();
    EXPECT_FALSE(lockFree);
    EXPECT_TRUE(removed);
    EXPECT_TRUE(finishedFirst);
}

TEST_F(PollTest, TearDownEndsTheLoopAndRefusesRegistrations)
{
    std::thread exiter([] { Poll_Exit(); });
    Poll_Loop(true, nullptr, POLL_CLASS_MAIN);
    exiter.join();
    EXPECT_EQ(Poll_CB_RTime(RaiseFlag, nullptr, 1000, false, nullptr), kPollNotInitialized);
    Poll_InitDefault();
    EXPECT_EQ(Poll_CB_RTime(nullptr, nullptr, 1000, false, nullptr), kPollInvalidArgument);
    EXPECT_EQ(Poll_CB_RTime(RaiseFlag, nullptr, -1, false, nullptr), kPollInvalidArgument);
    EXPECT_EQ(Poll_CB_RTime(RaiseFlag, nullptr, 0, true, nullptr), kPollInvalidArgument);
}

std::u16string Wide(const std::string& text) { return tolv::platform::Utf8ToUtf16(text).value(); }
std::string OwnExecutable() { return fs::read_symlink("/proc/self/exe").string(); }

// Copies of sleep(1) beside the test executable (a temporary directory may
// forbid running programs), started as children that are killed and reaped.
class Sleepers {
public:
    ~Sleepers() { fs::remove_all(dir); }
    // A path of exactly `length` bytes: 150-byte directories, then the file.
    std::string PathOfLength(size_t length, char fill) const
    {
        std::string path = dir;
        while (length - path.size() > 201)
            path += "/" + std::string(150, fill);
        return path + "/" + std::string(length - path.size() - 1, fill);
    }
    ChildProcess& Start(const std::string& path)
    {
        fs::create_directories(fs::path(path).parent_path());
        fs::copy_file("/bin/sleep", path, fs::copy_options::overwrite_existing);
        m_children.push_back(std::make_unique<ChildProcess>(std::vector<std::string>{path, "1000"}));
        EXPECT_GT(m_children.back()->pid(), 0) << path;
        return *m_children.back();
    }
    const std::string dir = fs::path(OwnExecutable()).parent_path() / ("procutils-" + std::to_string(getpid()));

private:
    std::vector<std::unique_ptr<ChildProcess>> m_children;
};

TEST(ProcessUtilsImage, LongAndNonAsciiPathsComeWholeAndNonUtf8OnesAreRefused)
{
    // The buffer starts at 260 bytes and doubles whenever a path fills it.
    Sleepers sleepers;
    for (size_t length : {259u, 260u, 261u, 520u, 521u, 1500u}) {
        const std::string path = sleepers.PathOfLength(length, static_cast<char>('a' + length % 26));
        ASSERT_EQ(path.size(), length);
        EXPECT_EQ(TOLVGetProcessImageName(sleepers.Start(path).pid()), Wide(path)) << length;
    }
    const std::string accented = sleepers.dir + "/v\xc3\xa9ltrane-\xf0\x9d\x84\x9e";
    EXPECT_EQ(TOLVGetProcessImageName(sleepers.Start(accented).pid()),
              Wide(sleepers.dir) + u"/v\u00e9ltrane-\U0001D11E");
    ScopedLogCapture log;
    EXPECT_TRUE(TOLVGetProcessImageName(sleepers.Start(sleepers.dir + "/bad\xff").pid()).empty());
    EXPECT_EQ(log.CountContaining("The path is not valid UTF-8"), 1u);
}

TEST(ProcessUtilsImage, ProcessThatIsGoneGivesEmptyAndNamesTheFailingStep)
{
    Sleepers sleepers;
    ChildProcess& child = sleepers.Start(sleepers.dir + "/sleeper");
    const pid_t pid = child.pid();
    ScopedLogCapture log;
    // Ended but not reaped: the process exists, its image does not.
    child.Kill(SIGKILL);
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(TOLVGetProcessImageName(pid).empty());
    EXPECT_EQ(log.Count("QueryFullProcessImageNameW failed with error : 0x2", "TOLVGetProcessImageName()"), 1u);
    child.Wait(); // reaped: no such process any more
    for (pid_t gone : {pid, 0, -1})
        EXPECT_TRUE(TOLVGetProcessImageName(gone).empty());
    EXPECT_EQ(log.Count("OpenProcess failed with error : 0x3", "TOLVGetProcessImageName()"), 3u);
}

struct Crash {
    int status = 0;
    pid_t pid = -1;
    std::string text; // what the child wrote to standard error
};

// Runs `crash` in a child with the filter installed and standard error in a file.
Crash CrashInChild(const std::function<void()>& crash)
{
    TempDir dir;
    Crash result;
    result.pid = fork();
    if (result.pid == 0) {
        const rlimit noCoreFiles{0, 0};
        setrlimit(RLIMIT_CORE, &noCoreFiles);
        dup2(open(dir.file("stderr").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
        CoreDump_SetUnhandledExceptionFilter();
        crash();
        _exit(99);
    }
    while (waitpid(result.pid, &result.status, 0) < 0 && errno == EINTR) {
    }
    result.text = (std::ostringstream() << std::ifstream(dir.file("stderr")).rdbuf()).str();
    return result;
}

// One report (header, a backtrace reaching into this executable, end line),
// then death by the same signal.
void ExpectReport(const Crash& crash, int sig, const std::string& headerStart)
{
    ASSERT_TRUE(WIFSIGNALED(crash.status)) << crash.status << "\n" << crash.text;
    EXPECT_EQ(WTERMSIG(crash.status), sig);
    const size_t at = crash.text.find(headerStart);
    ASSERT_NE(at, std::string::npos) << crash.text;
    // Only hex digits may come between the given start and the process.
    const size_t who = crash.text.find(", process " + std::to_string(crash.pid) + ", thread ", at);
    ASSERT_NE(who, std::string::npos) << crash.text;
    const std::string between = crash.text.substr(at + headerStart.size(), who - at - headerStart.size());
    EXPECT_EQ(between.find_first_not_of("0123456789abcdef"), std::string::npos) << crash.text;
    EXPECT_EQ(crash.text.find("*** Fatal signal", at + 1), std::string::npos) << crash.text; // one report
    const size_t trace = crash.text.find(" ***\nBacktrace:\n", at);
    const size_t end = crash.text.find("*** End of backtrace ***\n", at);
    ASSERT_TRUE(trace != std::string::npos && end != std::string::npos) << crash.text;
    // Frames of the executable carry the name it was started by.
    const std::string ownFrame = std::filesystem::read_symlink("/proc/self/exe").filename().string() + "(";
    EXPECT_NE(crash.text.substr(trace, end - trace).find(ownFrame), std::string::npos) << crash.text;
}

volatile bool g_deeper = true;

__attribute__((noinline)) int Recurse(int depth)
{
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    return g_deeper ? Recurse(depth + 1) + frame[0] : frame[0];
}

TEST(CrashFilter, FaultAbortAndStackOverflowAreReportedThenDieByTheirSignal)
{
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* guard = mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(guard, MAP_FAILED);
    const Crash fault = CrashInChild([guard] { *static_cast<volatile int*>(guard) = 1; });
    munmap(guard, page);
    char header[96];
    snprintf(header, sizeof header, "*** Fatal signal 11 (SIGSEGV) at address %p", guard);
    ExpectReport(fault, SIGSEGV, header);
    const Crash abort = CrashInChild([] { std::abort(); });
    ExpectReport(abort, SIGABRT, "*** Fatal signal 6 (SIGABRT) sent by process " + std::to_string(abort.pid));
    // ThreadSanitizer's own signal trampoline needs the stack that is gone.
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a stack overflow cannot be handled under ThreadSanitizer";
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
    GTEST_SKIP() << "a stack overflow cannot be handled under ThreadSanitizer";
#endif
#endif
    ExpectReport(CrashInChild([] { Recurse(0); }), SIGSEGV, "*** Fatal signal 11 (SIGSEGV) at address 0x");
}

} // namespace
