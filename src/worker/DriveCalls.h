#pragma once
// The three replaceable drive calls (open, device control, close): one
// process-wide table that starts at the Linux defaults. Tests swap the whole
// table; a swap must not race requests in flight, and each open handle keeps
// the table it was opened with, so its close goes to the same place.

#include <cstdint>
#include <string>
#include <string_view>
#include <optional>

namespace tolv::worker {

// Control codes the drive service sends; the numbers are the system's own.
inline constexpr uint32_t IOCTL_DISK_GET_DRIVE_GEOMETRY = 0x00070000;
inline constexpr uint32_t IOCTL_DISK_IS_WRITABLE = 0x00070024;
inline constexpr uint32_t IOCTL_DISK_GET_LENGTH_INFO = 0x0007405C;
inline constexpr uint32_t FSCTL_LOCK_VOLUME = 0x00090018;
inline constexpr uint32_t FSCTL_UNLOCK_VOLUME = 0x0009001C;
inline constexpr uint32_t FSCTL_DISMOUNT_VOLUME = 0x00090020;
inline constexpr uint32_t FSCTL_ALLOW_EXTENDED_DASD_IO = 0x00090083;

// Media types reported in the geometry.
inline constexpr uint32_t MEDIA_TYPE_REMOVABLE = 11;
inline constexpr uint32_t MEDIA_TYPE_FIXED = 12;

// Output of IOCTL_DISK_GET_DRIVE_GEOMETRY (24 bytes in the system's layout).
struct DISK_GEOMETRY {
    int64_t Cylinders = 0;
    uint32_t MediaType = 0;
    uint32_t TracksPerCylinder = 0;
    uint32_t SectorsPerTrack = 0;
    uint32_t BytesPerSector = 0;
};
static_assert(sizeof(DISK_GEOMETRY) == 24);

inline constexpr int INVALID_DRIVE_HANDLE = -1;

struct DriveCallTable {
    // Opens `path` for reading and writing (read-only for a block device that
    // refuses writing). Returns the descriptor, or -1 with errno set.
    int (*createFile)(const std::u16string& path);
    // Sends a control code with no input. `output` holds `outputSize` bytes
    // (null/0 for codes without output). False with errno set on failure.
    bool (*deviceIoControl)(int handle, uint32_t code, void* output, uint32_t outputSize);
    // Closes a handle from createFile, with anything kept beside it.
    bool (*closeHandle)(int handle);
};

// The table in force.
const DriveCallTable& DriveCalls();
// Puts `table` in force (null: the Linux defaults) and returns the previous
// one. The table must outlive its use.
const DriveCallTable* SetDriveCalls(const DriveCallTable* table);
// The Linux defaults.
const DriveCallTable& LinuxDriveCalls();

// "\\.\name" is the device /dev/name (backslashes become '/'); any other path is
// an absolute Linux path as it stands. Refuses text that is not valid UTF-16,
// an embedded zero, relative paths, and device names that are empty or step
// outside /dev.
std::optional<std::string> DrivePathToLinux(std::u16string_view path);
// True when the path is in the device namespace ("\\." first).
bool IsDevicePath(std::u16string_view path);

} // namespace tolv::worker
