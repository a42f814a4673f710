#pragma once
// An open drive or file. The handle closes itself, through the drive-call table
// it was opened with, when its last holder lets go: a transfer that copied the
// handle out of the drive table keeps the descriptor open (and its number
// unused by anything else) until the transfer ends.

#include "worker/DriveCalls.h"

#include <tolv/log/Log.h>

#include <cerrno>

#include <cstdint>

namespace tolv::worker {

class DriveHandle {
public:
    DriveHandle(int handle, const DriveCallTable& calls) noexcept : m_handle(handle), m_calls(&calls) {}
    ~DriveHandle()
    {
        if (m_handle != INVALID_DRIVE_HANDLE && !m_calls->closeHandle(m_handle))
            LOG_WARN("DriveHandle::~DriveHandle()", "Failed to flush and close handle %d (err: %d)", m_handle, errno);
    }
    DriveHandle(const DriveHandle&) = delete;
    DriveHandle& operator=(const DriveHandle&) = delete;

    int get() const noexcept { return m_handle; }

    bool Control(uint32_t code, void* output = nullptr, uint32_t outputSize = 0) const
    {
        return m_calls->deviceIoControl(m_handle, code, output, outputSize);
    }

private:
    int m_handle;
    const DriveCallTable* m_calls;
};

} // namespace tolv::worker
