// tolvClientWorker and veltrane-protocol.exe as the user runs them: real
// processes, endpoints, files and loop devices.

#include "common/ProcessProbe.h"
#include "common/WorkerInstallation.h"

#include <tamsel/ipc/ipclibClient.h>
#include "corvantabase/Uuid.h"
#include "support/ProcessUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <random>

using namespace std::string_literals;
using testing::Each;

namespace {

// A file of holes and pseudo-random {offset, length} pieces that start and
// end with a non-zero byte; returns the bytes of the 4 KiB blocks they touch.
uint64_t WriteSparseFile(const std::string& path, uint64_t size,
                         const std::vector<std::pair<uint64_t, size_t>>& pieces, uint32_t seed)
{
    tolv::platform::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    EXPECT_EQ(ftruncate(fd.get(), static_cast<off_t>(size)), 0);
    std::mt19937 random(seed);
    uint64_t blocks = 0;
    for (const auto& [offset, length] : pieces) {
        std::string bytes(length, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(random());
        bytes.front() = static_cast<char>(bytes.front() | 1);
        bytes.back() = static_cast<char>(bytes.back() | 0x80);
        EXPECT_EQ(pwrite(fd.get(), bytes.data(), length, static_cast<off_t>(offset)), static_cast<ssize_t>(length));
        blocks += (offset + length + 4095) / 4096 - offset / 4096;
    }
    return blocks * 4096;
}

uint64_t AllocatedBytes(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512 : UINT64_MAX;
}

// A peer on `endpoint` reading `path` into a FIFO that the test reads from:
// held, with requests in flight, for as long as the test does not read.
struct HeldRead {
    HeldRead(const Installation& install, const std::string& path, size_t size, const std::string& fifo,
             const std::string& endpoint = kEndpoint)
    {
        EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        peer = install.Start({install.peer(), "--endpoint", endpoint, "query", "E", path, "read", "E", "0",
                              std::to_string(size), fifo});
        reader.reset(::open(fifo.c_str(), O_RDONLY | O_CLOEXEC));
    }
    std::string Read(size_t most = SIZE_MAX)
    {
        std::string received;
        char buffer[65536];
        for (ssize_t n; received.size() < most &&
                        (n = read(reader.get(), buffer, std::min(sizeof buffer, most - received.size()))) > 0;)
            received.append(buffer, static_cast<size_t>(n));
        return received;
    }
    std::unique_ptr<ChildProcess> peer;
    tolv::platform::UniqueFd reader;
};

} // namespace

TEST(WorkerProcess, BadArgumentsEndWithMinusOneBeforeAnyIpcAndNobodyConnectingWithZero)
{
    Installation install;
    for (const auto& args : {std::vector<std::string>{install.worker()},
                             {install.worker(), kEndpoint, kEndpoint},
                             {install.worker(), "not-a-guid"}}) {
        auto worker = install.Start(args);
        EXPECT_EQ(worker->Wait(), -1) << args.size();
        EXPECT_THAT(worker->Stderr(), HasSubstr("usage: tolvClientWorker ENDPOINT-GUID"));
    }
    EXPECT_THAT(install.WorkerLog(), HasSubstr("Unexpected args."));
    EXPECT_THAT(install.WorkerLog(), HasSubstr("Unexpected ipc Endpoint: not-a-guid."));
    EXPECT_EQ(ReadAllFiles(install.file("run")), "");  // no endpoint socket was ever made

    EXPECT_EQ(install.StartWorker()->Wait(std::chrono::seconds(60)), 0);  // after 5 s
    const std::string log = install.WorkerLog();
    for (const std::string& line : {"Listening on the endpoint "s + kEndpoint + ".", "Check the conneciton count: 0."s,
                                    "Quit for there are no connections."s, "*** LOG FILE COMPLETE ***"s})
        EXPECT_THAT(log, HasSubstr(line));
    // The start-up block: the worker's version and its session (this test's).
    const std::string version = ProcessUtils::GetModuleVersionText(install.worker());
    const std::string session =
        std::to_string(static_cast<int>(ProcessUtils::GetSessionID(false, ProcessUtils::kNoSession)));
    const size_t block = log.find("tolvClientWorker: " + version + ", buildtype=");
    ASSERT_NE(block, std::string::npos) << log;
    EXPECT_EQ(log.substr(log.find("/x64", block), 16 + session.size()), "/x64, sessionId=" + session) << log;
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
    auto worker = install.StartWorker();
    const std::vector<std::string> query = {"--endpoint", kEndpoint, "query", "E", data};
    auto run = install.Peer(query, stranger);
    EXPECT_EQ(run.code, 3);
    EXPECT_THAT(run.err, HasSubstr("AccessDenied"));
    EXPECT_EQ(install.Peer(query, otherCase).code, 3);
    EXPECT_EQ(install.Peer({"--endpoint", kEndpoint, "--stream", "tolvcommands", "query", "E", data}).code, 3);
    run = install.Peer({"--endpoint", kEndpoint, "query", "E", data, "release", "E"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "drive E: " + data + ": 4096 bytes, writable, a regular file (no geometry)\n");
    EXPECT_EQ(worker->Wait(), 0);
    EXPECT_THAT(install.WorkerLog(), HasSubstr("The connection from (" + stranger + ")"));
    EXPECT_THAT(install.WorkerLog(), HasSubstr("Unknown connection (tolvcommands) from (pid: "));
}

TEST(WorkerDrives, FileRangesAndWholeCopiesAreByteExactAndFailuresNameTheStatus)
{
    Installation install;
    const std::string data = install.file("data.bin");
    const size_t size = (5u << 20) + 12345;  // not a whole number of requests
    WritePatternFile(data, size, 7);
    const std::string before = ReadFile(data);
    const std::string patch = install.file("patch.bin");
    WritePatternFile(patch, 100000, 9);

    auto run = install.Peer({"query", "E", data, "read", "E", "1000", "3000000", install.file("range.bin"), "write",
                             "E", "777", patch, "read", "E", "0", "0x7fffffff", install.file("all.bin"), "release",
                             "E", "copy-out", data, install.file("image.bin")});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_THAT(run.err, HasSubstr("checksum crc32"));
    // A range past the end is clipped at the size the query recorded.
    const std::string expected = std::string(before).replace(777, 100000, ReadFile(patch));
    EXPECT_TRUE(ReadFile(data) == expected);
    EXPECT_TRUE(ReadFile(install.file("range.bin")) == before.substr(1000, 3000000));
    EXPECT_TRUE(ReadFile(install.file("all.bin")) == expected);
    EXPECT_TRUE(SameBytes(install.file("image.bin"), data));
    // And back: an image copied onto a file of the same size.
    WritePatternFile(install.file("image2.bin"), size, 11);
    ASSERT_EQ(install.Peer({"copy-in", install.file("image2.bin"), data}).code, 0);
    EXPECT_TRUE(SameBytes(install.file("image2.bin"), data));

    run = install.Peer({"query", "E", data, "read", "E", std::to_string(size), "10", install.file("x")});
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.err, HasSubstr("STATUS_END_OF_FILE"));
    EXPECT_EQ(install.Peer({"read", "Q", "0", "10", install.file("x")}).code, 1);
}

TEST(WorkerDrives, CopyOutLeavesHolesWhereTheDriveIsZero)
{
    Installation install;
    const uint64_t slack = 1u << 20;
    // Ends inside a block, with data up to its last byte.
    const std::string first = install.file("first.bin");
    const uint64_t firstSize = (64u << 20) + 1000;
    const uint64_t firstData = WriteSparseFile(first, firstSize,
                                               {{(3u << 20) + 123, 1u << 20},  // unaligned at both ends
                                                {16u << 20, 2u << 20},         // whole blocks
                                                {(40u << 20) + 2049, 1},       // one byte in a zero block
                                                {(48u << 20) - 10, 20},        // across two requests
                                                {firstSize - 3000, 3000}},     // up to the end
                                               31);
    // Ends with whole blocks of zeros, so only its size makes them; and its
    // image already exists, longer and full of other bytes.
    const std::string second = install.file("second.bin");
    const uint64_t secondData = WriteSparseFile(second, 32u << 20, {{(5u << 20) + 4095, 2}}, 32);
    if (AllocatedBytes(first) > firstData + slack || AllocatedBytes(second) > secondData + slack)
        GTEST_SKIP() << "no holes in files under " << install.dir.path();
    WritePatternFile(install.file("second.img"), 40u << 20, 13);

    const auto run = install.Peer(
        {"copy-out", first, install.file("first.img"), "copy-out", second, install.file("second.img")});
    ASSERT_EQ(run.code, 0) << run.err;
    // Only the blocks with data take space; written out whole, 64 and 32 MiB.
    EXPECT_TRUE(ReadFile(install.file("first.img")) == ReadFile(first));
    EXPECT_TRUE(ReadFile(install.file("second.img")) == ReadFile(second));
    EXPECT_LE(AllocatedBytes(install.file("first.img")), firstData + slack);
    EXPECT_LE(AllocatedBytes(install.file("second.img")), secondData + slack);
}

// Workers killed outright leave their endpoint behind; the next one to start
// clears those whose server is gone, and leaves a live server's alone.
TEST(WorkerProcess, AStartingWorkerClearsTheEndpointsOfKilledWorkersOnly)
{
    Installation install;
    setenv("IPCLIB_RUNTIME_DIR", install.file("run").c_str(), 1);  // where the waits below look
    const auto ready = [](const std::string& packed) {
        _GUID guid{};
        return UUID_ConvertPackedToBin(&guid, packed.c_str()) &&
               tamsel::ipc::KxIpclibWaitForReady(guid, std::chrono::seconds(60)) == KxIpcStatusSuccess;
    };
    // An endpoint's socket and ready file are named after its GUID's text.
    const auto name = [](const std::string& packed) {
        return packed.substr(0, 8) + "-" + packed.substr(8, 4) + "-" + packed.substr(12, 4) + "-" +
               packed.substr(16, 4) + "-" + packed.substr(20);
    };
    const auto files = [&](const std::string& packed) {
        std::vector<bool> there;
        for (const std::string& file : {name(packed), "ipclibLinkReady(" + name(packed) + ")"})
            there.push_back(access(install.file("run/" + file).c_str(), F_OK) == 0);
        return there;
    };
    // Live at once, so that no start clears another's; a held peer keeps the live one.
    const std::vector<std::string> killed = {"a1b2c3d4e5f60718293a4b5c6d7e8f90", "0f1e2d3c4b5a69788796a5b4c3d2e1f0"};
    const std::string live = "5d4c3b2a1f0e4d3c8b7a695847362514";
    std::vector<std::unique_ptr<ChildProcess>> workers;
    for (const std::string& endpoint : {killed[0], killed[1], live}) {
        workers.push_back(install.StartWorker(endpoint));
        ASSERT_TRUE(ready(endpoint));
    }
    WritePatternFile(install.file("data.bin"), 16u << 20);
    HeldRead held(install, install.file("data.bin"), 16u << 20, install.file("fifo"), live);
    EXPECT_EQ(held.Read(4096).size(), 4096u);
    for (size_t i = 0; i < killed.size(); ++i) {
        workers[i]->Kill(SIGKILL);
        EXPECT_LE(workers[i]->Wait(), -1000);
        ASSERT_THAT(files(killed[i]), Each(true));
    }
    auto worker = install.StartWorker();
    ASSERT_TRUE(ready(kEndpoint));
    for (const std::string& endpoint : killed)
        EXPECT_THAT(files(endpoint), Each(false)) << endpoint;
    EXPECT_THAT(files(live), Each(true));
    EXPECT_EQ(install.Peer({"--endpoint", kEndpoint, "query", "E", install.file("data.bin"), "release", "E"}).code, 0);
    EXPECT_EQ(worker->Wait(), 0);
    const std::string log = install.WorkerLog();
    for (const std::string& endpoint : killed)
        EXPECT_THAT(log, HasSubstr("Removed the socket and ready file of endpoint " + name(endpoint) +
                                   ", whose server is gone."));
    EXPECT_THAT(log, Not(HasSubstr("endpoint " + name(live) + ", whose")));
}

TEST_F(WorkerLoop, AMountedDeviceIsDismountedCopiedOutAndBackAndAFailedLockWarns)
{
    const size_t size = 64u << 20;
    auto device = AttachMountedExt4("disk.img", size, 3);
    ASSERT_TRUE(device);
    auto run = install.Peer({"copy-out", device->drivePath(), dir.file("out.img")});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_THAT(run.err, HasSubstr(device->path() + " was mounted on " + mnt() + "; the worker dismounted it"));
    EXPECT_THAT(run.err, HasSubstr(std::to_string(size) + " bytes, writable"));
    EXPECT_THAT(run.err, Not(HasSubstr("warning")));
    EXPECT_TRUE(device->MountPoints().empty());
    EXPECT_TRUE(SameBytes(dir.file("out.img"), dir.file("disk.img")));
    EXPECT_TRUE(device->Claimable());
    WritePatternFile(dir.file("new.img"), size, 5);
    ASSERT_EQ(install.Peer({"copy-in", dir.file("new.img"), device->drivePath()}).code, 0);
    EXPECT_TRUE(ReadFile(device->path()) == ReadFile(dir.file("new.img")));  // read past the worker
    EXPECT_TRUE(device->Claimable());
    // A device cannot have holes, and what it held before must not show.
    WriteSparseFile(dir.file("sparse.bin"), size, {{12345, 70000}, {size - 4096, 4096}}, 33);
    ASSERT_EQ(install.Peer({"copy-out", dir.file("sparse.bin"), device->path()}).code, 0);
    EXPECT_TRUE(ReadFile(device->path()) == ReadFile(dir.file("sparse.bin")));

    // Someone else holds the device exclusively: the worker's lock fails.
    tolv::platform::UniqueFd claim(::open(device->path().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
    ASSERT_TRUE(claim.valid());
    run = install.Peer({"copy-out", device->path(), dir.file("out2.img")});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_THAT(run.err, HasSubstr("not held exclusively by the worker (its lock failed)"));
}

TEST_F(WorkerLoop, PeersAtOnceEachGetTheirOwnDrivesAndAKilledOneLetsItsDriveGo)
{
    const size_t size = 16u << 20;
    auto first = Attach("a.img", size, 21);
    auto second = Attach("b.img", size, 22);
    ASSERT_TRUE(first && second);
    auto worker = install.StartWorker();
    // One peer is held mid-read while a second copies a device and a third is killed.
    HeldRead one(install, first->drivePath(), size, dir.file("fifo1"));
    auto two = install.Peer({"--endpoint", kEndpoint, "copy-out", second->drivePath(), dir.file("b.out")});
    EXPECT_EQ(two.code, 0) << two.err;
    EXPECT_TRUE(SameBytes(dir.file("b.out"), dir.file("b.img")));
    EXPECT_TRUE(second->Claimable());
    EXPECT_FALSE(first->Claimable());
    HeldRead three(install, second->drivePath(), size, dir.file("fifo2"));
    EXPECT_EQ(three.Read(4096).size(), 4096u);
    EXPECT_FALSE(second->Claimable());  // the worker holds the drive now
    three.peer->Kill(SIGKILL);
    EXPECT_LE(three.peer->Wait(), -1000);
    EXPECT_TRUE(WaitUntil([&] { return second->Claimable(); }));
    EXPECT_TRUE(one.Read() == ReadFile(dir.file("a.img")));
    EXPECT_EQ(one.peer->Wait(), 0) << one.peer->Stderr();
    EXPECT_EQ(worker->Wait(), 0);
    EXPECT_TRUE(first->Claimable());
    EXPECT_THAT(install.WorkerLog(), HasSubstr("Channel down (pid: "));
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TOLV_HAS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TOLV_HAS_SANITIZER 1
#endif
#endif

TEST(WorkerFlood, APeerThatSendsWithoutTakingRepliesCannotGrowTheWorker)
{
    Installation install;
    ASSERT_TRUE(CopyExecutable(TOLV_FLOOD_PEER_PATH, install.peer()));
    WritePatternFile(install.file("scratch.bin"), 4u << 20);
    const std::string fifo = install.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    auto worker = install.StartWorker();
    // 1 GiB of writes and 64 MiB of read replies that the peer never takes.
    auto flood = install.Start({install.peer(), kEndpoint, install.file("scratch.bin"), fifo, "1024"});
    std::string word;
    std::ifstream(fifo) >> word;
    ASSERT_EQ(word, "flooded") << flood->Stderr();
    // Unbounded, the worker grows by hundreds of MiB a second. (Sanitizer
    // builds keep freed memory in quarantine, so their size says nothing.)
    uint64_t peakKiB = 0;
    for (int i = 0; i < 80; ++i) {
        std::ifstream status("/proc/" + std::to_string(worker->pid()) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.rfind("VmRSS:", 0) == 0)
                peakKiB = std::max<uint64_t>(peakKiB, std::strtoull(line.c_str() + 6, nullptr, 10));
        usleep(50000);
    }
    EXPECT_GT(peakKiB, 0u);
#ifndef TOLV_HAS_SANITIZER
    EXPECT_LT(peakKiB, 64u * 1024) << "worker resident set " << peakKiB << " KiB";
#endif
    // The worker, held waiting for the peer, still notices the peer's death.
    flood->Kill(SIGKILL);
    EXPECT_LE(flood->Wait(), -1000);
    EXPECT_EQ(worker->Wait(), 0);
    EXPECT_THAT(install.WorkerLog(), HasSubstr("All channels are down."));
}
