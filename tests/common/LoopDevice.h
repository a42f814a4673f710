#pragma once
// Real loop devices for tests: attach an image, make a file system, mount it.
// The device is attached with autoclear while this object holds it open, so
// the kernel detaches it even when the test process dies; mounts are made in
// the test process's own mount namespace (see EnterPrivateMountNamespace).

#include <tolv/platform/UniqueFd.h>

#include <memory>
#include <string>
#include <vector>

// Runs a program (searched in PATH) with stdin closed; returns its exit code,
// or -1 when it could not be started or did not exit normally. Its stdout and
// stderr go to `output`.
int RunCommand(const std::vector<std::string>& argv, std::string* output = nullptr);

// Empty when loop devices can be used here, else why not (for a skip message).
std::string LoopDevicesUnavailableReason();

// Gives this process a private mount namespace, once, so that nothing a test
// mounts is seen outside it or outlives it. Empty on success, else why not.
std::string EnterPrivateMountNamespace();

class LoopDevice {
public:
    // Attaches `image`; null with `error` set on failure.
    static std::unique_ptr<LoopDevice> Attach(const std::string& image, bool readOnly, std::string& error);
    ~LoopDevice();
    LoopDevice(const LoopDevice&) = delete;
    LoopDevice& operator=(const LoopDevice&) = delete;

    const std::string& path() const { return m_path; }     // /dev/loopN
    std::string name() const { return m_path.substr(5); }  // loopN
    std::u16string drivePath() const;                       // \\.\loopN
    // Descriptors of the device that this object itself holds open.
    static constexpr size_t kOwnDescriptors = 1;

    bool MakeExt4(std::string& error);
    bool Mount(const std::string& directory, std::string& error);
    // Mount points of this device in our mount table.
    std::vector<std::string> MountPoints() const;

private:
    LoopDevice(std::string path, tolv::platform::UniqueFd fd) : m_path(std::move(path)), m_fd(std::move(fd)) {}
    std::string m_path;
    tolv::platform::UniqueFd m_fd;
};
