#include "log/LogTestSupport.h"
#include "support/ProcessUtils.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/time.h>

#include <filesystem>

namespace {

constexpr uint64_t kMB = 1048576;

class FileWriterTest : public LoggerFixture {
protected:
    // Unbuffered: each line is on disk, `freeMB` free, before Log returns.
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

TEST_F(FileWriterTest, PropertiesAndTheLevelShapeSizeLimitsAndFileNames)
{
    MakeLogger(false);
    const int session = static_cast<int>(ProcessUtils::GetSessionID(false, ProcessUtils::kNoSession));
    const std::string process =
        "veltrane-tolvTest-" + std::to_string(session) + "-" + std::to_string(getpid());
    auto named = [&](int index, const std::string& pattern) {
        const std::string minute = R"(__\d{4}-\d\d-\d\d-\d\d-\d\d\.log)";
        return std::regex_match(writer->BuildFileName(index), std::regex(process + pattern + minute));
    };
    EXPECT_EQ(writer->BuildFileName(0), "veltrane-tolvTest*");
    EXPECT_EQ(writer->BuildFileName(-1), process);
    EXPECT_TRUE(named(1, ""));
    // maxFileSizeMB, the level, the size limit in MB: 0 is no limit, 0xFFFFFFFF unset (the
    // level's own), and a value out of range is ignored, not cut to 0.
    const std::tuple<const char*, int32_t, uint64_t> limits[] = {
        {"2000", LOG_LEVEL_INFO, 1024},     {"0x10", LOG_LEVEL_INFO, 16},
        {"0", LOG_LEVEL_INFO, 0},           {"0xFFFFFFFF", LOG_LEVEL_INFO, 15},
        {"4294967296", LOG_LEVEL_INFO, 15}, {"4294967296", LOG_LEVEL_VERBOSE, 99},
        {"4294967296", LOG_LEVEL_DEBUG, 50}};
    for (const auto& [value, level, limitMB] : limits) {
        writer->SetProperty("MAXFILESIZEMB", value);
        logger->SetLevel(level);
        EXPECT_EQ(writer->SizeLimitBytes(), limitMB * kMB) << value << " at level " << level;
    }
    EXPECT_TRUE(named(1, R"(\(1\))")); // from DEBUG on, the first file has its index too
    logger->SetLevel(LOG_LEVEL_INFO);
    writer->SetProperty("maxRollingFiles", "0");
    EXPECT_TRUE(named(1, R"(\(0001\))"));
    writer->SetProperty("filename", "custom");
    EXPECT_EQ(writer->BuildFileName(0), "veltrane-custom*");
    EXPECT_FALSE(writer->SetProperty("noSuchThing", "1"));
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
    // Free space in MB, the level and the text; whether it is written, and suspended after it.
    const std::tuple<uint64_t, int32_t, const char*, bool, bool> steps[] = {
        {150, LOG_LEVEL_INFO, "a: written, then the disk is low", true, true},
        {150, LOG_LEVEL_INFO, "b: suspended", false, true},
        {150, LOG_LEVEL_ERROR, "c: errors still go through", true, true},
        {400, LOG_LEVEL_WARN, "d: above the low mark, below the high one", false, true},
        {600, LOG_LEVEL_WARN, "e: resumes after it", false, false},
        {600, LOG_LEVEL_INFO, "f: written again", true, false},
        {150, LOG_LEVEL_INFO, "g: suspends again", true, true},
    };
    for (const auto& [mb, level, line, written, suspended] : steps) {
        freeMB = mb;
        Log("F()", level, "%s", line);
        EXPECT_EQ(writer->IsSuspended(), suspended) << line;
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
    for (const auto& [mb, level, line, written, suspended] : steps)
        EXPECT_EQ(Has(text, std::string("F(): ") + line + "\n"), written) << line;
    EXPECT_FALSE(Has(text, "F(): h: "));
    const std::string banner = kPrefix + R"(\*{7} Free disk space is )";
    EXPECT_TRUE(
        std::regex_search(text, std::regex("\n\n" + banner + R"(150\.0MB - Logging suspended \*{7}\n)")));
    EXPECT_TRUE(
        std::regex_search(text, std::regex(banner + R"(600\.0MB - Logging resumed after \S+ \*{7}\n\n)")));
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
        struct timeval times[2]{};
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
    EXPECT_TRUE(
        std::regex_search(text, std::regex("Deleted \"" + tenDays + "\" \\(age 10 days( 0:00:01)?\\)\n")))
        << text;
    // Whatever a live writer holds is an active session first, this process's
    // current file included; each active session keeps its share of files.
    for (const char* line : {"Keeping 2 files, minimum age 2:00:00, 2 active sessions\n",
                             "Scan complete; 3 files deleted, 2 files remain, next scan in 4:00:00"})
        EXPECT_TRUE(Has(text, line)) << line << "\n" << text;
}

} // namespace
