// The worker beside what a Linux user would reach for instead: nbdkit's file
// plugin on a Unix socket, read through libnbd, and nbdcopy for whole copies.
// One run, one cached file, every figure side by side with its ratio and the
// target it is held to:
//   - 4 KiB reads at random aligned offsets, one at a time (median, p99);
//   - 1 MiB sequential reads one at a time, and with eight in flight;
//   - copy-out of the whole file by the real peer program beside nbdcopy, and
//     the same for a sparse image (time, allocated size of the copy);
//   - the shared-memory link's 64-byte round trip beside the eventfd floor
//     (shmLinkBench, run as a child);
//   - the worker's peak resident memory after the eight-in-flight reads.
// Rows that need nbdkit, nbdcopy or libnbd say so and are skipped when these
// are missing.
//
// The worker admits only a peer named veltrane-protocol.exe beside it, so this
// program is built under that name into its own folder with a copy of the
// worker; the copies use the real peer from the build.
//
//   bench/compare/veltrane-protocol.exe [--random N] [--sequential N] [--rounds N]
//       [--size MiB] [--round-trips N] [--peer PATH] [--link-bench PATH]

#include "peer/DriveSession.h"
#include "peer/PeerConnection.h"

#include "platform/MallocTuning.h"
#include <tolv/platform/UniqueFd.h>
#include "platform/Utf.h"
#include "platform/WholeIo.h"

#include <isa-l/crc.h>

#ifdef COMPARE_WITH_LIBNBD
#include <libnbd.h>
#endif

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace tolv::worker;

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kChunk = 1u << 20;
constexpr uint32_t kSmall = 4096;
constexpr unsigned kWindow = 8;
constexpr uint8_t kLetter = 'B';
const double kNone = std::nan("");

#ifndef COMPARE_REAL_PEER
#define COMPARE_REAL_PEER ""
#endif
#ifndef COMPARE_LINK_BENCH
#define COMPARE_LINK_BENCH ""
#endif

struct Options {
    size_t randomReads = 20000;
    size_t sequentialReads = 1024;
    unsigned rounds = 3;
    uint64_t sizeMiB = 1024;
    unsigned roundTrips = 20000;
    std::string peer = COMPARE_REAL_PEER;
    std::string linkBench = COMPARE_LINK_BENCH;
};

const char* kUsage =
    "usage: veltrane-protocol.exe [OPTIONS]   (bench/compare)\n"
    "  --random N       4 KiB random reads on each side (default 20000)\n"
    "  --sequential N   1 MiB reads one at a time on each side (default 1024)\n"
    "  --rounds N       eight-in-flight passes, copies and link runs, medians printed (default 3)\n"
    "  --size MiB       size of the test file and of the sparse image (default 1024)\n"
    "  --round-trips N  64-byte round trips per link run (default 20000)\n"
    "  --peer PATH      the real peer program for copy-out (default: the one in this build)\n"
    "  --link-bench PATH  shmLinkBench (default: the one in this build)\n";

// --- cleanup on a signal: only async-signal-safe calls on fixed buffers -----

constexpr int kMaxScratch = 8;
constexpr int kMaxChildren = 4;
char g_scratchDir[32];
char g_scratchFiles[kMaxScratch][64];
volatile sig_atomic_t g_scratchCount = 0;
volatile sig_atomic_t g_children[kMaxChildren];

void OnSignal(int signal)
{
    // Those Spawn started lead process groups of their own, so whatever they
    // started goes too; the worker is in ours and is signalled alone.
    for (int i = 0; i < kMaxChildren; ++i)
        if (g_children[i] > 0) {
            kill(-static_cast<pid_t>(g_children[i]), SIGTERM);
            kill(static_cast<pid_t>(g_children[i]), SIGTERM);
        }
    // Reaped here, not left to whoever inherits them; killed outright after 2 s.
    for (int i = 0; i < kMaxChildren; ++i) {
        const pid_t pid = static_cast<pid_t>(g_children[i]);
        if (pid <= 0)
            continue;
        int status;
        int waited = 0;
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (++waited == 200) {
                kill(-pid, SIGKILL);
                kill(pid, SIGKILL);
            }
            const struct timespec tick = {0, 10 * 1000 * 1000};
            nanosleep(&tick, nullptr);
        }
    }
    for (int i = 0; i < g_scratchCount; ++i)
        unlink(g_scratchFiles[i]);
    if (g_scratchDir[0])
        rmdir(g_scratchDir);
    ::signal(signal, SIG_DFL);
    raise(signal);
}

void TrackChild(pid_t pid)
{
    for (int i = 0; i < kMaxChildren; ++i)
        if (g_children[i] <= 0) {
            g_children[i] = pid;
            return;
        }
}

void ForgetChild(pid_t pid)
{
    for (int i = 0; i < kMaxChildren; ++i)
        if (g_children[i] == pid)
            g_children[i] = 0;
}

// A mkdtemp folder under /tmp holding a fixed set of files, all removed when it goes.
class Scratch {
public:
    bool Make(const std::vector<std::string>& names)
    {
        std::snprintf(g_scratchDir, sizeof g_scratchDir, "/tmp/compareBench-XXXXXX");
        if (!mkdtemp(g_scratchDir)) {
            g_scratchDir[0] = '\0';
            return false;
        }
        for (const auto& name : names) {
            const size_t room = sizeof g_scratchFiles[0] - sizeof g_scratchDir;
            if (g_scratchCount == kMaxScratch || name.size() >= room)
                return false;
            std::snprintf(g_scratchFiles[g_scratchCount], sizeof g_scratchFiles[0], "%s/%.*s", g_scratchDir,
                          static_cast<int>(room - 1), name.c_str());
            g_scratchCount = g_scratchCount + 1;
        }
        return true;
    }

    ~Scratch()
    {
        if (!g_scratchDir[0])
            return;
        for (int i = 0; i < g_scratchCount; ++i)
            unlink(g_scratchFiles[i]);
        if (rmdir(g_scratchDir) != 0)
            std::fprintf(stderr, "cannot remove %s: %s\n", g_scratchDir, std::strerror(errno));
        g_scratchDir[0] = '\0';
    }

    std::string Path(const std::string& name) const { return std::string(g_scratchDir) + "/" + name; }
};

// --- figures -----------------------------------------------------------------

double Micros(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

double Seconds(Clock::duration d)
{
    return std::chrono::duration<double>(d).count();
}

double Percentile(std::vector<double> values, unsigned percent)
{
    if (values.empty())
        return kNone;
    std::sort(values.begin(), values.end());
    const size_t at = percent == 50 ? values.size() / 2 : values.size() * percent / 100;
    return values[std::min(values.size() - 1, at)];
}

double Median(std::vector<double> values)
{
    return Percentile(std::move(values), 50);
}

double Sum(const std::vector<double>& values)
{
    double sum = 0;
    for (double v : values)
        sum += v;
    return sum;
}

double Ratio(double a, double b)
{
    return std::isnan(a) || std::isnan(b) || b <= 0 ? kNone : a / b;
}

// --- files -------------------------------------------------------------------

// Incompressible bytes, fast enough that a 1 GiB file costs well under a second.
void FillRandom(uint8_t* out, size_t count, uint64_t& state)
{
    for (size_t i = 0; i + 8 <= count; i += 8) {
        state ^= state >> 12;
        state ^= state << 25;
        state ^= state >> 27;
        const uint64_t word = state * 0x2545F4914F6CDD1Dull;
        std::memcpy(out + i, &word, 8);
    }
}

bool WriteAt(int fd, const uint8_t* data, size_t size, uint64_t offset)
{
    return tolv::platform::WriteWholeAt(fd, data, size, offset);
}

bool ReadAt(int fd, uint8_t* data, size_t size, uint64_t offset)
{
    return tolv::platform::ReadWholeAt(fd, data, size, offset);
}

bool MakeDenseFile(const std::string& path, uint64_t size)
{
    tolv::platform::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!fd)
        return false;
    std::vector<uint8_t> chunk(kChunk);
    uint64_t state = 0x9E3779B97F4A7C15ull;
    for (uint64_t done = 0; done < size; done += kChunk) {
        FillRandom(chunk.data(), kChunk, state);
        if (!WriteAt(fd.get(), chunk.data(), kChunk, done))
            return false;
    }
    // On disk before timing starts, so no writeback runs under the figures.
    return fsync(fd.get()) == 0;
}

// `size` of holes with four 1 MiB pieces of data: at the start, at the end and
// at two 4 KiB-aligned offsets that do not fall on a 1 MiB boundary.
bool MakeSparseFile(const std::string& path, uint64_t size)
{
    tolv::platform::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!fd || ftruncate(fd.get(), static_cast<off_t>(size)) != 0)
        return false;
    const uint64_t pieces[] = {0, (size / 3) / kSmall * kSmall + 3 * kSmall, (size * 2 / 3) / kSmall * kSmall + kSmall,
                               size - kChunk};
    std::vector<uint8_t> chunk(kChunk);
    uint64_t state = 0xD1B54A32D192ED03ull;
    for (uint64_t offset : pieces) {
        FillRandom(chunk.data(), kChunk, state);
        if (!WriteAt(fd.get(), chunk.data(), kChunk, offset))
            return false;
    }
    return fsync(fd.get()) == 0;
}

// Reads the whole file (into the page cache) and gives its CRC-32.
bool WarmAndCrc(const std::string& path, uint64_t size, uint32_t& crc)
{
    tolv::platform::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return false;
    std::vector<uint8_t> chunk(kChunk);
    crc = 0;
    for (uint64_t offset = 0; offset < size; offset += kChunk) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(kChunk, size - offset));
        if (!ReadAt(fd.get(), chunk.data(), n, offset))
            return false;
        crc = crc32_gzip_refl(crc, chunk.data(), n);
    }
    return true;
}

bool SameBytes(const std::string& a, const std::string& b)
{
    tolv::platform::UniqueFd fa(::open(a.c_str(), O_RDONLY | O_CLOEXEC)), fb(::open(b.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat sa {}, sb {};
    if (!fa || !fb || fstat(fa.get(), &sa) != 0 || fstat(fb.get(), &sb) != 0 || sa.st_size != sb.st_size)
        return false;
    std::vector<uint8_t> ba(kChunk), bb(kChunk);
    const uint64_t size = static_cast<uint64_t>(sa.st_size);
    for (uint64_t offset = 0; offset < size; offset += kChunk) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(kChunk, size - offset));
        if (!ReadAt(fa.get(), ba.data(), n, offset) || !ReadAt(fb.get(), bb.data(), n, offset) ||
            std::memcmp(ba.data(), bb.data(), n) != 0)
            return false;
    }
    return true;
}

double AllocatedMiB(const std::string& path)
{
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return kNone;
    return static_cast<double>(st.st_blocks) * 512 / (1 << 20);
}

// Peak resident memory (VmHWM) of a live process, in MiB.
double PeakMiB(pid_t pid)
{
    if (pid <= 0)
        return kNone;
    FILE* f = std::fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "re");
    if (!f)
        return kNone;
    char line[256];
    double result = kNone;
    while (std::fgets(line, sizeof line, f))
        if (std::strncmp(line, "VmHWM:", 6) == 0)
            result = std::strtod(line + 6, nullptr) / 1024;
    std::fclose(f);
    return result;
}

// --- child processes ---------------------------------------------------------

std::string FindInPath(const std::string& name)
{
    if (name.find('/') != std::string::npos)
        return access(name.c_str(), X_OK) == 0 ? name : "";
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        const size_t end = std::min(dirs.find(':', start), dirs.size());
        const std::string candidate = dirs.substr(start, end - start) + "/" + name;
        if (end > start && access(candidate.c_str(), X_OK) == 0)
            return candidate;
        start = end + 1;
    }
    return "";
}

// Starts `args` with stdout on `stdoutFd` (or /dev/null when -1); stderr is
// ours. The child leads a process group of its own, to be ended whole.
pid_t Spawn(const std::vector<std::string>& args, int stdoutFd = -1)
{
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdoutFd >= 0)
        posix_spawn_file_actions_adddup2(&actions, stdoutFd, STDOUT_FILENO);
    else
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv;
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (rc != 0)
        return -1;
    TrackChild(pid);
    return pid;
}

int Reap(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    ForgetChild(pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs `args` to the end; its wall time from start to reaped, NaN on failure.
double RunTimed(const std::vector<std::string>& args)
{
    const auto start = Clock::now();
    const pid_t pid = Spawn(args);
    if (pid < 0)
        return kNone;
    const int code = Reap(pid);
    const double seconds = Seconds(Clock::now() - start);
    if (code != 0) {
        std::fprintf(stderr, "%s exited with %d\n", args[0].c_str(), code);
        return kNone;
    }
    return seconds;
}

bool RunCaptured(const std::vector<std::string>& args, std::string& out)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    const pid_t pid = Spawn(args, fds[1]);
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        return false;
    }
    char buffer[4096];
    ssize_t n;
    while ((n = read(fds[0], buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0)
            out.append(buffer, static_cast<size_t>(n));
    close(fds[0]);
    return Reap(pid) == 0;
}

// nbdkit's file plugin serving one file on a Unix socket. The pid file is
// written once the server takes connections, which is what Start waits for.
class NbdServer {
public:
    ~NbdServer() { Stop(); }

    bool Start(const std::string& nbdkit, const std::string& file, const std::string& socket,
               const std::string& pidFile)
    {
        unlink(socket.c_str());
        unlink(pidFile.c_str());
        m_socket = socket;
        m_pid = Spawn({nbdkit, "--exit-with-parent", "-f", "-U", socket, "-P", pidFile, "file", file});
        if (m_pid < 0)
            return false;
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        while (Clock::now() < deadline) {
            struct stat st {};
            if (stat(pidFile.c_str(), &st) == 0 && st.st_size > 0)
                return true;
            int status;
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                ForgetChild(m_pid);
                m_pid = -1;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        Stop();
        return false;
    }

    void Stop()
    {
        if (m_pid <= 0)
            return;
        kill(m_pid, SIGTERM);
        Reap(m_pid);
        m_pid = -1;
    }

    pid_t pid() const { return m_pid; }
    const std::string& socket() const { return m_socket; }
    std::string Uri() const { return "nbd+unix:///?socket=" + m_socket; }

private:
    pid_t m_pid = -1;
    std::string m_socket;
};

#ifdef COMPARE_WITH_LIBNBD
class NbdReader {
public:
    ~NbdReader() { Close(); }

    bool Connect(const std::string& socket, std::string& error)
    {
        m_handle = nbd_create();
        if (!m_handle || nbd_connect_unix(m_handle, socket.c_str()) == -1) {
            error = std::string("libnbd: ") + nbd_get_error();
            return false;
        }
        return true;
    }

    void Close()
    {
        if (m_handle)
            nbd_close(m_handle);
        m_handle = nullptr;
    }

    bool Read(uint8_t* buffer, size_t count, uint64_t offset)
    {
        return nbd_pread(m_handle, buffer, count, offset, 0) == 0;
    }

    // Reads [0, size) in kChunk requests, kWindow of them in flight; `check`
    // (when set) sees each chunk as it completes, with its offset.
    bool ReadWindow(uint64_t size, const std::function<bool(const uint8_t*, size_t, uint64_t)>& check)
    {
        struct Slot {
            std::vector<uint8_t> buffer = std::vector<uint8_t>(kChunk);
            int64_t cookie = 0;
            uint64_t offset = 0;
            size_t length = 0;
        };
        std::vector<Slot> slots(kWindow);
        std::vector<size_t> idle;
        for (size_t i = 0; i < kWindow; ++i)
            idle.push_back(i);
        uint64_t next = 0;
        while (next < size || idle.size() < kWindow) {
            while (next < size && !idle.empty()) {
                Slot& slot = slots[idle.back()];
                slot.offset = next;
                slot.length = static_cast<size_t>(std::min<uint64_t>(kChunk, size - next));
                slot.cookie = nbd_aio_pread(m_handle, slot.buffer.data(), slot.length, next, nbd_completion_callback{}, 0);
                if (slot.cookie == -1)
                    return false;
                idle.pop_back();
                next += slot.length;
            }
            const int64_t cookie = nbd_aio_peek_command_completed(m_handle);
            if (cookie == -1)
                return false;
            if (cookie == 0) {
                if (nbd_poll(m_handle, -1) == -1)
                    return false;
                continue;
            }
            if (nbd_aio_command_completed(m_handle, static_cast<uint64_t>(cookie)) != 1)
                return false;
            for (size_t i = 0; i < kWindow; ++i)
                if (slots[i].cookie == cookie) {
                    if (check && !check(slots[i].buffer.data(), slots[i].length, slots[i].offset))
                        return false;
                    slots[i].cookie = 0;
                    idle.push_back(i);
                }
        }
        return true;
    }

private:
    nbd_handle* m_handle = nullptr;
};
#endif

// --- the report --------------------------------------------------------------

enum class Verdict { None, Pass, Miss, Skipped };

Verdict AtMost(double value, double limit)
{
    return std::isnan(value) ? Verdict::Skipped : value <= limit ? Verdict::Pass : Verdict::Miss;
}

Verdict AtLeast(double value, double limit)
{
    return std::isnan(value) ? Verdict::Skipped : value >= limit ? Verdict::Pass : Verdict::Miss;
}

std::string Number(double value, int decimals)
{
    if (std::isnan(value))
        return "-";
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

struct Row {
    std::string what;
    std::string leftName;
    double left;
    std::string rightName;
    double right;
    std::string unit;
    int decimals;
    std::string ratioName;
    double ratio;
    std::string target;
    Verdict verdict;
};

void PrintRow(const Row& r)
{
    const char* verdict = r.verdict == Verdict::Pass      ? "pass"
                          : r.verdict == Verdict::Miss    ? "MISS"
                          : r.verdict == Verdict::Skipped ? "skipped"
                                                          : "";
    char line[512];
    std::snprintf(line, sizeof line, "  %-30s %-6s %8s %-5s | %-15s %8s %-5s | %-8s %5s | %-16s %s", r.what.c_str(),
                  r.leftName.c_str(), Number(r.left, r.decimals).c_str(), r.unit.c_str(), r.rightName.c_str(),
                  Number(r.right, r.decimals).c_str(), r.unit.c_str(), r.ratioName.c_str(),
                  Number(r.ratio, 2).c_str(), r.target.c_str(), verdict);
    std::string text = line;
    text.erase(text.find_last_not_of(' ') + 1);
    std::puts(text.c_str());
}

bool ParseOptions(int argc, char** argv, Options& o)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h")
            return false;
        if (i + 1 >= argc) {
            std::fprintf(stderr, "%s needs a value\n", arg.c_str());
            return false;
        }
        const std::string value = argv[++i];
        char* end = nullptr;
        const unsigned long long number = std::strtoull(value.c_str(), &end, 10);
        const bool isNumber = !value.empty() && *end == '\0' && number > 0;
        if (arg == "--peer")
            o.peer = value;
        else if (arg == "--link-bench")
            o.linkBench = value;
        else if (!isNumber) {
            std::fprintf(stderr, "%s needs a positive number\n", arg.c_str());
            return false;
        } else if (arg == "--random")
            o.randomReads = number;
        else if (arg == "--sequential")
            o.sequentialReads = number;
        else if (arg == "--rounds")
            o.rounds = static_cast<unsigned>(number);
        else if (arg == "--size" && number >= 16)
            o.sizeMiB = number;
        else if (arg == "--round-trips" && number >= 2)
            o.roundTrips = static_cast<unsigned>(number);
        else {
            std::fprintf(stderr, "unknown or out-of-range option %s\n", arg.c_str());
            return false;
        }
    }
    return true;
}

void Progress(const char* what)
{
    std::fprintf(stderr, "compareBench: %s\n", what);
}

} // namespace

int main(int argc, char** argv)
{
    tolv::platform::KeepLargeBlocksInTheHeap();
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    for (int s : {SIGINT, SIGTERM, SIGHUP})
        signal(s, OnSignal);

    const uint64_t size = options.sizeMiB << 20;
    const double mib = static_cast<double>(options.sizeMiB);
    const std::string nbdkit = FindInPath("nbdkit");
    const std::string nbdcopy = FindInPath("nbdcopy");
#ifdef COMPARE_WITH_LIBNBD
    const bool haveLibnbd = true;
#else
    const bool haveLibnbd = false;
#endif
    const bool nbdReads = haveLibnbd && !nbdkit.empty();
    const bool nbdCopies = !nbdkit.empty() && !nbdcopy.empty();
    std::vector<std::string> notes;
    if (!haveLibnbd)
        notes.push_back("libnbd was not found when this was built: the nbdkit+libnbd read rows are skipped");
    if (nbdkit.empty())
        notes.push_back("nbdkit is not installed: every nbdkit row is skipped");
    else if (nbdcopy.empty())
        notes.push_back("nbdcopy is not installed: the nbdcopy rows are skipped");
    if (!haveLibnbd || nbdkit.empty() || nbdcopy.empty())
        notes.push_back("scripts/bench-setup.sh installs nbdkit, libnbd-dev and libnbd-bin");
    bool failed = false;

    // The link on its own first, while nothing else runs.
    Progress("shared-memory link beside the eventfd floor");
    std::vector<double> linkRoundTrip, floorRoundTrip, linkThroughput, floorThroughput;
    std::vector<double> linkRoundTripMedian, floorRoundTripMedian;
    for (unsigned r = 0; r < options.rounds && !options.linkBench.empty(); ++r) {
        std::string out;
        if (!RunCaptured({options.linkBench, "2000", std::to_string(options.roundTrips)}, out)) {
            notes.push_back("shmLinkBench failed: the link rows are skipped");
            break;
        }
        for (size_t at = 0; at < out.size();) {
            const size_t end = std::min(out.find('\n', at), out.size());
            const std::string line = out.substr(at, end - at);
            at = end + 1;
            const size_t link = line.find("link"), floor = line.find("floor");
            if (link == std::string::npos || floor == std::string::npos)
                continue;
            const double l = std::strtod(line.c_str() + link + 4, nullptr);
            const double f = std::strtod(line.c_str() + floor + 5, nullptr);
            if (line.find("round trip median") != std::string::npos) {
                linkRoundTripMedian.push_back(l);
                floorRoundTripMedian.push_back(f);
            } else if (line.find("round trip") != std::string::npos) {
                linkRoundTrip.push_back(l);
                floorRoundTrip.push_back(f);
            } else if (line.find("1 MiB") != std::string::npos) {
                linkThroughput.push_back(l);
                floorThroughput.push_back(f);
            }
        }
    }
    if (options.linkBench.empty())
        notes.push_back("no shmLinkBench given: the link rows are skipped");

    Scratch scratch;
    if (!scratch.Make({"data.img", "sparse.img", "out.img", "nbd.sock", "nbdkit.pid"})) {
        std::fprintf(stderr, "cannot make a scratch folder under /tmp\n");
        return 1;
    }
    const std::string data = scratch.Path("data.img"), sparse = scratch.Path("sparse.img"),
                      out = scratch.Path("out.img"), socket = scratch.Path("nbd.sock"),
                      pidFile = scratch.Path("nbdkit.pid");
    Progress("making the test files");
    // The file read last is the one timed reads use first.
    uint32_t dataCrc = 0, sparseCrc = 0;
    if (!MakeDenseFile(data, size) || !MakeSparseFile(sparse, size) || !WarmAndCrc(sparse, size, sparseCrc) ||
        !WarmAndCrc(data, size, dataCrc)) {
        std::fprintf(stderr, "cannot make the test files in %s\n", g_scratchDir);
        return 1;
    }
    tolv::platform::UniqueFd dataFd(::open(data.c_str(), O_RDONLY | O_CLOEXEC));

    NbdServer server;
#ifdef COMPARE_WITH_LIBNBD
    NbdReader nbd;
#endif
    bool nbdReady = false;
    if (nbdReads || nbdCopies) {
        if (!server.Start(nbdkit, data, socket, pidFile)) {
            std::fprintf(stderr, "nbdkit did not start\n");
            return 1;
        }
#ifdef COMPARE_WITH_LIBNBD
        std::string error;
        if (nbdReads && !nbd.Connect(socket, error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return 1;
        }
        nbdReady = nbdReads;
#endif
    }

    std::string error;
    auto connection = PeerConnection::Open({}, error);
    if (!connection) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    TrackChild(connection->workerPid());
    DriveSession session(connection->client(), std::chrono::seconds(60));
    DR_QUERY_DISK_RSP info;
    if (!session.Query(kLetter, *tolv::platform::Utf8ToUtf16(data), info, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }

    std::vector<uint8_t> reply, buffer(kChunk), expected(kChunk);
    auto workerRead = [&](uint64_t offset, uint32_t length, std::vector<double>& times) {
        const auto t = Clock::now();
        if (!session.Read(kLetter, offset, length, reply, error)) {
            std::fprintf(stderr, "worker read at %llu: %s\n", static_cast<unsigned long long>(offset),
                         error.c_str());
            return false;
        }
        times.push_back(Micros(Clock::now() - t));
        return reply.size() == length && ReadAt(dataFd.get(), expected.data(), length, offset) &&
               std::memcmp(reply.data(), expected.data(), length) == 0;
    };
    auto nbdRead = [&](uint64_t offset, uint32_t length, std::vector<double>& times) {
#ifdef COMPARE_WITH_LIBNBD
        const auto t = Clock::now();
        if (!nbd.Read(buffer.data(), length, offset)) {
            std::fprintf(stderr, "libnbd read at %llu: %s\n", static_cast<unsigned long long>(offset),
                         nbd_get_error());
            return false;
        }
        times.push_back(Micros(Clock::now() - t));
        return ReadAt(dataFd.get(), expected.data(), length, offset) &&
               std::memcmp(buffer.data(), expected.data(), length) == 0;
#else
        (void)offset, (void)length, (void)times;
        return false;
#endif
    };

    // One request at a time, same offsets on both sides; who goes first
    // alternates so neither always finds the other's lines in the CPU cache.
    Progress("4 KiB random reads, one at a time");
    std::vector<double> workerSmall, nbdSmall;
    std::mt19937_64 random(7);
    const uint64_t blocks = size / kSmall;
    for (size_t i = 0; i < options.randomReads && !failed; ++i) {
        const uint64_t offset = (random() % blocks) * kSmall;
        const bool workerFirst = i % 2 == 0;
        if (workerFirst && !workerRead(offset, kSmall, workerSmall))
            failed = true;
        if (nbdReady && !nbdRead(offset, kSmall, nbdSmall))
            failed = true;
        if (!workerFirst && !workerRead(offset, kSmall, workerSmall))
            failed = true;
    }

    Progress("1 MiB sequential reads, one at a time");
    std::vector<double> workerSeq, nbdSeq;
    const uint64_t chunks = size / kChunk;
    for (size_t i = 0; i < options.sequentialReads && !failed; ++i) {
        const uint64_t offset = (i % chunks) * kChunk;
        const bool workerFirst = i % 2 == 0;
        if (workerFirst && !workerRead(offset, kChunk, workerSeq))
            failed = true;
        if (nbdReady && !nbdRead(offset, kChunk, nbdSeq))
            failed = true;
        if (!workerFirst && !workerRead(offset, kChunk, workerSeq))
            failed = true;
    }
    if (failed)
        std::fprintf(stderr, "a read failed or returned the wrong bytes\n");

    Progress("1 MiB sequential reads, eight in flight");
    std::vector<double> workerWindow, nbdWindow;
#ifdef COMPARE_WITH_LIBNBD
    // One untimed pass checks every byte libnbd hands back; the timed passes
    // then only read, as a libnbd program would.
    if (nbdReady && !failed &&
        !nbd.ReadWindow(size, [&](const uint8_t* bytes, size_t count, uint64_t offset) {
            return ReadAt(dataFd.get(), expected.data(), count, offset) &&
                   std::memcmp(bytes, expected.data(), count) == 0;
        })) {
        std::fprintf(stderr, "libnbd eight-in-flight pass failed or returned the wrong bytes\n");
        failed = true;
    }
#endif
    for (unsigned r = 0; r < 2 * options.rounds && !failed; ++r) {
        const bool workerTurn = r % 2 == 0;
        if (workerTurn) {
            uint32_t crc = 0;
            uint64_t done = 0;
            const auto t = Clock::now();
            if (!session.ReadRange(kLetter, 0, size, [](const uint8_t*, size_t) { return true; }, false, crc, done,
                                   nullptr, error)) {
                std::fprintf(stderr, "worker eight-in-flight pass: %s\n", error.c_str());
                failed = true;
                break;
            }
            workerWindow.push_back(mib / Seconds(Clock::now() - t));
            if (crc != dataCrc || done != size) {
                std::fprintf(stderr, "worker eight-in-flight pass returned the wrong bytes\n");
                failed = true;
            }
        } else if (nbdReady) {
#ifdef COMPARE_WITH_LIBNBD
            const auto t = Clock::now();
            if (!nbd.ReadWindow(size, nullptr)) {
                std::fprintf(stderr, "libnbd eight-in-flight pass: %s\n", nbd_get_error());
                failed = true;
                break;
            }
            nbdWindow.push_back(mib / Seconds(Clock::now() - t));
#endif
        }
    }
    // Read while the worker lives: the most it held through every read above.
    const double workerPeak = PeakMiB(connection->workerPid());
    const double nbdkitPeak = nbdReady ? PeakMiB(server.pid()) : kNone;

    session.Release(kLetter, error);
    const pid_t workerPid = connection->workerPid();
    const int workerExit = connection->Close();
    ForgetChild(workerPid);
    connection.reset();
#ifdef COMPARE_WITH_LIBNBD
    nbd.Close();
#endif
    if (workerExit != 0) {
        std::fprintf(stderr, "the worker exited with %d\n", workerExit);
        failed = true;
    }

    // Whole copies, each output checked against its source, then removed and
    // its filesystem synced so no writeback of one run lands in the next.
    tolv::platform::UniqueFd scratchDir(::open(g_scratchDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int mismatches = 0;
    auto copy = [&](const std::vector<std::string>& args, const std::string& source, std::vector<double>& times,
                    std::vector<double>* allocated) {
        unlink(out.c_str());
        const double seconds = RunTimed(args);
        if (std::isnan(seconds)) {
            failed = true;
        } else if (!SameBytes(source, out)) {
            std::fprintf(stderr, "%s: the copy differs from %s\n", args[0].c_str(), source.c_str());
            ++mismatches;
            failed = true;
        } else {
            times.push_back(seconds);
            if (allocated)
                allocated->push_back(AllocatedMiB(out));
        }
        unlink(out.c_str());
        syncfs(scratchDir.get());
    };
    const bool havePeer = !options.peer.empty() && access(options.peer.c_str(), X_OK) == 0;
    if (!havePeer)
        notes.push_back("the real peer program was not found: the copy-out rows are skipped");

    Progress("copy-out of the whole file");
    std::vector<double> peerCopy, nbdCopy, nbdCopyFlush;
    for (unsigned r = 0; r < options.rounds; ++r) {
        if (havePeer)
            copy({options.peer, "--quiet", "copy-out", data, out}, data, peerCopy, nullptr);
        if (nbdCopies) {
            copy({nbdcopy, server.Uri(), out}, data, nbdCopy, nullptr);
            copy({nbdcopy, "--flush", server.Uri(), out}, data, nbdCopyFlush, nullptr);
        }
    }

    Progress("copy-out of the sparse image");
    std::vector<double> peerSparse, nbdSparse, peerSparseAlloc, nbdSparseAlloc;
    server.Stop();
    if (nbdCopies && !server.Start(nbdkit, sparse, socket, pidFile)) {
        std::fprintf(stderr, "nbdkit did not start for the sparse image\n");
        failed = true;
    }
    for (unsigned r = 0; r < options.rounds; ++r) {
        if (havePeer)
            copy({options.peer, "--quiet", "copy-out", sparse, out}, sparse, peerSparse, &peerSparseAlloc);
        if (nbdCopies && server.pid() > 0)
            copy({nbdcopy, server.Uri(), out}, sparse, nbdSparse, &nbdSparseAlloc);
    }
    server.Stop();
    const double sparseSourceAlloc = AllocatedMiB(sparse);
    uint32_t sparseCrcAfter = 0;
    if (!WarmAndCrc(sparse, size, sparseCrcAfter) || sparseCrcAfter != sparseCrc) {
        std::fprintf(stderr, "the sparse image changed under the copies\n");
        failed = true;
    }

    // --- report ---
    const unsigned n = options.rounds;
    std::printf("worker vs nbdkit file plugin + libnbd, %u cores, file of %.0f MiB in the page cache\n",
                std::thread::hardware_concurrency(), mib);
    std::printf("  --random %zu --sequential %zu --rounds %u --size %llu --round-trips %u\n", options.randomReads,
                options.sequentialReads, options.rounds, static_cast<unsigned long long>(options.sizeMiB),
                options.roundTrips);
    std::string versions;
    if (!nbdkit.empty() && RunCaptured({nbdkit, "--version"}, versions))
        std::printf("  %s", versions.c_str());
    for (const auto& note : notes)
        std::printf("  note: %s\n", note.c_str());
    std::printf("  ratio = left / right; speed-up = right's time / left's time; pass or MISS against the target\n");

    const double ws = Median(workerSmall), ns = Median(nbdSmall);
    const double wp = Percentile(workerSmall, 99), np = Percentile(nbdSmall, 99);
    const double floorRt = Median(floorRoundTrip), linkRt = Median(linkRoundTrip);
    std::printf("\n4 KiB reads at random offsets, one at a time (%zu each)\n", workerSmall.size());
    const std::string nb = "nbdkit+libnbd";
    PrintRow({"median latency", "worker", ws, nb, ns, "us", 1, "ratio", Ratio(ws, ns), "<= 0.80",
              AtMost(Ratio(ws, ns), 0.8)});
    PrintRow({"p99 latency", "worker", wp, nb, np, "us", 1, "ratio", Ratio(wp, np), "<= 1.00",
              AtMost(Ratio(wp, np), 1.0)});
    PrintRow({"median vs eventfd round trip", "worker", ws, "eventfd floor", floorRt, "us", 1, "ratio",
              Ratio(ws, floorRt), "<= 2.00", AtMost(Ratio(ws, floorRt), 2.0)});

    std::printf("\n1 MiB sequential reads (%zu one at a time each; %u in flight: median of %zu passes over the file)\n",
                workerSeq.size(), kWindow, workerWindow.size());
    const double wsm = Median(workerSeq), nsm = Median(nbdSeq);
    const double wst = workerSeq.empty() ? kNone : workerSeq.size() / (Sum(workerSeq) / 1e6);
    const double nst = nbdSeq.empty() ? kNone : nbdSeq.size() / (Sum(nbdSeq) / 1e6);
    const double ww = Median(workerWindow), nw = Median(nbdWindow);
    PrintRow({"one at a time, median latency", "worker", wsm, nb, nsm, "us", 1, "ratio", Ratio(wsm, nsm), "", Verdict::None});
    PrintRow({"one at a time, throughput", "worker", wst, nb, nst, "MiB/s", 0, "ratio", Ratio(wst, nst), ">= 1.20",
              AtLeast(Ratio(wst, nst), 1.2)});
    PrintRow({"8 in flight, throughput", "worker", ww, nb, nw, "MiB/s", 0, "ratio", Ratio(ww, nw), ">= 1.50",
              AtLeast(Ratio(ww, nw), 1.5)});

    std::printf("\nshared-memory link beside a bare memfd + eventfd floor (shmLinkBench, median of %zu runs)\n",
                linkRoundTrip.size());
    PrintRow({"64-byte round trip (mean)", "link", linkRt, "eventfd floor", floorRt, "us", 1, "ratio",
              Ratio(linkRt, floorRt), "<= 2.00", AtMost(Ratio(linkRt, floorRt), 2.0)});
    const double linkRtMedian = Median(linkRoundTripMedian), floorRtMedian = Median(floorRoundTripMedian);
    PrintRow({"64-byte round trip (median)", "link", linkRtMedian, "eventfd floor", floorRtMedian, "us", 1, "ratio",
              Ratio(linkRtMedian, floorRtMedian), "", Verdict::None});
    const double lt = Median(linkThroughput), ft = Median(floorThroughput);
    PrintRow({"1 MiB messages one way", "link", lt, "memfd floor", ft, "MiB/s", 0, "ratio", Ratio(lt, ft), "",
              Verdict::None});

    std::printf("\ncopy-out of the %.0f MiB file, end to end (median of %zu; every copy compared with its source)\n",
                mib, peerCopy.size());
    const double pc = Median(peerCopy), nc = Median(nbdCopy), ncf = Median(nbdCopyFlush);
    PrintRow({"time", "peer", pc, "nbdcopy", nc, "s", 2, "speed-up", Ratio(nc, pc), ">= 1.50",
              AtLeast(Ratio(nc, pc), 1.5)});
    PrintRow({"time, both flushing to disk", "peer", pc, "nbdcopy --flush", ncf, "s", 2, "speed-up", Ratio(ncf, pc),
              "", Verdict::None});
    PrintRow({"throughput", "peer", mib / pc, "nbdcopy", mib / nc, "MiB/s", 0, "ratio", Ratio(nc, pc), "",
              Verdict::None});

    std::printf("\ncopy-out of a %.0f MiB sparse image holding 4 MiB of data (source allocates %s MiB)\n", mib,
                Number(sparseSourceAlloc, 1).c_str());
    const double ps = Median(peerSparse), ns2 = Median(nbdSparse);
    const double pa = Median(peerSparseAlloc), na = Median(nbdSparseAlloc);
    PrintRow({"time", "peer", ps, "nbdcopy", ns2, "s", 2, "speed-up", Ratio(ns2, ps), "", Verdict::None});
    PrintRow({"copy allocated (st_blocks)", "peer", pa, "nbdcopy", na, "MiB", 1, "ratio", Ratio(pa, na),
              "peer <= 8 MiB", AtMost(pa, 8.0)});

    std::printf("\nmemory after the reads above\n");
    PrintRow({"peak resident (VmHWM)", "worker", workerPeak, "nbdkit", nbdkitPeak, "MiB", 1, "ratio",
              Ratio(workerPeak, nbdkitPeak), "worker <= 64 MiB", AtMost(workerPeak, 64.0)});

    std::printf("\ncopies identical to their source: peer %zu of %zu, nbdcopy %zu of %zu%s\n",
                peerCopy.size() + peerSparse.size(), havePeer ? 2 * static_cast<size_t>(n) : 0,
                nbdCopy.size() + nbdCopyFlush.size() + nbdSparse.size(), nbdCopies ? 3 * static_cast<size_t>(n) : 0,
                mismatches ? " -- SOME DIFFER" : "");
    std::printf("worker exit code %d%s\n", workerExit, failed ? "; the run had failures (see above)" : "");
    return failed ? 1 : 0;
}
