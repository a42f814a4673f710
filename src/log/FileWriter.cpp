#include "log/FileWriter.h"

#include <tolv/log/Log.h>
#include <tolv/log/LogLevel.h>
#include <tolv/log/LogSink.h>
#include "log/LogSystemInfo.h"
#include "support/ProcessUtils.h"
#include "log/Logger.h"
#include "log/LoggerManager.h"
#include "log/LoggingLock.h"
#include "log/WriterProperty.h"
#include "support/DurationText.h"
#include "support/LxMutexLock.h"
#include "support/LxPollThread.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kProduct = "veltrane";
constexpr uint64_t kMB = 1048576;
constexpr int64_t kMaxSaneAge = 864000000;
constexpr const char* kStars = "*******";
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

// A file that a live writer holds: it cannot be opened for appending, or its
// holder's exclusive lock is in place.
bool IsActiveFile(const std::string& path)
{
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0)
        return errno != ENOENT;
    const bool locked = flock(fd, LOCK_EX | LOCK_NB) != 0;
    close(fd);
    return locked;
}

std::string JoinPath(const std::string& folder, const std::string& name)
{
    if (folder.empty() || folder.back() == '/')
        return folder + name;
    return folder + "/" + name;
}

const char* Plural(int64_t count)
{
    return count == 1 ? "" : "s";
}

} // namespace

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

FileWriter::DirectoryIterator::DirectoryIterator(std::string folder, std::string pattern)
    : m_folder(std::move(folder)), m_pattern(std::move(pattern)), m_dir(opendir(m_folder.c_str()))
{
}

FileWriter::DirectoryIterator::~DirectoryIterator()
{
    if (m_dir)
        closedir(m_dir);
}

bool FileWriter::DirectoryIterator::Next(std::string& path, std::string& name, time_t& lastWrite)
{
    if (!m_dir)
        return false;
    while (dirent* entry = readdir(m_dir)) {
        if (fnmatch(m_pattern.c_str(), entry->d_name, FNM_CASEFOLD) != 0)
            continue;
        std::string full = JoinPath(m_folder, entry->d_name);
        struct stat st {};
        if (stat(full.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            continue;
        path = std::move(full);
        name = entry->d_name;
        lastWrite = st.st_mtime;
        return true;
    }
    return false;
}

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
    const bool isNumber = platform::ParseUnsigned32(value, number);
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

void FileWriter::RedactText(char* text, size_t length)
{
    static constexpr char kName[] = "pelloran";
    constexpr size_t kNameLength = sizeof kName - 1;
    size_t i = 0;
    while (i + 3 <= length) {
        if (strncasecmp(text + i, kName, 3) != 0) {
            ++i;
            continue;
        }
        text[i + 1] = '*';
        text[i + 2] = '*';
        size_t end = i + 3;
        if (i + kNameLength <= length && strncasecmp(text + i + 3, kName + 3, kNameLength - 3) == 0) {
            memset(text + i + 3, '*', kNameLength - 3);
            end = i + kNameLength;
        }
        i = end;
    }
}

bool FileWriter::IsFiltered(const RCPtr<LogMessage>& message)
{
    // While the disk is low only ALWAYS and ERROR lines reach the file.
    return m_suspended.load() && message->GetLevel() > LOG_LEVEL_ERROR;
}

bool FileWriter::WriteMessage(const RCPtr<LogMessage>& message)
{
    if (!IsActive() || !m_file)
        return false;
    if (IsFiltered(message))
        return false;
    Logger* logger = GetLogger();
    if (logger && logger->IsRedactEnabled())
        RedactText(message->GetMutableText(), static_cast<size_t>(message->GetLength()));
    const size_t length = static_cast<size_t>(message->GetLength());
    return fwrite(message->GetText(), 1, length, m_file) == length;
}

uint64_t FileWriter::SizeLimitBytes() const
{
    const uint32_t configured = m_maxFileSizeMB.load();
    if (configured != kUnsetFileSize)
        return configured * kMB;
    Logger* logger = GetLogger();
    switch (logger ? logger->GetLevel() : LOG_LEVEL_INFO) {
    case LOG_LEVEL_DEBUG:
        return 50 * kMB;
    case LOG_LEVEL_TRACE:
        return 75 * kMB;
    case LOG_LEVEL_VERBOSE:
        return 99 * kMB;
    default:
        return 15 * kMB;
    }
}

void FileWriter::AfterWrite()
{
    if (!m_file)
        return;
    const uint64_t limit = SizeLimitBytes();
    const off_t size = ftello(m_file);
    if (limit != 0 && size >= 0 && static_cast<uint64_t>(size) >= limit)
        RollLogFile();
    else
        fflush(m_file);
    CheckDiskSpace();
}

void FileWriter::RollLogFile()
{
    Close();
    if (!Open() || m_maxRollingFiles.load() == 0)
        return;
    while (m_rolledFiles.size() > m_maxRollingFiles.load()) {
        const std::string oldest = m_rolledFiles.front();
        m_rolledFiles.pop_front();
        if (unlink(oldest.c_str()) == 0)
            LOG_INFO("FileWriter::RollLogFile()", "Deleted \"%s\"", oldest.c_str());
        else if (CurrentLogLevel >= LOG_LEVEL_WARN)
            LogWithErrorCode(errno, "FileWriter::RollLogFile()", LOG_LEVEL_WARN, "Failed to delete \"%s\"",
                             oldest.c_str());
    }
}

void FileWriter::WriteBannerLine(const std::string& text)
{
    if (!m_file)
        return;
    char prefix[256];
    const int32_t length = FormatPrefix(prefix, sizeof prefix, "*", LOG_LEVEL_ALWAYS);
    // The ordinary prefix without its level letter and function name.
    const int32_t kept = length >= 5 ? length - 5 : 0;
    std::string line(prefix, static_cast<size_t>(kept));
    line += text;
    fwrite(line.data(), 1, line.size(), m_file);
    fflush(m_file);
}

void FileWriter::CheckDiskSpace()
{
    uint64_t freeBytes = 0;
    FreeSpaceQuery query;
    {
        LxMutexLock guard(LoggingLock());
        query = m_freeSpaceQuery;
    }
    if (!query(m_folderPath, freeBytes))
        return;
    const uint64_t low = static_cast<uint64_t>(m_diskThresholdLowMB.load()) * kMB;
    const uint64_t high = static_cast<uint64_t>(m_diskThresholdHighMB.load()) * kMB;
    const bool recheck = m_recheckDisk.exchange(false);
    const std::string freeText = SizeText(static_cast<int64_t>(freeBytes), 1);
    char text[512];
    if (m_suspended.load()) {
        const bool resume = freeBytes >= std::max(low + 50 * kMB, high) || (recheck && freeBytes >= low);
        if (!resume)
            return;
        m_suspended.store(false);
        snprintf(text, sizeof text, "%s Free disk space is %s - Logging resumed after %s %s\n\n", kStars,
                 freeText.c_str(), DurationText(m_suspendTimer.ElapsedSeconds(), 3).c_str(), kStars);
        WriteBannerLine(text);
    } else if (freeBytes <= low) {
        m_suspended.store(true);
        m_suspendTimer.Restart();
        fputs("\n", m_file);
        snprintf(text, sizeof text, "%s Free disk space is %s - Logging suspended %s\n", kStars, freeText.c_str(),
                 kStars);
        WriteBannerLine(text);
    }
}

int32_t FileWriter::RunRetention(bool signalled)
{
    if (signalled && m_scanStarted)
        ScanLogFilesDone(true);
    for (;;) {
        bool atBound = false;
        switch (m_scanStep) {
        case 0:
            atBound = FindLogFiles();
            break;
        case 1:
            atBound = DeleteOldLogFiles();
            break;
        case 2:
            atBound = DeleteMaxLogFiles();
            break;
        default:
            ScanLogFilesDone(false);
            return kRetentionIntervalMs;
        }
        if (atBound)
            return kRetentionYieldMs;
        ++m_scanStep;
    }
}

bool FileWriter::FindLogFiles()
{
    const char* function = "FileWriter::FindLogFiles()";
    std::string folder;
    std::string prefix;
    {
        LxMutexLock guard(LoggingLock());
        folder = m_folderPath;
        prefix = m_processPrefix;
    }
    if (!m_scanStarted) {
        m_scanStarted = true;
        // The precise clock: time() reads a coarse one that can lag the
        // last-write times the file system has just stored.
        struct timespec now {};
        clock_gettime(CLOCK_REALTIME, &now);
        m_scanStart = now.tv_sec;
        const std::string pattern = BuildFileName(0);
        m_iterator = MakeRC<DirectoryIterator>(folder, pattern);
        LOG_INFO(function, "Scanning \"%s\"", JoinPath(folder, pattern).c_str());
        if (!m_iterator->IsValid()) {
            LOG_ERROR(function, "Failed to start iteration");
            m_iterator.reset();
            return false;
        }
    }
    if (!m_iterator)
        return false;
    for (int handled = 0; handled < kRetentionBatch; ++handled) {
        std::string path;
        std::string name;
        time_t lastWrite = 0;
        if (!m_iterator->Next(path, name, lastWrite)) {
            m_iterator.reset();
            LOG_INFO(function, "Scan complete; %zd file%s found", static_cast<ssize_t>(m_foundFiles.size()),
                     Plural(static_cast<int64_t>(m_foundFiles.size())));
            return false;
        }
        int64_t age = static_cast<int64_t>(m_scanStart - lastWrite);
        if (age < 0 || age > kMaxSaneAge)
            age = 0;
        const std::string ageText = DurationText(static_cast<double>(age), 0);
        // A file a live writer holds (this process's current file included)
        // is an active session before it is anything else.
        if (IsActiveFile(path)) {
            LOG_AT(LOG_LEVEL_VERBOSE, function, "Skipping active log file \"%s\" (age %s)", path.c_str(),
                   ageText.c_str());
            ++m_activeFiles;
        } else if (path.size() >= prefix.size() && strncasecmp(path.c_str(), prefix.c_str(), prefix.size()) == 0) {
            LOG_AT(LOG_LEVEL_VERBOSE, function, "Skipping current process \"%s\" (age %s)", path.c_str(),
                   ageText.c_str());
            ++m_ownFiles;
        } else {
            LOG_AT(LOG_LEVEL_VERBOSE, function, "Found \"%s\" (age %s)", path.c_str(), ageText.c_str());
            m_foundFiles.insert(MakeRC<FileInfo>(path, name, age, lastWrite));
            ++m_filesFound;
        }
    }
    return true;
}

void FileWriter::DeleteFoundFile(const RCPtr<FileInfo>& file)
{
    const char* function = "FileWriter::DeleteFoundFile()";
    const std::string ageText = DurationText(static_cast<double>(file->ageSeconds), 0);
    m_foundFiles.erase(file);
    if (IsActiveFile(file->path)) {
        // Taken up again by a live process since the scan found it.
        LOG_AT(LOG_LEVEL_VERBOSE, function, "Skipping active log file \"%s\" (age %s)", file->path.c_str(),
               ageText.c_str());
    } else if (unlink(file->path.c_str()) == 0) {
        ++m_filesDeleted;
        LOG_INFO(function, "Deleted \"%s\" (age %s)", file->path.c_str(), ageText.c_str());
    } else if (CurrentLogLevel >= LOG_LEVEL_WARN) {
        LogWithErrorCode(errno, function, LOG_LEVEL_WARN, "Failed to delete \"%s\" (age %s)", file->path.c_str(),
                         ageText.c_str());
    }
}

bool FileWriter::DeleteOldLogFiles()
{
    const char* function = "FileWriter::DeleteOldLogFiles()";
    const uint32_t days = m_maxDaysKept.load();
    if (days == 0) {
        LOG_INFO(function, "Deleting old log files disabled");
        return false;
    }
    const int64_t limit =
        std::max<int64_t>(static_cast<int64_t>(m_minAgeInHours.load()) * 3600, static_cast<int64_t>(days) * 86400);
    if (m_announceOld) {
        m_announceOld = false;
        LOG_INFO(function, "Deleting files older than %s", DurationText(static_cast<double>(limit), 0).c_str());
    }
    for (int handled = 0; handled < kRetentionBatch; ++handled) {
        if (m_foundFiles.empty())
            return false;
        const RCPtr<FileInfo> oldest = *m_foundFiles.begin();
        if (oldest->ageSeconds <= limit) {
            LOG_INFO(function, "Stopping at \"%s\" (age %s)", oldest->path.c_str(),
                     DurationText(static_cast<double>(oldest->ageSeconds), 0).c_str());
            return false;
        }
        DeleteFoundFile(oldest);
    }
    return !m_foundFiles.empty();
}

bool FileWriter::DeleteMaxLogFiles()
{
    const char* function = "FileWriter::DeleteMaxLogFiles()";
    const uint32_t maxFiles = m_maxNumFiles.load();
    if (maxFiles == 0) {
        LOG_INFO(function, "Deleting old log files disabled");
        return false;
    }
    // Each live session of the application may keep its own share.
    const int64_t keep = static_cast<int64_t>(maxFiles) * (m_activeFiles > 1 ? m_activeFiles : 1);
    const int64_t minAge = static_cast<int64_t>(m_minAgeInHours.load()) * 3600;
    if (m_announceMax) {
        m_announceMax = false;
        LOG_INFO(function, "Keeping %d file%s, minimum age %s, %d active session%s", static_cast<int>(keep),
                 Plural(keep), DurationText(static_cast<double>(minAge), 0).c_str(), m_activeFiles,
                 Plural(m_activeFiles));
    }
    for (int handled = 0; handled < kRetentionBatch; ++handled) {
        if (static_cast<int64_t>(m_foundFiles.size()) <= keep)
            return false;
        const RCPtr<FileInfo> oldest = *m_foundFiles.begin();
        if (oldest->ageSeconds <= minAge) {
            LOG_INFO(function, "Stopping at \"%s\" (age %s)", oldest->path.c_str(),
                     DurationText(static_cast<double>(oldest->ageSeconds), 0).c_str());
            return false;
        }
        DeleteFoundFile(oldest);
    }
    return static_cast<int64_t>(m_foundFiles.size()) > keep;
}

void FileWriter::ScanLogFilesDone(bool interrupted)
{
    const char* function = "FileWriter::ScanLogFilesDone()";
    const char* how = interrupted ? "interrupted" : "complete";
    const std::string next = DurationText(kRetentionIntervalMs / 1000.0, 0);
    if (m_filesFound == 0) {
        LOG_INFO(function, "Scan %s; no log files found, next scan in %s", how, next.c_str());
    } else {
        const int remain = static_cast<int>(m_foundFiles.size());
        LOG_INFO(function, "Scan %s; %d file%s deleted, %d file%s remain%s, next scan in %s", how, m_filesDeleted,
                 Plural(m_filesDeleted), remain, Plural(remain), remain == 1 ? "s" : "", next.c_str());
    }
    m_scanStep = 0;
    m_scanStarted = false;
    m_announceOld = true;
    m_announceMax = true;
    m_filesFound = m_filesDeleted = m_activeFiles = m_ownFiles = 0;
    m_foundFiles.clear();
    m_iterator.reset();
}
