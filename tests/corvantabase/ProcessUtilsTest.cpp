#include "corvantabase/TolvProcessUtils.h"

#include "common/ChildProcess.h"
#include "common/LogCapture.h"
#include "platform/Utf.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

namespace {

namespace fs = std::filesystem;

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

int InThisExecutable() { return 7; }

TEST(ProcessUtilsModule, ExecutableLibraryAndUnknownAddress)
{
    const std::u16string own = Wide(OwnExecutable());
    EXPECT_EQ(TOLVGetModuleFileName(nullptr), own);
    EXPECT_EQ(TOLVGetModuleFileName(reinterpret_cast<const void*>(&InThisExecutable)), own);
    EXPECT_EQ(TOLVGetProcessImageName(getpid()), own);
    const fs::path libc(
        tolv::platform::Utf16ToUtf8(TOLVGetModuleFileName(reinterpret_cast<const void*>(&getpid))).value());
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
        EXPECT_EQ(TOLVGetProcessImageName(sleepers.Start(path).pid()), Wide(path)) << length;
    }
    const std::string accented = sleepers.dir + "/v\xc3\xa9ltrane-\xf0\x9d\x84\x9e";
    EXPECT_EQ(TOLVGetProcessImageName(sleepers.Start(accented).pid()), Wide(sleepers.dir) + u"/v\u00e9ltrane-\U0001D11E");

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

} // namespace
