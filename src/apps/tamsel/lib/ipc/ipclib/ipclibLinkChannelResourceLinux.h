#pragma once
// The descriptors of one channel as they are handed to the peer: the section
// and the four events, in that order. A descriptor cannot be closed inside
// another process, so releasing a set only closes our own copies.

#include <tolv/platform/UniqueFd.h>

#include <array>
#include <vector>

namespace tamsel::ipc {

struct KxIpclibLinkChannelResourceLinux {
    bool valid = false;
    tolv::platform::UniqueFd section;
    tolv::platform::UniqueFd dataReadyEvent;
    tolv::platform::UniqueFd bufferFreeEvent;
    tolv::platform::UniqueFd errorEvent;
    tolv::platform::UniqueFd stopEvent;

    // The five descriptors in their wire order (for SCM_RIGHTS).
    std::array<int, 5> fds() const
    {
        return {section.get(), dataReadyEvent.get(), bufferFreeEvent.get(), errorEvent.get(), stopEvent.get()};
    }
    // Takes over five received descriptors in wire order.
    static KxIpclibLinkChannelResourceLinux adopt(const std::array<int, 5>& fds)
    {
        KxIpclibLinkChannelResourceLinux set;
        set.section.reset(fds[0]);
        set.dataReadyEvent.reset(fds[1]);
        set.bufferFreeEvent.reset(fds[2]);
        set.errorEvent.reset(fds[3]);
        set.stopEvent.reset(fds[4]);
        set.valid = true;
        return set;
    }
    void release()
    {
        section.reset();
        dataReadyEvent.reset();
        bufferFreeEvent.reset();
        errorEvent.reset();
        stopEvent.reset();
        valid = false;
    }
};

} // namespace tamsel::ipc
