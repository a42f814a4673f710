#pragma once
// One formatted log line (or several, when the cache's own report rides in
// front), shared by every writer of one log call through its count. Messages
// live in the blocks of the message cache and go back to their block's free
// list when the last reference goes; they are never deleted on their own.
//
// A message is filled by one thread under the logging lock and only read once
// it is queued, so it has no lock of its own.

#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <cstdarg>
#include <cstdint>

namespace tolv::log {

class LogMessageBlock;

class LogMessage final : public RCObject {
public:
    static constexpr int32_t kInlineSize = 256;

    LogMessage() = default;
    ~LogMessage() override;
    LogMessage(const LogMessage&) = delete;
    LogMessage& operator=(const LogMessage&) = delete;

    // `length` -1: up to the NUL. With `ensureNewline` the text ends in a line
    // feed afterwards. Text that cannot be stored for want of memory is cut.
    void Append(const char* text, int32_t length = -1, bool ensureNewline = false);
    void AppendFormat(const char* format, va_list args, bool ensureNewline);
    void AppendFormatted(bool ensureNewline, const char* format, ...) __attribute__((format(printf, 3, 4)));

    // Room for `extra` more characters and the NUL; false when it cannot be had.
    bool Reserve(int32_t extra);
    // The write position and the characters that fit there (NUL excluded).
    char* GetTail(int32_t& space);
    // Advances the length after a writer wrote `count` characters at the tail.
    void Commit(int32_t count);

    const char* GetText() const { return m_heapText ? m_heapText : m_inlineText; }
    char* GetMutableText() { return m_heapText ? m_heapText : m_inlineText; }
    int32_t GetLength() const { return m_length; }
    int32_t GetLevel() const { return m_level; }
    void SetLevel(int32_t level) { m_level = level; }
    bool IsOnHeap() const { return m_heapText != nullptr; }
    void Clear();

protected:
    // Back to the free list of the block; a message without a block (made
    // outside the cache) is deleted.
    bool OnFinalRelease() override;

private:
    friend class LogMessageBlock;
    friend class LogMessageCache;

    int32_t Capacity() const { return m_heapText ? m_heapCapacity : kInlineSize; }
    bool Grow(int32_t needed);

    char m_inlineText[kInlineSize] = {};
    int32_t m_length = 0;
    int32_t m_level = 0;
    char* m_heapText = nullptr;
    int32_t m_heapCapacity = 0;
    RCPtr<LogMessageBlock> m_block; // set while the message is in use
    LogMessage* m_nextFree = nullptr; // guarded by the cache lock
};

} // namespace tolv::log
