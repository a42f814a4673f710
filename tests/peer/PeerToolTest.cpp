// veltrane-protocol.exe as a person or a script meets it, with real programs,
// files and loop devices.

#include "common/ProcessProbe.h"
#include "common/WorkerInstallation.h"

#include <fcntl.h>

#include <nlohmann/json.hpp>

#include <csignal>
#include <fstream>
#include <regex>
#include <tuple>

using namespace std::string_literals;

// Kernel interfaces' files call themselves regular, and writing through
// /proc/self/mem would patch the worker's own code: they are refused too.
TEST(PeerTool, AFailedQuerySaysWhyInWordsThenTheStatusAndWhereTheLogIs)
{
    Installation install;
    mkdir(install.file("folder").c_str(), 0755);
    ASSERT_EQ(mkfifo(install.file("fifo").c_str(), 0600), 0);
    WritePatternFile(install.file("locked"), 4096);
    chmod(install.file("locked").c_str(), 0400);
    // Path, the words the peer says, and whether it is refused for its file system.
    std::vector<std::tuple<std::string, std::string, bool>> cases = {
        {install.file("missing"), "no such file or directory", false},
        {install.file("folder"), "is a directory", false},
        {"/dev/null", "not a regular file or block device", false},
        {install.file("fifo"), "not a regular file or block device", false},
        {"/proc/self/status", "a file of a proc file system, not storage", false},
        {"/proc/self/mem", "a file of a proc file system, not storage", true},
    };
    if (geteuid() != 0)  // root opens it anyway
        cases.push_back({install.file("locked"), "permission denied", false});
    // A sysfs file, better one that opens for writing: that one reaches the
    // file-system check, a read-only one is refused by the open already.
    std::string sys;
    for (const char* candidate : {"/sys/kernel/mm/transparent_hugepage/enabled", "/sys/kernel/profiling",
                                  "/sys/power/state", "/sys/kernel/uevent_seqnum"}) {
        const bool better = sys.empty() || (access(sys.c_str(), W_OK) != 0 && access(candidate, W_OK) == 0);
        if (access(candidate, F_OK) == 0 && better)
            sys = candidate;
    }
    if (!sys.empty())
        cases.push_back({sys, "a file of a sysfs file system, not storage", access(sys.c_str(), W_OK) == 0});
    for (const auto& [path, words, byKind] : cases) {
        const auto run = install.Peer({"query", "E", path});
        EXPECT_EQ(run.code, 1) << path;
        EXPECT_EQ(run.out, "") << path;
        EXPECT_THAT(run.err, HasSubstr("drive E: " + path + ": " + words +
                                       " (query failed: STATUS_UNSUCCESSFUL (0xC0000001)"));
        // The worker's own log file, which gives the errno of the open.
        std::smatch log;
        ASSERT_TRUE(std::regex_search(run.err, log, std::regex("the worker's log: (.*)"))) << run.err;
        EXPECT_EQ(log[1].str().rfind(install.file("tmp/corvanta-" + std::to_string(geteuid()) + "/"), 0), 0u);
        EXPECT_THAT(ReadFile(log[1]), HasSubstr("Openning " + path + " failed with errno " +
                                                (byKind ? "124 (Wrong medium type)." : "")));
    }
    EXPECT_THAT(install.WorkerLog(), HasSubstr("/proc/self/mem is a file of a proc file system (type 0x9fa0), not "
                                               "storage; refused."));
}

TEST(PeerTool, StandardOutputHoldsOnlyTheBytesOfAReadOrTheResultsAndErrorTheRest)
{
    Installation install;
    const std::string data = install.file("data.bin");
    WritePatternFile(data, 100000, 3);
    // Offsets with suffixes, hex, and a leading zero that is not octal.
    const auto run = install.Peer({"--no-progress", "query", "E", data, "read", "E", "1K", "0x2000", "-", "read",
                                   "e:", "010", "7", "-", "release", "E"});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_TRUE(run.out == ReadFile(data).substr(1024, 8192) + ReadFile(data).substr(10, 7)) << run.out.size();
    // The status went to standard error instead.
    EXPECT_THAT(run.err, HasSubstr("drive E: " + data + ": 100000 bytes, writable"));
    EXPECT_THAT(run.err, HasSubstr("drive E: released"));

    // JSON results, one a line, with a path relative to the peer's folder made absolute.
    const std::string script = "cd \"$0\" && exec \"$1\" --json query E data.bin query --json F ./data.bin";
    auto peer = install.Start({"/bin/sh", "-c", script, install.dir.path(), install.peer()});
    ASSERT_EQ(peer->Wait(), 0) << peer->Stderr();
    const std::string out = peer->Stdout();
    ASSERT_EQ(std::count(out.begin(), out.end(), '\n'), 2) << out;
    const auto first = nlohmann::json::parse(out.substr(0, out.find('\n')));
    const auto second = nlohmann::json::parse(out.substr(out.find('\n') + 1));
    EXPECT_EQ(first["drive"], "E");
    EXPECT_EQ(first["path"], "data.bin");
    EXPECT_EQ(first["sent_path"], data);
    EXPECT_EQ(second["drive"], "F");
    EXPECT_EQ(second["sent_path"], install.dir.path() + "/./data.bin");
    for (const auto& result : {first, second}) {
        EXPECT_EQ(result["size"], 100000);
        EXPECT_EQ(result["writable"], true);
        EXPECT_EQ(result["device"], false);
    }

    // Progress of the copy and of its check when asked for; standard error is
    // a file here, so by default nothing is shown.
    const auto shown = install.Peer({"-p", "copy-out", data, install.file("image.bin")});
    ASSERT_EQ(shown.code, 0) << shown.err;
    const std::regex done(R"(copy-out 100% 97\.7 KiB of 97\.7 KiB, [0-9.]+ [KMGT]?i?B/s, in \d+:\d\d)");
    EXPECT_TRUE(std::regex_search(shown.err, done)) << shown.err;
    EXPECT_THAT(shown.err, HasSubstr("check 100% 97.7 KiB of 97.7 KiB"));
    const auto quiet = install.Peer({"copy-in", install.file("image.bin"), data});
    ASSERT_EQ(quiet.code, 0) << quiet.err;
    EXPECT_THAT(quiet.err, Not(HasSubstr("%")));
}

TEST(PeerTool, ExitCodesOfHelpVersionRefusedNumbersAndAFailedWorker)
{
    Installation install;
    for (const std::string& program : {install.peer(), install.worker()}) {
        const std::string name = program.substr(program.rfind('/') + 1);
        for (const char* option : {"-h", "--help", "--version"}) {
            auto run = install.Start({program, option});
            EXPECT_EQ(run->Wait(), 0) << name << option;
            const std::regex expected(option == "--version"s ? "^" + name + R"( \d+\.\d+\.\d+\n$)"
                                                             : "^usage: " + name + " [^]*");
            EXPECT_TRUE(std::regex_match(run->Stdout(), expected)) << run->Stdout();
        }
    }
    WritePatternFile(install.file("data.bin"), 4096);
    for (const char* number : {"08x", "1KB", "1.5M", "0x", "-1", "18446744073709551616", "16E", "16Ei"}) {
        const auto run = install.Peer({"query", "E", install.file("data.bin"), "read", "E", number, "16", "out"});
        EXPECT_EQ(run.code, 2) << number;
        EXPECT_THAT(run.err, HasSubstr("usage: veltrane-protocol.exe"));
    }
    EXPECT_EQ(install.WorkerLog(), "");

    // A worker that exits with an error fails the run: the real one, whose
    // exit code a wrapper replaces.
    const std::string wrapper = install.file("bin/failing-worker");
    std::ofstream(wrapper) << "#!/bin/sh\n\"${0%/*}/tolvClientWorker\" \"$@\"\nexit 3\n";
    ASSERT_EQ(chmod(wrapper.c_str(), 0755), 0);
    const auto run = install.Peer({"--worker", wrapper, "query", "E", install.file("data.bin"), "release", "E"});
    EXPECT_EQ(run.code, 4) << run.err;
    EXPECT_THAT(run.err, HasSubstr("the worker exited with 3"));
}

TEST(PeerTool, AnInterruptReleasesTheWorkerAndRemovesThePartialImage)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(sigabbrev_np(signal));
        const bool keep = signal == SIGTERM;
        Installation install;
        // A large empty drive: the copy takes far longer than the signal.
        const std::string source = install.file("source.bin"), image = install.file("image.bin");
        std::ofstream{source};
        ASSERT_EQ(truncate(source.c_str(), off_t{16} << 30), 0);
        auto peer = install.Start({install.peer(), keep ? "--keep-partial" : "--no-progress", "--timeout", "60",
                                   "copy-out", source, image});
        ASSERT_TRUE(WaitUntil([&] { return access(image.c_str(), F_OK) == 0; }));
        peer->Kill(signal);
        EXPECT_EQ(peer->Wait(), static_cast<int8_t>(128 + signal)) << peer->Stderr();
        const std::string err = peer->Stderr();
        EXPECT_THAT(err, HasSubstr("interrupted by SIG"s + sigabbrev_np(signal) + "; the worker was released"));
        EXPECT_EQ(access(image.c_str(), F_OK) == 0, keep) << err;
        EXPECT_THAT(err, HasSubstr(keep ? "kept the partial output" : "removed the partial output"));
        // The worker went down of itself, its log closed, not killed.
        EXPECT_THAT(err, Not(HasSubstr("killing")));
        EXPECT_THAT(install.WorkerLog(), HasSubstr("*** LOG FILE COMPLETE ***"));
    }
}

TEST_F(WorkerLoop, ABusyMountStopsWritesUnlessForcedAndWarnsACopyOutUnderEitherName)
{
    auto device = AttachMountedExt4("disk.img", 32u << 20, 9);
    ASSERT_TRUE(device);
    // An open file keeps the mount busy: the worker cannot take it down.
    tolv::platform::UniqueFd busy(::open((mnt() + "/open").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_TRUE(busy.valid());
    const std::string before = ReadFile(dir.file("disk.img")), patch = dir.file("patch.bin");
    WritePatternFile(patch, 8192, 10);
    WritePatternFile(dir.file("image.bin"), 1u << 20, 11);
    for (const auto& args : {std::vector<std::string>{"copy-in", dir.file("image.bin"), device->drivePath()},
                             {"query", "E", device->path(), "write", "E", "0", patch}}) {
        const auto run = install.Peer(args);
        EXPECT_EQ(run.code, 5) << run.err;
        EXPECT_THAT(run.err, HasSubstr(device->path() + " is mounted on " + mnt()));
        EXPECT_THAT(run.err, HasSubstr("--force"));
    }
    EXPECT_TRUE(ReadFile(dir.file("disk.img")) == before) << "written without --force";
    EXPECT_EQ(device->MountPoints(), std::vector<std::string>{mnt()});
    // /dev/loopN and \\.\loopN are the same drive.
    const auto json = install.Peer({"--json", "query", "E", device->path(), "query", "F", device->drivePath()});
    ASSERT_EQ(json.code, 0) << json.err;
    auto first = nlohmann::json::parse(json.out.substr(0, json.out.find('\n')));
    auto second = nlohmann::json::parse(json.out.substr(json.out.find('\n') + 1));
    EXPECT_EQ(first["device"], true);
    EXPECT_EQ(first["size"], 32u << 20);
    EXPECT_EQ(first["bytes_per_sector"], 512);
    EXPECT_EQ(first["sent_path"], device->drivePath());
    for (const char* field : {"drive", "path"}) {
        first.erase(field);
        second.erase(field);
    }
    EXPECT_EQ(first, second);
    const auto copy = install.Peer({"copy-out", device->path(), dir.file("out.img")});
    EXPECT_EQ(copy.code, 0) << copy.err;
    EXPECT_THAT(copy.err, HasSubstr("the image may be of a live file system"));
    // Into the free blocks of the last group: the middle of the device holds
    // the journal, which the mounted file system may write again after us.
    const auto forced = install.Peer({"--force", "query", "E", device->path(), "write", "E", "30M", patch});
    EXPECT_EQ(forced.code, 0) << forced.err;
    EXPECT_TRUE(ReadFile(dir.file("disk.img")).substr(30u << 20, 8192) == ReadFile(patch));
}
