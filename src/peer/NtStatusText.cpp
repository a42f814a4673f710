#include "peer/NtStatusText.h"

#include <tolv/platform/NtStatus.h>

#include <cstdio>

namespace {

struct Entry {
    uint32_t status;
    const char* name;
    const char* words;
};

constexpr Entry kEntries[] = {
    {platform::STATUS_SUCCESS, "STATUS_SUCCESS", "success"},
    {platform::STATUS_UNSUCCESSFUL, "STATUS_UNSUCCESSFUL", "the request failed"},
    {platform::STATUS_INVALID_HANDLE, "STATUS_INVALID_HANDLE", "invalid handle"},
    {platform::STATUS_INVALID_PARAMETER, "STATUS_INVALID_PARAMETER", "invalid parameter"},
    {platform::STATUS_NO_SUCH_DEVICE, "STATUS_NO_SUCH_DEVICE", "no such device"},
    {platform::STATUS_END_OF_FILE, "STATUS_END_OF_FILE", "end of file"},
    {platform::STATUS_NO_MEDIA_IN_DEVICE, "STATUS_NO_MEDIA_IN_DEVICE", "no medium in the device"},
    {platform::STATUS_ACCESS_DENIED, "STATUS_ACCESS_DENIED", "access denied"},
    {platform::STATUS_DEVICE_BUSY, "STATUS_DEVICE_BUSY", "the device is busy"},
    {platform::STATUS_DISK_FULL, "STATUS_DISK_FULL", "the disk is full"},
    {platform::STATUS_INSUFFICIENT_RESOURCES, "STATUS_INSUFFICIENT_RESOURCES", "not enough memory"},
    {platform::STATUS_MEDIA_WRITE_PROTECTED, "STATUS_MEDIA_WRITE_PROTECTED", "the medium is write-protected"},
    {platform::STATUS_IO_DEVICE_ERROR, "STATUS_IO_DEVICE_ERROR", "I/O error on the device"},
    {platform::STATUS_FILE_TOO_LARGE, "STATUS_FILE_TOO_LARGE", "the file is too large"},
};

} // namespace

std::string NtStatusText(uint32_t status)
{
    char number[16];
    std::snprintf(number, sizeof number, "0x%08X", status);
    for (const Entry& entry : kEntries)
        if (entry.status == status)
            return std::string(entry.name) + " (" + number + "): " + entry.words;
    return std::string("NT status ") + number;
}
