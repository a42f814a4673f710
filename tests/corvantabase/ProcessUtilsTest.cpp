#include "corvantabase/TolvProcessUtils.h"

#include "common/LogCapture.h"
#include "platform/UniqueFd.h"
#include "platform/Utf.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace {

namespace fs = std::filesystem;

std::u16string Wide(const std::string& text) { return platform::Utf8ToUtf16(text).value(); }

std::string OwnExecutable() { return fs::read_symlink("/proc/self/exe").string(); }

// A private directory beside the test executable: the system's temporary
// directory may forbid running programs.
class ExecutableDir {
public:
    ExecutableDir()
    {
        std::string pattern = fs::path(OwnExecutable()).parent_path().string() + "/procutils-XXXXXX";
        if (!mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
    }
    ~ExecutableDir()
    {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    const std::string& path() const { return m_path; }

    // A copy of sleep(1) at a path of exactly `length` bytes, made of
    // directories of `chunk`-byte names and then the file.
    std::string CopyOfSleepAt(size_t length, char fill = 'p') const
    {
        std::string path = m_path;
        while (length - path.size() > 201) {
            path += "/" + std::string(150, fill);
            fs::create_directories(path);
        }
        path += "/" + std::string(length - path.size() - 1, fill);
        return CopyOfSleepNamed(path);
    }

    std::string CopyOfSleepNamed(const std::string& path) const
    {
        fs::copy_file("/bin/sleep", path, fs::copy_options::overwrite_existing);
        fs::permissions(path, fs::perms::owner_all);
        return path;
    }

private:
    std::string m_path;
};

// A child running `program`; killed and reaped when it goes.
class Child {
public:
    explicit Child(const std::string& program)
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2");
        platform::UniqueFd readEnd(fds[0]), writeEnd(fds[1]);
        m_pid = fork();
        if (m_pid == 0) {
            execl(program.c_str(), program.c_str(), "1000", static_cast<char*>(nullptr));
            const int err = errno;
            (void)!write(writeEnd.get(), &err, sizeof err);
            _exit(127);
        }
        writeEnd.reset();
        // The pipe closes on a successful exec; an error number arrives otherwise.
        int err = 0;
        ssize_t n;
        while ((n = read(readEnd.get(), &err, sizeof err)) < 0 && errno == EINTR) {
        }
        if (n != 0) {
            Reap();
            throw std::runtime_error("exec of " + program + " failed: " + std::to_string(err));
        }
    }
    ~Child()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            Reap();
        }
    }
    pid_t pid() const { return m_pid; }
    // Ends the child and leaves it unreaped.
    void KillAndLeaveZombie()
    {
        kill(m_pid, SIGKILL);
        siginfo_t info {};
        waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOWAIT);
    }
    void Reap()
    {
        int status;
        while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
        }
        m_pid = -1;
    }

private:
    pid_t m_pid = -1;
};

int InThisExecutable() { return 7; }

TEST(ProcessUtilsModule, ExecutableAndLoadedLibraryPaths)
{
    const std::u16string own = Wide(OwnExecutable());
    EXPECT_EQ(TOLVGetModuleFileName(nullptr), own);
    EXPECT_EQ(TOLVGetModuleFileName(reinterpret_cast<const void*>(&InThisExecutable)), own);

    const std::u16string libc = TOLVGetModuleFileName(reinterpret_cast<const void*>(&getpid));
    ASSERT_FALSE(libc.empty());
    const fs::path libcPath(platform::Utf16ToUtf8(libc).value());
    EXPECT_TRUE(libcPath.is_absolute());
    EXPECT_EQ(libcPath.filename().string().rfind("libc.so", 0), 0u) << libcPath;
    EXPECT_TRUE(fs::is_regular_file(libcPath));
    EXPECT_EQ(fs::canonical(libcPath), libcPath); // a full path, no symlink left in it
}

TEST(ProcessUtilsModule, AddressOutsideEveryModuleGivesEmptyAndAnError)
{
    ScopedLogCapture log;
    EXPECT_TRUE(TOLVGetModuleFileName(reinterpret_cast<const void*>(uintptr_t{16})).empty());
    EXPECT_EQ(log.Count("GetModuleFileNameW failed with error : 0x16", "TOLVGetModuleFileName()"), 1u);
}

TEST(ProcessUtilsImage, OwnProcessMatchesTheModulePath)
{
    EXPECT_EQ(TOLVGetProcessImageName(getpid()), TOLVGetModuleFileName(nullptr));
}

TEST(ProcessUtilsImage, PathsAroundAndFarPastTheFirstBufferCome)
{
    // The buffer starts at 260 bytes and doubles whenever a path fills it.
    ExecutableDir dir;
    for (size_t length : {259u, 260u, 261u, 520u, 521u, 1500u}) {
        const std::string path = dir.CopyOfSleepAt(length, static_cast<char>('a' + length % 26));
        ASSERT_EQ(path.size(), length);
        Child child(path);
        EXPECT_EQ(TOLVGetProcessImageName(child.pid()), Wide(path)) << length;
    }
}

TEST(ProcessUtilsImage, NonAsciiPathsConvertAndInvalidOnesAreRefused)
{
    ExecutableDir dir;
    const std::string accented = dir.CopyOfSleepNamed(dir.path() + "/v\xc3\xa9ltrane-\xf0\x9d\x84\x9e");
    Child good(accented);
    EXPECT_EQ(TOLVGetProcessImageName(good.pid()), Wide(dir.path()) + u"/v\u00e9ltrane-\U0001D11E");

    // A name that is not UTF-8 has no UTF-16 form: refused, not guessed.
    const std::string broken = dir.CopyOfSleepNamed(dir.path() + "/bad\xff");
    Child bad(broken);
    ScopedLogCapture log;
    EXPECT_TRUE(TOLVGetProcessImageName(bad.pid()).empty());
    EXPECT_EQ(log.CountContaining("The path is not valid UTF-8"), 1u);
}

TEST(ProcessUtilsImage, ProcessThatIsGoneGivesEmptyAndTheFailingStep)
{
    ExecutableDir dir;
    Child child(dir.CopyOfSleepNamed(dir.path() + "/sleeper"));
    const pid_t pid = child.pid();
    ScopedLogCapture log;

    // Ended but not reaped: the process still exists, its image does not.
    child.KillAndLeaveZombie();
    EXPECT_TRUE(TOLVGetProcessImageName(pid).empty());
    EXPECT_EQ(log.Count("QueryFullProcessImageNameW failed with error : 0x2", "TOLVGetProcessImageName()"), 1u);

    // Reaped: no such process.
    child.Reap();
    EXPECT_TRUE(TOLVGetProcessImageName(pid).empty());
    EXPECT_EQ(log.Count("OpenProcess failed with error : 0x3", "TOLVGetProcessImageName()"), 1u);

    EXPECT_TRUE(TOLVGetProcessImageName(0).empty());
    EXPECT_TRUE(TOLVGetProcessImageName(-1).empty());
    EXPECT_EQ(log.Count("OpenProcess failed with error : 0x3", "TOLVGetProcessImageName()"), 3u);
}

} // namespace
