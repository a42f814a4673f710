#include "log/LogTestSupport.h"
#include "support/ProcessUtils.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/time.h>

#include <filesystem>

namespace {

constexpr uint64_t kMB = 1048576;

class FileWriterTest : public FileLoggerFixture {
protected:
    // An unbuffered file writer, each line on disk before Log returns, on a
    // disk with `freeMB` free.
    void MakeUnbufferedLogger()
    {
        MakeLogger();
        writer->SetFreeSpaceQuery([this](const std::string&, uint64_t& bytes) {
            bytes = freeMB.load() * kMB;
            return true;
        });
        writer->SetBufferingEnabled(false);
    }

    std::atomic<uint64_t> freeMB{100000};
};

TEST_F(FileWriterTest, PropertiesAreCheckedAndLimitsFollowTheLevel)
{
    MakeLogger(false);
    EXPECT_TRUE(writer->SetProperty("MAXFILESIZEMB", "2000"));
    EXPECT_EQ(writer->SizeLimitBytes(), 1024 * kMB);
    const struct {
        const char* value;
        int32_t level;
        uint64_t limitMB;
    } rows[] = {
        {"0x10", LOG_LEVEL_INFO, 16},
        {"0", LOG_LEVEL_INFO, 0},           // no limit
        {"0xFFFFFFFF", LOG_LEVEL_INFO, 15}, // unset: the level's own
        {"4294967296", LOG_LEVEL_INFO, 15}, // out of range: ignored, not cut to 0
        {"4294967296", LOG_LEVEL_DEBUG, 50},
        {"4294967296", LOG_LEVEL_VERBOSE, 99},
    };
    for (const auto& row : rows) {
        writer->SetProperty("maxFileSizeMB", row.value);
        logger->SetLevel(row.level);
        EXPECT_EQ(writer->SizeLimitBytes(), row.limitMB * kMB) << row.value << " at level " << row.level;
    }
    logger->SetLevel(LOG_LEVEL_INFO);
    std::string value;
    EXPECT_TRUE(writer->SetProperty("maxRollingFiles", "5000"));
    ASSERT_TRUE(writer->GetProperty("maxRollingFiles", value));
    EXPECT_EQ(value, "1000");
    EXPECT_FALSE(writer->SetProperty("noSuchThing", "1"));
    EXPECT_FALSE(writer->GetProperty("noSuchThing", value));

    Start();
    // The folder is fixed while a file is open.
    EXPECT_TRUE(writer->SetProperty("folderPath", "/elsewhere"));
    EXPECT_EQ(writer->GetFolderPath(), dir.path());
}

TEST_F(FileWriterTest, FileNamesNameTheApplicationSessionProcessAndIndex)
{
    MakeLogger(false);
    const int session = static_cast<int>(ProcessUtils::GetSessionID(false, ProcessUtils::kNoSession));
    const std::string process = "veltrane-tolvTest-" + std::to_string(session) + "-" + std::to_string(getpid());
    const std::string minute = R"(__\d{4}-\d\d-\d\d-\d\d-\d\d\.log)";
    auto named = [&](int index, const std::string& pattern) {
        return std::regex_match(writer->BuildFileName(index), std::regex(process + pattern + minute));
    };
    EXPECT_EQ(writer->BuildFileName(0), "veltrane-tolvTest*");
    EXPECT_EQ(writer->BuildFileName(-1), process);
    EXPECT_TRUE(named(1, ""));
    EXPECT_TRUE(named(2, R"(\(2\))"));
    logger->SetLevel(LOG_LEVEL_DEBUG);
    EXPECT_TRUE(named(1, R"(\(1\))"));
    logger->SetLevel(LOG_LEVEL_INFO);
    writer->SetProperty("maxRollingFiles", "0");
    EXPECT_TRUE(named(1, R"(\(0001\))"));
    writer->SetProperty("filename", "custom");
    EXPECT_EQ(writer->BuildFileName(0), "veltrane-custom*");
}

TEST_F(FileWriterTest, RollingKeepsTheFirstFileAndTheNewestRolledOnes)
{
    MakeUnbufferedLogger(); // the size is checked after every line: each file ends right at the limit
    writer->SetProperty("maxFileSizeMB", "1");
    Start();
    const std::string filler(1000, 'x');
    for (int written = 0; !Has(writer->GetFilePath(), "(6)") && written < 20000; ++written)
        Log("F()", LOG_LEVEL_INFO, "%06d %s", written, filler.c_str());
    Log("F()", LOG_LEVEL_INFO, "in the sixth file");
    const std::string sixth = writer->GetFilePath();
    ASSERT_TRUE(Has(sixth, "(6)"));
    Finish();

    std::vector<std::string> indexes;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        const std::string name = entry.path().filename();
        ASSERT_EQ(name.rfind("veltrane-tolvTest-", 0), 0u) << name;
        const size_t open = name.find('(');
        indexes.push_back(open == std::string::npos ? "1" : name.substr(open + 1, 1));
        EXPECT_TRUE(Has(name, "(6)") || entry.file_size() < kMB + 2000) << name;
    }
    std::sort(indexes.begin(), indexes.end());
    EXPECT_EQ(indexes, (std::vector<std::string>{"1", "3", "4", "5", "6"}));
    const std::string last = ReadWholeFile(sixth);
    EXPECT_TRUE(Has(last, "in the sixth file"));
    EXPECT_TRUE(Has(last, "*** LOG FILE COMPLETE ***"));
}

TEST_F(FileWriterTest, LowDiskSpaceSuspendsLoggingAndTheFormerNameIsMasked)
{
    MakeUnbufferedLogger();
    freeMB = 1000;
    Start();
    const struct {
        uint64_t freeMB;
        int32_t level;
        const char* text;
        bool written;
        bool suspendedAfter;
    } steps[] = {
        {150, LOG_LEVEL_INFO, "a: written, then the disk is low", true, true},
        {150, LOG_LEVEL_INFO, "b: suspended", false, true},
        {150, LOG_LEVEL_ERROR, "c: errors still go through", true, true},
        {400, LOG_LEVEL_WARN, "d: above the low mark, below the high one", false, true},
        {600, LOG_LEVEL_WARN, "e: resumes after it", false, false},
        {600, LOG_LEVEL_INFO, "f: written again", true, false},
        {150, LOG_LEVEL_INFO, "g: suspends again", true, true},
    };
    for (const auto& step : steps) {
        freeMB = step.freeMB;
        Log("F()", step.level, "%s", step.text);
        EXPECT_EQ(writer->IsSuspended(), step.suspendedAfter) << step.text;
    }
    // Lowering the low mark below the free space resumes at the next write.
    writer->SetProperty("diskThresholdLowMB", "100");
    Log("F()", LOG_LEVEL_INFO, "h: filtered, resumes after it");
    EXPECT_FALSE(writer->IsSuspended());
    // The former name is masked unless switched off, each line under the switch it was logged with.
    Log("F()", LOG_LEVEL_INFO, "hidden %s", "Pelloran");
    logger->SetRedactEnabled(false);
    Log("F()", LOG_LEVEL_INFO, "plain %s", "Pelloran");

    const std::string text = Finish();
    for (const auto& step : steps)
        EXPECT_EQ(Has(text, std::string("F(): ") + step.text + "\n"), step.written) << step.text;
    EXPECT_FALSE(Has(text, "F(): h: "));
    const std::string banner = R"(\*{7} Free disk space is )";
    EXPECT_TRUE(std::regex_search(text, std::regex("\n\n" + kPrefix + banner + R"(150\.0MB - Logging suspended \*{7}\n)")))
        << text;
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(\] )" + banner + R"(600\.0MB - Logging resumed after \S+ \*{7}\n\n)")))
        << text;
    EXPECT_TRUE(Has(text, "hidden P*******\n"));
    EXPECT_TRUE(Has(text, "plain Pelloran\n"));
    char masked[] = "Pelloran pelLORAN pel Pelican xPELLORANx";
    FileWriter::RedactText(masked, sizeof masked - 1);
    EXPECT_STREQ(masked, "P******* p******* p** P**ican xP*******x");
}

TEST_F(FileWriterTest, RetentionDeletesOnlyOldFilesOfFinishedProcesses)
{
    // A file of `name`, last written `ageSeconds` ago.
    auto make = [&](const std::string& name, int64_t ageSeconds) {
        const std::string path = dir.file(name);
        WritePatternFile(path, 16);
        struct timeval times[2] {};
        gettimeofday(&times[0], nullptr);
        times[0].tv_sec -= ageSeconds;
        times[1] = times[0];
        EXPECT_EQ(utimes(path.c_str(), times), 0);
        return path;
    };
    const std::string tenDays = make("veltrane-tolvTest-1-90001__2020-01-01-00-00.log", 10 * 86400);
    const std::string threeHours = make("veltrane-tolvTest-1-90002__2020-01-02-00-00.log", 3 * 3600);
    const std::string fourHours = make("veltrane-tolvTest-1-90003__2020-01-03-00-00.log", 4 * 3600);
    const std::string fiveHours = make("veltrane-tolvTest-1-90004__2020-01-04-00-00.log", 5 * 3600);
    const std::string oneHour = make("veltrane-tolvTest-1-90005__2020-01-05-00-00.log", 3600);
    const std::string activeOld = make("veltrane-tolvTest-1-90006__2020-01-06-00-00.log", 20 * 86400);
    const std::string otherApp = make("veltrane-otherApp-1-90007__2020-01-07-00-00.log", 30 * 86400);
    // A live writer of another process holds its file locked.
    const int held = open(activeOld.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_GE(held, 0);
    ASSERT_EQ(flock(held, LOCK_EX | LOCK_NB), 0);

    MakeLogger();
    // An older file of this very process: its own, not an active session.
    const std::string ownOld = make(writer->BuildFileName(-1) + "(2)__2020-01-08-00-00.log", 30 * 86400);
    writer->SetProperty("maxNumFiles", "1");
    logger->SetLevel(LOG_LEVEL_VERBOSE);
    Start();
    auto exists = [](const std::string& path) { return access(path.c_str(), F_OK) == 0; };
    // The first scan runs on the poll thread once the file is open.
    ASSERT_TRUE(WaitUntil([&] { return !exists(tenDays) && !exists(fiveHours) && !exists(fourHours); }));
    close(held);
    const std::string text = Finish();

    // Kept: within the count, held by a live process, another application's, this process's own.
    for (const std::string& kept : {threeHours, oneHour, activeOld, otherApp, ownOld})
        EXPECT_TRUE(exists(kept)) << kept;
    // The scan may start in the second after the ages were set.
    const std::string deleted = "Deleted \"" + tenDays + "\" (age 10 days";
    const size_t at = text.find(deleted);
    ASSERT_NE(at, std::string::npos) << text;
    EXPECT_TRUE(text.compare(at + deleted.size(), 2, ")\n") == 0 ||
                text.compare(at + deleted.size(), 10, " 0:00:01)\n") == 0)
        << text;
    // Whatever a live writer holds is an active session first, this process's
    // current file included; each active session keeps its share of files.
    for (const std::string& line : {"Skipping active log file \"" + writer->GetFilePath() + "\"",
                                    "Skipping active log file \"" + activeOld + "\"",
                                    "Skipping current process \"" + ownOld + "\"",
                                    std::string("Keeping 2 files, minimum age 2:00:00, 2 active sessions\n"),
                                    std::string("Scan complete; 3 files deleted, 2 files remain, next scan in 4:00:00")})
        EXPECT_TRUE(Has(text, line)) << line << "\n" << text;
}

} // namespace
