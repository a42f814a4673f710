#pragma once
// The peer's command line: where the worker is, how to report, and the steps
// to run on one command stream, in order.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class PeerStepKind { Query, Read, Write, Release, CopyOut, CopyIn };

struct PeerStep {
    PeerStepKind kind;
    uint8_t letter = 0;        // query, read, write, release
    std::string path;          // query: drive or file; copy-out: source; copy-in: target
    std::string file;          // read: output ("-" is standard output); write: input; copy: the image
    uint64_t offset = 0;
    uint64_t length = 0;
    bool json = false;         // query: print the result as JSON
};

enum class ProgressMode { Auto, On, Off };

struct PeerOptions {
    std::string workerPath;      // start this worker (default: tolvClientWorker beside us)
    std::string endpoint;        // or connect to a worker already listening here
    std::string streamName = "tolvCommands";
    unsigned timeoutSeconds = 60;
    ProgressMode progress = ProgressMode::Auto;  // Auto: when standard error is a terminal
    bool json = false;         // every query prints JSON
    bool force = false;        // write to a block device that is still mounted
    bool keepPartial = false;  // keep what an interrupted or failed copy wrote
    bool help = false;         // print the usage and do nothing else
    bool version = false;      // print the version and do nothing else
    std::vector<PeerStep> steps;

    // A step writes the drive's bytes to standard output: nothing else may go there.
    bool dataOnStdout() const;
};

inline constexpr int kPeerExitOk = 0;
inline constexpr int kPeerExitRequestFailed = 1;
inline constexpr int kPeerExitUsage = 2;
inline constexpr int kPeerExitConnect = 3;
inline constexpr int kPeerExitWorker = 4;
inline constexpr int kPeerExitMounted = 5;
// Interrupted: 128 + the signal, as a shell reports it.
inline constexpr int kPeerExitSignalBase = 128;

// Nothing, with `error` set, when the arguments are not a valid command line.
std::optional<PeerOptions> ParsePeerCommandLine(const std::vector<std::string>& args, std::string& error);

// A byte count or offset: decimal (leading zeros too; never octal) with an
// optional K, M, G or T (or KiB, MiB, GiB, TiB) for powers of 1024, or 0x
// hex. False for anything else and for values past 2^64-1.
bool ParseByteCount(const std::string& text, uint64_t& out);

const char* PeerUsage();
