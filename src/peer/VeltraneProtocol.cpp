// veltrane-protocol.exe: the worker's peer. Starts tolvClientWorker on a fresh
// endpoint (or connects to one already listening), opens the "tolvCommands"
// stream, and runs the steps of its command line: query, read, write and
// release ranges of drives and files, and whole copies with a checksum check.

#include "peer/DriveClient.h"
#include "peer/DriveSession.h"
#include "peer/PeerCommandLine.h"
#include "peer/PeerConnection.h"

#include "platform/MallocTuning.h"
#include "platform/UniqueFd.h"
#include "platform/Utf.h"
#include "platform/WholeIo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <isa-l/crc.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using Clock = std::chrono::steady_clock;

namespace {

class ProgressBar {
public:
    ProgressBar(bool enabled, const char* what) : m_enabled(enabled && isatty(STDERR_FILENO)), m_what(what) {}
    void operator()(uint64_t done, uint64_t total)
    {
        if (!m_enabled || total == 0)
            return;
        const int percent = static_cast<int>(done * 100 / total);
        if (percent == m_last)
            return;
        m_last = percent;
        char bar[41];
        const int filled = percent * 40 / 100;
        for (int i = 0; i < 40; ++i)
            bar[i] = i < filled ? '#' : '.';
        bar[40] = '\0';
        std::fprintf(stderr, "\r%s [%s] %3d%% %llu of %llu MiB", m_what, bar, percent,
                     static_cast<unsigned long long>(done >> 20), static_cast<unsigned long long>(total >> 20));
        if (done == total)
            std::fputc('\n', stderr);
        std::fflush(stderr);
    }

private:
    bool m_enabled;
    const char* m_what;
    int m_last = -1;
};

void PrintThroughput(const char* what, uint64_t bytes, Clock::duration elapsed)
{
    const double seconds = std::chrono::duration<double>(elapsed).count();
    std::printf("%s %llu bytes in %.3f s: %.1f MiB/s\n", what, static_cast<unsigned long long>(bytes), seconds,
                seconds > 0 ? bytes / seconds / (1 << 20) : 0.0);
}

using platform::ReadWhole;
using platform::WriteWhole;

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

// Continues `crc` with plain reads of the file from `offset` up to `end` or
// its end, whichever comes first; `offset` is left where the reads stopped.
bool CrcOfReads(int fd, uint64_t& offset, uint64_t end, std::vector<uint8_t>& buffer, uint32_t& crc)
{
    while (offset < end) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), end - offset));
        const ssize_t n = pread(fd, buffer.data(), want, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        crc = crc32_gzip_refl(crc, buffer.data(), static_cast<uint64_t>(n));
        offset += static_cast<uint64_t>(n);
    }
    return true;
}

// The CRC-32 of a whole local file, read back from the disk. The holes of a
// regular file are known to read as zeros, so only its data is read.
bool FileCrc(const std::string& path, uint32_t& crc)
{
    platform::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || fstat(fd.get(), &st) != 0)
        return false;
    std::vector<uint8_t> buffer(1 << 20);
    crc = 0;
    uint64_t offset = 0;
    if (S_ISREG(st.st_mode)) {
        const uint64_t size = static_cast<uint64_t>(st.st_size);
        while (offset < size) {
            off_t data = lseek(fd.get(), static_cast<off_t>(offset), SEEK_DATA);
            if (data < 0 && errno == ENXIO)
                data = static_cast<off_t>(size);  // a hole up to the end
            else if (data < 0 && (errno == EINVAL || errno == EOPNOTSUPP))
                break;  // no hole lookup here: read everything
            else if (data < 0)
                return false;
            const uint64_t dataStart = std::min(static_cast<uint64_t>(data), size);
            crc = CrcOfZeros(crc, dataStart - offset);
            offset = dataStart;
            if (offset == size)
                break;
            const off_t hole = lseek(fd.get(), static_cast<off_t>(offset), SEEK_HOLE);
            if (hole < 0)
                return false;
            const uint64_t dataEnd = std::max(static_cast<uint64_t>(hole), offset + 1);
            if (!CrcOfReads(fd.get(), offset, dataEnd, buffer, crc))
                return false;
            if (offset < dataEnd)
                break;  // shorter than it was; the reads below find its end
        }
    }
    // Devices, pipes, file systems without hole lookup, and whatever a
    // regular file has past the size it had.
    return CrcOfReads(fd.get(), offset, UINT64_MAX, buffer, crc);
}

// Writes a copy's bytes in order. Into a regular file, whole 4 KiB blocks of
// zeros (aligned to the file offset) are skipped and left as holes, so a
// mostly empty drive costs only its data; the file must start empty and gets
// its size at Finish. Anything else gets every byte, in order, without seeks.
class ImageWriter {
public:
    static constexpr size_t kBlock = 4096;

    ImageWriter(int fd, bool sparse) : m_fd(fd), m_sparse(sparse) {}

    bool Append(const uint8_t* bytes, size_t count)
    {
        if (!m_sparse)
            return WriteWhole(m_fd, bytes, count);
        // [run, i) is data not yet written; a block split by the ends of the
        // chunk is short and so written as data.
        size_t run = 0;
        size_t i = 0;
        while (i < count) {
            const size_t toBoundary = kBlock - static_cast<size_t>((m_offset + i) % kBlock);
            const size_t n = std::min(toBoundary, count - i);
            if (n == kBlock && IsZeroBlock(bytes + i)) {
                if (!WriteAt(bytes + run, i - run, m_offset + run))
                    return false;
                run = i + n;
            }
            i += n;
        }
        if (!WriteAt(bytes + run, count - run, m_offset + run))
            return false;
        m_offset += count;
        StartWriteBack();
        return true;
    }

    // Gives the file its whole size, holes at its end included.
    bool Finish(uint64_t size) { return !m_sparse || ftruncate(m_fd, static_cast<off_t>(size)) == 0; }

private:
    // The disk starts on what is written while the copy goes on, so the
    // closing fsync waits for the last stretch only, not the whole image.
    void StartWriteBack()
    {
        constexpr uint64_t kStretch = 32u << 20;
        if (m_offset - m_writeBackFrom < kStretch)
            return;
        // Only a hint: where it is not supported the fsync does all of it.
        sync_file_range(m_fd, static_cast<off_t>(m_writeBackFrom), static_cast<off_t>(m_offset - m_writeBackFrom),
                        SYNC_FILE_RANGE_WRITE);
        m_writeBackFrom = m_offset;
    }

    static bool IsZeroBlock(const uint8_t* block)
    {
        // Data usually shows in its first bytes; only zero blocks are compared whole.
        uint64_t head;
        std::memcpy(&head, block, sizeof head);
        return head == 0 && std::memcmp(block, kZeros, kBlock) == 0;
    }

    bool WriteAt(const uint8_t* data, size_t size, uint64_t offset)
    {
        return platform::WriteWholeAt(m_fd, data, size, offset);
    }

    int m_fd;
    bool m_sparse;
    uint64_t m_offset = 0;
    uint64_t m_writeBackFrom = 0;
};

class StepRunner {
public:
    StepRunner(DriveSession& session, const PeerOptions& options) : m_session(session), m_options(options) {}

    bool Run(const PeerStep& step)
    {
        switch (step.kind) {
        case PeerStepKind::Query: return Query(step.letter, step.path, nullptr);
        case PeerStepKind::Read: return Read(step);
        case PeerStepKind::Write: return Write(step);
        case PeerStepKind::Release: return Release(step.letter);
        case PeerStepKind::CopyOut: return CopyOut(step);
        case PeerStepKind::CopyIn: return CopyIn(step);
        }
        return false;
    }

private:
    static constexpr uint8_t kCopyLetter = 'Z';

    bool Fail(const std::string& what)
    {
        std::fprintf(stderr, "veltrane-protocol: %s\n", what.c_str());
        return false;
    }

    bool Query(uint8_t letter, const std::string& path, DR_QUERY_DISK_RSP* out)
    {
        auto wide = platform::Utf8ToUtf16(path);
        if (!wide)
            return Fail("the path is not valid UTF-8: " + path);
        DR_QUERY_DISK_RSP info;
        std::string error;
        if (!m_session.Query(letter, *wide, info, error))
            return Fail(std::string("drive ") + static_cast<char>(letter) + ": " + path + ": " + error);
        std::printf("drive %c: %s: %llu bytes, %s, media type %u, %u tracks per cylinder, %u sectors per track, "
                    "%u bytes per sector\n",
                    letter, path.c_str(), static_cast<unsigned long long>(info.diskSize),
                    info.readOnly ? "read-only" : "writable", info.mediaType, info.tracksPerCylinder,
                    info.sectorsPerTrack, info.bytesPerSector);
        if (out)
            *out = info;
        return true;
    }

    bool Release(uint8_t letter)
    {
        std::string error;
        if (!m_session.Release(letter, error))
            return Fail(error);
        std::printf("drive %c: released\n", letter);
        return true;
    }

    bool Read(const PeerStep& step)
    {
        const bool toStdout = step.file == "-";
        platform::UniqueFd out(toStdout ? dup(STDOUT_FILENO)
                                        : open(step.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!out)
            return Fail("cannot open " + step.file + ": " + std::strerror(errno));
        uint32_t crc = 0;
        uint64_t done = 0;
        std::string error;
        const auto start = Clock::now();
        if (!m_session.ReadRange(
                step.letter, step.offset, step.length,
                [&](const uint8_t* bytes, size_t count) { return WriteWhole(out.get(), bytes, count); }, true, crc,
                done, nullptr, error))
            return Fail(error);
        if (!toStdout)
            PrintThroughput("read", done, Clock::now() - start);
        else
            std::fprintf(stderr, "read %llu bytes\n", static_cast<unsigned long long>(done));
        return true;
    }

    bool Write(const PeerStep& step)
    {
        platform::UniqueFd in(open(step.file.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st {};
        if (!in || fstat(in.get(), &st) != 0)
            return Fail("cannot open " + step.file + ": " + std::strerror(errno));
        uint32_t crc = 0;
        std::string error;
        const auto start = Clock::now();
        if (!m_session.WriteRange(
                step.letter, step.offset, static_cast<uint64_t>(st.st_size),
                [&](uint8_t* buffer, size_t count) { return ReadWhole(in.get(), buffer, count); }, crc, nullptr,
                error))
            return Fail(error);
        PrintThroughput("wrote", static_cast<uint64_t>(st.st_size), Clock::now() - start);
        return true;
    }

    bool CopyOut(const PeerStep& step)
    {
        DR_QUERY_DISK_RSP info;
        if (!Query(kCopyLetter, step.path, &info))
            return false;
        // O_TRUNC empties an existing file, so no stale byte shows through a hole.
        platform::UniqueFd out(open(step.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        struct stat st {};
        if (!out || fstat(out.get(), &st) != 0) {
            const std::string why = std::strerror(errno);
            std::string releaseError;
            m_session.Release(kCopyLetter, releaseError);
            return Fail("cannot open " + step.file + ": " + why);
        }
        ImageWriter writer(out.get(), S_ISREG(st.st_mode));
        ProgressBar bar(!m_options.quiet, "copy-out");
        uint32_t crc = 0;
        uint64_t done = 0;
        std::string error;
        const auto start = Clock::now();
        const bool ok = m_session.ReadRange(
            kCopyLetter, 0, info.diskSize,
            [&](const uint8_t* bytes, size_t count) { return writer.Append(bytes, count); }, false, crc, done,
            [&](uint64_t d, uint64_t t) { bar(d, t); }, error);
        const auto elapsed = Clock::now() - start;
        std::string releaseError;
        m_session.Release(kCopyLetter, releaseError);
        if (!ok)
            return Fail(error);
        if (!writer.Finish(info.diskSize))
            return Fail("cannot size " + step.file + ": " + std::strerror(errno));
        if (fsync(out.get()) != 0)
            return Fail("cannot flush " + step.file + ": " + std::strerror(errno));
        out.reset();
        PrintThroughput("copied", done, elapsed);
        uint32_t fileCrc = 0;
        if (!FileCrc(step.file, fileCrc))
            return Fail("cannot read " + step.file + " back");
        if (fileCrc != crc)
            return Fail("checksum mismatch: received crc32 " + Hex(crc) + ", image holds " + Hex(fileCrc));
        std::printf("checksum crc32 %s ok\n", Hex(crc).c_str());
        return true;
    }

    bool CopyIn(const PeerStep& step)
    {
        platform::UniqueFd in(open(step.file.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st {};
        if (!in || fstat(in.get(), &st) != 0)
            return Fail("cannot open " + step.file + ": " + std::strerror(errno));
        const uint64_t size = static_cast<uint64_t>(st.st_size);
        DR_QUERY_DISK_RSP info;
        if (!Query(kCopyLetter, step.path, &info))
            return false;
        std::string error;
        std::string releaseError;
        if (info.diskSize < size) {
            m_session.Release(kCopyLetter, releaseError);
            return Fail("the image (" + std::to_string(size) + " bytes) does not fit on " + step.path + " (" +
                        std::to_string(info.diskSize) + " bytes)");
        }
        ProgressBar bar(!m_options.quiet, "copy-in");
        uint32_t sentCrc = 0;
        const auto start = Clock::now();
        bool ok = m_session.WriteRange(
            kCopyLetter, 0, size, [&](uint8_t* buffer, size_t count) { return ReadWhole(in.get(), buffer, count); },
            sentCrc, [&](uint64_t d, uint64_t t) { bar(d, t); }, error);
        const auto elapsed = Clock::now() - start;
        uint32_t readCrc = 0;
        uint64_t done = 0;
        if (ok) {
            PrintThroughput("copied", size, elapsed);
            ok = m_session.ReadRange(
                kCopyLetter, 0, size, [](const uint8_t*, size_t) { return true; }, false, readCrc, done, nullptr,
                error);
        }
        m_session.Release(kCopyLetter, releaseError);
        if (!ok)
            return Fail(error);
        if (readCrc != sentCrc)
            return Fail("checksum mismatch: wrote crc32 " + Hex(sentCrc) + ", read back " + Hex(readCrc));
        std::printf("checksum crc32 %s ok\n", Hex(sentCrc).c_str());
        return true;
    }

    static std::string Hex(uint32_t value)
    {
        char text[11];
        std::snprintf(text, sizeof text, "0x%08x", value);
        return text;
    }

    DriveSession& m_session;
    const PeerOptions& m_options;
};

} // namespace

int main(int argc, char** argv)
{
    platform::KeepLargeBlocksInTheHeap();
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string error;
    auto parsed = ParsePeerCommandLine(args, error);
    if (!parsed) {
        std::fprintf(stderr, "veltrane-protocol: %s\n\n%s", error.c_str(), PeerUsage());
        return kPeerExitUsage;
    }
    const PeerOptions& options = *parsed;
    if (options.help) {
        std::fputs(PeerUsage(), stdout);
        return kPeerExitOk;
    }
    std::signal(SIGPIPE, SIG_IGN);

    PeerConnection::Options connectOptions;
    connectOptions.workerPath = options.workerPath;
    connectOptions.endpoint = options.endpoint;
    connectOptions.streamName = options.streamName;
    connectOptions.timeout = std::chrono::seconds(options.timeoutSeconds);
    auto connection = PeerConnection::Open(connectOptions, error);
    if (!connection) {
        std::fprintf(stderr, "veltrane-protocol: %s\n", error.c_str());
        return kPeerExitConnect;
    }
    DriveClient& client = connection->client();

    DriveSession session(client, std::chrono::seconds(options.timeoutSeconds), connection->chunkSize());
    StepRunner runner(session, options);
    int exitCode = kPeerExitOk;
    for (const PeerStep& step : options.steps) {
        if (!runner.Run(step)) {
            exitCode = kPeerExitRequestFailed;
            break;
        }
    }

    const int workerExit = connection->Close();
    if (workerExit != 0) {
        std::fprintf(stderr, "veltrane-protocol: the worker exited with %d\n", workerExit);
        if (exitCode == kPeerExitOk)
            exitCode = kPeerExitWorker;
    }
    return exitCode;
}
