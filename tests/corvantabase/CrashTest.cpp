#include "corvantabase/CoreDump.h"

#include "platform/UniqueFd.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

namespace {

struct CrashOutcome {
    int status = 0;
    pid_t pid = -1;
    std::string stderrText;
};

// Runs `crash` in a forked child with the filter installed and its standard
// error on a pipe; returns how the child ended and what it wrote.
CrashOutcome CrashInChild(const std::function<void()>& crash)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe2");
    platform::UniqueFd readEnd(fds[0]), writeEnd(fds[1]);

    const pid_t pid = fork();
    if (pid == 0) {
        // No core files from these deliberate crashes.
        struct rlimit noCore {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        dup2(writeEnd.get(), STDERR_FILENO);
        CoreDump_SetUnhandledExceptionFilter();
        crash();
        _exit(99);
    }
    writeEnd.reset();
    CrashOutcome outcome;
    outcome.pid = pid;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(readEnd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        outcome.stderrText.append(buffer, static_cast<size_t>(n));
    }
    while (waitpid(pid, &outcome.status, 0) < 0 && errno == EINTR) {
    }
    return outcome;
}

std::string OwnExecutable() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

// Checks the header, a backtrace that reaches into this executable, the end
// line, and the terminating signal.
void ExpectReport(const CrashOutcome& outcome, int sig, const std::string& sigName, const std::string& origin)
{
    ASSERT_TRUE(WIFSIGNALED(outcome.status)) << "status " << outcome.status << "\n" << outcome.stderrText;
    EXPECT_EQ(WTERMSIG(outcome.status), sig);
    const std::string header = "*** Fatal signal " + std::to_string(sig) + " (" + sigName + ")";
    const size_t at = outcome.stderrText.find(header);
    ASSERT_NE(at, std::string::npos) << outcome.stderrText;
    EXPECT_EQ(outcome.stderrText.compare(at + header.size(), origin.size(), origin), 0) << outcome.stderrText;
    const std::string who = ", process " + std::to_string(outcome.pid) + ", thread ";
    EXPECT_NE(outcome.stderrText.find(who, at), std::string::npos) << outcome.stderrText;
    const size_t trace = outcome.stderrText.find(" ***\nBacktrace:\n", at);
    const size_t end = outcome.stderrText.find("*** End of backtrace ***\n", at);
    ASSERT_NE(trace, std::string::npos) << outcome.stderrText;
    ASSERT_NE(end, std::string::npos) << outcome.stderrText;
    const std::string frames = outcome.stderrText.substr(trace, end - trace);
    // Frames of the executable carry the name it was started by.
    const std::string ownName = std::filesystem::path(OwnExecutable()).filename().string() + "(";
    EXPECT_NE(frames.find(ownName), std::string::npos) << outcome.stderrText;
    // Reported once, even where the signal strikes twice.
    EXPECT_EQ(outcome.stderrText.find(header, at + 1), std::string::npos) << outcome.stderrText;
}

TEST(CrashFilter, FaultOnAnInaccessiblePageIsReportedWithItsAddress)
{
    const long page = sysconf(_SC_PAGESIZE);
    void* guard = mmap(nullptr, static_cast<size_t>(page), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(guard, MAP_FAILED);
    const CrashOutcome outcome = CrashInChild([guard] { *static_cast<volatile int*>(guard) = 1; });
    munmap(guard, static_cast<size_t>(page));
    char address[48];
    std::snprintf(address, sizeof address, " at address %#lx,", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(guard)));
    ExpectReport(outcome, SIGSEGV, "SIGSEGV", address);
}

TEST(CrashFilter, AbortIsReportedAndStillEndsTheProcessBySigabrt)
{
    const CrashOutcome outcome = CrashInChild([] { std::abort(); });
    ExpectReport(outcome, SIGABRT, "SIGABRT", " sent by process " + std::to_string(outcome.pid) + ",");
}

TEST(CrashFilter, SignalFromOutsideIsReportedAndReRaised)
{
    const CrashOutcome outcome = CrashInChild([] { kill(getpid(), SIGBUS); });
    ExpectReport(outcome, SIGBUS, "SIGBUS", " sent by process " + std::to_string(outcome.pid) + ",");
}

volatile bool g_deeper = true;

__attribute__((noinline)) int Recurse(int depth)
{
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    if (g_deeper)
        return Recurse(depth + 1) + frame[0];
    return frame[0];
}

#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
constexpr bool kThreadSanitizer = __has_feature(thread_sanitizer);
#else
constexpr bool kThreadSanitizer = false;
#endif

TEST(CrashFilter, StackOverflowIsReportedFromTheAlternateStack)
{
    // ThreadSanitizer's own signal trampoline needs the stack that is gone.
    if (kThreadSanitizer)
        GTEST_SKIP() << "a stack overflow cannot be handled under ThreadSanitizer";
    ExpectReport(CrashInChild([] { Recurse(0); }), SIGSEGV, "SIGSEGV", " at address 0x");
}

} // namespace
