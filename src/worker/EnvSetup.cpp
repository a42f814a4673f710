#include "worker/EnvSetup.h"

#include "corvantabase/Poll.h"
#include "corvantabase/SafeTmpDir.h"
#include <tolv/log/Log.h>
#include "log/LogRegistryRoot.h"
#include "log/LoggerManager.h"

#include <cstdlib>
#include <string>

using namespace tolv::log;

namespace tolv::worker {

namespace {

constexpr const char* kLoggerName = "tolvClientWorkerDefaultLogger";
constexpr const char* kProgramName = "tolvClientWorker";
constexpr const char* kSettingsKey = "Software\\Corvanta\\Veltrane\\TOLV";
constexpr int32_t kFileWriter = 1;

} // namespace

bool EnvSetup::Init()
{
    LoggerManager* manager = LoggerManager::GetInstance();
    RCPtr<Logger> logger = manager->CreateLogger(kLoggerName, kProgramName, true);
    if (!logger)
        return false;
    logger->AddRegistrySettings(kSettingsKey, HKEY_LOCAL_MACHINE);
    RCPtr<LogWriter> fileWriter = logger->GetWriter(kFileWriter);
    if (!fileWriter)
        return false;
    char* folder = File_GetSafeTmpDir(false);
    if (!folder)
        return false;
    const std::string folderPath(folder);
    std::free(folder);
    if (!fileWriter->SetProperty("folderPath", folderPath))
        return false;
    if (!logger->Start())
        return false;
    Poll_InitDefault();
    LOG_INFO("EnvSetup::Init()", "Evn ready.");
    return true;
}

EnvSetup::~EnvSetup()
{
    LOG_INFO("EnvSetup::~EnvSetup()", "Evn exit.");
    Poll_Exit();
    LoggerManager::GetInstance()->Shutdown();
}

} // namespace tolv::worker
