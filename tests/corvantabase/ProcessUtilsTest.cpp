#include "corvantabase/TolvProcessUtils.h"

#include "common/LogCapture.h"
#include <tolv/platform/UniqueFd.h>
#include "platform/Utf.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace {

namespace fs = std::filesystem;

std::u16string Wide(const std::string& text) { return tolv::platform::Utf8ToUtf16(text).value(); }
std::string OwnExecutable() { return fs::read_symlink("/proc/self/exe").string(); }

// Copies of sleep(1) beside the test executable (a temporary directory may
// forbid running programs), started as children that are killed and reaped.
class Sleepers {
public:
    Sleepers() : m_dir(fs::path(OwnExecutable()).parent_path() / ("procutils-" + std::to_string(getpid()))) {}
    ~Sleepers()
    {
        for (pid_t pid : m_children)
            End(pid);
        fs::remove_all(m_dir);
    }

    // A path of exactly `length` bytes: 150-byte directories, then the file.
    std::string PathOfLength(size_t length, char fill) const
    {
        std::string path = m_dir.string();
        while (length - path.size() > 201)
            path += "/" + std::string(150, fill);
        return path + "/" + std::string(length - path.size() - 1, fill);
    }
    std::string In(const std::string& name) const { return (m_dir / name).string(); }

    pid_t Start(const std::string& path)
    {
        fs::create_directories(fs::path(path).parent_path());
        fs::copy_file("/bin/sleep", path, fs::copy_options::overwrite_existing);
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2");
        tolv::platform::UniqueFd readEnd(fds[0]), writeEnd(fds[1]);
        const pid_t pid = fork();
        if (pid == 0) {
            execl(path.c_str(), path.c_str(), "1000", static_cast<char*>(nullptr));
            _exit(127); // before the exec the pipe stays open: the byte below tells
        }
        m_children.push_back(pid);
        writeEnd.reset();
        char ignored;
        if (read(readEnd.get(), &ignored, 1) != 0) // closed by a successful exec
            throw std::runtime_error("exec failed: " + path);
        return pid;
    }
    static void End(pid_t pid)
    {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }

private:
    fs::path m_dir;
    std::vector<pid_t> m_children;
};

int InThisExecutable() { return 7; }

TEST(ProcessUtilsModule, ExecutableLibraryAndUnknownAddress)
{
    const std::u16string own = Wide(OwnExecutable());
    EXPECT_EQ(TOLVGetModuleFileName(nullptr), own);
    EXPECT_EQ(TOLVGetModuleFileName(reinterpret_cast<const void*>(&InThisExecutable)), own);
    EXPECT_EQ(TOLVGetProcessImageName(getpid()), own);

    const fs::path libc(tolv::platform::Utf16ToUtf8(TOLVGetModuleFileName(reinterpret_cast<const void*>(&getpid))).value());
    EXPECT_EQ(libc.filename().string().rfind("libc.so", 0), 0u) << libc;
    EXPECT_EQ(fs::canonical(libc), libc); // full, with no symlink left in it

    ScopedLogCapture log;
    EXPECT_TRUE(TOLVGetModuleFileName(reinterpret_cast<const void*>(uintptr_t{16})).empty());
    EXPECT_EQ(log.Count("GetModuleFileNameW failed with error : 0x16", "TOLVGetModuleFileName()"), 1u);
}

TEST(ProcessUtilsImage, LongAndNonAsciiPathsComeWholeAndNonUtf8OnesAreRefused)
{
    // The buffer starts at 260 bytes and doubles whenever a path fills it.
    Sleepers sleepers;
    for (size_t length : {259u, 260u, 261u, 520u, 521u, 1500u}) {
        const std::string path = sleepers.PathOfLength(length, static_cast<char>('a' + length % 26));
        ASSERT_EQ(path.size(), length);
        EXPECT_EQ(TOLVGetProcessImageName(sleepers.Start(path)), Wide(path)) << length;
    }
    const std::string accented = sleepers.In("v\xc3\xa9ltrane-\xf0\x9d\x84\x9e");
    EXPECT_EQ(TOLVGetProcessImageName(sleepers.Start(accented)), Wide(sleepers.In("")) + u"v\u00e9ltrane-\U0001D11E");

    ScopedLogCapture log;
    EXPECT_TRUE(TOLVGetProcessImageName(sleepers.Start(sleepers.In("bad\xff"))).empty());
    EXPECT_EQ(log.CountContaining("The path is not valid UTF-8"), 1u);
}

TEST(ProcessUtilsImage, ProcessThatIsGoneGivesEmptyAndNamesTheFailingStep)
{
    Sleepers sleepers;
    const pid_t pid = sleepers.Start(sleepers.In("sleeper"));
    ScopedLogCapture log;
    // Ended but not reaped: the process exists, its image does not.
    kill(pid, SIGKILL);
    siginfo_t info {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(TOLVGetProcessImageName(pid).empty());
    EXPECT_EQ(log.Count("QueryFullProcessImageNameW failed with error : 0x2", "TOLVGetProcessImageName()"), 1u);

    Sleepers::End(pid); // reaped: no such process any more
    for (pid_t gone : {pid, 0, -1})
        EXPECT_TRUE(TOLVGetProcessImageName(gone).empty());
    EXPECT_EQ(log.Count("OpenProcess failed with error : 0x3", "TOLVGetProcessImageName()"), 3u);
}

} // namespace
