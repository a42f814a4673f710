#pragma once
// A fresh default logger per test, or one with a file writer in a private
// folder whose text is on disk once Finish returns; shut down when the test ends.

#include "common/LogCapture.h"
#include "common/TempDir.h"
#include "log/FileWriter.h"
#include "log/Logger.h"
#include "log/LoggerManager.h"
#include <tolv/log/Log.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

// A local time stamp, and the whole prefix in front of a line's level letter.
inline const std::string kStamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})";
inline const std::string kPrefix = kStamp + R"( <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] )";

inline std::string ReadWholeFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

inline bool Has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// Waits for what another thread makes true; the limit only ends a test that would otherwise hang.
template <typename Pred>
bool WaitUntil(Pred&& pred)
{
    for (int i = 0; i < 12000 && !pred(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return pred();
}

class LoggerFixture : public ::testing::Test {
protected:
    // Names are unique even when one process runs every test.
    void NewLogger(const std::string& appName = "tolvTest", bool makeDefault = true)
    {
        static int counter = 0;
        Drop();
        logger = LoggerManager::GetInstance()->CreateLogger("test-logger-" + std::to_string(++counter),
                                                            appName, makeDefault);
        ASSERT_TRUE(logger);
    }
    void MakeLogger(bool makeDefault = true)
    {
        NewLogger("tolvTest", makeDefault);
        writer = WriterOf<FileWriter>(LogWriter::kFileWriter);
        ASSERT_TRUE(writer->SetProperty("folderPath", dir.path()));
    }
    template <typename W>
    RCPtr<W> WriterOf(int32_t type)
    {
        return RCPtr<W>(static_cast<W*>(logger->GetWriter(type).get()));
    }
    void Start() { ASSERT_TRUE(logger->Start()); }
    // Shuts the logger down, which writes the footer, and returns its first file's text.
    std::string Finish()
    {
        const std::string path = writer->GetFilePath();
        Drop();
        return ReadWholeFile(path);
    }
    void Drop()
    {
        if (!logger)
            return;
        logger->Shutdown();
        if (LoggerManager::GetInstance()->GetDefaultLogger() == logger)
            LoggerManager::GetInstance()->SetDefaultLogger({});
    }
    void TearDown() override { Drop(); }

    TempDir dir;
    RCPtr<Logger> logger;
    RCPtr<FileWriter> writer;
};
