#include "corvantabase/CoreDump.h"

#include <execinfo.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>

namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};
constexpr int kMaxFrames = 64;

// The installing thread's alternate stack. It stays for the life of the
// process, because a handler may run on it until the very end.
alignas(16) char g_altStack[64 * 1024];

// The thread that reports first; -1 while nobody crashed.
std::atomic<pid_t> g_reportingThread{-1};

const char* SignalName(int sig)
{
    switch (sig) {
    case SIGSEGV: return "SIGSEGV";
    case SIGBUS: return "SIGBUS";
    case SIGFPE: return "SIGFPE";
    case SIGILL: return "SIGILL";
    case SIGABRT: return "SIGABRT";
    case SIGTRAP: return "SIGTRAP";
    case SIGSYS: return "SIGSYS";
    default: return "?";
    }
}

// Text building without the heap or stdio: the handler may run when either is broken.
class CrashLine {
public:
    void Text(const char* text)
    {
        while (*text && m_used < sizeof m_buffer)
            m_buffer[m_used++] = *text++;
    }
    void Decimal(uint64_t value)
    {
        char digits[20];
        size_t n = 0;
        do {
            digits[n++] = static_cast<char>('0' + value % 10);
            value /= 10;
        } while (value);
        while (n && m_used < sizeof m_buffer)
            m_buffer[m_used++] = digits[--n];
    }
    void Hex(uint64_t value)
    {
        Text("0x");
        char digits[16];
        size_t n = 0;
        do {
            digits[n++] = "0123456789abcdef"[value & 0xF];
            value >>= 4;
        } while (value);
        while (n && m_used < sizeof m_buffer)
            m_buffer[m_used++] = digits[--n];
    }
    void WriteTo(int fd) const
    {
        size_t done = 0;
        while (done < m_used) {
            const ssize_t n = write(fd, m_buffer + done, m_used - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return;
            done += static_cast<size_t>(n);
        }
    }

private:
    char m_buffer[256];
    size_t m_used = 0;
};

void Report(int sig, const siginfo_t* info)
{
    CrashLine header;
    header.Text("*** Fatal signal ");
    header.Decimal(static_cast<uint64_t>(sig));
    header.Text(" (");
    header.Text(SignalName(sig));
    header.Text(")");
    if (info && info->si_code > 0) {
        // Raised by the kernel for a fault: the address is the faulting one.
        header.Text(" at address ");
        header.Hex(reinterpret_cast<uintptr_t>(info->si_addr));
    } else if (info) {
        header.Text(" sent by process ");
        header.Decimal(static_cast<uint64_t>(info->si_pid));
    }
    header.Text(", process ");
    header.Decimal(static_cast<uint64_t>(getpid()));
    header.Text(", thread ");
    header.Decimal(static_cast<uint64_t>(syscall(SYS_gettid)));
    header.Text(" ***\nBacktrace:\n");
    header.WriteTo(STDERR_FILENO);

    // backtrace() was called once at installation, so the unwinder is loaded
    // already; backtrace_symbols_fd writes straight to the descriptor.
    void* frames[kMaxFrames];
    const int count = backtrace(frames, kMaxFrames);
    backtrace_symbols_fd(frames, count, STDERR_FILENO);

    CrashLine footer;
    footer.Text("*** End of backtrace ***\n");
    footer.WriteTo(STDERR_FILENO);
}

void OnFatalSignal(int sig, siginfo_t* info, void* /*context*/)
{
    const int savedErrno = errno;
    const pid_t self = static_cast<pid_t>(syscall(SYS_gettid));
    pid_t expected = -1;
    // Only the first crash is reported. A second one (in another thread, or a
    // fault inside the report) goes straight to the default action, so the
    // process never hangs on its way down.
    if (g_reportingThread.compare_exchange_strong(expected, self))
        Report(sig, info);

    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(sig, &dfl, nullptr);
    // The signal is blocked while its handler runs: it stays pending and
    // strikes with the default action as soon as the handler returns. A fault
    // would also strike again by itself when the instruction re-runs.
    syscall(SYS_tgkill, getpid(), self, sig);
    errno = savedErrno;
}

void Install()
{
    // Load the unwinder now: its first use may allocate and open libraries,
    // neither of which a signal handler may do.
    void* warmUp[1];
    backtrace(warmUp, 1);

    stack_t altStack {};
    altStack.ss_sp = g_altStack;
    altStack.ss_size = sizeof g_altStack;
    sigaltstack(&altStack, nullptr);

    struct sigaction action {};
    action.sa_sigaction = OnFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (int sig : kFatalSignals)
        sigaction(sig, &action, nullptr);
}

} // namespace

void CoreDump_SetUnhandledExceptionFilter()
{
    static std::once_flag once;
    std::call_once(once, Install);
}
