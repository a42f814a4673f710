#include "corvantabase/SafeTmpDir.h"

#include "common/LogCapture.h"
#include "common/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

namespace {

// Sets TMPDIR (or unsets it, for nullopt) while it lives.
class ScopedTmpDirVariable {
public:
    explicit ScopedTmpDirVariable(const std::optional<std::string>& value)
    {
        if (const char* old = std::getenv("TMPDIR"))
            m_saved = old;
        if (value)
            setenv("TMPDIR", value->c_str(), 1);
        else
            unsetenv("TMPDIR");
    }
    ~ScopedTmpDirVariable()
    {
        if (m_saved)
            setenv("TMPDIR", m_saved->c_str(), 1);
        else
            unsetenv("TMPDIR");
    }

private:
    std::optional<std::string> m_saved;
};

using HeapText = std::unique_ptr<char, decltype(&std::free)>;

HeapText SafeTmpDir() { return HeapText(File_GetSafeTmpDir(false), &std::free); }

std::string OwnName() { return "corvanta-" + std::to_string(geteuid()); }

class SafeTmpDirTest : public ::testing::Test {
protected:
    TempDir base;
    ScopedTmpDirVariable tmpdir{base.path()};
    std::string expected = base.path() + "/" + OwnName();
};

TEST_F(SafeTmpDirTest, CreatesAPrivateDirectoryAndFindsItAgain)
{
    HeapText first = SafeTmpDir();
    ASSERT_TRUE(first);
    EXPECT_EQ(std::string(first.get()), expected);
    struct stat st {};
    ASSERT_EQ(lstat(first.get(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_EQ(st.st_uid, geteuid());

    // A file left in it stays: the second call uses the same directory.
    const std::string marker = expected + "/kept";
    ASSERT_EQ(close(creat(marker.c_str(), 0600)), 0);
    HeapText second = SafeTmpDir();
    ASSERT_TRUE(second);
    EXPECT_EQ(std::string(second.get()), expected);
    EXPECT_EQ(access(marker.c_str(), F_OK), 0);
}

TEST_F(SafeTmpDirTest, CreatesPrivatelyWhateverTheUmask)
{
    const mode_t old = umask(0);
    HeapText dir = SafeTmpDir();
    umask(old);
    ASSERT_TRUE(dir);
    struct stat st {};
    ASSERT_EQ(stat(dir.get(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST_F(SafeTmpDirTest, RefusesWhatIsNotOurPrivateDirectory)
{
    ScopedLogCapture log;
    // A symlink to a private directory of ours is still refused: whoever
    // placed it could point it elsewhere later.
    TempDir target;
    ASSERT_EQ(chmod(target.path().c_str(), 0700), 0);
    ASSERT_EQ(symlink(target.path().c_str(), expected.c_str()), 0);
    EXPECT_FALSE(SafeTmpDir());
    ASSERT_EQ(unlink(expected.c_str()), 0);

    ASSERT_EQ(close(creat(expected.c_str(), 0600)), 0);
    EXPECT_FALSE(SafeTmpDir());
    ASSERT_EQ(unlink(expected.c_str()), 0);

    ASSERT_EQ(mkdir(expected.c_str(), 0700), 0);
    ASSERT_EQ(chmod(expected.c_str(), 0777), 0);
    EXPECT_FALSE(SafeTmpDir());
    ASSERT_EQ(chmod(expected.c_str(), 0750), 0);
    EXPECT_FALSE(SafeTmpDir());
    ASSERT_EQ(chmod(expected.c_str(), 0700), 0);
    EXPECT_TRUE(SafeTmpDir());

    EXPECT_GE(log.CountContaining(expected), 4u);
}

TEST_F(SafeTmpDirTest, RefusesADirectoryOfAnotherUser)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give the directory away";
    ASSERT_EQ(mkdir(expected.c_str(), 0700), 0);
    ASSERT_EQ(chown(expected.c_str(), 65534, 65534), 0);
    ScopedLogCapture log;
    EXPECT_FALSE(SafeTmpDir());
    EXPECT_EQ(log.CountContaining("belongs to user 65534"), 1u);
}

TEST(SafeTmpDirBase, FallsBackToTmpWithoutAnAbsoluteTmpdir)
{
    const std::string inTmp = "/tmp/" + OwnName();
    for (const std::optional<std::string>& value :
         {std::optional<std::string>{}, std::optional<std::string>{""}, std::optional<std::string>{"relative/dir"}}) {
        ScopedTmpDirVariable tmpdir(value);
        HeapText dir = SafeTmpDir();
        ASSERT_TRUE(dir);
        EXPECT_EQ(std::string(dir.get()), inTmp);
    }
}

TEST(SafeTmpDirBase, MissingBaseIsAFailure)
{
    TempDir base;
    ScopedTmpDirVariable tmpdir(base.path() + "/missing/");
    ScopedLogCapture log;
    EXPECT_FALSE(SafeTmpDir());
    EXPECT_EQ(log.CountContaining("Failed to create the directory " + base.path() + "/missing/" + OwnName()), 1u);
}

} // namespace
