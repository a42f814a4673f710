#pragma once
// One named value of a key, loaded on demand; Load tells whether it changed
// since the last load. On Linux the value is a file in the key's folder and
// its text decides the type: a whole number (decimal or 0x hex) is REG_DWORD,
// or REG_QWORD when it needs more than 32 bits; text of several lines is
// REG_MULTI_SZ, one string a line; any other text is REG_SZ. One trailing
// newline is not part of the value. Text is kept as UTF-8.

#include "support/LxRegKey.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"

#include <cstdint>
#include <string>
#include <vector>

class LxRegValue : public RCObject {
public:
    enum Type : uint32_t {
        REG_NONE = 0, REG_SZ = 1, REG_EXPAND_SZ = 2, REG_BINARY = 3, REG_DWORD = 4, REG_DWORD_BIG_ENDIAN = 5,
        REG_LINK = 6, REG_MULTI_SZ = 7, REG_RESOURCE_LIST = 8, REG_FULL_RESOURCE_DESCRIPTOR = 9,
        REG_RESOURCE_REQUIREMENTS_LIST = 10, REG_QWORD = 11,
    };
    // Values larger than this are refused as unreadable.
    static constexpr size_t kMaxSize = 1 << 20;

    LxRegValue(RCPtr<LxRegKey> key, std::string name);

    // Reads the value again and logs it at `level`; true when it changed
    // (appeared, went, or differs in type or bytes).
    bool Load(int32_t level, bool keepKeyOpen = false);

    // Takes over what `other` last loaded (not its key or name).
    void CopyFrom(const LxRegValue& other);

    bool Exists() const { return m_exists; }
    uint32_t GetType() const { return m_type; }
    uint32_t GetSize() const { return static_cast<uint32_t>(m_data.size()); }
    const std::vector<uint8_t>& GetData() const { return m_data; }
    const std::string& GetName() const { return m_name; }
    const RCPtr<LxRegKey>& GetKey() const { return m_key; }
    // "<key location>\<name>".
    std::string GetLocation() const;

    // Numbers in decimal, binary data as hex bytes, a multi-string joined by
    // commas; empty when absent.
    std::string AsString() const;
    // Numbers as they are, text parsed with automatic base; false when
    // absent or not a number.
    bool AsUInt32(uint32_t& value) const;
    // "true", "yes", "1" / "false", "no", "0" for text (any case), non-zero
    // for numbers and binary data; `defaultValue` when absent or unrecognised.
    bool AsBool(bool defaultValue) const;

    static const char* TypeName(uint32_t type);
    void LogData(int32_t level) const;

    // Parses the stored text of a value into its type and bytes.
    static void Parse(const std::string& text, uint32_t& type, std::vector<uint8_t>& data);

private:
    const RCPtr<LxRegKey> m_key;
    const std::string m_name;
    bool m_exists = false;
    uint32_t m_type = REG_NONE;
    std::vector<uint8_t> m_data;
};
