#include "log/LogWriter.h"

#include <tolv/log/LogLevel.h>
#include "log/LogMessageManager.h"
#include <tolv/log/LogSink.h>
#include "log/Logger.h"
#include "log/LoggerManager.h"
#include "log/LoggingLock.h"
#include "log/PollLogWriter.h"
#include "support/LxMutexLock.h"
#include "support/LxPollThread.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <limits>

namespace tolv::log {

namespace {
constexpr char kSeparator[] = "---------------------------------------\n";
constexpr char kBatchBanner[] = "\n***** BATCH MODE ENABLED *****\n\n";
constexpr char kDefaultFooter[] = "*** LOG FILE COMPLETE ***";
constexpr uint32_t kNoLimit = std::numeric_limits<uint32_t>::max();

RCPtr<LogMessage> MakeMessage(Logger* logger, int32_t level)
{
    RCPtr<LogMessageManager> manager = logger ? logger->GetMessageManager() : RCPtr<LogMessageManager>();
    if (!manager)
        manager = LoggerManager::GetInstance()->GetMessageManager();
    RCPtr<LogMessage> message = manager ? manager->NewMessage(level) : MakeRC<LogMessage>();
    message->SetLevel(level);
    return message;
}
} // namespace

LogWriter::LogWriter(int32_t type)
    : m_type(type), m_pollItem(MakeRC<PollLogWriter>(*this)), m_processId(static_cast<uint32_t>(getpid()))
{
    m_batchTimer.Elapsed(LxTimer::OpResetAndPause);
}

LogWriter::~LogWriter()
{
    // A writer that was never shut down still leaves the poll thread before
    // its item points at nothing.
    if (RCPtr<LxPollThread> thread = m_pollItem->GetPollThread())
        thread->RemoveItem(RCPtr<LxPollItem>(m_pollItem), true);
}

bool LogWriter::IsFiltered(const RCPtr<LogMessage>& /*message*/)
{
    return false;
}

bool LogWriter::SetProperty(const std::string& /*name*/, const std::string& /*value*/)
{
    return false;
}

bool LogWriter::GetProperty(const std::string& /*name*/, std::string& /*value*/)
{
    return false;
}

void LogWriter::BeforeWrite() {}

void LogWriter::AfterWrite() {}

bool LogWriter::UsesLocalTime() const
{
    Logger* logger = GetLogger();
    return logger ? logger->UsesLocalTime() : true;
}

int32_t LogWriter::FormatPrefix(char* buffer, size_t size, const char* functionName, int32_t level)
{
    if (size == 0)
        return 0;
    LxMutexLock guard(LoggingLock());
    auto clamp = [&](int n) -> int32_t {
        if (n < 0) {
            buffer[0] = '\0';
            return 0;
        }
        return static_cast<size_t>(n) < size ? n : static_cast<int32_t>(size - 1);
    };
    if (!functionName || !*functionName)
        return clamp(snprintf(buffer, size, "%*s", m_lastPrefixLength, ""));

    const uint32_t threadId = LogThreadId();
    const char* separator = "";
    if (threadId != m_lastThreadId) {
        if (m_lastThreadId != 0)
            separator = kSeparator;
        m_lastThreadId = threadId;
    }
    char stamp[64];
    FormatLogTimeStamp(stamp, sizeof stamp, !UsesLocalTime());
    const int32_t written = clamp(snprintf(buffer, size, "%s%s <%04X> [%04X] %c %s: ", separator, stamp, threadId,
                                           m_processId, LogLevelLetter(level), functionName));
    // Continuation lines align under the text, not under the separator.
    const int32_t separatorLength = static_cast<int32_t>(strlen(separator));
    m_lastPrefixLength = written > separatorLength ? written - separatorLength : 0;
    return written;
}

RCPtr<PollLogWriter> LogWriter::GetPollItem() const
{
    return m_pollItem;
}

void LogWriter::SetHeader(const std::string& header)
{
    LxMutexLock guard(LoggingLock());
    m_header = header;
}

void LogWriter::SetFooter(const std::string& footer)
{
    LxMutexLock guard(LoggingLock());
    m_footer = footer;
}

bool LogWriter::WriteDirect(const char* functionName, int32_t level, const char* text)
{
    RCPtr<LogMessage> message = MakeMessage(GetLogger(), level);
    if (functionName) {
        message->Reserve(static_cast<int32_t>(strlen(functionName)) + 160);
        int32_t space = 0;
        char* tail = message->GetTail(space);
        message->Commit(FormatPrefix(tail, static_cast<size_t>(space) + 1, functionName, level));
    }
    message->Append(text, -1, functionName != nullptr);
    return WriteMessage(message);
}

bool LogWriter::Write(const RCPtr<LogMessage>& message)
{
    LxMutexLock guard(LoggingLock());
    Queue& fill = m_queues[m_fillIndex];
    if (!m_enabled) {
        ++fill.dropped;
        return false;
    }
    if (!m_bufferingEnabled) {
        BeforeWrite();
        WriteMessage(message);
        AfterWrite();
        return true;
    }
    if (m_stopping.load() || IsFiltered(message)) {
        ++fill.dropped;
        return false;
    }
    fill.messages.push_back(message);
    if (!m_batchMode && (!m_batchTimer.IsPaused() || fill.messages.size() >= m_batchThreshold))
        EnterBatchMode(message);
    if (m_batchMode) {
        // Never beside a poll drain: the device sees one writer at a time, and
        // the older queue goes first.
        if (m_pollItem->IsRunning())
            return true;
        if (fill.messages.size() % 100 == 0) {
            DrainQueue(m_fillIndex, 200);
            m_batchTimer.Restart();
        } else if (m_batchTimer.ElapsedMs() >= m_batchIntervalMs) {
            DrainQueue(m_fillIndex, 100);
            m_batchTimer.Restart();
        }
    }
    return true;
}

void LogWriter::EnterBatchMode(const RCPtr<LogMessage>& current)
{
    m_batchTimer.Restart();
    m_pollItem->Disable(false);
    if (m_pollItem->IsRunning()) {
        // A drain is writing the device: the banner goes in line instead, ahead
        // of the message that tipped the queue.
        RCPtr<LogMessage> banner = MakeMessage(GetLogger(), LOG_LEVEL_ALWAYS);
        banner->Append(kBatchBanner);
        auto& messages = m_queues[m_fillIndex].messages;
        if (!messages.empty() && messages.back() == current)
            messages.insert(messages.end() - 1, banner);
        else
            messages.push_back(banner);
    } else {
        WriteDirect(nullptr, LOG_LEVEL_ALWAYS, kBatchBanner);
    }
    m_batchMode = true;
}

void LogWriter::DrainQueue(int index, uint32_t limit)
{
    Queue& queue = m_queues[index];
    if (queue.messages.empty() || limit == 0)
        return;
    BeforeWrite();
    uint32_t written = 0;
    while (!queue.messages.empty() && written < limit) {
        RCPtr<LogMessage> message = std::move(queue.messages.front());
        queue.messages.pop_front();
        if (!WriteMessage(message))
            ++queue.dropped;
        ++written;
    }
    if (queue.dropped > 0) {
        const uint32_t dropped = queue.dropped;
        queue.dropped = 0;
        RCPtr<LogMessage> report = MakeMessage(GetLogger(), LOG_LEVEL_INFO);
        report->AppendFormatted(false, "\n%s Dropped %d messages %s\n\n", "*******", static_cast<int>(dropped),
                                "*******");
        WriteMessage(report);
    }
    AfterWrite();
}

void LogWriter::PollDrain()
{
    m_pollItem->SetRunning(true);
    int index = 0;
    {
        LxMutexLock guard(LoggingLock());
        if (!m_enabled || !m_bufferingEnabled || m_batchMode) {
            m_pollItem->SetRunning(false);
            return;
        }
        std::swap(m_fillIndex, m_drainIndex);
        index = m_drainIndex;
    }
    DrainQueue(index, kNoLimit);
    m_pollItem->SetRunning(false);
}

void LogWriter::DrainBothQueues()
{
    // Older messages first: the drain queue, then the fill queue.
    DrainQueue(m_drainIndex, kNoLimit);
    DrainQueue(m_fillIndex, kNoLimit);
}

bool LogWriter::Start()
{
    LxMutexLock guard(LoggingLock());
    if (m_active.load())
        return true;
    if (!Open())
        return false;
    if (!m_pollItem->GetPollThread()) {
        if (RCPtr<LxPollThread> thread = LoggerManager::GetInstance()->GetPollThread())
            thread->AddItem(RCPtr<LxPollItem>(m_pollItem));
    }
    m_active.store(true);
    if (m_headerPending && !m_header.empty())
        WriteDirect("Logger Header", LOG_LEVEL_ALWAYS, m_header.c_str());
    m_headerPending = false;
    return true;
}

bool LogWriter::Shutdown()
{
    {
        LxMutexLock guard(LoggingLock());
        m_stopping.store(true);
    }
    if (RCPtr<LxPollThread> thread = m_pollItem->GetPollThread())
        thread->RemoveItem(RCPtr<LxPollItem>(m_pollItem), true);
    if (!m_active.load())
        return true;
    for (int round = 0; round < 2; ++round) {
        int index = 0;
        {
            LxMutexLock guard(LoggingLock());
            index = m_drainIndex;
        }
        DrainQueue(index, kNoLimit);
        LxMutexLock guard(LoggingLock());
        std::swap(m_fillIndex, m_drainIndex);
    }
    std::string footer;
    {
        LxMutexLock guard(LoggingLock());
        footer = m_footer.empty() ? kDefaultFooter : m_footer;
    }
    WriteDirect("Logger Shutdown", LOG_LEVEL_ALWAYS, footer.c_str());
    m_active.store(false);
    return Close();
}

void LogWriter::SetBufferingEnabled(bool enabled)
{
    Switch(m_wantBuffering, enabled);
}

void LogWriter::SetEnabled(bool enabled)
{
    Switch(m_wantEnabled, enabled);
}

void LogWriter::Switch(bool& want, bool value)
{
    LxMutexLock guard(LoggingLock());
    want = value;
    // A switch in progress has given the lock up while it waits; it applies
    // this request too before it ends.
    if (m_switching)
        return;
    m_switching = true;
    for (;;) {
        std::atomic<bool>* flag = nullptr;
        bool target = false;
        if (m_enabled.load() != m_wantEnabled) {
            flag = &m_enabled;
            target = m_wantEnabled;
        } else if (m_bufferingEnabled.load() != m_wantBuffering) {
            flag = &m_bufferingEnabled;
            target = m_wantBuffering;
        } else {
            break;
        }
        if (flag->load()) {
            // No new drain starts; one in progress finishes first, so what is
            // queued behind it is written after it, in order.
            m_pollItem->Disable(false);
            WaitForPollDrain();
            DrainBothQueues();
        }
        flag->store(target);
        if (target) {
            DrainBothQueues();
            m_pollItem->Enable();
        }
    }
    m_switching = false;
}

void LogWriter::WaitForPollDrain()
{
    if (!m_pollItem->IsRunning())
        return;  // a run that has not reached the queues yet finds the switch and stops
    RCPtr<LxPollThread> thread = m_pollItem->GetPollThread();
    if (!thread)
        return;
    // The drain, and whatever it logs, needs the logging lock: every level of
    // this thread's hold is given up for the wait and taken back after.
    LxMutex& lock = LoggingLock();
    int depth = 0;
    while (lock.Release())
        ++depth;
    thread->WaitForItemToComplete(m_pollItem.get());
    while (depth-- > 0)
        lock.Acquire(LxMutex::kInfinite);
}

} // namespace tolv::log
