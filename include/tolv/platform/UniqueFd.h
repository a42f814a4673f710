#pragma once
// Owner of one file descriptor. -1 is the invalid descriptor; the owner closes
// what it holds when it goes, and never closes twice.

#include <unistd.h>

#include <utility>

namespace tolv::platform {

class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : m_fd(fd) {}
    ~UniqueFd() { reset(); }

    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }

    int get() const noexcept { return m_fd; }
    bool valid() const noexcept { return m_fd >= 0; }
    explicit operator bool() const noexcept { return valid(); }

    // Hands the descriptor to the caller, who must close it.
    [[nodiscard]] int release() noexcept { return std::exchange(m_fd, -1); }

    // Closes the held descriptor (close() is not retried on EINTR: on Linux the
    // descriptor is gone whatever close returns).
    void reset(int fd = -1) noexcept
    {
        const int old = std::exchange(m_fd, fd);
        if (old >= 0)
            ::close(old);
    }

private:
    int m_fd = -1;
};

} // namespace tolv::platform
