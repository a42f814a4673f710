// FileWriter: writing messages, rolling to a new file at the size limit, and
// suspending and resuming the log while the disk runs low, with the banner
// lines that say so.

#include "log/FileWriter.h"

#include <tolv/log/Log.h>
#include <tolv/log/LogLevel.h>
#include "log/Logger.h"
#include "log/LoggingLock.h"
#include "support/DurationText.h"
#include "support/LxMutexLock.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tolv::log {

namespace {

constexpr uint64_t kMB = 1048576;
constexpr const char* kStars = "*******";

} // namespace

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

} // namespace tolv::log
