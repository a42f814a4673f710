// Cost of a log call: a suppressed call (the caller's level test), and an
// enabled call from one and from two threads into the file writer, in calls
// per second. The file goes to a private temporary folder that is removed
// afterwards.

#include "log/FileWriter.h"
#include <tolv/log/Log.h>
#include "log/Logger.h"
#include "log/LoggerManager.h"

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

using namespace tolv::log;

namespace {

double CallsPerSecond(int threads, int callsPerThread, int32_t level)
{
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([=] {
            for (int i = 0; i < callsPerThread; ++i)
                LOG_AT(level, "LogBench::Run()", "call %d of thread %d with a short text", i, t);
        });
    for (std::thread& worker : workers)
        worker.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return threads * static_cast<double>(callsPerThread) / seconds;
}

} // namespace

int main()
{
    char folder[] = "/tmp/tolv-logbench-XXXXXX";
    if (!mkdtemp(folder))
        return 1;
    RCPtr<Logger> logger = LoggerManager::GetInstance()->CreateLogger("logBench", "logBench", true);
    RCPtr<LogWriter> writer = logger->GetWriter(LogWriter::kFileWriter);
    if (!writer || !writer->SetProperty("folderPath", folder) || !logger->Start())
        return 1;

    printf("suppressed call (DEBUG at INFO):   %12.0f calls/s\n", CallsPerSecond(1, 50000000, LOG_LEVEL_DEBUG));
    printf("enabled call, 1 thread, file:      %12.0f calls/s\n", CallsPerSecond(1, 200000, LOG_LEVEL_INFO));
    printf("enabled call, 2 threads, file:     %12.0f calls/s\n", CallsPerSecond(2, 100000, LOG_LEVEL_INFO));

    const auto start = std::chrono::steady_clock::now();
    LoggerManager::GetInstance()->Shutdown();
    printf("shutdown (drains what is queued):  %12.3f s\n",
           std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return 0;
}
