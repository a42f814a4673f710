#pragma once
// The local side of a whole-drive copy: writing an image in order (leaving
// holes for zero blocks in a regular file) and the CRC-32 of a file read back
// from the disk.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// Writes a copy's bytes in order. Into a regular file, whole 4 KiB blocks of
// zeros (aligned to the file offset) are skipped and left as holes, so a
// mostly empty drive costs only its data; the file must start empty and gets
// its size at Finish. Anything else gets every byte, in order, without seeks.
class ImageWriter {
public:
    static constexpr size_t kBlock = 4096;

    ImageWriter(int fd, bool sparse) : m_fd(fd), m_sparse(sparse) {}

    bool Append(const uint8_t* bytes, size_t count);
    // Gives the file its whole size, holes at its end included.
    bool Finish(uint64_t size);

private:
    // The disk starts on what is written while the copy goes on, so the
    // closing fsync waits for the last stretch only, not the whole image.
    void StartWriteBack();
    static bool IsZeroBlock(const uint8_t* block);

    int m_fd;
    bool m_sparse;
    uint64_t m_offset = 0;
    uint64_t m_writeBackFrom = 0;
};

// Called with (bytes done, bytes in all) as the read-back goes; false stops it.
using CrcProgress = std::function<bool(uint64_t, uint64_t)>;

// The CRC-32 of a whole local file, read back from the disk. The holes of a
// regular file are known to read as zeros, so only its data is read. False
// when it cannot be read, or when `progress` said stop.
bool FileCrc(const std::string& path, uint32_t& crc, const CrcProgress& progress = nullptr);
