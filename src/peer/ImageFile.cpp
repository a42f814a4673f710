#include "peer/ImageFile.h"

#include <tolv/platform/UniqueFd.h>
#include "platform/WholeIo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <isa-l/crc.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace {

// Zeros for the CRC of a hole and for telling a zero block from data.
constexpr size_t kZerosSize = 1 << 16;
alignas(4096) const uint8_t kZeros[kZerosSize] = {};

// Continues `crc` over `count` zero bytes.
uint32_t CrcOfZeros(uint32_t crc, uint64_t count)
{
    while (count > 0) {
        const size_t n = count < kZerosSize ? static_cast<size_t>(count) : kZerosSize;
        crc = crc32_gzip_refl(crc, kZeros, n);
        count -= n;
    }
    return crc;
}

// Reads a file for its CRC, telling the progress callback as it goes.
class CrcReader {
public:
    CrcReader(int fd, uint64_t total, const CrcProgress& progress)
        : m_fd(fd), m_total(total), m_progress(progress), m_buffer(1 << 20)
    {
    }

    uint32_t crc = 0;
    uint64_t offset = 0;

    // Continues over a hole of `count` zero bytes.
    bool Zeros(uint64_t count)
    {
        crc = CrcOfZeros(crc, count);
        offset += count;
        return Tell();
    }

    // Continues with plain reads up to `end` or the file's end, whichever
    // comes first; `offset` is left where the reads stopped.
    bool Reads(uint64_t end)
    {
        while (offset < end) {
            const size_t want = static_cast<size_t>(std::min<uint64_t>(m_buffer.size(), end - offset));
            const ssize_t n = pread(m_fd, m_buffer.data(), want, static_cast<off_t>(offset));
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                return false;
            if (n == 0)
                return true;
            crc = crc32_gzip_refl(crc, m_buffer.data(), static_cast<uint64_t>(n));
            offset += static_cast<uint64_t>(n);
            if (!Tell())
                return false;
        }
        return true;
    }

private:
    bool Tell() { return !m_progress || m_progress(offset, std::max(m_total, offset)); }

    int m_fd;
    uint64_t m_total;
    const CrcProgress& m_progress;
    std::vector<uint8_t> m_buffer;
};

} // namespace

bool ImageWriter::Append(const uint8_t* bytes, size_t count)
{
    if (!m_sparse)
        return tolv::platform::WriteWhole(m_fd, bytes, count);
    // [run, i) is data not yet written; a block split by the ends of the
    // chunk is short and so written as data.
    size_t run = 0;
    size_t i = 0;
    while (i < count) {
        const size_t toBoundary = kBlock - static_cast<size_t>((m_offset + i) % kBlock);
        const size_t n = std::min(toBoundary, count - i);
        if (n == kBlock && IsZeroBlock(bytes + i)) {
            if (!tolv::platform::WriteWholeAt(m_fd, bytes + run, i - run, m_offset + run))
                return false;
            run = i + n;
        }
        i += n;
    }
    if (!tolv::platform::WriteWholeAt(m_fd, bytes + run, count - run, m_offset + run))
        return false;
    m_offset += count;
    StartWriteBack();
    return true;
}

bool ImageWriter::Finish(uint64_t size)
{
    return !m_sparse || ftruncate(m_fd, static_cast<off_t>(size)) == 0;
}

void ImageWriter::StartWriteBack()
{
    constexpr uint64_t kStretch = 32u << 20;
    if (m_offset - m_writeBackFrom < kStretch)
        return;
    // Only a hint: where it is not supported the fsync does all of it.
    sync_file_range(m_fd, static_cast<off_t>(m_writeBackFrom), static_cast<off_t>(m_offset - m_writeBackFrom),
                    SYNC_FILE_RANGE_WRITE);
    m_writeBackFrom = m_offset;
}

bool ImageWriter::IsZeroBlock(const uint8_t* block)
{
    // Data usually shows in its first bytes; only zero blocks are compared whole.
    uint64_t head;
    std::memcpy(&head, block, sizeof head);
    return head == 0 && std::memcmp(block, kZeros, kBlock) == 0;
}

bool FileCrc(const std::string& path, uint32_t& crc, const CrcProgress& progress)
{
    tolv::platform::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || fstat(fd.get(), &st) != 0)
        return false;
    // A device's size is where its end is.
    const off_t end = S_ISREG(st.st_mode) ? st.st_size : lseek(fd.get(), 0, SEEK_END);
    CrcReader reader(fd.get(), end > 0 ? static_cast<uint64_t>(end) : 0, progress);
    if (S_ISREG(st.st_mode)) {
        const uint64_t size = static_cast<uint64_t>(st.st_size);
        while (reader.offset < size) {
            off_t data = lseek(fd.get(), static_cast<off_t>(reader.offset), SEEK_DATA);
            if (data < 0 && errno == ENXIO)
                data = static_cast<off_t>(size);  // a hole up to the end
            else if (data < 0 && (errno == EINVAL || errno == EOPNOTSUPP))
                break;  // no hole lookup here: read everything
            else if (data < 0)
                return false;
            const uint64_t dataStart = std::min(static_cast<uint64_t>(data), size);
            if (dataStart > reader.offset && !reader.Zeros(dataStart - reader.offset))
                return false;
            if (reader.offset == size)
                break;
            const off_t hole = lseek(fd.get(), static_cast<off_t>(reader.offset), SEEK_HOLE);
            if (hole < 0)
                return false;
            const uint64_t dataEnd = std::max(static_cast<uint64_t>(hole), reader.offset + 1);
            if (!reader.Reads(dataEnd))
                return false;
            if (reader.offset < dataEnd)
                break;  // shorter than it was; the reads below find its end
        }
    }
    // Devices, pipes, file systems without hole lookup, and whatever a
    // regular file has past the size it had.
    if (!reader.Reads(UINT64_MAX))
        return false;
    crc = reader.crc;
    return true;
}
