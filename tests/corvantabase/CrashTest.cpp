#include "corvantabase/CoreDump.h"

#include "common/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace {

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
    EXPECT_EQ(crash.text.find("*** Fatal signal", at + 1), std::string::npos) << crash.text;
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
    snprintf(header, sizeof header, "*** Fatal signal 11 (SIGSEGV) at address %#lx", reinterpret_cast<uintptr_t>(guard));
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
