#include "log/LogMessage.h"

#include "log/LogMessageBlock.h"
#include "log/LogMessageCache.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace tolv::log {

LogMessage::~LogMessage()
{
    free(m_heapText);
}

void LogMessage::Clear()
{
    free(m_heapText);
    m_heapText = nullptr;
    m_heapCapacity = 0;
    m_length = 0;
    m_inlineText[0] = '\0';
}

bool LogMessage::Grow(int32_t needed)
{
    // The first growth takes exactly what is needed; a message that keeps
    // growing gets some room ahead.
    const int32_t capacity = m_heapText ? needed + 256 : needed;
    char* grown = static_cast<char*>(realloc(m_heapText, static_cast<size_t>(capacity)));
    if (!grown)
        return false;
    if (!m_heapText)
        memcpy(grown, m_inlineText, static_cast<size_t>(m_length) + 1);
    m_heapText = grown;
    m_heapCapacity = capacity;
    return true;
}

bool LogMessage::Reserve(int32_t extra)
{
    if (extra < 0)
        return true;
    const int64_t needed = static_cast<int64_t>(m_length) + extra + 1;
    if (needed <= Capacity())
        return true;
    if (needed > INT32_MAX - 512)
        return false;
    return Grow(static_cast<int32_t>(needed));
}

char* LogMessage::GetTail(int32_t& space)
{
    space = Capacity() - m_length - 1;
    return GetMutableText() + m_length;
}

void LogMessage::Commit(int32_t count)
{
    int32_t space = 0;
    GetTail(space);
    if (count > space)
        count = space;
    if (count > 0)
        m_length += count;
    GetMutableText()[m_length] = '\0';
}

void LogMessage::Append(const char* text, int32_t length, bool ensureNewline)
{
    if (text) {
        if (length < 0)
            length = static_cast<int32_t>(strnlen(text, INT32_MAX - 1024));
        if (!Reserve(length)) {
            int32_t space = 0;
            GetTail(space);
            length = space; // cut to what fits
        }
        int32_t space = 0;
        char* tail = GetTail(space);
        memcpy(tail, text, static_cast<size_t>(length));
        Commit(length);
    }
    if (ensureNewline && (m_length == 0 || GetText()[m_length - 1] != '\n')) {
        if (!Reserve(1) && m_length > 0)
            --m_length; // no room at all: the line feed replaces the last character
        int32_t space = 0;
        GetTail(space)[0] = '\n';
        Commit(1);
    }
}

void LogMessage::AppendFormat(const char* format, va_list args, bool ensureNewline)
{
    int32_t space = 0;
    char* tail = GetTail(space);
    va_list copy;
    va_copy(copy, args);
    const int needed = vsnprintf(tail, static_cast<size_t>(space) + 1, format, copy);
    va_end(copy);
    if (needed < 0) {
        GetMutableText()[m_length] = '\0';
    } else if (needed <= space) {
        Commit(needed);
    } else if (Reserve(needed)) {
        tail = GetTail(space);
        va_copy(copy, args);
        vsnprintf(tail, static_cast<size_t>(space) + 1, format, copy);
        va_end(copy);
        Commit(needed);
    } else {
        Commit(space); // cut: vsnprintf filled what there was
    }
    if (ensureNewline)
        Append(nullptr, 0, true);
}

void LogMessage::AppendFormatted(bool ensureNewline, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    AppendFormat(format, args, ensureNewline);
    va_end(args);
}

bool LogMessage::OnFinalRelease()
{
    Clear();
    if (!m_block)
        return false;
    // The block reference goes last: dropping it may end the block, and this
    // message with it.
    RCPtr<LogMessageBlock> block = std::move(m_block);
    block->GetCache().Recycle(*block, this);
    return true;
}

} // namespace tolv::log
