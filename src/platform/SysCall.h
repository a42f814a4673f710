#pragma once
// System-call helper: repeats a call interrupted by a signal.

#include <cerrno>

namespace tolv::platform {

template <typename Fn>
auto RetryOnEintr(Fn&& fn) -> decltype(fn())
{
    decltype(fn()) result;
    do {
        result = fn();
    } while (result == -1 && errno == EINTR);
    return result;
}

} // namespace tolv::platform
