#pragma once
// Real loop devices for tests: attach an image, make a file system, mount it.
// Everything made is undone when the object goes (unmount, detach).

#include <memory>
#include <string>
#include <vector>

// Runs a program (searched in PATH) with stdin closed; returns its exit code,
// or -1 when it could not be started. Its stdout and stderr go to `output`.
int RunCommand(const std::vector<std::string>& argv, std::string* output = nullptr);

// Empty when loop devices can be used here, else why not (for a skip message).
std::string LoopDevicesUnavailableReason();

class LoopDevice {
public:
    // Attaches `image`; null with `error` set on failure.
    static std::unique_ptr<LoopDevice> Attach(const std::string& image, bool readOnly, std::string& error);
    ~LoopDevice();
    LoopDevice(const LoopDevice&) = delete;
    LoopDevice& operator=(const LoopDevice&) = delete;

    const std::string& path() const { return m_path; }           // /dev/loopN
    std::string name() const { return m_path.substr(5); }        // loopN
    std::u16string drivePath() const;                             // \\.\loopN

    bool MakeExt4(std::string& error);
    bool Mount(const std::string& directory, std::string& error);
    // Mount points of this device in our mount table.
    std::vector<std::string> MountPoints() const;

private:
    explicit LoopDevice(std::string path) : m_path(std::move(path)) {}
    std::string m_path;
};
