#pragma once
// Mounts of a block device, read from /proc/self/mountinfo.

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tolv::worker {

struct MountEntry {
    uint64_t mountId = 0;
    std::string point;
};

// Mounts whose source device is `device` (an st_rdev), in the order the
// kernel lists them (parents before the mounts stacked on them).
std::vector<MountEntry> MountsOfDevice(dev_t device);

// Same, from the text of a mountinfo file.
std::vector<MountEntry> ParseMountsOfDevice(std::string_view mountinfo, dev_t device);

} // namespace tolv::worker
