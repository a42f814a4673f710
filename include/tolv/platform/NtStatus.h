#pragma once
// NT status values carried in reply records, and the one place where a failed
// system call's errno becomes one.

#include <cstdint>

namespace tolv::platform {

using NTSTATUS = uint32_t;

inline constexpr NTSTATUS STATUS_SUCCESS = 0x00000000;
inline constexpr NTSTATUS STATUS_PENDING = 0x00000103;
inline constexpr NTSTATUS STATUS_UNSUCCESSFUL = 0xC0000001;
inline constexpr NTSTATUS STATUS_INVALID_HANDLE = 0xC0000008;
inline constexpr NTSTATUS STATUS_INVALID_PARAMETER = 0xC000000D;
inline constexpr NTSTATUS STATUS_NO_SUCH_DEVICE = 0xC000000E;
inline constexpr NTSTATUS STATUS_END_OF_FILE = 0xC0000011;
inline constexpr NTSTATUS STATUS_NO_MEDIA_IN_DEVICE = 0xC0000013;
inline constexpr NTSTATUS STATUS_ACCESS_DENIED = 0xC0000022;
inline constexpr NTSTATUS STATUS_DEVICE_BUSY = 0xC0000043;
inline constexpr NTSTATUS STATUS_DISK_FULL = 0xC000007F;
inline constexpr NTSTATUS STATUS_INSUFFICIENT_RESOURCES = 0xC000009A;
inline constexpr NTSTATUS STATUS_MEDIA_WRITE_PROTECTED = 0xC00000A2;
inline constexpr NTSTATUS STATUS_IO_DEVICE_ERROR = 0xC0000185;
inline constexpr NTSTATUS STATUS_FILE_TOO_LARGE = 0xC0000904;

// What the failed call was doing: EPERM means write protection only for a write.
enum class IoDirection { Other, Write };

NTSTATUS NtStatusFromErrno(int err, IoDirection direction = IoDirection::Other);

// NT success and informational values are those that are not negative as int32.
constexpr bool NtSuccess(NTSTATUS status) { return static_cast<int32_t>(status) >= 0; }

} // namespace tolv::platform
