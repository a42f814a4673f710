#pragma once
// The state behind LxEvent handles: one descriptor. An event made here is an
// eventfd whose counter is the signal (non-zero = set); a manual-reset wait
// only looks at it, an auto-reset wait takes it with a read, so one waiter is
// released per setting. An event made from another descriptor (an inotify
// descriptor, a pidfd) is signalled while that descriptor is readable; only
// its owner can reset it, by reading what made it readable.

#include <tolv/platform/UniqueFd.h>
#include "support/RCObject.h"

class LxEventData final : public RCObject {
public:
    enum class Kind { ManualReset, AutoReset, Descriptor };

    LxEventData(tolv::platform::UniqueFd fd, Kind kind, bool ownsHandle);
    ~LxEventData() override;
    LxEventData(const LxEventData&) = delete;
    LxEventData& operator=(const LxEventData&) = delete;

    int Handle() const { return m_fd.get(); }

    tolv::platform::UniqueFd m_fd;
    const Kind m_kind;
    // False: the descriptor belongs to somebody else and is not closed here.
    const bool m_ownsHandle;
};
