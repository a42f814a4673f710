#pragma once
// The base of every log writer: the line prefix, the two message queues that
// the logging poll thread drains, batch mode, dropped-message reports, and the
// start and shutdown of a writer.
//
// Threads: Write runs on the logging thread under the logging lock and only
// appends to the fill queue. The poll item swaps the queues under the lock and
// drains the other queue without it. In batch mode the logging thread drains
// the fill queue itself under the lock, but never while a poll drain is in
// progress, so the device is written by one thread at a time. Shutdown runs
// without the logging lock.

#include "log/LogMessage.h"
#include "support/LxElapsedTimer.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace tolv::log {

class Logger;
class PollLogWriter;

class LogWriter : public RCObject {
public:
    enum Type : int32_t {
        kDebugWriter = 0,
        kFileWriter = 1,
        kProxyWriter = 2,
        kSocketWriter = 3,
        kStdOutWriter = 4,
        kStdErrWriter = 5,
    };

    static constexpr uint32_t kBatchThreshold = 15000;
    static constexpr uint32_t kBatchIntervalMs = 1000;
    static constexpr int32_t kPollIntervalMs = 1000;

    explicit LogWriter(int32_t type);
    ~LogWriter() override;
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    // True when the message is not to be queued.
    virtual bool IsFiltered(const RCPtr<LogMessage>& message);
    virtual bool SetProperty(const std::string& name, const std::string& value);
    virtual bool GetProperty(const std::string& name, std::string& value);
    virtual bool Open() = 0;
    // Emits one finished message to the device.
    virtual bool WriteMessage(const RCPtr<LogMessage>& message) = 0;
    virtual bool Close() = 0;
    // Around each queue drain and each unbuffered write.
    virtual void BeforeWrite();
    virtual void AfterWrite();
    // The line prefix; returns the characters written (at most size - 1).
    virtual int32_t FormatPrefix(char* buffer, size_t size, const char* functionName, int32_t level);

    // Under the logging lock, from Logger::Log: queue (or write) one message.
    bool Write(const RCPtr<LogMessage>& message);
    // Opens the device, joins the poll thread and writes the header.
    bool Start();
    // Writes out everything queued, the footer, and closes the device. Call
    // it without the logging lock.
    bool Shutdown();

    void SetBufferingEnabled(bool enabled);
    void SetEnabled(bool enabled);
    bool IsBufferingEnabled() const { return m_bufferingEnabled; }
    bool IsEnabled() const { return m_enabled; }
    bool IsActive() const { return m_active.load(); }
    bool IsStopping() const { return m_stopping.load(); }
    bool IsBatchMode() const { return m_batchMode.load(); }

    void SetHeader(const std::string& header);
    void SetFooter(const std::string& footer);
    int32_t GetType() const { return m_type; }
    uint32_t GetProcessId() const { return m_processId; }

    Logger* GetLogger() const { return m_logger.load(); }
    void SetLogger(Logger* logger) { m_logger.store(logger); }

    // The item that drains this writer on the logging poll thread.
    RCPtr<PollLogWriter> GetPollItem() const;

    // The poll item's work: swap the queues and drain the full one.
    void PollDrain();
    // Writes up to `limit` messages of queue `index`, then its dropped report.
    void DrainQueue(int index, uint32_t limit);

protected:
    // A message with a prefix of `functionName` (or none when null) and `text`,
    // written straight to the device.
    bool WriteDirect(const char* functionName, int32_t level, const char* text);
    bool UsesLocalTime() const;

private:
    struct Queue {
        std::deque<RCPtr<LogMessage>> messages;
        uint32_t dropped = 0;
    };

    void EnterBatchMode(const RCPtr<LogMessage>& current);
    // Switching a flag off waits for a poll drain in progress, then writes out
    // what is queued; switching it on writes out what is queued and lets the
    // poll item run again.
    void Switch(bool& want, bool value);
    void WaitForPollDrain();
    void DrainBothQueues();

    const int32_t m_type;
    const uint32_t m_batchThreshold = kBatchThreshold;
    const uint32_t m_batchIntervalMs = kBatchIntervalMs;
    LxElapsedTimer m_batchTimer; // paused: batch mode starts by the threshold
    std::atomic<bool> m_batchMode{false}; // written under the logging lock
    RCPtr<PollLogWriter> m_pollItem;
    Queue m_queues[2];
    int m_fillIndex = 0;  // guarded by the logging lock
    int m_drainIndex = 1; // guarded by the logging lock

    std::string m_header; // guarded by the logging lock
    std::string m_footer; // guarded by the logging lock
    const uint32_t m_processId;
    uint32_t m_lastThreadId = 0;       // guarded by the logging lock
    int32_t m_lastPrefixLength = 0;    // guarded by the logging lock
    bool m_headerPending = true;
    std::atomic<bool> m_bufferingEnabled{false}; // written under the logging lock
    std::atomic<bool> m_active{false};
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_enabled{true};           // written under the logging lock
    std::atomic<Logger*> m_logger{nullptr};
    bool m_wantEnabled = true;      // guarded by the logging lock
    bool m_wantBuffering = false;   // guarded by the logging lock
    bool m_switching = false;       // guarded by the logging lock

protected:
    // Set by writers that buffer from the start (file, socket); before Start.
    void InitBuffering(bool enabled)
    {
        m_bufferingEnabled = enabled;
        m_wantBuffering = enabled;
    }
};

} // namespace tolv::log
