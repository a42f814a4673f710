#include "support/LxRegValue.h"

#include <tolv/log/Log.h>
#include "platform/ParseNumber.h"
#include "platform/SysCall.h"
#include <tolv/platform/UniqueFd.h>

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace tolv::log;

namespace {

bool ParseNumber(const std::string& text, uint64_t& value)
{
    if (text.empty() || text.find_first_of(" \t\n") != std::string::npos || text[0] == '-' || text[0] == '+')
        return false;
    errno = 0;
    char* end = nullptr;
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    value = strtoull(text.c_str(), &end, hex ? 16 : 10);
    return errno == 0 && end == text.c_str() + text.size();
}

// The system error behind a key that could not be opened, for its text.
int OpenErrorNumber(uint32_t registryError)
{
    switch (registryError) {
    case LxRegKey::kErrorNotFound:
        return ENOENT;
    case LxRegKey::kErrorAccessDenied:
        return EACCES;
    case LxRegKey::kErrorBadFormat:
        return EINVAL;
    default:
        return EIO;
    }
}

// Reads the value file `entry` of the open key folder `folder`; false with
// the reason in `error` when there is no such value or it cannot be read.
bool ReadValueFile(int folder, const std::string& entry, std::string& text, int& error)
{
    if (entry.empty()) {
        error = ENOENT;
        return false;
    }
    tolv::platform::UniqueFd fd(openat(folder, entry.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat st {};
    if (!fd || fstat(fd.get(), &st) != 0) {
        error = errno;
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        error = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        return false;
    }
    char buffer[4096];
    for (;;) {
        const ssize_t n = tolv::platform::RetryOnEintr([&] { return read(fd.get(), buffer, sizeof buffer); });
        if (n < 0) {
            error = errno;
            return false;
        }
        if (n == 0)
            return true;
        text.append(buffer, static_cast<size_t>(n));
        if (text.size() > LxRegValue::kMaxSize) {
            error = EFBIG;
            return false;
        }
    }
}

uint64_t LoadNumber(const std::vector<uint8_t>& data)
{
    uint64_t value = 0;
    for (size_t i = 0; i < data.size() && i < 8; ++i)
        value |= static_cast<uint64_t>(data[i]) << (8 * i);
    return value;
}

} // namespace

LxRegValue::LxRegValue(RCPtr<LxRegKey> key, std::string name) : m_key(std::move(key)), m_name(std::move(name)) {}

void LxRegValue::CopyFrom(const LxRegValue& other)
{
    m_exists = other.m_exists;
    m_type = other.m_type;
    m_data = other.m_data;
}

std::string LxRegValue::GetLocation() const
{
    return m_key->GetLocation() + "\\" + m_name;
}

void LxRegValue::Parse(const std::string& stored, uint32_t& type, std::vector<uint8_t>& data)
{
    std::string text = stored;
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    data.clear();
    uint64_t number = 0;
    if (ParseNumber(text, number)) {
        type = number > 0xFFFFFFFFull ? REG_QWORD : REG_DWORD;
        for (int i = 0; i < (type == REG_QWORD ? 8 : 4); ++i)
            data.push_back(static_cast<uint8_t>(number >> (8 * i)));
        return;
    }
    type = text.find('\n') != std::string::npos ? REG_MULTI_SZ : REG_SZ;
    for (char c : text)
        data.push_back(c == '\n' && type == REG_MULTI_SZ ? 0 : static_cast<uint8_t>(c));
    data.push_back(0);
    if (type == REG_MULTI_SZ)
        data.push_back(0);
}

bool LxRegValue::Load(int32_t level, bool keepKeyOpen)
{
    const char* function = "LxRegValue::Load()";
    bool found = false;
    uint32_t type = REG_NONE;
    std::vector<uint8_t> data;
    const uint32_t opened = m_key->OpenKey();
    if (opened != 0) {
        if (CurrentLogLevel >= level)
            LogWithErrorCode(OpenErrorNumber(opened), function, level, "RegOpenKeyEx(\"%s\") failed",
                             m_key->GetLocation().c_str());
    } else {
        int error = 0;
        std::string text;
        if (!ReadValueFile(m_key->GetHandle(), LxRegKey::FindEntry(m_key->GetPath(), m_name), text, error)) {
            if (CurrentLogLevel >= level)
                LogWithErrorCode(error, function, level, "RegQueryValueEx(\"%s\") failed", GetLocation().c_str());
        } else {
            Parse(text, type, data);
            found = true;
        }
        if (!keepKeyOpen)
            m_key->CloseKey();
    }

    if (!found) {
        const bool changed = m_exists;
        if (changed) {
            LOG_AT(level, function, "\"%s\" has changed", GetLocation().c_str());
            m_exists = false;
            m_type = REG_NONE;
            m_data.clear();
        }
        return changed;
    }
    if (m_exists && m_type == type && m_data == data) {
        LOG_AT(level, function, "\"%s\" has not changed", GetLocation().c_str());
        LogData(level);
        return false;
    }
    LOG_AT(level, function, "\"%s\" has changed", GetLocation().c_str());
    m_exists = true;
    m_type = type;
    m_data = std::move(data);
    LogData(level);
    return true;
}

std::string LxRegValue::AsString() const
{
    if (!m_exists)
        return {};
    switch (m_type) {
    case REG_DWORD:
    case REG_QWORD:
        return std::to_string(LoadNumber(m_data));
    case REG_SZ:
    case REG_EXPAND_SZ:
        return std::string(reinterpret_cast<const char*>(m_data.data()),
                           strnlen(reinterpret_cast<const char*>(m_data.data()), m_data.size()));
    case REG_MULTI_SZ: {
        std::string text;
        for (size_t i = 0; i + 1 < m_data.size(); ++i)
            text += m_data[i] == 0 ? ',' : static_cast<char>(m_data[i]);
        while (!text.empty() && text.back() == ',')
            text.pop_back();
        return text;
    }
    default: {
        std::string text;
        char byte[4];
        for (size_t i = 0; i < m_data.size(); ++i) {
            snprintf(byte, sizeof byte, i == 0 ? "%02x" : " %02x", m_data[i]);
            text += byte;
        }
        return text;
    }
    }
}

bool LxRegValue::AsUInt32(uint32_t& value) const
{
    if (!m_exists)
        return false;
    if (m_type == REG_DWORD || m_type == REG_QWORD) {
        const uint64_t number = LoadNumber(m_data);
        if (number > UINT32_MAX)
            return false;  // out of range, not cut to its low half
        value = static_cast<uint32_t>(number);
        return true;
    }
    if (m_type != REG_SZ && m_type != REG_EXPAND_SZ)
        return false;
    return tolv::platform::ParseUnsigned32(AsString(), value);
}

bool LxRegValue::AsBool(bool defaultValue) const
{
    if (!m_exists)
        return defaultValue;
    switch (m_type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
    case REG_MULTI_SZ: {
        const std::string text(reinterpret_cast<const char*>(m_data.data()),
                               strnlen(reinterpret_cast<const char*>(m_data.data()), m_data.size()));
        for (const char* yes : {"true", "yes", "1"})
            if (strcasecmp(text.c_str(), yes) == 0)
                return true;
        for (const char* no : {"false", "no", "0"})
            if (strcasecmp(text.c_str(), no) == 0)
                return false;
        return true;
    }
    case REG_BINARY:
        for (uint8_t b : m_data)
            if (b != 0)
                return true;
        return false;
    case REG_DWORD:
    case REG_QWORD:
        return LoadNumber(m_data) != 0;
    default:
        return true;
    }
}

const char* LxRegValue::TypeName(uint32_t type)
{
    static const char* const kNames[] = {
        "REG_NONE", "REG_SZ", "REG_EXPAND_SZ", "REG_BINARY", "REG_DWORD", "REG_DWORD_BIG_ENDIAN", "REG_LINK",
        "REG_MULTI_SZ", "REG_RESOURCE_LIST", "REG_FULL_RESOURCE_DESCRIPTOR", "REG_RESOURCE_REQUIREMENTS_LIST",
        "REG_QWORD",
    };
    return type < sizeof kNames / sizeof kNames[0] ? kNames[type] : "REG_UNKNOWN";
}

void LxRegValue::LogData(int32_t level) const
{
    if (CurrentLogLevel < level)
        return;
    static const char kLetters[] = "NSEBDDLMRFRQ";
    const char letter = m_type < sizeof kLetters - 1 ? kLetters[m_type] : '?';
    // The dump has a buffer of its own; a value too long for it shows the
    // rows that fit and says so.
    constexpr size_t kDumpChars = 1024;
    std::string dump;
    char row[128];
    for (size_t at = 0; at < m_data.size(); at += 16) {
        int n = snprintf(row, sizeof row, "%*s0x%04x: ", 4, "", static_cast<unsigned>(at));
        for (size_t i = at; i < at + 16 && i < m_data.size() && n > 0 && n < static_cast<int>(sizeof row) - 4; ++i)
            n += snprintf(row + n, sizeof row - static_cast<size_t>(n), "%02x ", m_data[i]);
        if (dump.size() + strlen(row) + 1 > kDumpChars) {
            dump += "    BUFFER TOO SMALL\n";
            break;
        }
        dump += row;
        dump += '\n';
    }
    Log("LxRegValue::LogData()", level, "%s  Location(%s%s)  Type(%s/%c)  Size(%d)%s%s", m_name.c_str(),
        m_key->GetLocation().c_str(), m_key->GetView() == LxRegKey::Alternate ? "/WOW64" : "", TypeName(m_type),
        letter, static_cast<int>(m_data.size()), dump.empty() ? "" : "\n", dump.c_str());
}
