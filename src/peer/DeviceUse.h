#pragma once
// How a block device is in use, seen from the peer: where it is mounted, and
// how many descriptors the worker holds on it (its handle, and beside it the
// exclusive claim that stands for the volume lock).

#include <sys/types.h>

#include <string>
#include <vector>

// Mount points of `device` (an st_rdev) in this process's mount table.
std::vector<std::string> MountPointsOf(dev_t device);

// Descriptors of process `pid` open on `device`; -1 when its descriptors
// cannot be read (another user's process, or gone).
int DescriptorsOn(pid_t pid, dev_t device);
