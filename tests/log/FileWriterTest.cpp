#include "log/FileWriter.h"
#include <tolv/log/Log.h>
#include "support/ProcessUtils.h"
#include "log/LogTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <regex>

using namespace tolv::log;

namespace {

constexpr uint64_t kMB = 1048576;

using FileWriterTest = FileLoggerFixture;

TEST_F(FileWriterTest, PropertiesAreCheckedAndLimitsFollowTheLevel)
{
    MakeLogger(false);
    std::string value;
    EXPECT_TRUE(writer->SetProperty("MAXFILESIZEMB", "2000"));
    ASSERT_TRUE(writer->GetProperty("maxFileSizeMB", value));
    EXPECT_EQ(value, "1024");
    EXPECT_TRUE(writer->SetProperty("maxFileSizeMB", "0x10"));
    EXPECT_EQ(writer->SizeLimitBytes(), 16 * kMB);
    EXPECT_TRUE(writer->SetProperty("maxFileSizeMB", "0"));
    EXPECT_EQ(writer->SizeLimitBytes(), 0u);
    EXPECT_TRUE(writer->SetProperty("maxFileSizeMB", "0xFFFFFFFF"));
    EXPECT_EQ(writer->SizeLimitBytes(), 15 * kMB);
    writer->SetProperty("maxFileSizeMB", "4294967296");  // out of range: ignored, not 0 (no limit)
    EXPECT_EQ(writer->SizeLimitBytes(), 15 * kMB);
    logger->SetLevel(LOG_LEVEL_DEBUG);
    EXPECT_EQ(writer->SizeLimitBytes(), 50 * kMB);
    logger->SetLevel(LOG_LEVEL_VERBOSE);
    EXPECT_EQ(writer->SizeLimitBytes(), 99 * kMB);
    logger->SetLevel(LOG_LEVEL_INFO);
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
    const std::string process = "veltrane-tolvTest-" + std::to_string(static_cast<int>(ProcessUtils::GetSessionID(false, ProcessUtils::kNoSession))) + "-" +
                                std::to_string(getpid());
    const std::string minute = R"(__\d{4}-\d\d-\d\d-\d\d-\d\d\.log)";
    EXPECT_EQ(writer->BuildFileName(0), "veltrane-tolvTest*");
    EXPECT_EQ(writer->BuildFileName(-1), process);
    EXPECT_TRUE(std::regex_match(writer->BuildFileName(1), std::regex(process + minute)));
    EXPECT_TRUE(std::regex_match(writer->BuildFileName(2), std::regex(process + R"(\(2\))" + minute)));
    logger->SetLevel(LOG_LEVEL_DEBUG);
    EXPECT_TRUE(std::regex_match(writer->BuildFileName(1), std::regex(process + R"(\(1\))" + minute)));
    logger->SetLevel(LOG_LEVEL_INFO);
    writer->SetProperty("maxRollingFiles", "0");
    EXPECT_TRUE(std::regex_match(writer->BuildFileName(1), std::regex(process + R"(\(0001\))" + minute)));
    writer->SetProperty("filename", "custom");
    EXPECT_EQ(writer->BuildFileName(0), "veltrane-custom*");
}

TEST_F(FileWriterTest, RollingKeepsTheFirstFileAndTheNewestRolledOnes)
{
    MakeLogger();
    writer->SetFreeSpaceQuery([](const std::string&, uint64_t& bytes) {
        bytes = 100000 * kMB;
        return true;
    });
    writer->SetProperty("maxFileSizeMB", "1");
    // Unbuffered: the size is checked after every line, so each file ends
    // right at the limit.
    writer->SetBufferingEnabled(false);
    Start();
    const std::string filler(1000, 'x');
    int written = 0;
    while (writer->GetFilePath().find("(6)") == std::string::npos && written < 20000) {
        Log("F()", LOG_LEVEL_INFO, "%06d %s", written++, filler.c_str());
    }
    Log("F()", LOG_LEVEL_INFO, "in the sixth file");
    const std::string sixth = writer->GetFilePath();
    ASSERT_NE(sixth.find("(6)"), std::string::npos);
    Finish();

    std::vector<std::string> indexes;
    for (const std::string& name : FilesIn(dir.path())) {
        ASSERT_EQ(name.rfind("veltrane-tolvTest-", 0), 0u) << name;
        const size_t open = name.find('(');
        indexes.push_back(open == std::string::npos ? "1" : name.substr(open + 1, 1));
    }
    std::sort(indexes.begin(), indexes.end());
    EXPECT_EQ(indexes, (std::vector<std::string>{"1", "3", "4", "5", "6"}));
    for (const std::string& name : FilesIn(dir.path())) {
        struct stat st {};
        ASSERT_EQ(stat((dir.path() + "/" + name).c_str(), &st), 0);
        if (name.find("(6)") == std::string::npos) {
            EXPECT_LT(static_cast<uint64_t>(st.st_size), kMB + 2000) << name;
        }
    }
    const std::string last = ReadWholeFile(sixth);
    EXPECT_NE(last.find("in the sixth file"), std::string::npos);
    EXPECT_NE(last.find("*** LOG FILE COMPLETE ***"), std::string::npos);
}

TEST_F(FileWriterTest, LowDiskSpaceSuspendsLoggingUntilThereIsRoomAgain)
{
    std::atomic<uint64_t> freeMB{1000};
    MakeLogger();
    writer->SetFreeSpaceQuery([&](const std::string&, uint64_t& bytes) {
        bytes = freeMB.load() * kMB;
        return true;
    });
    writer->SetBufferingEnabled(false);
    Start();
    freeMB = 150;
    Log("F()", LOG_LEVEL_INFO, "a: written, then the disk is low");
    EXPECT_TRUE(writer->IsSuspended());
    Log("F()", LOG_LEVEL_INFO, "b: suspended");
    Log("F()", LOG_LEVEL_ERROR, "c: errors still go through");
    freeMB = 400;  // above the low mark, below the high one
    Log("F()", LOG_LEVEL_WARN, "d: still suspended");
    EXPECT_TRUE(writer->IsSuspended());
    freeMB = 600;
    Log("F()", LOG_LEVEL_WARN, "e: suspended, resumes after it");
    EXPECT_FALSE(writer->IsSuspended());
    Log("F()", LOG_LEVEL_INFO, "f: written again");

    // Lowering the low mark below the free space resumes at the next write.
    freeMB = 150;
    Log("F()", LOG_LEVEL_INFO, "g: suspends again");
    EXPECT_TRUE(writer->IsSuspended());
    writer->SetProperty("diskThresholdLowMB", "100");
    Log("F()", LOG_LEVEL_INFO, "h: filtered, resumes after it");
    EXPECT_FALSE(writer->IsSuspended());

    const std::string text = Finish();
    for (const char* seen : {"F(): a: ", "F(): c: ", "F(): f: ", "F(): g: "})
        EXPECT_NE(text.find(seen), std::string::npos) << seen;
    for (const char* unseen : {"F(): b: ", "F(): d: ", "F(): e: ", "F(): h: "})
        EXPECT_EQ(text.find(unseen), std::string::npos) << unseen;
    const std::regex suspended(R"(\n\n\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] )"
                               R"(\*\*\*\*\*\*\* Free disk space is 150\.0MB - Logging suspended \*\*\*\*\*\*\*\n)");
    EXPECT_TRUE(std::regex_search(text, suspended)) << text;
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(\] \*\*\*\*\*\*\* Free disk space is 600\.0MB - Logging resumed after )"
                                                   R"(\S+ \*\*\*\*\*\*\*\n\n)")))
        << text;
}

TEST_F(FileWriterTest, RedactionMasksTheFormerNameUnlessSwitchedOff)
{
    char text[] = "Pelloran pelLORAN pel Pelican xPELLORANx";
    FileWriter::RedactText(text, sizeof text - 1);
    EXPECT_STREQ(text, "P******* p******* p** P**ican xP*******x");

    MakeLogger();
    // Unbuffered: each line reaches the file under the switch it was logged with.
    writer->SetBufferingEnabled(false);
    Start();
    Log("F()", LOG_LEVEL_INFO, "hidden %s", "Pelloran");
    logger->SetRedactEnabled(false);
    Log("F()", LOG_LEVEL_INFO, "plain %s", "Pelloran");
    const std::string all = Finish();
    EXPECT_NE(all.find("hidden P*******\n"), std::string::npos);
    EXPECT_NE(all.find("plain Pelloran\n"), std::string::npos);
}

// Sets a file's last-write time `ageSeconds` into the past.
void Age(const std::string& path, int64_t ageSeconds)
{
    struct timeval times[2] {};
    gettimeofday(&times[0], nullptr);
    times[0].tv_sec -= ageSeconds;
    times[1] = times[0];
    ASSERT_EQ(utimes(path.c_str(), times), 0);
}

TEST_F(FileWriterTest, RetentionDeletesOnlyOldFilesOfFinishedProcesses)
{
    auto make = [&](const std::string& name, int64_t ageSeconds) {
        const std::string path = dir.file(name);
        WritePatternFile(path, 16);
        Age(path, ageSeconds);
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

    EXPECT_TRUE(exists(threeHours));  // kept: within the count
    EXPECT_TRUE(exists(oneHour));
    EXPECT_TRUE(exists(activeOld));   // held by a live process
    EXPECT_TRUE(exists(otherApp));    // another application's file
    // The scan may start in the second after the ages were set.
    const std::string deleted = "Deleted \"" + tenDays + "\" (age 10 days";
    const size_t at = text.find(deleted);
    ASSERT_NE(at, std::string::npos) << text;
    EXPECT_TRUE(text.compare(at + deleted.size(), 2, ")\n") == 0 ||
                text.compare(at + deleted.size(), 10, " 0:00:01)\n") == 0)
        << text;
    EXPECT_TRUE(exists(ownOld));
    // Whatever a live writer holds is an active session first, this process's
    // current file included; each active session keeps its share of files.
    EXPECT_NE(text.find("Skipping active log file \"" + writer->GetFilePath() + "\""), std::string::npos) << text;
    EXPECT_NE(text.find("Skipping active log file \"" + activeOld + "\""), std::string::npos) << text;
    EXPECT_NE(text.find("Skipping current process \"" + ownOld + "\""), std::string::npos) << text;
    EXPECT_NE(text.find("Keeping 2 files, minimum age 2:00:00, 2 active sessions\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Scan complete; 3 files deleted, 2 files remain, next scan in 4:00:00"), std::string::npos);
}

} // namespace
