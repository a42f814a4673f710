#pragma once
// read, write, pread and pwrite until every byte is moved: a short transfer is
// continued and EINTR retried. False on an error or an early end of file.

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace tolv::platform {

namespace detail {

// `call(fd, data, size, offset)`; the offset advances with the data.
template <typename Byte, typename Call>
bool MoveWhole(Call call, int fd, Byte* data, size_t size, uint64_t offset)
{
    while (size > 0) {
        const ssize_t n = call(fd, data, size, offset);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
        offset += static_cast<uint64_t>(n);
    }
    return true;
}

} // namespace detail

inline bool WriteWhole(int fd, const uint8_t* data, size_t size)
{
    return detail::MoveWhole([](int f, const uint8_t* d, size_t s, uint64_t) { return ::write(f, d, s); }, fd, data,
                             size, 0);
}

inline bool ReadWhole(int fd, uint8_t* data, size_t size)
{
    return detail::MoveWhole([](int f, uint8_t* d, size_t s, uint64_t) { return ::read(f, d, s); }, fd, data, size,
                             0);
}

inline bool WriteWholeAt(int fd, const uint8_t* data, size_t size, uint64_t offset)
{
    return detail::MoveWhole(
        [](int f, const uint8_t* d, size_t s, uint64_t o) { return ::pwrite(f, d, s, static_cast<off_t>(o)); }, fd,
        data, size, offset);
}

inline bool ReadWholeAt(int fd, uint8_t* data, size_t size, uint64_t offset)
{
    return detail::MoveWhole(
        [](int f, uint8_t* d, size_t s, uint64_t o) { return ::pread(f, d, s, static_cast<off_t>(o)); }, fd, data,
        size, offset);
}

} // namespace tolv::platform
