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
    {tolv::platform::STATUS_SUCCESS, "STATUS_SUCCESS", "success"},
    {tolv::platform::STATUS_UNSUCCESSFUL, "STATUS_UNSUCCESSFUL", "the request failed"},
    {tolv::platform::STATUS_INVALID_HANDLE, "STATUS_INVALID_HANDLE", "invalid handle"},
    {tolv::platform::STATUS_INVALID_PARAMETER, "STATUS_INVALID_PARAMETER", "invalid parameter"},
    {tolv::platform::STATUS_NO_SUCH_DEVICE, "STATUS_NO_SUCH_DEVICE", "no such device"},
    {tolv::platform::STATUS_END_OF_FILE, "STATUS_END_OF_FILE", "end of file"},
    {tolv::platform::STATUS_NO_MEDIA_IN_DEVICE, "STATUS_NO_MEDIA_IN_DEVICE", "no medium in the device"},
    {tolv::platform::STATUS_ACCESS_DENIED, "STATUS_ACCESS_DENIED", "access denied"},
    {tolv::platform::STATUS_DEVICE_BUSY, "STATUS_DEVICE_BUSY", "the device is busy"},
    {tolv::platform::STATUS_DISK_FULL, "STATUS_DISK_FULL", "the disk is full"},
    {tolv::platform::STATUS_INSUFFICIENT_RESOURCES, "STATUS_INSUFFICIENT_RESOURCES", "not enough memory"},
    {tolv::platform::STATUS_MEDIA_WRITE_PROTECTED, "STATUS_MEDIA_WRITE_PROTECTED", "the medium is write-protected"},
    {tolv::platform::STATUS_IO_DEVICE_ERROR, "STATUS_IO_DEVICE_ERROR", "I/O error on the device"},
    {tolv::platform::STATUS_FILE_TOO_LARGE, "STATUS_FILE_TOO_LARGE", "the file is too large"},
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
