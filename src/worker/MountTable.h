#pragma once
// Mounts of a block device, read from /proc/self/mountinfo.

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

// Mount points whose source device is `device` (an st_rdev), in the order the
// kernel lists them (parents before the mounts stacked on them).
std::vector<std::string> MountPointsOfDevice(dev_t device);

// Same, from the text of a mountinfo file.
std::vector<std::string> ParseMountPointsOfDevice(std::string_view mountinfo, dev_t device);
