#pragma once
// Real loop devices, attached with autoclear while this object holds one open,
// so that the kernel detaches them even when the test process dies.

#include "common/TempDir.h"

#include <tolv/platform/UniqueFd.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

// Empty when loop devices and a private mount namespace (entered, once, so
// that nothing a test mounts is seen outside it) can be had, else why not.
std::string LoopDevicesUnavailableReason();

class LoopDevice {
public:
    // Null with `error` set on failure.
    static std::unique_ptr<LoopDevice> Attach(const std::string& image, bool readOnly, std::string& error);
    ~LoopDevice();  // lazily unmounts what is left mounted

    const std::string& path() const { return m_path; }                      // /dev/loopN
    std::string drivePath() const { return "\\\\.\\" + m_path.substr(5); }  // \\.\loopN
    // Makes an ext4 file system and mounts it on `directory` (made here).
    bool MountExt4(const std::string& directory, std::string& error);
    std::vector<std::string> MountPoints() const;
    // True when nobody holds the device exclusively right now.
    bool Claimable() const;

private:
    LoopDevice(std::string path, tolv::platform::UniqueFd fd) : m_path(std::move(path)), m_fd(std::move(fd)) {}
    std::string m_path;
    tolv::platform::UniqueFd m_fd;
};

// A test with real loop devices over pattern images in `dir`; skipped where
// there are none.
class LoopDeviceTest : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string reason = LoopDevicesUnavailableReason();
        if (!reason.empty())
            GTEST_SKIP() << "no loop devices: " << reason;
    }
    std::unique_ptr<LoopDevice> Attach(const std::string& name, size_t size, uint32_t seed, bool readOnly = false)
    {
        WritePatternFile(dir.file(name), size, seed);
        std::string error;
        auto device = LoopDevice::Attach(dir.file(name), readOnly, error);
        EXPECT_TRUE(device) << error;
        return device;
    }
    // Mounted on mnt(); null (the test has failed) when any step fails.
    std::unique_ptr<LoopDevice> AttachMountedExt4(const std::string& name, size_t size, uint32_t seed)
    {
        auto device = Attach(name, size, seed);
        std::string error;
        if (device && !device->MountExt4(mnt(), error))
            ADD_FAILURE() << "no mounted ext4: " << error;
        return error.empty() ? std::move(device) : nullptr;
    }
    std::string mnt() const { return dir.file("mnt"); }

    TempDir dir;
};
