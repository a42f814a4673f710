#pragma once
// The log file writer: appends every queued message to a file named after the
// product, the application, the session and the process; rolls to a new file
// at a size limit and deletes its own older rolled files beyond a count;
// suspends all but ALWAYS and ERROR lines while the disk runs low; and, on the
// logging poll thread, deletes other processes' old files of the same
// application by age and count.
//
// A file is "active" while a live writer holds an exclusive flock on it; the
// retention scan never deletes an active file and counts it as a session.
//
// Threads: properties change under the logging lock; writes, rolls and the
// disk check run on the poll thread's drain (or under the logging lock in
// batch mode); the retention job runs on the poll thread and touches only its
// scan state and other processes' files. Limits read by both are atomic.

#include "log/LogWriter.h"
#include "support/LxElapsedTimer.h"
#include "support/LxEvent.h"
#include "support/LxPollItem.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <dirent.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <set>
#include <string>

namespace tolv::log {

class FileWriter final : public LogWriter {
public:
    static constexpr uint32_t kUnsetFileSize = 0xFFFFFFFF;
    static constexpr int32_t kRetentionIntervalMs = 14400000; // 4 hours
    static constexpr int32_t kRetentionYieldMs = 1000;
    static constexpr int32_t kRetentionBatch = 20;

    // Free bytes of the volume that holds `folder`; false when unreadable.
    using FreeSpaceQuery = std::function<bool(const std::string& folder, uint64_t& freeBytes)>;

    // One file found by the retention scan.
    class FileInfo final : public RCObject {
    public:
        FileInfo(std::string path, std::string name, int64_t ageSeconds, time_t lastWrite)
            : path(std::move(path)), name(std::move(name)), ageSeconds(ageSeconds), lastWrite(lastWrite)
        {
        }
        const std::string path;
        const std::string name;
        const int64_t ageSeconds;
        const time_t lastWrite;
    };

    // Entries of one folder that match a name pattern.
    class DirectoryIterator final : public RCObject {
    public:
        DirectoryIterator(std::string folder, std::string pattern);
        ~DirectoryIterator() override;
        bool IsValid() const { return m_dir != nullptr; }
        // The next matching regular file; false when there is none.
        bool Next(std::string& path, std::string& name, time_t& lastWrite);

    private:
        const std::string m_folder;
        const std::string m_pattern;
        DIR* m_dir = nullptr;
    };

    class PollDeleteLogFiles;

    FileWriter();
    ~FileWriter() override;

    bool SetProperty(const std::string& name, const std::string& value) override;
    bool GetProperty(const std::string& name, std::string& value) override;
    bool Open() override;
    bool WriteMessage(const RCPtr<LogMessage>& message) override;
    bool Close() override;
    bool IsFiltered(const RCPtr<LogMessage>& message) override;
    void AfterWrite() override;

    // "veltrane-<base><suffix>": index 0 the search pattern, -1 this process's
    // prefix, 1 and above a file name.
    std::string BuildFileName(int32_t index) const;
    // The size at which the file rolls; 0 for none.
    uint64_t SizeLimitBytes() const;

    void SetFreeSpaceQuery(FreeSpaceQuery query);
    bool IsSuspended() const { return m_suspended.load(); }
    std::string GetFilePath() const;
    std::string GetFolderPath() const;

    // Masks the former company name in place.
    static void RedactText(char* text, size_t length);

private:
    friend class PollDeleteLogFiles;

    bool DetermineDefaultFolder(std::string& folder);
    void RollLogFile();
    void CheckDiskSpace();
    void WriteBannerLine(const std::string& text);

    // The retention scan, run by the job on the poll thread.
    int32_t RunRetention(bool signalled);
    bool FindLogFiles();
    bool DeleteOldLogFiles();
    bool DeleteMaxLogFiles();
    void ScanLogFilesDone(bool interrupted);
    void DeleteFoundFile(const RCPtr<FileInfo>& file);

    std::string m_fileName;
    std::string m_currentFileName;
    std::string m_folderPath;
    std::string m_filePath;
    std::string m_processPrefix;
    std::atomic<uint32_t> m_maxDaysKept{7};
    std::atomic<uint32_t> m_maxNumFiles{25};
    std::atomic<uint32_t> m_minAgeInHours{2};
    std::atomic<uint32_t> m_maxFileSizeMB{kUnsetFileSize};
    std::atomic<uint32_t> m_maxRollingFiles{4};
    uint32_t m_fileIndex = 0;
    std::list<std::string> m_rolledFiles;
    std::atomic<uint32_t> m_diskThresholdLowMB{200};
    std::atomic<uint32_t> m_diskThresholdHighMB{500};
    std::atomic<bool> m_recheckDisk{false};
    std::atomic<bool> m_suspended{false};
    LxElapsedTimer m_suspendTimer;
    FILE* m_file = nullptr;
    FreeSpaceQuery m_freeSpaceQuery;

    // Retention scan state: poll thread only.
    struct OldestFirst {
        bool operator()(const RCPtr<FileInfo>& a, const RCPtr<FileInfo>& b) const
        {
            return a->lastWrite != b->lastWrite ? a->lastWrite < b->lastWrite : a->path < b->path;
        }
    };
    int32_t m_scanStep = 0;
    bool m_scanStarted = false;
    bool m_announceOld = true;
    bool m_announceMax = true;
    int32_t m_filesFound = 0;
    int32_t m_filesDeleted = 0;
    int32_t m_activeFiles = 0;
    int32_t m_ownFiles = 0;
    time_t m_scanStart = 0;
    std::set<RCPtr<FileInfo>, OldestFirst> m_foundFiles;
    RCPtr<DirectoryIterator> m_iterator;
    LxEvent m_deleteEvent;
    RCPtr<PollDeleteLogFiles> m_deleteJob;
};

} // namespace tolv::log
