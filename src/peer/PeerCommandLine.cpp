#include "peer/PeerCommandLine.h"

#include <getopt.h>

#include <cctype>
#include <mutex>

namespace {

bool ParseLetter(const std::string& text, uint8_t& out)
{
    std::string letter = text;
    if (letter.size() == 2 && letter[1] == ':')
        letter.resize(1);
    if (letter.size() != 1 || !std::isalpha(static_cast<unsigned char>(letter[0])))
        return false;
    out = static_cast<uint8_t>(std::toupper(static_cast<unsigned char>(letter[0])));
    return true;
}

bool ParseDigits(const std::string& digits, unsigned base, uint64_t& out)
{
    if (digits.empty())
        return false;
    uint64_t value = 0;
    for (char c : digits) {
        unsigned digit;
        if (c >= '0' && c <= '9')
            digit = static_cast<unsigned>(c - '0');
        else if (base == 16 && c >= 'a' && c <= 'f')
            digit = static_cast<unsigned>(c - 'a' + 10);
        else if (base == 16 && c >= 'A' && c <= 'F')
            digit = static_cast<unsigned>(c - 'A' + 10);
        else
            return false;
        if (value > (UINT64_MAX - digit) / base)
            return false;
        value = value * base + digit;
    }
    out = value;
    return true;
}

// Long options only where a short one would be guessed wrong; the values are
// their getopt codes.
enum : int {
    kOptVersion = 256,
    kOptWorker,
    kOptEndpoint,
    kOptStream,
    kOptTimeout,
    kOptNoProgress,
    kOptJson,
    kOptForce,
    kOptKeepPartial,
};

const option kLongOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, kOptVersion},
    {"worker", required_argument, nullptr, kOptWorker},
    {"endpoint", required_argument, nullptr, kOptEndpoint},
    {"stream", required_argument, nullptr, kOptStream},
    {"timeout", required_argument, nullptr, kOptTimeout},
    {"progress", no_argument, nullptr, 'p'},
    {"no-progress", no_argument, nullptr, kOptNoProgress},
    {"quiet", no_argument, nullptr, kOptNoProgress},
    {"json", no_argument, nullptr, kOptJson},
    {"force", no_argument, nullptr, kOptForce},
    {"keep-partial", no_argument, nullptr, kOptKeepPartial},
    {nullptr, 0, nullptr, 0},
};

// getopt keeps its place in globals.
std::mutex g_getoptMutex;

} // namespace

bool ParseByteCount(const std::string& text, uint64_t& out)
{
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        return ParseDigits(text.substr(2), 16, out);
    size_t end = 0;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9')
        ++end;
    uint64_t value = 0;
    if (!ParseDigits(text.substr(0, end), 10, value))
        return false;
    const std::string suffix = text.substr(end);
    unsigned shift = 0;
    if (!suffix.empty()) {
        static const char kUnits[] = "KMGT";
        const char unit = static_cast<char>(std::toupper(static_cast<unsigned char>(suffix[0])));
        size_t index = 0;
        while (kUnits[index] != '\0' && kUnits[index] != unit)
            ++index;
        if (kUnits[index] == '\0' || !(suffix.size() == 1 || suffix.substr(1) == "iB"))
            return false;
        shift = 10 * static_cast<unsigned>(index + 1);
    }
    if (shift != 0 && value > (UINT64_MAX >> shift))
        return false;
    out = value << shift;
    return true;
}

bool PeerOptions::dataOnStdout() const
{
    for (const PeerStep& step : steps)
        if (step.kind == PeerStepKind::Read && step.file == "-")
            return true;
    return false;
}

const char* PeerUsage()
{
    return "usage: veltrane-protocol.exe [OPTIONS] STEP...\n"
           "\n"
           "Starts tolvClientWorker (or joins one already listening) and runs the steps\n"
           "in order on one command stream.\n"
           "\n"
           "options:\n"
           "  -h, --help          this text\n"
           "      --version       the version\n"
           "      --worker PATH   the worker to start (default: tolvClientWorker beside this program)\n"
           "      --endpoint GUID join a worker already listening on GUID instead\n"
           "      --stream NAME   command stream name (default: tolvCommands)\n"
           "      --timeout SECONDS  how long to wait for the worker and for each reply (default: 60)\n"
           "  -p, --progress      show progress on standard error even when it is not a terminal\n"
           "      --no-progress, --quiet  no progress\n"
           "      --json          query steps print one JSON object per line\n"
           "      --force         write to a block device even when it is still mounted\n"
           "      --keep-partial  keep the output of an interrupted or failed copy or read\n"
           "\n"
           "steps (L is a drive letter, A to Z):\n"
           "  query [--json] L PATH    open PATH as drive L and print its size, whether it\n"
           "                           is writable, and its geometry\n"
           "  read L OFFSET LENGTH OUT read LENGTH bytes at OFFSET into the file OUT (- for stdout)\n"
           "  write L OFFSET IN        write the whole file IN at OFFSET\n"
           "  release L                unlock and close drive L\n"
           "  copy-out PATH IMAGE      copy the whole drive or file PATH into IMAGE and check it\n"
           "  copy-in IMAGE PATH       copy IMAGE onto the start of PATH and read it back to check\n"
           "\n"
           "PATH is a file (relative to here) or a block device, as /dev/NAME or \\\\.\\NAME.\n"
           "Numbers are decimal, with K, M, G, T (or KiB, MiB, GiB, TiB) for powers of\n"
           "1024, or 0x hex. Results and data go to standard output, all else to standard\n"
           "error. Exit codes: 0 done, 1 a request failed, 2 bad arguments, 3 no connection\n"
           "(or refused), 4 the worker failed, 5 the device is still mounted (see --force),\n"
           "130 and 143 interrupted.\n";
}

std::optional<PeerOptions> ParsePeerCommandLine(const std::vector<std::string>& args, std::string& error)
{
    PeerOptions options;
    std::vector<std::string> storage;
    storage.reserve(args.size() + 1);
    storage.push_back("veltrane-protocol.exe");
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : storage)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    const int argc = static_cast<int>(storage.size());

    size_t i = 0;
    {
        std::lock_guard<std::mutex> lock(g_getoptMutex);
        optind = 0;  // a fresh scan
        opterr = 0;  // our own messages
        int code;
        // "+": options end at the first step.
        while ((code = getopt_long(argc, argv.data(), "+:hp", kLongOptions, nullptr)) != -1) {
            const std::string value = optarg ? optarg : "";
            switch (code) {
            case 'h': options.help = true; return options;
            case kOptVersion: options.version = true; return options;
            case kOptWorker: options.workerPath = value; break;
            case kOptEndpoint: options.endpoint = value; break;
            case kOptStream: options.streamName = value; break;
            case kOptTimeout: {
                uint64_t seconds = 0;
                if (!ParseDigits(value, 10, seconds) || seconds == 0 || seconds > 86400) {
                    error = "--timeout takes 1 to 86400 seconds";
                    return std::nullopt;
                }
                options.timeoutSeconds = static_cast<unsigned>(seconds);
                break;
            }
            case 'p': options.progress = ProgressMode::On; break;
            case kOptNoProgress: options.progress = ProgressMode::Off; break;
            case kOptJson: options.json = true; break;
            case kOptForce: options.force = true; break;
            case kOptKeepPartial: options.keepPartial = true; break;
            case ':': error = std::string(argv[optind - 1]) + " needs a value"; return std::nullopt;
            default: {
                const std::string arg = argv[optind - 1] ? argv[optind - 1] : "";
                error = "unknown option " + (optopt != 0 ? "-" + std::string(1, static_cast<char>(optopt)) : arg);
                return std::nullopt;
            }
            }
        }
        i = static_cast<size_t>(optind - 1);  // index into args
    }
    if (!options.workerPath.empty() && !options.endpoint.empty()) {
        error = "--worker and --endpoint exclude each other";
        return std::nullopt;
    }

    auto need = [&](const std::string& step, size_t count) {
        if (i + count < args.size())
            return true;
        error = step + " needs " + std::to_string(count) + " argument" + (count == 1 ? "" : "s");
        return false;
    };
    while (i < args.size()) {
        const std::string step = args[i];
        PeerStep s{};
        if (step == "query") {
            s.kind = PeerStepKind::Query;
            s.json = options.json;
            if (i + 1 < args.size() && args[i + 1] == "--json") {
                s.json = true;
                ++i;
            }
            if (!need(step, 2))
                return std::nullopt;
            if (!ParseLetter(args[i + 1], s.letter)) {
                error = "not a drive letter: " + args[i + 1];
                return std::nullopt;
            }
            s.path = args[i + 2];
            i += 3;
        } else if (step == "read") {
            if (!need(step, 4))
                return std::nullopt;
            s.kind = PeerStepKind::Read;
            if (!ParseLetter(args[i + 1], s.letter) || !ParseByteCount(args[i + 2], s.offset) ||
                !ParseByteCount(args[i + 3], s.length) || s.length == 0 || s.length > 0xFFFFFFFFull) {
                error = "read takes a drive letter, an offset and a length of 1 to 4294967295 bytes";
                return std::nullopt;
            }
            s.file = args[i + 4];
            i += 5;
        } else if (step == "write") {
            if (!need(step, 3))
                return std::nullopt;
            s.kind = PeerStepKind::Write;
            if (!ParseLetter(args[i + 1], s.letter) || !ParseByteCount(args[i + 2], s.offset)) {
                error = "write takes a drive letter, an offset and a file";
                return std::nullopt;
            }
            s.file = args[i + 3];
            i += 4;
        } else if (step == "release") {
            if (!need(step, 1))
                return std::nullopt;
            s.kind = PeerStepKind::Release;
            if (!ParseLetter(args[i + 1], s.letter)) {
                error = "not a drive letter: " + args[i + 1];
                return std::nullopt;
            }
            i += 2;
        } else if (step == "copy-out" || step == "copy-in") {
            if (!need(step, 2))
                return std::nullopt;
            s.kind = step == "copy-out" ? PeerStepKind::CopyOut : PeerStepKind::CopyIn;
            s.path = step == "copy-out" ? args[i + 1] : args[i + 2];
            s.file = step == "copy-out" ? args[i + 2] : args[i + 1];
            i += 3;
        } else {
            error = "unknown step " + step;
            return std::nullopt;
        }
        options.steps.push_back(std::move(s));
    }
    if (options.steps.empty()) {
        error = "nothing to do";
        return std::nullopt;
    }
    bool json = false;
    for (const PeerStep& step : options.steps)
        json = json || step.json;
    if (json && options.dataOnStdout()) {
        error = "--json and a read to standard output both want standard output";
        return std::nullopt;
    }
    return options;
}
