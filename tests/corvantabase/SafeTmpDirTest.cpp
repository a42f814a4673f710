#include "corvantabase/SafeTmpDir.h"

#include "common/LogCapture.h"
#include "common/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace {

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

TEST_F(SafeTmpDirTest, CreatesAPrivateDirectoryWhateverTheUmaskAndFindsItAgain)
{
    const mode_t oldMask = umask(0);
    EXPECT_EQ(SafeTmpDir(), expected);
    umask(oldMask);
    struct stat st{};
    ASSERT_EQ(lstat(expected.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_EQ(SafeTmpDir(), expected);
}

TEST_F(SafeTmpDirTest, RefusesWhatIsNotOurPrivateDirectory)
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
}

TEST_F(SafeTmpDirTest, BaseIsTmpUnlessTmpdirIsAbsoluteAndMustExist)
{
    for (const char* value : {"", "relative/dir"}) {
        setenv("TMPDIR", value, 1);
        EXPECT_EQ(SafeTmpDir(), "/tmp/" + ownName) << value;
    }
    setenv("TMPDIR", (base.path() + "/missing/").c_str(), 1);
    ScopedLogCapture log;
    EXPECT_EQ(SafeTmpDir(), "");
    EXPECT_EQ(log.CountContaining("Failed to create the directory " + base.path() + "/missing/" + ownName), 1u);
}

} // namespace
