#pragma once
// The peer's command line: where the worker is, and the steps to run on one
// command stream, in order.

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
};

struct PeerOptions {
    std::string workerPath;      // start this worker (default: tolvClientWorker beside us)
    std::string endpoint;        // or connect to a worker already listening here
    std::string streamName = "tolvCommands";
    unsigned timeoutSeconds = 60;
    bool quiet = false;
    bool help = false;  // print the usage and do nothing else
    std::vector<PeerStep> steps;
};

inline constexpr int kPeerExitOk = 0;
inline constexpr int kPeerExitRequestFailed = 1;
inline constexpr int kPeerExitUsage = 2;
inline constexpr int kPeerExitConnect = 3;
inline constexpr int kPeerExitWorker = 4;

// Nothing, with `error` set, when the arguments are not a valid command line.
std::optional<PeerOptions> ParsePeerCommandLine(const std::vector<std::string>& args, std::string& error);

const char* PeerUsage();
