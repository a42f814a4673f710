#include "peer/PeerSteps.h"

#include "peer/DeviceUse.h"
#include "peer/ImageFile.h"
#include "peer/InterruptWatch.h"

#include <tolv/platform/UniqueFd.h>
#include "platform/Utf.h"
#include "platform/WholeIo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

using namespace tolv::worker;

using Clock = std::chrono::steady_clock;

namespace {

void Say(const std::string& text)
{
    std::fprintf(stderr, "veltrane-protocol: %s\n", text.c_str());
}

void PrintThroughput(const char* what, uint64_t bytes, Clock::duration elapsed)
{
    const double seconds = std::chrono::duration<double>(elapsed).count();
    std::fprintf(stderr, "%s %llu bytes in %.3f s: %s/s\n", what, static_cast<unsigned long long>(bytes), seconds,
                 ProgressMeter::Bytes(seconds > 0 ? static_cast<uint64_t>(bytes / seconds) : 0).c_str());
}

std::string Hex(uint32_t value)
{
    char text[11];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

std::string Join(const std::vector<std::string>& items)
{
    std::string text;
    for (const std::string& item : items)
        text += (text.empty() ? "" : ", ") + item;
    return text;
}

bool IsRegular(int fd)
{
    struct stat st {};
    return fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

} // namespace

PeerSteps::PeerSteps(DriveSession& session, const PeerOptions& options, const InterruptWatch& interrupt,
                     pid_t workerPid)
    : m_session(session),
      m_options(options),
      m_interrupt(interrupt),
      m_workerPid(workerPid),
      m_results(options.dataOnStdout() ? stderr : stdout)
{
}

int PeerSteps::Run(const PeerStep& step)
{
    if (interrupted())
        return kPeerExitSignalBase + m_interrupt.signal();
    switch (step.kind) {
    case PeerStepKind::Query: return Query(step, nullptr);
    case PeerStepKind::Read: return Read(step);
    case PeerStepKind::Write: return Write(step);
    case PeerStepKind::Release: return Release(step.letter);
    case PeerStepKind::CopyOut: return CopyOut(step);
    case PeerStepKind::CopyIn: return CopyIn(step);
    }
    return kPeerExitUsage;
}

void PeerSteps::ReleaseAll()
{
    std::string error;
    for (const auto& [letter, drive] : m_drives)
        m_session.Release(letter, error);
    m_drives.clear();
}

bool PeerSteps::interrupted() const
{
    return m_interrupt.interrupted();
}

int PeerSteps::Fail(const std::string& what)
{
    if (interrupted())
        return kPeerExitSignalBase + m_interrupt.signal();
    Say(what);
    return kPeerExitRequestFailed;
}

ProgressMeter PeerSteps::Meter(const char* what) const
{
    const bool terminal = isatty(STDERR_FILENO) != 0;
    const bool show =
        m_options.progress == ProgressMode::On || (m_options.progress == ProgressMode::Auto && terminal);
    return ProgressMeter(show ? stderr : nullptr, terminal, what);
}

void PeerSteps::RemovePartial(const std::string& file, bool ownRegularFile)
{
    if (!ownRegularFile)
        return;
    if (m_options.keepPartial) {
        Say("kept the partial output " + file);
        return;
    }
    if (unlink(file.c_str()) == 0)
        Say("removed the partial output " + file);
    else if (errno != ENOENT)
        Say("cannot remove the partial output " + file + ": " + std::strerror(errno));
}

int PeerSteps::Query(const PeerStep& step, DR_QUERY_DISK_RSP* out)
{
    const uint8_t letter = step.letter;
    Drive drive{LocalDrivePath::Resolve(step.path), {}, true};
    const LocalDrivePath& path = drive.path;
    auto wide = tolv::platform::Utf8ToUtf16(path.sent());
    if (!wide)
        return Fail("the path is not valid UTF-8: " + step.path);
    const std::string name = std::string("drive ") + static_cast<char>(letter) + ": " + step.path;

    const std::vector<std::string> mountedBefore =
        path.device() != 0 ? MountPointsOf(path.device()) : std::vector<std::string>();
    DR_QUERY_DISK_RSP info;
    std::string error;
    if (!m_session.Query(letter, *wide, info, error)) {
        // The worker answers a failed open with one status for every cause;
        // the cause shows from here.
        const std::string why = interrupted() ? std::string() : path.WhyNotOpenable();
        return Fail(name + ": " + (why.empty() ? error : why + " (" + error + ")"));
    }
    m_drives.erase(letter);  // the worker replaced its record of the letter

    if (path.device() != 0) {
        drive.stillMountedOn = MountPointsOf(path.device());
        for (const std::string& point : mountedBefore)
            if (std::find(drive.stillMountedOn.begin(), drive.stillMountedOn.end(), point) ==
                drive.stillMountedOn.end())
                Say(path.devicePath() + " was mounted on " + point + "; the worker dismounted it");
        if (!drive.stillMountedOn.empty())
            Say(path.devicePath() + " is still mounted on " + Join(drive.stillMountedOn) +
                ": the worker could not dismount it");
        // The worker holds its handle and, for the lock, an exclusive claim.
        if (m_workerPid > 0) {
            const int held = DescriptorsOn(m_workerPid, path.device());
            drive.heldExclusively = held < 0 || held >= 2;
        }
    }

    // The raw record marks every plain file read-only with no geometry; the
    // worker opened it for reading and writing, so it is writable.
    const bool writable = path.isDevice() ? info.readOnly == 0 : true;
    if (step.json) {
        const nlohmann::ordered_json result = {
            {"drive", std::string(1, static_cast<char>(letter))},
            {"path", step.path},
            {"sent_path", path.sent()},
            {"device", path.isDevice()},
            {"size", info.diskSize},
            {"writable", writable},
            {"media_type", info.mediaType},
            {"tracks_per_cylinder", info.tracksPerCylinder},
            {"sectors_per_track", info.sectorsPerTrack},
            {"bytes_per_sector", info.bytesPerSector},
        };
        std::fprintf(m_results, "%s\n", result.dump().c_str());
    } else if (path.isDevice()) {
        std::fprintf(out ? stderr : m_results,
                     "%s: %llu bytes, %s, media type %u, %u tracks per cylinder, %u sectors per track, "
                     "%u bytes per sector\n",
                     name.c_str(), static_cast<unsigned long long>(info.diskSize),
                     writable ? "writable" : "read-only", info.mediaType, info.tracksPerCylinder,
                     info.sectorsPerTrack, info.bytesPerSector);
    } else {
        std::fprintf(out ? stderr : m_results, "%s: %llu bytes, writable, a regular file (no geometry)\n",
                     name.c_str(), static_cast<unsigned long long>(info.diskSize));
    }
    std::fflush(m_results);
    m_drives.emplace(letter, std::move(drive));
    if (out)
        *out = info;
    return kPeerExitOk;
}

int PeerSteps::RefuseWhileMounted(uint8_t letter, const char* step)
{
    auto it = m_drives.find(letter);
    if (it == m_drives.end() || it->second.stillMountedOn.empty() || m_options.force)
        return kPeerExitOk;
    Say(std::string(step) + ": " + it->second.path.devicePath() + " is mounted on " +
        Join(it->second.stillMountedOn) +
        "; writing under a mounted file system corrupts it. Unmount it, or give --force to write anyway");
    return kPeerExitMounted;
}

int PeerSteps::Release(uint8_t letter)
{
    std::string error;
    m_drives.erase(letter);
    if (!m_session.Release(letter, error))
        return Fail(error);
    std::fprintf(stderr, "drive %c: released\n", letter);
    return kPeerExitOk;
}

int PeerSteps::Read(const PeerStep& step)
{
    const bool toStdout = step.file == "-";
    tolv::platform::UniqueFd out(toStdout ? dup(STDOUT_FILENO)
                                    : open(step.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!out)
        return Fail("cannot open " + step.file + ": " + std::strerror(errno));
    const bool ownFile = !toStdout && IsRegular(out.get());
    uint32_t crc = 0;
    uint64_t done = 0;
    std::string error;
    const auto start = Clock::now();
    if (!m_session.ReadRange(
            step.letter, step.offset, step.length,
            [&](const uint8_t* bytes, size_t count) {
                return !interrupted() && tolv::platform::WriteWhole(out.get(), bytes, count);
            },
            true, crc, done, nullptr, error)) {
        out.reset();
        RemovePartial(step.file, ownFile);
        return Fail(error);
    }
    PrintThroughput("read", done, Clock::now() - start);
    return kPeerExitOk;
}

int PeerSteps::Write(const PeerStep& step)
{
    if (const int refused = RefuseWhileMounted(step.letter, "write"))
        return refused;
    tolv::platform::UniqueFd in(open(step.file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!in || fstat(in.get(), &st) != 0)
        return Fail("cannot open " + step.file + ": " + std::strerror(errno));
    uint32_t crc = 0;
    std::string error;
    const auto start = Clock::now();
    if (!m_session.WriteRange(
            step.letter, step.offset, static_cast<uint64_t>(st.st_size),
            [&](uint8_t* buffer, size_t count) {
                return !interrupted() && tolv::platform::ReadWhole(in.get(), buffer, count);
            },
            crc, nullptr, error))
        return Fail(error);
    PrintThroughput("wrote", static_cast<uint64_t>(st.st_size), Clock::now() - start);
    return kPeerExitOk;
}

int PeerSteps::CopyOut(const PeerStep& step)
{
    DR_QUERY_DISK_RSP info;
    if (const int failed = Query(PeerStep{PeerStepKind::Query, kCopyLetter, step.path, {}, 0, 0, false}, &info))
        return failed;
    const Drive& drive = m_drives.at(kCopyLetter);
    if (!drive.stillMountedOn.empty() || !drive.heldExclusively)
        Say(std::string("warning: ") + drive.path.devicePath() +
            (drive.stillMountedOn.empty() ? " is not held exclusively by the worker (its lock failed)"
                                          : " is still mounted") +
            ": the image may be of a live file system, changing while it was copied");
    std::string releaseError;
    // O_TRUNC empties an existing file, so no stale byte shows through a hole.
    tolv::platform::UniqueFd out(open(step.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!out) {
        const std::string why = std::strerror(errno);
        Release(kCopyLetter);
        return Fail("cannot open " + step.file + ": " + why);
    }
    const bool ownFile = IsRegular(out.get());
    ImageWriter writer(out.get(), ownFile);
    ProgressMeter copyMeter = Meter("copy-out");
    uint32_t crc = 0;
    uint64_t done = 0;
    std::string error;
    const auto start = Clock::now();
    bool ok = m_session.ReadRange(
        kCopyLetter, 0, info.diskSize,
        [&](const uint8_t* bytes, size_t count) { return !interrupted() && writer.Append(bytes, count); }, false,
        crc, done, [&](uint64_t d, uint64_t t) { copyMeter.Update(d, t); }, error);
    const auto elapsed = Clock::now() - start;
    m_drives.erase(kCopyLetter);
    m_session.Release(kCopyLetter, releaseError);
    if (ok && !writer.Finish(info.diskSize)) {
        ok = false;
        error = "cannot size " + step.file + ": " + std::strerror(errno);
    }
    if (ok && fsync(out.get()) != 0) {
        ok = false;
        error = "cannot flush " + step.file + ": " + std::strerror(errno);
    }
    out.reset();
    if (!ok) {
        RemovePartial(step.file, ownFile);
        return Fail(error);
    }
    PrintThroughput("copied", done, elapsed);
    ProgressMeter checkMeter = Meter("check");
    uint32_t fileCrc = 0;
    if (!FileCrc(step.file, fileCrc, [&](uint64_t d, uint64_t t) {
            checkMeter.Update(d, t);
            return !interrupted();
        })) {
        // An image that was not checked is not a copy to rely on.
        if (interrupted())
            RemovePartial(step.file, ownFile);
        return Fail("cannot read " + step.file + " back");
    }
    if (fileCrc != crc)
        return Fail("checksum mismatch: received crc32 " + Hex(crc) + ", image holds " + Hex(fileCrc));
    std::fprintf(stderr, "checksum crc32 %s ok\n", Hex(crc).c_str());
    return kPeerExitOk;
}

int PeerSteps::CopyIn(const PeerStep& step)
{
    tolv::platform::UniqueFd in(open(step.file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!in || fstat(in.get(), &st) != 0)
        return Fail("cannot open " + step.file + ": " + std::strerror(errno));
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    DR_QUERY_DISK_RSP info;
    if (const int failed = Query(PeerStep{PeerStepKind::Query, kCopyLetter, step.path, {}, 0, 0, false}, &info))
        return failed;
    if (const int refused = RefuseWhileMounted(kCopyLetter, "copy-in")) {
        Release(kCopyLetter);
        return refused;
    }
    std::string error;
    std::string releaseError;
    if (info.diskSize < size) {
        Release(kCopyLetter);
        return Fail("the image (" + std::to_string(size) + " bytes) does not fit on " + step.path + " (" +
                    std::to_string(info.diskSize) + " bytes)");
    }
    ProgressMeter copyMeter = Meter("copy-in");
    uint32_t sentCrc = 0;
    const auto start = Clock::now();
    bool ok = m_session.WriteRange(
        kCopyLetter, 0, size,
        [&](uint8_t* buffer, size_t count) { return !interrupted() && tolv::platform::ReadWhole(in.get(), buffer, count); },
        sentCrc, [&](uint64_t d, uint64_t t) { copyMeter.Update(d, t); }, error);
    const auto elapsed = Clock::now() - start;
    uint32_t readCrc = 0;
    uint64_t done = 0;
    if (ok) {
        PrintThroughput("copied", size, elapsed);
        ProgressMeter checkMeter = Meter("check");
        ok = m_session.ReadRange(
            kCopyLetter, 0, size, [&](const uint8_t*, size_t) { return !interrupted(); }, false, readCrc, done,
            [&](uint64_t d, uint64_t t) { checkMeter.Update(d, t); }, error);
    }
    m_drives.erase(kCopyLetter);
    m_session.Release(kCopyLetter, releaseError);
    if (!ok)
        return Fail(error);
    if (readCrc != sentCrc)
        return Fail("checksum mismatch: wrote crc32 " + Hex(sentCrc) + ", read back " + Hex(readCrc));
    std::fprintf(stderr, "checksum crc32 %s ok\n", Hex(sentCrc).c_str());
    return kPeerExitOk;
}
