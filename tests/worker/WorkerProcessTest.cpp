// tolvClientWorker and veltrane-protocol.exe as the user runs them: real
// processes, a real endpoint, real files and loop devices. Every worker writes
// its log into a private folder, where the tests read its lines.

#include "common/ChildProcess.h"
#include "common/LoopDevice.h"
#include "common/TempDir.h"
#include "common/WorkerInstallation.h"

#include <tamsel/ipc/ipclib.h>
#include <tamsel/ipc/ipclibClient.h>
#include <tamsel/ipc/ipclibListener.h>
#include "corvantabase/Uuid.h"
#include <tolv/platform/UniqueFd.h>
#include "support/ProcessUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <isa-l/crc.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

// A run of data in an otherwise empty (sparse) file.
struct Piece {
    uint64_t offset;
    size_t length;
};

// Makes `path` a file of `size` bytes that holds pseudo-random data at
// `pieces` and holes everywhere else. Each piece starts and ends with a
// non-zero byte, so its bounds are exact. Returns the bytes of the 4 KiB
// blocks the pieces touch: what the file needs allocated.
uint64_t WriteSparseFile(const std::string& path, uint64_t size, const std::vector<Piece>& pieces, uint32_t seed)
{
    tolv::platform::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    EXPECT_TRUE(fd.valid());
    EXPECT_EQ(ftruncate(fd.get(), static_cast<off_t>(size)), 0);
    std::mt19937 random(seed);
    uint64_t blocks = 0;
    for (const Piece& piece : pieces) {
        std::string bytes(piece.length, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(random());
        bytes.front() = static_cast<char>(bytes.front() | 1);
        bytes.back() = static_cast<char>(bytes.back() | 0x80);
        EXPECT_EQ(pwrite(fd.get(), bytes.data(), bytes.size(), static_cast<off_t>(piece.offset)),
                  static_cast<ssize_t>(bytes.size()));
        blocks += (piece.offset + piece.length + 4095) / 4096 - piece.offset / 4096;
    }
    return blocks * 4096;
}

uint64_t AllocatedBytes(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512 : UINT64_MAX;
}

uint64_t FileSize(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : UINT64_MAX;
}

} // namespace

TEST(WorkerProcess, BadArgumentsEndWithMinusOneBeforeAnyIpc)
{
    Installation install;
    {
        ChildProcess none({install.worker()}, install.env());
        EXPECT_EQ(none.Wait(), -1);
        ChildProcess two({install.worker(), kEndpoint, kEndpoint}, install.env());
        EXPECT_EQ(two.Wait(), -1);
        ChildProcess bad({install.worker(), "not-a-guid"}, install.env());
        EXPECT_EQ(bad.Wait(), -1);
    }
    const std::string log = install.WorkerLog();
    EXPECT_NE(log.find("Unexpected args."), std::string::npos) << log;
    EXPECT_NE(log.find("Unexpected ipc Endpoint: not-a-guid."), std::string::npos) << log;
    // Nothing listened: no endpoint socket was ever made.
    EXPECT_EQ(ReadAllFiles(install.file("run")), "");
    EXPECT_EQ(log.find("Listening on the endpoint"), std::string::npos);
}

TEST(WorkerProcess, QuitsWithZeroWhenNobodyConnectsWithinFiveSeconds)
{
    Installation install;
    auto worker = install.StartWorker(kEndpoint);
    EXPECT_EQ(worker->Wait(std::chrono::seconds(60)), 0);
    const std::string log = install.WorkerLog();
    EXPECT_NE(log.find("Listening on the endpoint " + std::string(kEndpoint) + "."), std::string::npos) << log;
    EXPECT_NE(log.find("Check the conneciton count: 0."), std::string::npos) << log;
    EXPECT_NE(log.find("Quit for there are no connections."), std::string::npos) << log;
    EXPECT_NE(log.find("*** LOG FILE COMPLETE ***"), std::string::npos) << log;
    // The start-up block: the worker's version record and file time, the
    // session it runs in (this test's), and the system.
    const std::string session =
        std::to_string(static_cast<int>(ProcessUtils::GetSessionID(false, ProcessUtils::kNoSession)));
    const size_t block = log.find("tolvClientWorker: " + ProcessUtils::GetModuleVersionText(install.worker()) +
                                  ", buildtype=");
    ASSERT_NE(block, std::string::npos) << log;
    EXPECT_EQ(log.substr(log.find("/x64", block), 16 + session.size()), "/x64, sessionId=" + session) << log;
    EXPECT_EQ(ProcessUtils::GetModuleVersionText(install.worker()).rfind("version=", 0), 0u);
    EXPECT_NE(log.find("OS Version: " + ProcessUtils::GetOSVersionText()), std::string::npos) << log;
}

TEST(WorkerAdmission, OnlyThePeerBesideTheWorkerOnTheCommandStream)
{
    Installation install;
    const std::string data = install.file("data.bin");
    WritePatternFile(data, 4096);
    mkdir(install.file("elsewhere").c_str(), 0755);
    const std::string stranger = install.file("elsewhere/veltrane-protocol.exe");
    const std::string otherCase = install.file("bin/Veltrane-Protocol.exe");
    ASSERT_TRUE(CopyExecutable(TOLV_PEER_PATH, stranger));
    ASSERT_TRUE(CopyExecutable(TOLV_PEER_PATH, otherCase));

    // One worker serves all four attempts; the admitted one ends it.
    auto worker = install.StartWorker(kEndpoint);
    std::string out;
    EXPECT_EQ(install.RunPeer({"--endpoint", kEndpoint, "query", "E", data}, &out, stranger), 3) << out;
    EXPECT_NE(out.find("AccessDenied"), std::string::npos) << out;
    EXPECT_EQ(install.RunPeer({"--endpoint", kEndpoint, "query", "E", data}, &out, otherCase), 3) << out;
    EXPECT_EQ(install.RunPeer({"--endpoint", kEndpoint, "--stream", "tolvcommands", "query", "E", data}, &out), 3)
        << out;
    EXPECT_EQ(install.RunPeer({"--endpoint", kEndpoint, "query", "E", data, "release", "E"}, &out), 0) << out;
    EXPECT_NE(out.find("drive E: " + data + ": 4096 bytes, writable, a regular file"), std::string::npos) << out;
    EXPECT_EQ(worker->Wait(), 0);

    const std::string log = install.WorkerLog();
    EXPECT_NE(log.find("The connection from (" + stranger + ")"), std::string::npos) << log;
    EXPECT_NE(log.find("The connection from (" + otherCase + ")"), std::string::npos) << log;
    EXPECT_NE(log.find("Unknown connection (tolvcommands) from (pid: "), std::string::npos) << log;
    EXPECT_NE(log.find("New connection from (pid: "), std::string::npos) << log;
    EXPECT_NE(log.find("All channels are down."), std::string::npos) << log;
}

TEST(WorkerDrives, FileRangesAndWholeCopiesAreByteExact)
{
    Installation install;
    const std::string data = install.file("data.bin");
    const size_t size = (5u << 20) + 12345;  // not a whole number of requests
    WritePatternFile(data, size, 7);
    const std::string patch = install.file("patch.bin");
    WritePatternFile(patch, 100000, 9);

    std::string out;
    ASSERT_EQ(install.RunPeer({"query", "E", data, "read", "E", "1000", "3000000", install.file("range.bin"),
                               "write", "E", "777", patch, "read", "E", "0", "0x7fffffff", install.file("all.bin"),
                               "release", "E", "copy-out", data, install.file("image.bin")},
                              &out),
              0)
        << out;
    const std::string original = ReadFile(data);
    ASSERT_EQ(original.size(), size);
    // The write landed at its offset and nowhere else.
    std::string expected = original;
    const std::string patchBytes = ReadFile(patch);
    std::string before;
    {
        std::string pristine(size, '\0');
        for (size_t i = 0; i < size; ++i)
            pristine[i] = static_cast<char>(PatternByte(i, 7));
        before = pristine;
    }
    expected = before;
    expected.replace(777, patchBytes.size(), patchBytes);
    EXPECT_TRUE(original == expected);
    EXPECT_TRUE(ReadFile(install.file("range.bin")) == before.substr(1000, 3000000));
    // A range past the end is clipped at the size the query recorded.
    EXPECT_TRUE(ReadFile(install.file("all.bin")) == expected);
    EXPECT_TRUE(SameBytes(install.file("image.bin"), data));
    EXPECT_NE(out.find("checksum crc32"), std::string::npos) << out;

    // And back: an image copied onto a file of the same size.
    const std::string image = install.file("image2.bin");
    WritePatternFile(image, size, 11);
    ASSERT_EQ(install.RunPeer({"copy-in", image, data}, &out), 0) << out;
    EXPECT_TRUE(SameBytes(image, data));
}

TEST(WorkerDrives, CopyOutLeavesHolesWhereTheDriveIsZero)
{
    Installation install;
    const uint64_t slack = 1u << 20;
    // Ends inside a block, with data up to its last byte.
    const std::string first = install.file("first.bin");
    const uint64_t firstSize = (64u << 20) + 1000;
    const uint64_t firstData = WriteSparseFile(first, firstSize,
                                               {
                                                   {(3u << 20) + 123, 1u << 20},  // unaligned at both ends
                                                   {16u << 20, 2u << 20},         // whole blocks
                                                   {(40u << 20) + 2049, 1},       // one byte in a zero block
                                                   {(48u << 20) - 10, 20},        // across two requests
                                                   {firstSize - 3000, 3000},      // up to the end
                                               },
                                               31);
    // Ends with whole blocks of zeros, so only its size makes them; and its
    // image already exists, longer and full of other bytes.
    const std::string second = install.file("second.bin");
    const uint64_t secondSize = 32u << 20;
    const uint64_t secondData = WriteSparseFile(second, secondSize, {{(5u << 20) + 4095, 2}}, 32);
    if (AllocatedBytes(first) > firstData + slack || AllocatedBytes(second) > secondData + slack)
        GTEST_SKIP() << "no holes in files under " << install.dir.path();
    WritePatternFile(install.file("second.img"), 40u << 20, 13);

    std::string out;
    ASSERT_EQ(install.RunPeer({"copy-out", first, install.file("first.img"), "copy-out", second,
                               install.file("second.img")},
                              &out),
              0)
        << out;
    EXPECT_EQ(FileSize(install.file("first.img")), firstSize);
    EXPECT_EQ(FileSize(install.file("second.img")), secondSize);
    EXPECT_TRUE(SameBytes(install.file("first.img"), first));
    EXPECT_TRUE(SameBytes(install.file("second.img"), second));
    // Only the blocks with data take space; written out whole, these take
    // 64 and 32 MiB.
    EXPECT_LE(AllocatedBytes(install.file("first.img")), firstData + slack);
    EXPECT_LE(AllocatedBytes(install.file("second.img")), secondData + slack);
}

TEST(WorkerDrives, ErrorsNameTheStatus)
{
    Installation install;
    const std::string data = install.file("data.bin");
    WritePatternFile(data, 4096);
    std::string out;
    EXPECT_EQ(install.RunPeer({"query", "E", install.file("missing")}, &out), 1);
    EXPECT_NE(out.find("STATUS_UNSUCCESSFUL"), std::string::npos) << out;
    EXPECT_EQ(install.RunPeer({"query", "E", data, "read", "E", "4096", "10", install.file("x")}, &out), 1);
    EXPECT_NE(out.find("STATUS_END_OF_FILE"), std::string::npos) << out;
    EXPECT_EQ(install.RunPeer({"read", "Q", "0", "10", install.file("x")}, &out), 1);
    EXPECT_EQ(install.RunPeer({"bogus"}, &out), 2);
    EXPECT_NE(out.find("usage:"), std::string::npos) << out;
}

// A kernel interface's files call themselves regular; writing through
// /proc/self/mem would patch the worker's own code. They are refused as an
// open that failed, and the same connection goes on being served.
TEST(WorkerDrives, KernelInterfaceFilesAreRefusedAndTheWorkerKeepsServing)
{
    // A sysfs file that opens for writing reaches the file-system check; a
    // read-only one is refused by the open already.
    std::string sysFile;
    bool sysWritable = false;
    for (const char* candidate : {"/sys/kernel/mm/transparent_hugepage/enabled", "/sys/kernel/profiling",
                                  "/sys/power/state", "/sys/kernel/uevent_seqnum"}) {
        struct stat st {};
        if (stat(candidate, &st) == 0 && S_ISREG(st.st_mode) && (sysFile.empty() || !sysWritable)) {
            const bool writable = access(candidate, W_OK) == 0;
            if (sysFile.empty() || writable) {
                sysFile = candidate;
                sysWritable = writable;
            }
        }
    }
    Installation install;
    ASSERT_TRUE(CopyExecutable(TOLV_PROBE_PEER_PATH, install.peer()));
    const std::string data = install.file("data.bin");
    WritePatternFile(data, 8192, 5);
    const std::string bytes = ReadFile(data);
    const uint32_t crc = crc32_gzip_refl(0, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());

    std::vector<std::string> args{install.peer(), kEndpoint, "query:M:/proc/self/mem", "read:M:0:16",
                                  "query:S:/proc/self/status"};
    if (!sysFile.empty())
        args.push_back("query:Y:" + sysFile);
    for (const std::string& step : {"query:E:" + data, "read:E:0:8192"s, "release:E"s})
        args.push_back(step);
    auto worker = install.StartWorker(kEndpoint);
    ChildProcess peer(args, install.env());
    ASSERT_EQ(peer.Wait(), 0) << peer.Stdout() << peer.Stderr();
    EXPECT_EQ(worker->Wait(), 0);

    const std::string out = peer.Stdout();
    EXPECT_NE(out.find("query M /proc/self/mem status 0xc0000001 size 0\n"), std::string::npos) << out;
    // Nothing was recorded for M: the read meets no handle.
    EXPECT_NE(out.find("read M 0 16 status 0xc0000008 bytes 0"), std::string::npos) << out;
    EXPECT_NE(out.find("query S /proc/self/status status 0xc0000001 size 0\n"), std::string::npos) << out;
    if (!sysFile.empty()) {
        EXPECT_NE(out.find("query Y " + sysFile + " status 0xc0000001 size 0\n"), std::string::npos) << out;
    }
    EXPECT_NE(out.find("query E " + data + " status 0x00000000 size 8192\n"), std::string::npos) << out;
    char expected[96];
    std::snprintf(expected, sizeof expected, "read E 0 8192 status 0x00000000 bytes 8192 crc 0x%08x\n", crc);
    EXPECT_NE(out.find(expected), std::string::npos) << out;

    const std::string log = install.WorkerLog();
    EXPECT_NE(log.find("/proc/self/mem is a file of a proc file system (type 0x9fa0), not storage; refused."),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("Openning /proc/self/mem failed with errno 124 (Wrong medium type)."), std::string::npos)
        << log;
    if (sysWritable) {
        EXPECT_NE(log.find(sysFile + " is a file of a sysfs file system"), std::string::npos) << log;
    }
}

// The socket and ready file names of a packed endpoint GUID.
std::string EndpointName(const std::string& packed)
{
    return packed.substr(0, 8) + "-" + packed.substr(8, 4) + "-" + packed.substr(12, 4) + "-" + packed.substr(16, 4) +
           "-" + packed.substr(20);
}

ino_t InodeOf(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Workers killed outright leave their endpoint behind; the next one to start
// clears those whose server is gone, and leaves a live server's alone.
TEST(WorkerProcess, AStartingWorkerClearsTheEndpointsOfKilledWorkersOnly)
{
    using namespace tamsel::ipc;
    Installation install;
    const std::string run = install.file("run");
    const std::string previous = getenv("IPCLIB_RUNTIME_DIR") ? getenv("IPCLIB_RUNTIME_DIR") : "";
    setenv("IPCLIB_RUNTIME_DIR", run.c_str(), 1);
    const auto ready = [&](const std::string& packed) {
        _GUID guid{};
        return UUID_ConvertPackedToBin(&guid, packed.c_str()) &&
               KxIpclibWaitForReady(guid, std::chrono::seconds(60)) == KxIpcStatusSuccess;
    };
    const auto socketOf = [&](const std::string& packed) { return run + "/" + EndpointName(packed); };
    const auto readyOf = [&](const std::string& packed) {
        return run + "/ipclibLinkReady(" + EndpointName(packed) + ")";
    };

    const std::vector<std::string> killed = {"a1b2c3d4e5f60718293a4b5c6d7e8f90", "0f1e2d3c4b5a69788796a5b4c3d2e1f0"};
    // Both live at once, so that neither start clears the other's.
    std::vector<std::unique_ptr<ChildProcess>> victims;
    for (const std::string& endpoint : killed) {
        victims.push_back(install.StartWorker(endpoint));
        ASSERT_TRUE(ready(endpoint));
    }
    for (auto& victim : victims) {
        victim->Kill(SIGKILL);
        EXPECT_LE(victim->Wait(), -1000);
    }
    for (const std::string& endpoint : killed) {
        ASSERT_NE(InodeOf(socketOf(endpoint)), 0u);
        ASSERT_NE(InodeOf(readyOf(endpoint)), 0u);
    }

    // A live server in this process, on an endpoint of the same folder.
    const std::string live = "5d4c3b2a1f0e4d3c8b7a695847362514";
    _GUID liveGuid{};
    ASSERT_TRUE(UUID_ConvertPackedToBin(&liveGuid, live.c_str()));
    auto lib = std::make_shared<KxIpclib>();
    ASSERT_EQ(lib->init(0), KxIpcStatusSuccess);
    auto listener = lib->listen(liveGuid, Flags<KxIpclibListenerFlag>(uint32_t{8}),
                                [](std::shared_ptr<KxIpclibStream> stream) { stream->reject(KxIpcStatusAccessDenied); },
                                nullptr);
    ASSERT_TRUE(listener);
    ASSERT_EQ((*listener)->accepting(), KxIpcStatusSuccess);
    const ino_t liveSocket = InodeOf(socketOf(live));
    const ino_t liveReady = InodeOf(readyOf(live));
    ASSERT_NE(liveSocket, 0u);
    ASSERT_NE(liveReady, 0u);

    auto worker = install.StartWorker(kEndpoint);
    ASSERT_TRUE(ready(kEndpoint));
    for (const std::string& endpoint : killed) {
        EXPECT_EQ(InodeOf(socketOf(endpoint)), 0u) << endpoint;
        EXPECT_EQ(InodeOf(readyOf(endpoint)), 0u) << endpoint;
    }
    EXPECT_EQ(InodeOf(socketOf(live)), liveSocket);
    EXPECT_EQ(InodeOf(readyOf(live)), liveReady);

    const std::string data = install.file("data.bin");
    WritePatternFile(data, 4096);
    std::string out;
    EXPECT_EQ(install.RunPeer({"--endpoint", kEndpoint, "query", "E", data, "release", "E"}, &out), 0) << out;
    EXPECT_EQ(worker->Wait(), 0);
    const std::string log = install.WorkerLog();
    for (const std::string& endpoint : killed)
        EXPECT_NE(log.find("Removed the socket and ready file of endpoint " + EndpointName(endpoint) +
                           ", whose server is gone."),
                  std::string::npos)
            << log;
    EXPECT_EQ(log.find("endpoint " + EndpointName(live) + ", whose"), std::string::npos) << log;

    (*listener)->close();
    lib->uninit();
    if (previous.empty())
        unsetenv("IPCLIB_RUNTIME_DIR");
    else
        setenv("IPCLIB_RUNTIME_DIR", previous.c_str(), 1);
}

TEST_F(WorkerLoop, AMountedDeviceIsDismountedCopiedOutAndBack)
{
    const size_t size = 64u << 20;
    auto device = AttachMountedExt4(install.file("disk.img"), size, 3);
    ASSERT_TRUE(device);

    std::string out;
    ASSERT_EQ(install.RunPeer({"copy-out", DrivePath(*device), install.file("out.img")}, &out), 0) << out;
    EXPECT_NE(out.find(std::to_string(size) + " bytes, writable"), std::string::npos) << out;
    EXPECT_TRUE(device->MountPoints().empty());
    EXPECT_TRUE(SameBytes(install.file("out.img"), install.file("disk.img")));
    EXPECT_TRUE(Claimable(*device));

    const std::string image = install.file("new.img");
    WritePatternFile(image, size, 5);
    ASSERT_EQ(install.RunPeer({"copy-in", image, DrivePath(*device)}, &out), 0) << out;
    // What the device holds now, read past the worker.
    std::string onDevice(size, '\0');
    tolv::platform::UniqueFd fd(::open(device->path().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(fd.valid());
    ASSERT_EQ(pread(fd.get(), onDevice.data(), size, 0), static_cast<ssize_t>(size));
    EXPECT_TRUE(onDevice == ReadFile(image));
    EXPECT_TRUE(Claimable(*device));
}

TEST_F(WorkerLoop, CopyOutOntoADeviceWritesTheZerosToo)
{
    // A device cannot have holes, and what it held before must not show.
    const size_t size = 8u << 20;
    auto device = Attach(install.file("disk.img"), size, 6);
    ASSERT_TRUE(device);
    const std::string source = install.file("sparse.bin");
    WriteSparseFile(source, size, {{12345, 70000}, {size - 4096, 4096}}, 33);

    std::string out;
    ASSERT_EQ(install.RunPeer({"copy-out", source, device->path()}, &out), 0) << out;
    std::string onDevice(size, '\0');
    tolv::platform::UniqueFd fd(::open(device->path().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(fd.valid());
    ASSERT_EQ(pread(fd.get(), onDevice.data(), size, 0), static_cast<ssize_t>(size));
    EXPECT_TRUE(onDevice == ReadFile(source));
}

TEST_F(WorkerLoop, APeerKilledMidCopyLeavesNoClaimAndTheWorkerExitsZero)
{
    auto device = Attach(install.file("disk.img"), 64u << 20, 4);
    ASSERT_TRUE(device);
    // The peer writes what it reads into a pipe we stop reading, so it is
    // certainly killed with requests in flight.
    const std::string fifo = install.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    auto worker = install.StartWorker(kEndpoint);
    ChildProcess peer({install.peer(), "--quiet", "--endpoint", kEndpoint, "query", "E", DrivePath(*device), "read",
                       "E", "0", std::to_string(64u << 20), fifo},
                      install.env());
    tolv::platform::UniqueFd reader(::open(fifo.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(reader.valid());
    char first[4096];
    size_t got = 0;
    while (got < sizeof first) {
        const ssize_t n = read(reader.get(), first + got, sizeof first - got);
        ASSERT_GT(n, 0);
        got += static_cast<size_t>(n);
    }
    EXPECT_FALSE(Claimable(*device));  // the worker holds the drive now
    peer.Kill(SIGKILL);
    EXPECT_LE(peer.Wait(), -1000);
    EXPECT_EQ(worker->Wait(), 0);
    EXPECT_TRUE(Claimable(*device));
    const std::string log = install.WorkerLog();
    EXPECT_NE(log.find("Channel down (pid: "), std::string::npos) << log;
}

TEST_F(WorkerLoop, TwoPeersAtOnceEachGetTheirOwnDrives)
{
    const size_t size = 16u << 20;
    auto first = Attach(install.file("a.img"), size, 21);
    auto second = Attach(install.file("b.img"), size, 22);
    ASSERT_TRUE(first && second);
    const std::string fifo = install.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    auto worker = install.StartWorker(kEndpoint);
    // The first peer stays connected, its reads held by the pipe, while the
    // second copies a whole device.
    ChildProcess one({install.peer(), "--quiet", "--endpoint", kEndpoint, "query", "E", DrivePath(*first), "read",
                      "E", "0", std::to_string(size), fifo},
                     install.env());
    tolv::platform::UniqueFd reader(::open(fifo.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(reader.valid());
    ChildProcess two({install.peer(), "--quiet", "--endpoint", kEndpoint, "copy-out", DrivePath(*second),
                      install.file("b.out")},
                     install.env());
    EXPECT_EQ(two.Wait(), 0) << two.Stderr();
    EXPECT_TRUE(SameBytes(install.file("b.out"), install.file("b.img")));
    EXPECT_TRUE(Claimable(*second));
    EXPECT_FALSE(Claimable(*first));

    std::string received;
    char buffer[65536];
    for (ssize_t n; (n = read(reader.get(), buffer, sizeof buffer)) > 0;)
        received.append(buffer, static_cast<size_t>(n));
    EXPECT_EQ(one.Wait(), 0) << one.Stderr();
    EXPECT_TRUE(received == ReadFile(install.file("a.img")));
    EXPECT_EQ(worker->Wait(), 0);
    EXPECT_TRUE(Claimable(*first));
}

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TOLV_HAS_SANITIZER 1
#endif
#endif
#ifndef TOLV_HAS_SANITIZER
#define TOLV_HAS_SANITIZER 0
#endif

namespace {

uint64_t ResidentKiB(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::strtoull(line.c_str() + 6, nullptr, 10);
    return 0;
}

} // namespace

TEST(WorkerFlood, APeerThatSendsWithoutTakingRepliesCannotGrowTheWorker)
{
    Installation install;
    ASSERT_TRUE(CopyExecutable(TOLV_FLOOD_PEER_PATH, install.peer()));
    const std::string data = install.file("scratch.bin");
    WritePatternFile(data, 4u << 20);
    const std::string fifo = install.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);

    auto worker = install.StartWorker(kEndpoint);
    // 1 GiB of writes and 64 MiB of read replies offered to a worker whose
    // replies the peer never takes.
    ChildProcess flood({install.peer(), kEndpoint, data, fifo, "1024"}, install.env());
    {
        std::ifstream signal(fifo);
        std::string word;
        signal >> word;
        ASSERT_EQ(word, "flooded") << flood.Stderr();
    }
    // What the worker holds cannot be watched from outside; sample its memory
    // while the flood is offered. Unbounded, it grows by the link's speed,
    // hundreds of MiB a second. (Sanitizer builds keep freed memory in
    // quarantine, so their resident size says nothing here.)
    uint64_t peakKiB = 0;
    for (int i = 0; i < 80; ++i) {
        peakKiB = std::max(peakKiB, ResidentKiB(worker->pid()));
        usleep(50000);
    }
    EXPECT_GT(peakKiB, 0u);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !TOLV_HAS_SANITIZER
    EXPECT_LT(peakKiB, 64u * 1024) << "worker resident set " << peakKiB << " KiB";
#endif

    // The worker, held waiting for the peer, still notices the peer's death.
    flood.Kill(SIGKILL);
    EXPECT_LE(flood.Wait(), -1000);
    EXPECT_EQ(worker->Wait(), 0);
    EXPECT_NE(install.WorkerLog().find("All channels are down."), std::string::npos);
}
