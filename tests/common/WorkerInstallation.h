#pragma once
// A worker and its peer installed side by side in a private folder, for tests
// that run them as the user does. The including target defines
// TOLV_WORKER_PATH and TOLV_PEER_PATH, the programs as built.

#include "common/ChildProcess.h"
#include "common/LoopDevice.h"
#include "common/TempDir.h"

#include <tolv/platform/UniqueFd.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline bool CopyExecutable(const std::string& from, const std::string& to)
{
    {
        std::ifstream in(from, std::ios::binary);
        std::ofstream out(to, std::ios::binary);
        out << in.rdbuf();
        if (!in || !out)
            return false;
    }
    return chmod(to.c_str(), 0755) == 0;
}

// A worker and its peer installed side by side in a private folder, with a
// private runtime folder for endpoints, an empty settings store and a private
// temporary folder that receives the worker's log.
class Installation {
public:
    Installation()
    {
        mkdir(dir.file("bin").c_str(), 0755);
        mkdir(dir.file("tmp").c_str(), 0700);
        mkdir(dir.file("run").c_str(), 0700);
        mkdir(dir.file("reg").c_str(), 0700);
        EXPECT_TRUE(CopyExecutable(TOLV_WORKER_PATH, worker()));
        EXPECT_TRUE(CopyExecutable(TOLV_PEER_PATH, peer()));
    }

    std::string worker() const { return dir.file("bin/tolvClientWorker"); }
    std::string peer() const { return dir.file("bin/veltrane-protocol.exe"); }
    std::string file(const std::string& name) const { return dir.file(name); }
    std::vector<std::string> env() const
    {
        return {"TMPDIR=" + dir.file("tmp"), "IPCLIB_RUNTIME_DIR=" + dir.file("run"), "LXREG_ROOT=" + dir.file("reg")};
    }
    // Every line the workers of this installation logged.
    std::string WorkerLog() const
    {
        return ReadAllFiles(dir.file("tmp") + "/corvanta-" + std::to_string(geteuid()));
    }

    std::unique_ptr<ChildProcess> StartWorker(const std::string& endpoint) const
    {
        return std::make_unique<ChildProcess>(std::vector<std::string>{worker(), endpoint}, env());
    }
    // Runs the peer to its end: its exit code, with its output in `out`.
    int RunPeer(std::vector<std::string> args, std::string* out = nullptr, const std::string& program = "") const
    {
        args.insert(args.begin(), {program.empty() ? peer() : program, "--quiet", "--timeout", "60"});
        ChildProcess process(args, env());
        const int code = process.Wait();
        if (out)
            *out = process.Stdout() + process.Stderr();
        return code;
    }

    // Runs the peer to its end as given (only the time-out added), with its
    // standard output and error apart.
    struct Run {
        int code;
        std::string out;
        std::string err;
    };
    Run Peer(std::vector<std::string> args) const
    {
        args.insert(args.begin(), {peer(), "--timeout", "60"});
        ChildProcess process(args, env());
        const int code = process.Wait();
        return {code, process.Stdout(), process.Stderr()};
    }

    TempDir dir;
};

inline constexpr const char* kEndpoint = "6e0c8a5e1f3b4d2a9c7e0b1d2f3a4b5c";

inline bool SameBytes(const std::string& a, const std::string& b)
{
    const std::string x = ReadFile(a);
    const std::string y = ReadFile(b);
    return !x.empty() && x == y;
}

// A test with real loop devices, skipped where there are none; its mounts
// stay in a private mount namespace.
class WorkerLoop : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string reason = LoopDevicesUnavailableReason();
        if (!reason.empty())
            GTEST_SKIP() << "no loop devices: " << reason;
        const std::string ns = EnterPrivateMountNamespace();
        if (!ns.empty())
            GTEST_SKIP() << "no private mount namespace: " << ns;
    }

    std::unique_ptr<LoopDevice> Attach(const std::string& image, size_t size, uint32_t seed)
    {
        WritePatternFile(image, size, seed);
        std::string error;
        auto device = LoopDevice::Attach(image, false, error);
        EXPECT_TRUE(device) << error;
        return device;
    }

    // A loop device over `image` holding an ext4 file system mounted on
    // the folder mnt of the installation; null (the test has failed) when
    // any step fails. Tests that may leave it mounted unmount it themselves.
    std::unique_ptr<LoopDevice> AttachMountedExt4(const std::string& image, size_t size, uint32_t seed)
    {
        auto device = Attach(image, size, seed);
        std::string error;
        mkdir(mnt().c_str(), 0755);
        if (!device || !device->MakeExt4(error) || !device->Mount(mnt(), error)) {
            ADD_FAILURE() << "no mounted ext4: " << error;
            return nullptr;
        }
        return device;
    }
    std::string mnt() const { return install.file("mnt"); }

    static bool Claimable(const LoopDevice& device)
    {
        tolv::platform::UniqueFd fd(::open(device.path().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
        return fd.valid();
    }

    static std::string DrivePath(const LoopDevice& device) { return "\\\\.\\" + device.name(); }

    Installation install;
};

