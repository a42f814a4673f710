#pragma once
// Which file systems hold data a drive request may reach. Only block devices
// and regular files of disk-backed, network-storage or memory (tmpfs) file
// systems qualify: the "regular files" of proc, sysfs, debugfs and the like are
// windows into the kernel (a write to /proc/self/mem patches the worker's own
// code), so they are refused whatever their mode says.

#include <cstdint>

namespace tolv::worker {

struct FileSystemKind {
    const char* name;  // "ext4", "proc", ... or "unknown"
    bool holdsStorage;
};

// Classifies the f_type of a statfs result.
FileSystemKind ClassifyFileSystem(uint64_t magic);

// Classifies the file system of an open descriptor (fstatfs). False with errno
// set when the descriptor cannot be asked.
bool FileSystemOf(int fd, FileSystemKind& kind, uint64_t& magic);

} // namespace tolv::worker
