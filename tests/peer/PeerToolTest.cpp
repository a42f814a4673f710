// veltrane-protocol.exe as a person or a script meets it: what goes to which
// stream, the words of a failure, the numbers it takes, mounted devices,
// progress and interrupts. Real programs, real files and loop devices.

#include "common/ProcessProbe.h"
#include "common/WorkerInstallation.h"

#include <fcntl.h>

#include <nlohmann/json.hpp>

#include <csignal>
#include <fstream>
#include <regex>
#include <sstream>

using namespace std::string_literals;

TEST(PeerTool, AFailedQuerySaysWhyInWordsThenTheStatusAndWhereTheLogIs)
{
    Installation install;
    mkdir(install.file("folder").c_str(), 0755);
    ASSERT_EQ(mkfifo(install.file("fifo").c_str(), 0600), 0);
    WritePatternFile(install.file("locked"), 4096);
    chmod(install.file("locked").c_str(), 0400);
    std::vector<std::pair<std::string, const char*>> cases = {
        {install.file("missing"), "no such file or directory"},
        {install.file("folder"), "is a directory"},
        {"/dev/null", "not a regular file or block device"},
        {install.file("fifo"), "not a regular file or block device"},
        {"/proc/self/status", "a file of a proc file system, not storage"},
    };
    if (geteuid() != 0)  // root opens it anyway
        cases.push_back({install.file("locked"), "permission denied"});
    for (const auto& c : cases) {
        const auto run = install.Peer({"query", "E", c.first});
        EXPECT_EQ(run.code, 1) << c.first;
        EXPECT_EQ(run.out, "") << c.first;
        EXPECT_THAT(run.err, HasSubstr("drive E: " + c.first + ": " + c.second +
                                       " (query failed: STATUS_UNSUCCESSFUL (0xC0000001)"));
        // The worker's own log file, which gives the errno of the open.
        const std::string key = "the worker's log: ";
        const size_t at = run.err.find(key);
        ASSERT_NE(at, std::string::npos) << run.err;
        const std::string log = run.err.substr(at + key.size(), run.err.find('\n', at) - at - key.size());
        EXPECT_EQ(log.rfind(install.file("tmp/corvanta-" + std::to_string(geteuid()) + "/"), 0), 0u) << run.err;
        EXPECT_THAT(ReadFile(log), HasSubstr("Openning " + c.first + " failed with errno "));
    }
}

TEST(PeerTool, StandardOutputHoldsOnlyTheBytesOfAReadToIt)
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
}

TEST(PeerTool, NumbersItRefusesEndTheRunBeforeAnyWorker)
{
    Installation install;
    const std::string data = install.file("data.bin");
    WritePatternFile(data, 4096);
    for (const char* number : {"08x", "1KB", "1.5M", "0x", "-1", "18446744073709551616", "16E", "16Ei"}) {
        const auto run = install.Peer({"query", "E", data, "read", "E", number, "16", install.file("out")});
        EXPECT_EQ(run.code, 2) << number;
        EXPECT_THAT(run.err, HasSubstr("usage: veltrane-protocol.exe"));
        EXPECT_EQ(install.WorkerLog(), "") << number;
    }
    EXPECT_EQ(install.Peer({"--json", "query", "E", data, "read", "E", "0", "1", "-"}).code, 2);
}

TEST(PeerTool, JsonResultsParseBackWithTheRelativePathMadeAbsolute)
{
    Installation install;
    WritePatternFile(install.file("data.bin"), 12345);
    // Run from the installation's folder, naming the file relative to it.
    auto peer = install.Start({"/bin/sh", "-c",
                               "cd \"$0\" && exec \"$1\" --timeout 60 --json query E data.bin query --json F ./data.bin",
                               install.dir.path(), install.peer()});
    ASSERT_EQ(peer->Wait(), 0) << peer->Stderr();
    std::istringstream lines(peer->Stdout());
    std::vector<nlohmann::json> results;
    for (std::string line; std::getline(lines, line);)
        results.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(results.size(), 2u) << peer->Stdout();
    EXPECT_EQ(results[0]["drive"], "E");
    EXPECT_EQ(results[0]["path"], "data.bin");
    EXPECT_EQ(results[0]["sent_path"], install.file("data.bin"));
    EXPECT_EQ(results[1]["drive"], "F");
    EXPECT_EQ(results[1]["sent_path"], install.dir.path() + "/./data.bin");
    for (const auto& result : results) {
        EXPECT_EQ(result["size"], 12345);
        EXPECT_EQ(result["writable"], true);
        EXPECT_EQ(result["device"], false);
    }
}

TEST(PeerTool, HelpAndVersionOfBothPrograms)
{
    Installation install;
    for (const std::string& program : {install.peer(), install.worker()}) {
        const std::string name = program.substr(program.rfind('/') + 1);
        for (const char* option : {"-h", "--help", "--version"}) {
            auto run = install.Start({program, option});
            EXPECT_EQ(run->Wait(), 0) << name << option;
            const std::regex expected(option == std::string("--version") ? "^" + name + R"( \d+\.\d+\.\d+\n$)"
                                                                         : "^usage: " + name + " [^]*");
            EXPECT_TRUE(std::regex_match(run->Stdout(), expected)) << run->Stdout();
        }
    }
}

TEST(PeerTool, ProgressOfTheCopyAndOfTheCheckWhenAskedFor)
{
    Installation install;
    const std::string data = install.file("data.bin");
    WritePatternFile(data, 3u << 20);
    const auto shown = install.Peer({"-p", "copy-out", data, install.file("image.bin")});
    ASSERT_EQ(shown.code, 0) << shown.err;
    const std::regex done(R"(copy-out 100% 3\.0 MiB of 3\.0 MiB, [0-9.]+ [KMGT]?i?B/s, in \d+:\d\d)");
    EXPECT_TRUE(std::regex_search(shown.err, done)) << shown.err;
    EXPECT_THAT(shown.err, HasSubstr("check 100% 3.0 MiB of 3.0 MiB"));
    // Standard error is a file here, so by default nothing is shown.
    const auto quiet = install.Peer({"copy-in", install.file("image.bin"), data});
    ASSERT_EQ(quiet.code, 0) << quiet.err;
    EXPECT_THAT(quiet.err, Not(HasSubstr("%")));
}

TEST(PeerTool, AWorkerThatExitsWithAnErrorFailsTheRun)
{
    Installation install;
    // The real worker, whose exit code a wrapper replaces.
    const std::string wrapper = install.file("bin/failing-worker");
    std::ofstream(wrapper) << "#!/bin/sh\n\"${0%/*}/tolvClientWorker\" \"$@\"\nexit 3\n";
    ASSERT_EQ(chmod(wrapper.c_str(), 0755), 0);
    WritePatternFile(install.file("data.bin"), 4096);
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
        const std::string source = install.file("source.bin");
        std::ofstream{source};
        ASSERT_EQ(truncate(source.c_str(), off_t{16} << 30), 0);
        auto peer = install.Start({install.peer(), keep ? "--keep-partial" : "--no-progress", "--timeout", "60",
                                   "copy-out", source, install.file("image.bin")});
        ASSERT_TRUE(WaitUntil([&] { return access(install.file("image.bin").c_str(), F_OK) == 0; }));
        peer->Kill(signal);
        EXPECT_EQ(peer->Wait(), static_cast<int8_t>(128 + signal)) << peer->Stderr();  // read back as a signed byte
        const std::string err = peer->Stderr();
        EXPECT_THAT(err, HasSubstr("interrupted by SIG"s + sigabbrev_np(signal) + "; the worker was released"));
        EXPECT_EQ(access(install.file("image.bin").c_str(), F_OK) == 0, keep) << err;
        EXPECT_THAT(err, HasSubstr(keep ? "kept the partial output" : "removed the partial output"));
        // The worker went down of itself, its log closed, not killed.
        EXPECT_THAT(err, Not(HasSubstr("killing")));
        EXPECT_THAT(install.WorkerLog(), HasSubstr("*** LOG FILE COMPLETE ***"));
    }
}

TEST_F(WorkerLoop, DevNameAndBackslashNameAreTheSameDrive)
{
    auto device = Attach("disk.img", 4u << 20, 8);
    ASSERT_TRUE(device);
    const auto run = install.Peer({"--json", "query", "E", device->path(), "query", "F", device->drivePath()});
    ASSERT_EQ(run.code, 0) << run.err;
    const size_t newline = run.out.find('\n');
    auto first = nlohmann::json::parse(run.out.substr(0, newline));
    auto second = nlohmann::json::parse(run.out.substr(newline + 1));
    EXPECT_EQ(first["device"], true);
    EXPECT_EQ(first["size"], 4u << 20);
    EXPECT_EQ(first["bytes_per_sector"], 512);
    EXPECT_EQ(first["sent_path"], device->drivePath());
    for (const char* field : {"drive", "path"}) {
        first.erase(field);
        second.erase(field);
    }
    EXPECT_EQ(first, second);
}

TEST_F(WorkerLoop, ABusyMountStopsWritesUnlessForcedAndWarnsACopyOut)
{
    auto device = AttachMountedExt4("disk.img", 32u << 20, 9);
    ASSERT_TRUE(device);
    // An open file keeps the mount busy: the worker cannot take it down.
    tolv::platform::UniqueFd busy(::open((mnt() + "/open").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_TRUE(busy.valid());
    const std::string before = ReadFile(dir.file("disk.img"));
    const std::string patch = dir.file("patch.bin");
    WritePatternFile(patch, 8192, 10);
    const std::string image = dir.file("image.bin");
    WritePatternFile(image, 1u << 20, 11);

    for (const auto& args : {std::vector<std::string>{"copy-in", image, device->drivePath()},
                             {"query", "E", device->path(), "write", "E", "0", patch}}) {
        const auto run = install.Peer(args);
        EXPECT_EQ(run.code, 5) << run.err;
        EXPECT_THAT(run.err, HasSubstr(device->path() + " is mounted on " + mnt()));
        EXPECT_THAT(run.err, HasSubstr("--force"));
    }
    EXPECT_TRUE(ReadFile(dir.file("disk.img")) == before) << "written without --force";
    EXPECT_EQ(device->MountPoints(), std::vector<std::string>{mnt()});

    const auto copy = install.Peer({"copy-out", device->path(), dir.file("out.img")});
    EXPECT_EQ(copy.code, 0) << copy.err;
    EXPECT_THAT(copy.err, HasSubstr("the image may be of a live file system"));

    // Into the free blocks of the last group: the middle of the device holds
    // the journal, which the mounted file system may write again after us.
    const auto forced = install.Peer({"--force", "query", "E", device->path(), "write", "E", "30M", patch});
    EXPECT_EQ(forced.code, 0) << forced.err;
    EXPECT_TRUE(ReadFile(dir.file("disk.img")).substr(30u << 20, 8192) == ReadFile(patch));
}
