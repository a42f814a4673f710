// libFuzzer target: a peer's drive requests, each the whole payload of one IPC
// message, run through StorageDrives::HandleRequest. The drive calls are
// replaced by a table that hands out memfds, so reads and writes really run,
// and that answers the device controls for "\\.\" paths. One input holds
// several requests, so that query, read, write and release meet on the same
// letters. Every reply is checked against the memfds it speaks of.
//
// Input: one mode byte, then records of a 16-bit little-endian length and
// that many bytes (the last record takes what is left).
//   mode bits 0..2: every n-th reply block cannot be had (0: all can);
//   mode bit 3:     such a block fails by throwing std::bad_alloc, not null;
//   mode bit 4:     the service is deleted without Uninit (as when its peer
//                   is replaced), rather than uninitialised first.
// A path may end in '#' and one more code unit, whose value minus 0x40 sets
// how the drive behaves (kOpenFails and the rest below).

#include "worker/DriveCalls.h"
#include <tolv/worker/DriveRequests.h>
#include "worker/StorageDrives.h"

#include "platform/LittleEndian.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

using namespace tolv::worker;

using tolv::platform::LoadLe;

namespace {

#define FUZZ_CHECK(condition)          \
    do {                               \
        if (!(condition))              \
            __builtin_trap();          \
    } while (0)

enum : uint32_t {
    kOpenFails = 0x01,
    kLockFails = 0x02,
    kDismountFails = 0x04,
    kLengthFails = 0x08,
    kReadOnly = 0x10,  // opened read-only; a device says it is not writable
    kGeometryFails = 0x20,
    kLengthLies = 0x40,  // a device reports more than the memfd holds
    kExtendedFails = 0x80,
};

constexpr uint32_t kStatusUnsuccessful = 0xC0000001;
constexpr uint32_t kStatusInvalidParameter = 0xC000000D;
constexpr uint32_t kStatusEndOfFile = 0xC0000011;
constexpr uint32_t kStatusNoMemory = 0xC000009A;
constexpr uint32_t kStatusWriteProtected = 0xC00000A2;

const DISK_GEOMETRY kGeometry{977, MEDIA_TYPE_FIXED, 255, 63, 512};

struct OpenDrive {
    uint32_t behaviour = 0;
    bool device = false;
    uint64_t size = 0;            // of the memfd when opened
    uint64_t reportedLength = 0;  // what a device says it holds
    bool locked = false;
};

// Descriptors the fake handed out and the service has not closed.
std::map<int, OpenDrive> g_open;
int g_lastOpened = -1;

uint32_t BehaviourOf(const std::u16string& path)
{
    const size_t mark = path.rfind(u'#');
    if (mark == std::u16string::npos || mark + 1 >= path.size() || path[mark + 1] < 0x40)
        return 0;
    return static_cast<uint32_t>(path[mark + 1] - 0x40);
}

// The path mapping the real table uses: whatever it yields stays absolute and,
// for a device, below /dev.
void CheckLinuxPath(const std::u16string& path, const std::string& linuxPath)
{
    FUZZ_CHECK(!linuxPath.empty() && linuxPath[0] == '/');
    if (!IsDevicePath(path))
        return;
    FUZZ_CHECK(linuxPath.compare(0, 5, "/dev/") == 0 && linuxPath.size() > 5);
    size_t start = 5;
    while (start <= linuxPath.size()) {
        size_t end = linuxPath.find('/', start);
        if (end == std::string::npos)
            end = linuxPath.size();
        const std::string part = linuxPath.substr(start, end - start);
        FUZZ_CHECK(!part.empty() && part != "." && part != "..");
        start = end + 1;
    }
}

int FakeCreate(const std::u16string& path)
{
    g_lastOpened = -1;
    const auto linuxPath = DrivePathToLinux(path);
    if (linuxPath)
        CheckLinuxPath(path, *linuxPath);
    const uint32_t behaviour = BehaviourOf(path);
    if (!linuxPath || (behaviour & kOpenFails)) {
        errno = linuxPath ? ENOENT : EINVAL;
        return -1;
    }
    OpenDrive drive;
    drive.behaviour = behaviour;
    drive.device = IsDevicePath(path);
    drive.size = 512 * (1 + path.size() % 8) + path.size() % 3;
    drive.reportedLength = (behaviour & kLengthLies) ? 2 * drive.size + 1 : drive.size;
    int fd = ::memfd_create("fuzz-drive", MFD_CLOEXEC);
    FUZZ_CHECK(fd >= 0 && ::ftruncate(fd, static_cast<off_t>(drive.size)) == 0);
    if (behaviour & kReadOnly) {
        const std::string self = "/proc/self/fd/" + std::to_string(fd);
        const int readOnly = ::open(self.c_str(), O_RDONLY | O_CLOEXEC);
        FUZZ_CHECK(readOnly >= 0);
        ::close(fd);
        fd = readOnly;
    }
    FUZZ_CHECK(g_open.emplace(fd, drive).second);
    g_lastOpened = fd;
    return fd;
}

bool Fail(int err)
{
    errno = err;
    return false;
}

bool FakeControl(int handle, uint32_t code, void* output, uint32_t outputSize)
{
    auto it = g_open.find(handle);
    FUZZ_CHECK(it != g_open.end());  // never a control on a handle the service closed
    OpenDrive& drive = it->second;
    if (!drive.device)
        return Fail(ENOTTY);  // a plain file has no volume to lock or dismount
    switch (code) {
    case FSCTL_ALLOW_EXTENDED_DASD_IO:
        return (drive.behaviour & kExtendedFails) ? Fail(EINVAL) : true;
    case FSCTL_LOCK_VOLUME:
        if (drive.behaviour & kLockFails)
            return Fail(EBUSY);
        drive.locked = true;
        return true;
    case FSCTL_UNLOCK_VOLUME:
        if (!drive.locked)
            return Fail(EINVAL);
        drive.locked = false;
        return true;
    case FSCTL_DISMOUNT_VOLUME:
        return (drive.behaviour & kDismountFails) ? Fail(EBUSY) : true;
    case IOCTL_DISK_GET_LENGTH_INFO:
        FUZZ_CHECK(output != nullptr && outputSize >= sizeof drive.reportedLength);
        if (drive.behaviour & kLengthFails)
            return Fail(EIO);
        std::memcpy(output, &drive.reportedLength, sizeof drive.reportedLength);
        return true;
    case IOCTL_DISK_IS_WRITABLE:
        return (drive.behaviour & kReadOnly) ? Fail(EROFS) : true;
    case IOCTL_DISK_GET_DRIVE_GEOMETRY:
        FUZZ_CHECK(output != nullptr && outputSize >= sizeof kGeometry);
        if (drive.behaviour & kGeometryFails)
            return Fail(ENOTTY);
        std::memcpy(output, &kGeometry, sizeof kGeometry);
        return true;
    default:
        __builtin_trap();  // the service sends no other code
    }
}

bool FakeClose(int handle)
{
    FUZZ_CHECK(g_open.erase(handle) == 1);  // no double close, no foreign descriptor
    return ::close(handle) == 0;
}

const DriveCallTable kFakeCalls{&FakeCreate, &FakeControl, &FakeClose};

// Reply blocks, failing on demand.
unsigned g_failEvery = 0;
unsigned g_allocations = 0;
bool g_failByThrow = false;
bool g_allocFailed = false;

void* FuzzReplyAllocator(size_t size)
{
    if (g_failEvery != 0 && ++g_allocations % g_failEvery == 0) {
        g_allocFailed = true;
        if (g_failByThrow)
            throw std::bad_alloc();
        return nullptr;
    }
    return std::malloc(size);
}

__attribute__((no_sanitize("coverage"))) size_t CountDescriptors()
{
    size_t count = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    FUZZ_CHECK(dir != nullptr);
    while (dirent* entry = ::readdir(dir))
        if (entry->d_name[0] != '.')
            ++count;
    ::closedir(dir);
    return count;
}

std::vector<uint8_t> PreadExactly(int fd, uint64_t offset, size_t length)
{
    std::vector<uint8_t> bytes(length);
    size_t done = 0;
    while (done < length) {
        const ssize_t n = ::pread(fd, bytes.data() + done, length - done, static_cast<off_t>(offset + done));
        FUZZ_CHECK(n > 0);
        done += static_cast<size_t>(n);
    }
    return bytes;
}

uint64_t FileSize(int fd)
{
    struct stat st {};
    FUZZ_CHECK(::fstat(fd, &st) == 0);
    return static_cast<uint64_t>(st.st_size);
}

// What the peer may assume of the letters it queried.
struct KnownDrive {
    int fd = -1;
    uint64_t diskSize = 0;
};

struct Reply {
    uint32_t status = 0;
    uint64_t information = 0;
    uint32_t payloadLength = 0;
    const uint8_t* payload = nullptr;
};

void CheckQuery(const uint8_t* payload, size_t payloadSize, uint8_t letter, const Reply& reply,
                std::map<uint8_t, KnownDrive>& known)
{
    FUZZ_CHECK(reply.information == 0);
    // The path as the service must read it: UTF-16LE up to a zero inside the message.
    bool terminated = false;
    std::u16string path;
    for (size_t at = 4; payloadSize >= 4 && at + 2 <= payloadSize; at += 2) {
        const auto unit = LoadLe<uint16_t>(payload + at);
        if (unit == 0) {
            terminated = true;
            break;
        }
        path.push_back(static_cast<char16_t>(unit));
    }
    const auto before = known.find(letter);
    if (!terminated) {
        FUZZ_CHECK(reply.status == kStatusInvalidParameter && reply.payloadLength == 0);
        FUZZ_CHECK(g_lastOpened == -1);
        return;
    }
    if (reply.status != 0) {
        FUZZ_CHECK(reply.payloadLength == 0);
        if (g_lastOpened == -1)
            FUZZ_CHECK(reply.status == kStatusUnsuccessful);
        else
            FUZZ_CHECK(g_open.count(g_lastOpened) == 0);  // a failed query keeps no handle
        // and leaves the letter's earlier drive as it was
        FUZZ_CHECK(before == known.end() || g_open.count(before->second.fd) == 1);
        return;
    }
    FUZZ_CHECK(reply.payloadLength == DR_QUERY_DISK_RSP_SIZE && g_lastOpened != -1);
    const auto opened = g_open.find(g_lastOpened);
    FUZZ_CHECK(opened != g_open.end());
    const OpenDrive& drive = opened->second;
    const uint8_t* p = reply.payload;
    FUZZ_CHECK(LoadLe<uint64_t>(p) == (drive.device ? drive.reportedLength : drive.size));
    for (size_t i : {9, 10, 11, 28, 29, 30, 31})
        FUZZ_CHECK(p[i] == 0);
    if (drive.device) {
        FUZZ_CHECK(p[8] == ((drive.behaviour & kReadOnly) ? 1 : 0));
        FUZZ_CHECK(LoadLe<uint32_t>(p + 12) == kGeometry.MediaType);
        FUZZ_CHECK(LoadLe<uint32_t>(p + 16) == kGeometry.TracksPerCylinder);
        FUZZ_CHECK(LoadLe<uint32_t>(p + 20) == kGeometry.SectorsPerTrack);
        FUZZ_CHECK(LoadLe<uint32_t>(p + 24) == kGeometry.BytesPerSector);
    } else {
        FUZZ_CHECK(p[8] == 1);
        for (size_t i = 12; i < 28; ++i)
            FUZZ_CHECK(p[i] == 0);
    }
    // A letter queried again replaces its drive, whose handle is closed.
    if (before != known.end())
        FUZZ_CHECK(g_open.count(before->second.fd) == 0);
    known[letter] = KnownDrive{g_lastOpened, LoadLe<uint64_t>(p)};
}

void CheckRead(const uint8_t* payload, size_t payloadSize, uint8_t letter, const Reply& reply,
               const std::map<uint8_t, KnownDrive>& known)
{
    if (payloadSize < DR_READ_REQ_SIZE) {
        FUZZ_CHECK(reply.status == kStatusInvalidParameter && reply.payloadLength == 0 && reply.information == 0);
        return;
    }
    if (g_allocFailed)
        return;  // the reply says so, as checked by the caller
    const auto offset = LoadLe<uint64_t>(payload + 8);
    const auto length = LoadLe<uint32_t>(payload + 16);
    const auto it = known.find(letter);
    if (it == known.end()) {
        FUZZ_CHECK(reply.status != 0 && reply.payloadLength == 0);
        return;
    }
    const KnownDrive& drive = it->second;
    if (offset > drive.diskSize || (offset == drive.diskSize && length != 0)) {
        FUZZ_CHECK(reply.status == kStatusEndOfFile && reply.payloadLength == 0 && reply.information == 0);
        return;
    }
    const uint64_t clipped = std::min<uint64_t>(length, drive.diskSize - offset);
    const uint64_t fileSize = FileSize(drive.fd);
    if (reply.status == kStatusEndOfFile) {
        // Inside the size the query gave, but past what the memfd holds.
        FUZZ_CHECK(reply.payloadLength == 0 && fileSize <= offset && clipped != 0);
        return;
    }
    FUZZ_CHECK(reply.status == 0 && reply.payloadLength >= DR_READ_RSP_SIZE);
    const uint32_t bytesRead = LoadLe<uint32_t>(reply.payload);
    FUZZ_CHECK(bytesRead == reply.payloadLength - DR_READ_RSP_SIZE && reply.information == bytesRead);
    FUZZ_CHECK(bytesRead <= clipped);
    if (bytesRead < clipped)
        FUZZ_CHECK(fileSize <= offset + bytesRead);  // short only at the end of the file
    if (bytesRead != 0)
        FUZZ_CHECK(std::memcmp(PreadExactly(drive.fd, offset, bytesRead).data(), reply.payload + DR_READ_RSP_SIZE,
                               bytesRead) == 0);
}

void CheckWrite(const uint8_t* payload, size_t payloadSize, uint8_t letter, const Reply* reply,
                const std::map<uint8_t, KnownDrive>& known)
{
    const bool wellFormed = payloadSize >= DR_WRITE_REQ_SIZE &&
                            payloadSize - DR_WRITE_REQ_SIZE >= LoadLe<uint32_t>(payload + 16);
    if (!wellFormed) {
        if (reply)
            FUZZ_CHECK(reply->status == kStatusInvalidParameter && reply->payloadLength == 0 &&
                       reply->information == 0);
        return;
    }
    if (!reply)
        return;  // nothing says how it went
    FUZZ_CHECK(reply->payloadLength == 0);
    const auto offset = LoadLe<uint64_t>(payload + 8);
    const auto length = LoadLe<uint32_t>(payload + 16);
    const auto it = known.find(letter);
    if (it == known.end()) {
        FUZZ_CHECK(reply->status != 0 && reply->information == 0);
        return;
    }
    FUZZ_CHECK(reply->information <= length);
    if (reply->status != 0) {
        FUZZ_CHECK(reply->information < length || length == 0);
        const bool rangeFits = offset <= static_cast<uint64_t>(INT64_MAX) - length;
        if ((g_open.at(it->second.fd).behaviour & kReadOnly) && rangeFits)
            FUZZ_CHECK(reply->status == kStatusWriteProtected);
        return;
    }
    FUZZ_CHECK(reply->information == length);
    FUZZ_CHECK(!(g_open.at(it->second.fd).behaviour & kReadOnly) || length == 0);
    if (length != 0)
        FUZZ_CHECK(std::memcmp(PreadExactly(it->second.fd, offset, length).data(), payload + DR_WRITE_REQ_SIZE,
                               length) == 0);
}

void RunRecord(StorageDrives& drives, const uint8_t* data, size_t size, std::map<uint8_t, KnownDrive>& known)
{
    // An exactly sized heap copy, as the stream delivers it, so that any read
    // past the message is caught.
    std::unique_ptr<uint8_t[]> record(new uint8_t[size == 0 ? 1 : size]);
    if (size != 0)
        std::memcpy(record.get(), data, size);
    g_lastOpened = -1;
    g_allocFailed = false;

    uint8_t* response = reinterpret_cast<uint8_t*>(1);
    uint32_t responseSize = 0xFFFFFFFF;
    void* context = reinterpret_cast<void*>(1);
    const bool result = drives.HandleRequest(size == 0 ? nullptr : record.get(), static_cast<uint32_t>(size),
                                             &response, &responseSize, &context);
    FUZZ_CHECK(static_cast<void*>(response) == context);
    struct Release {
        StorageDrives& drives;
        void* block;
        ~Release() { drives.FreeResponse(block); }
    } release{drives, context};
    if (!response)
        FUZZ_CHECK(responseSize == 0);

    if (size < DR_REQ_HEADER_SIZE) {
        FUZZ_CHECK(!response && !result);
        return;
    }
    const auto ioContext = LoadLe<uint64_t>(data);
    const auto code = LoadLe<uint32_t>(data + 8);
    const uint8_t letter = data[12];
    const bool knownCode = code == DR_MSG_QUERY_DISK || code == DR_MSG_RELEASE_DISK || code == DR_MSG_READ ||
                            code == DR_MSG_WRITE;
    const bool wantsReply = code == DR_MSG_QUERY_DISK || code == DR_MSG_READ ||
                            (code == DR_MSG_WRITE && ioContext != DR_IOCONTEXT_NO_RESPONSE);
    if (!knownCode)
        FUZZ_CHECK(!result);
    if (code == DR_MSG_RELEASE_DISK)
        FUZZ_CHECK(result);
    if (!wantsReply) {
        FUZZ_CHECK(!response);
    } else if (!response) {
        FUZZ_CHECK(g_allocFailed && !result);  // only a reply that could not be had goes missing
    }

    Reply reply;
    if (response) {
        FUZZ_CHECK(responseSize >= DR_RSP_HEADER_SIZE);
        reply.status = LoadLe<uint32_t>(response + 8);
        reply.information = LoadLe<uint64_t>(response + 16);
        reply.payloadLength = LoadLe<uint32_t>(response + 24);
        reply.payload = response + DR_RSP_HEADER_SIZE;
        FUZZ_CHECK(responseSize == DR_RSP_HEADER_SIZE + uint64_t{reply.payloadLength});
        FUZZ_CHECK(LoadLe<uint64_t>(response) == ioContext);
        FUZZ_CHECK(LoadLe<uint32_t>(response + 12) == 0 && LoadLe<uint32_t>(response + 28) == 0);
        if (g_allocFailed)
            FUZZ_CHECK(reply.status == kStatusNoMemory && reply.payloadLength == 0);
    }

    const uint8_t* payload = data + DR_REQ_HEADER_SIZE;
    const size_t payloadSize = size - DR_REQ_HEADER_SIZE;
    switch (code) {
    case DR_MSG_QUERY_DISK:
        if (response)
            CheckQuery(payload, payloadSize, letter, reply, known);
        else if (g_lastOpened != -1)
            FUZZ_CHECK(g_open.count(g_lastOpened) == 0);
        break;
    case DR_MSG_RELEASE_DISK: {
        auto it = known.find(letter);
        if (it != known.end()) {
            FUZZ_CHECK(g_open.count(it->second.fd) == 0);  // released means closed
            known.erase(it);
        }
        break;
    }
    case DR_MSG_READ:
        if (response)
            CheckRead(payload, payloadSize, letter, reply, known);
        break;
    case DR_MSG_WRITE:
        if (!g_allocFailed)
            CheckWrite(payload, payloadSize, letter, response ? &reply : nullptr, known);
        break;
    default:
        break;
    }
    // Every handle open is one the peer can still name.
    FUZZ_CHECK(g_open.size() == known.size());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    SetDriveCalls(&kFakeCalls);
    StorageDrives::SetReplyAllocator(&FuzzReplyAllocator);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    static unsigned runs = 0;
    const bool countDescriptors = ++runs % 64 == 0;
    const size_t descriptorsBefore = countDescriptors ? CountDescriptors() : 0;

    g_failEvery = data[0] & 7;
    g_failByThrow = (data[0] & 8) != 0;
    const bool uninit = (data[0] & 16) == 0;
    g_allocations = 0;
    ++data;
    --size;
    {
        StorageDrives drives;
        FUZZ_CHECK(drives.Init());
        std::map<uint8_t, KnownDrive> known;
        while (size >= 2) {
            const size_t length = std::min<size_t>(LoadLe<uint16_t>(data), size - 2);
            data += 2;
            size -= 2;
            RunRecord(drives, data, length, known);
            data += length;
            size -= length;
        }
        if (uninit) {
            drives.Uninit();
            FUZZ_CHECK(g_open.empty());
        }
    }
    // The service let go of every drive it opened.
    FUZZ_CHECK(g_open.empty());
    if (countDescriptors)
        FUZZ_CHECK(CountDescriptors() == descriptorsBefore);
    return 0;
}
