#pragma once
// A logger with a file writer in a private folder, for the tests of the
// logging framework. Everything queued is on disk once Finish returns.

#include "common/TempDir.h"
#include "log/FileWriter.h"
#include "log/Logger.h"
#include "log/LoggerManager.h"

#include <gtest/gtest.h>

#include <chrono>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace tolv::log;

inline std::string ReadWholeFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::vector<std::string> FilesIn(const std::string& folder)
{
    std::vector<std::string> names;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..")
                names.push_back(name);
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

inline std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// Waits for a condition that another thread makes true; the limit only ends
// a test that would otherwise hang.
template <typename Pred>
bool WaitUntil(Pred&& pred, std::chrono::seconds limit = std::chrono::seconds(60))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

class FileLoggerFixture : public ::testing::Test {
protected:
    // A fresh logger per test: names are unique even when one process runs
    // every test.
    void MakeLogger(bool makeDefault = true, const std::string& appName = "tolvTest")
    {
        static int counter = 0;
        const std::string name = "test-logger-" + std::to_string(++counter);
        logger = LoggerManager::GetInstance()->CreateLogger(name, appName, makeDefault);
        ASSERT_TRUE(logger);
        writer = RCPtr<FileWriter>(static_cast<FileWriter*>(logger->GetWriter(LogWriter::kFileWriter).get()));
        ASSERT_TRUE(writer);
        ASSERT_TRUE(writer->SetProperty("folderPath", dir.path()));
    }

    void Start() { ASSERT_TRUE(logger->Start()); }

    // Shuts the logger down (the footer is written) and returns the text of
    // the first file.
    std::string Finish()
    {
        const std::string path = writer->GetFilePath();
        logger->Shutdown();
        if (LoggerManager::GetInstance()->GetDefaultLogger() == logger)
            LoggerManager::GetInstance()->SetDefaultLogger({});
        return ReadWholeFile(path);
    }

    void TearDown() override
    {
        if (logger) {
            logger->Shutdown();
            if (LoggerManager::GetInstance()->GetDefaultLogger() == logger)
                LoggerManager::GetInstance()->SetDefaultLogger({});
        }
    }

    TempDir dir;
    RCPtr<Logger> logger;
    RCPtr<FileWriter> writer;
};
