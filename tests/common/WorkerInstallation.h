#pragma once
// A worker and its peer (TOLV_WORKER_PATH, TOLV_PEER_PATH) installed side by
// side in a private folder, with private endpoints, settings and log folder.

#include "common/ChildProcess.h"
#include "common/LoopDevice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <filesystem>
#include <memory>

using testing::HasSubstr;
using testing::Not;

inline constexpr const char* kEndpoint = "6e0c8a5e1f3b4d2a9c7e0b1d2f3a4b5c";

inline bool CopyExecutable(const std::string& from, const std::string& to)
{
    std::error_code error;
    return std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing, error);
}

// True when both files hold the same bytes, and some.
inline bool SameBytes(const std::string& a, const std::string& b)
{
    const std::string x = ReadFile(a);
    return !x.empty() && x == ReadFile(b);
}

struct PeerRun {
    int code;
    std::string out, err;
};

class Installation {
public:
    Installation()
    {
        for (const char* folder : {"bin", "tmp", "run", "reg"})
            mkdir(dir.file(folder).c_str(), 0700);
        EXPECT_TRUE(CopyExecutable(TOLV_WORKER_PATH, worker()));
        EXPECT_TRUE(CopyExecutable(TOLV_PEER_PATH, peer()));
    }
    std::string worker() const { return dir.file("bin/tolvClientWorker"); }
    std::string peer() const { return dir.file("bin/veltrane-protocol.exe"); }
    std::string file(const std::string& name) const { return dir.file(name); }
    // Every line the workers of this installation logged.
    std::string WorkerLog() const { return ReadAllFiles(dir.file("tmp/corvanta-" + std::to_string(geteuid()))); }

    // Starts a program in this installation's environment.
    std::unique_ptr<ChildProcess> Start(const std::vector<std::string>& argv) const
    {
        return std::make_unique<ChildProcess>(argv, std::vector<std::string>{"TMPDIR=" + dir.file("tmp"),
                                                                             "IPCLIB_RUNTIME_DIR=" + dir.file("run"),
                                                                             "LXREG_ROOT=" + dir.file("reg")});
    }
    std::unique_ptr<ChildProcess> StartWorker(const std::string& endpoint = kEndpoint) const
    {
        return Start({worker(), endpoint});
    }
    // Runs the peer (or `program` in its place) to its end, with a time-out.
    PeerRun Peer(std::vector<std::string> args, const std::string& program = "") const
    {
        args.insert(args.begin(), {program.empty() ? peer() : program, "--timeout", "60"});
        auto process = Start(args);
        const int code = process->Wait();
        return {code, process->Stdout(), process->Stderr()};
    }

    TempDir dir;
};

// An installation and real loop devices; skipped where there are none.
class WorkerLoop : public LoopDeviceTest {
protected:
    Installation install;
};
