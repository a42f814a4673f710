// FileWriter: construction, properties, and the log file itself: its name,
// the default folder, opening and closing. Writing, rolling and the disk
// check are in FileWriterWrite.cpp, the retention scan in
// FileWriterRetention.cpp.

#include "log/FileWriter.h"

#include <tolv/log/LogLevel.h>
#include <tolv/log/LogSink.h>
#include "log/FileWriterPath.h"
#include "support/ProcessUtils.h"
#include "log/Logger.h"
#include "log/LoggerManager.h"
#include "log/LoggingLock.h"
#include "log/WriterProperty.h"
#include "support/LxMutexLock.h"
#include "support/LxPollThread.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace tolv::log {

namespace {

constexpr const char* kProduct = "veltrane";
constexpr const char* kBorder = "******************************************************************************\n";
constexpr const char* kNewSession = "************************   NEW LOG SESSION STARTING   ************************\n";

bool DefaultFreeSpace(const std::string& folder, uint64_t& freeBytes)
{
    struct statvfs st {};
    if (statvfs(folder.c_str(), &st) != 0)
        return false;
    freeBytes = static_cast<uint64_t>(st.f_bavail) * st.f_frsize;
    return true;
}

} // namespace

// The job that runs the retention scan on the logging poll thread; added
// with the writer's first file.
class FileWriter::PollDeleteLogFiles final : public LxPollItem {
public:
    PollDeleteLogFiles(FileWriter& writer, const LxEvent& event)
        : LxPollItem("DeleteLogFiles", kRetentionYieldMs), m_writer(writer)
    {
        SetEvent(event);
    }
    bool Run(bool signalled) override
    {
        const int32_t next = m_writer.RunRetention(signalled);
        LxMutexLock guard(LoggingLock());
        SetTimeoutMS(next, false);
        return true;
    }

private:
    // The writer removes this job from the poll thread before it goes.
    FileWriter& m_writer;
};

FileWriter::FileWriter()
    : LogWriter(kFileWriter), m_freeSpaceQuery(DefaultFreeSpace), m_deleteEvent(false, false)
{
    InitBuffering(true);
    m_deleteJob = MakeRC<PollDeleteLogFiles>(*this, m_deleteEvent);
}

FileWriter::~FileWriter()
{
    if (RCPtr<LxPollThread> thread = m_deleteJob->GetPollThread())
        thread->RemoveItem(RCPtr<LxPollItem>(m_deleteJob), true);
    if (m_file)
        fclose(m_file);
}

void FileWriter::SetFreeSpaceQuery(FreeSpaceQuery query)
{
    LxMutexLock guard(LoggingLock());
    m_freeSpaceQuery = query ? std::move(query) : FreeSpaceQuery(DefaultFreeSpace);
}

std::string FileWriter::GetFilePath() const
{
    LxMutexLock guard(LoggingLock());
    return m_filePath;
}

std::string FileWriter::GetFolderPath() const
{
    LxMutexLock guard(LoggingLock());
    return m_folderPath;
}

bool FileWriter::SetProperty(const std::string& name, const std::string& value)
{
    LxMutexLock guard(LoggingLock());
    uint32_t number = 0;
    const bool isNumber = tolv::platform::ParseUnsigned32(value, number);
    if (PropertyNameIs(name, "filename")) {
        if (!m_file)
            m_fileName = value;
    } else if (PropertyNameIs(name, "folderPath")) {
        if (!m_file)
            m_folderPath = value;
    } else if (PropertyNameIs(name, "maxDaysKept") || PropertyNameIs(name, "maxNumFiles") ||
               PropertyNameIs(name, "minAgeInHours")) {
        if (isNumber) {
            auto& field = PropertyNameIs(name, "maxDaysKept")   ? m_maxDaysKept
                          : PropertyNameIs(name, "maxNumFiles") ? m_maxNumFiles
                                                                : m_minAgeInHours;
            field.store(number);
            m_deleteEvent.Set(); // a running scan starts afresh with the new limits
        }
    } else if (PropertyNameIs(name, "maxFileSizeMB")) {
        if (isNumber)
            m_maxFileSizeMB.store(number <= 1024 || number == kUnsetFileSize ? number : 1024);
    } else if (PropertyNameIs(name, "maxRollingFiles")) {
        if (isNumber)
            m_maxRollingFiles.store(std::min<uint32_t>(number, 1000));
    } else if (PropertyNameIs(name, "diskThresholdLowMB")) {
        if (isNumber) {
            if (number < m_diskThresholdLowMB.load())
                m_recheckDisk.store(true);
            m_diskThresholdLowMB.store(number);
        }
    } else if (PropertyNameIs(name, "diskThresholdHighMB")) {
        if (isNumber)
            m_diskThresholdHighMB.store(number);
    } else {
        return false;
    }
    return true;
}

bool FileWriter::GetProperty(const std::string& name, std::string& value)
{
    LxMutexLock guard(LoggingLock());
    if (PropertyNameIs(name, "filename"))
        value = m_fileName;
    else if (PropertyNameIs(name, "folderPath"))
        value = m_folderPath;
    else if (PropertyNameIs(name, "maxDaysKept"))
        value = std::to_string(m_maxDaysKept.load());
    else if (PropertyNameIs(name, "maxNumFiles"))
        value = std::to_string(m_maxNumFiles.load());
    else if (PropertyNameIs(name, "minAgeInHours"))
        value = std::to_string(m_minAgeInHours.load());
    else if (PropertyNameIs(name, "maxFileSizeMB"))
        value = std::to_string(m_maxFileSizeMB.load());
    else if (PropertyNameIs(name, "maxRollingFiles"))
        value = std::to_string(m_maxRollingFiles.load());
    else if (PropertyNameIs(name, "diskThresholdLowMB"))
        value = std::to_string(m_diskThresholdLowMB.load());
    else if (PropertyNameIs(name, "diskThresholdHighMB"))
        value = std::to_string(m_diskThresholdHighMB.load());
    else
        return false;
    return true;
}

std::string FileWriter::BuildFileName(int32_t index) const
{
    Logger* logger = GetLogger();
    std::string base = m_fileName;
    if (base.empty() && logger)
        base = logger->GetAppName();
    if (base.empty())
        base = "default";
    std::string name = std::string(kProduct) + '-' + base;
    if (index == 0)
        return name + "*";
    char part[64];
    snprintf(part, sizeof part, "%c%d%c%d", '-',
             static_cast<int>(ProcessUtils::GetSessionID(false, ProcessUtils::kNoSession)), '-',
             static_cast<int>(GetProcessId()));
    name += part;
    if (index < 0)
        return name;
    const uint32_t rolling = m_maxRollingFiles.load();
    if (index > 1 || rolling == 0 || (logger && logger->GetLevel() >= LOG_LEVEL_DEBUG)) {
        snprintf(part, sizeof part, "(%0*d)", rolling != 0 ? 1 : 4, index);
        name += part;
    }
    char stamp[64];
    FormatLogTimeStamp(stamp, sizeof stamp, false);
    std::string minute(stamp, strnlen(stamp, 16));
    std::replace(minute.begin(), minute.end(), ' ', '-');
    const size_t colon = minute.find(':');
    if (colon != std::string::npos)
        minute[colon] = '-';
    return name + "__" + minute + ".log";
}

bool FileWriter::DetermineDefaultFolder(std::string& folder)
{
    // A system service writes below /var/log; anybody else in a private
    // folder beside the temporary directory.
    if (ProcessUtils::GetSessionID(false, ProcessUtils::kNoSession) == 0 && ProcessUtils::IsServiceAccount()) {
        folder = "/var/log/Corvanta/Veltrane/logs/";
        struct stat st {};
        return stat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    }
    const char* tmp = getenv("TMPDIR");
    std::string base = tmp && *tmp ? tmp : "/tmp";
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    const char* user = getenv("USER");
    folder = base + "/corvanta-" + (user && *user ? user : "default") + "/";
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
        return false;
    return true;
}

bool FileWriter::Open()
{
    LxMutexLock guard(LoggingLock());
    if (m_folderPath.empty() && !DetermineDefaultFolder(m_folderPath)) {
        m_folderPath.clear();
        return false;
    }
    ++m_fileIndex;
    m_currentFileName = BuildFileName(static_cast<int32_t>(m_fileIndex));
    const std::string prefix = JoinPath(m_folderPath, BuildFileName(-1));
    if (prefix != m_processPrefix)
        m_processPrefix = prefix;
    m_filePath = JoinPath(m_folderPath, m_currentFileName);

    struct stat st {};
    const bool existed = stat(m_filePath.c_str(), &st) == 0;
    if (!existed) {
        // Created with the default (umask) permissions, then opened for appending.
        const int fd = open(m_filePath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd < 0)
            return false;
        close(fd);
    }
    m_file = fopen(m_filePath.c_str(), "ae");
    if (!m_file)
        return false;
    // Marks the file as held by a live process for other processes' scans.
    flock(fileno(m_file), LOCK_EX | LOCK_NB);
    if (m_fileIndex > 1)
        m_rolledFiles.push_back(m_filePath);
    if (existed) {
        fputs("\n", m_file);
        fputs(kBorder, m_file);
        fputs(kNewSession, m_file);
        fputs(kBorder, m_file);
        fputs("\n", m_file);
    }
    if (!m_deleteJob->GetPollThread()) {
        if (RCPtr<LxPollThread> thread = LoggerManager::GetInstance()->GetPollThread())
            thread->AddItem(RCPtr<LxPollItem>(m_deleteJob));
    }
    return true;
}

bool FileWriter::Close()
{
    if (IsStopping()) {
        if (RCPtr<LxPollThread> thread = m_deleteJob->GetPollThread())
            thread->RemoveItem(RCPtr<LxPollItem>(m_deleteJob), true);
    }
    if (m_file) {
        fflush(m_file);
        fclose(m_file);
        m_file = nullptr;
    }
    return true;
}

} // namespace tolv::log
