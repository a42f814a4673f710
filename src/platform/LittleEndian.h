#pragma once
// Little-endian record access. LeReader is a bounded cursor over bytes that came
// from outside: every read checks the room first and a failed read moves nothing,
// so a short record can never be read past its end. The Store/Load helpers are
// for buffers whose size the caller has already checked.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tolv::platform {

template <typename T>
inline T LoadLe(const uint8_t* p)
{
    T value = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
        value |= static_cast<T>(static_cast<T>(p[i]) << (8 * i));
    return value;
}

template <typename T>
inline void StoreLe(uint8_t* p, T value)
{
    for (size_t i = 0; i < sizeof(T); ++i)
        p[i] = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
}

class LeReader {
public:
    LeReader(const uint8_t* data, size_t size) noexcept : m_data(data), m_size(data ? size : 0) {}

    size_t size() const noexcept { return m_size; }
    size_t position() const noexcept { return m_pos; }
    size_t remaining() const noexcept { return m_size - m_pos; }

    bool u8(uint8_t& out) noexcept { return read(out); }
    bool u16(uint16_t& out) noexcept { return read(out); }
    bool u32(uint32_t& out) noexcept { return read(out); }
    bool u64(uint64_t& out) noexcept { return read(out); }

    bool skip(size_t count) noexcept
    {
        if (count > remaining())
            return false;
        m_pos += count;
        return true;
    }

    // Points `out` at the next `count` bytes and moves past them.
    bool bytes(size_t count, const uint8_t*& out) noexcept
    {
        if (count > remaining())
            return false;
        out = m_data + m_pos;
        m_pos += count;
        return true;
    }

private:
    template <typename T>
    bool read(T& out) noexcept
    {
        if (sizeof(T) > remaining())
            return false;
        out = LoadLe<T>(m_data + m_pos);
        m_pos += sizeof(T);
        return true;
    }

    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

} // namespace tolv::platform
