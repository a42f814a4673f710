#pragma once
// Positioned transfers that complete synchronously: repeated until the whole
// length is done, end of file, or an error. The result is what the system's
// I/O status block would hold: a status and the bytes transferred.

#include <tolv/platform/NtStatus.h>

#include <cstdint>

namespace tolv::worker {

struct IoStatusBlock {
    tolv::platform::NTSTATUS status = 0;
    uint64_t information = 0;
};

// A read that starts at end of file (nothing read, length not 0) is
// 0xC0000011; a short read at end of file is a success with fewer bytes.
IoStatusBlock ReadAt(int fd, uint8_t* buffer, uint32_t length, uint64_t offset);
// An error after some bytes were written keeps the count in `information`.
IoStatusBlock WriteAt(int fd, const uint8_t* data, uint32_t length, uint64_t offset);

// The end-of-file position of a file, or the size of a block device reached
// through a plain path. False with errno set on failure.
bool QueryEndOfFile(int fd, uint64_t& size);

} // namespace tolv::worker
