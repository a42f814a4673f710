// FileWriter: the retention scan. On the logging poll thread, in batches,
// finds the application's log files of other processes and deletes them by
// age and then by count, never one that a live writer holds.

#include "log/FileWriter.h"

#include <tolv/log/Log.h>
#include <tolv/log/LogLevel.h>
#include "log/FileWriterPath.h"
#include "log/LoggingLock.h"
#include "support/DurationText.h"
#include "support/LxMutexLock.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tolv::log {

namespace {

constexpr int64_t kMaxSaneAge = 864000000;

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

const char* Plural(int64_t count)
{
    return count == 1 ? "" : "s";
}

} // namespace

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

} // namespace tolv::log
