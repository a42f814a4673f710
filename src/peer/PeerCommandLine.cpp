#include "peer/PeerCommandLine.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace {

bool ParseNumber(const std::string& text, uint64_t& out)
{
    if (text.empty() || text[0] == '-' || text[0] == '+' || std::isspace(static_cast<unsigned char>(text[0])))
        return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0')
        return false;
    out = value;
    return true;
}

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

} // namespace

const char* PeerUsage()
{
    return "usage: veltrane-protocol.exe [OPTIONS] STEP...\n"
           "\n"
           "Starts tolvClientWorker (or connects to one already listening) and runs the\n"
           "steps in order on one command stream.\n"
           "\n"
           "options:\n"
           "  --worker PATH      the worker to start (default: tolvClientWorker beside this program)\n"
           "  --endpoint GUID    connect to a worker already listening on GUID instead\n"
           "  --stream NAME      command stream name (default: tolvCommands)\n"
           "  --timeout SECONDS  how long to wait for the worker and for each reply (default: 60)\n"
           "  --quiet            no progress bar\n"
           "  --help             this text\n"
           "\n"
           "steps (L is a drive letter, A to Z):\n"
           "  query L PATH             open PATH (a file, or \\\\.\\NAME for /dev/NAME) as drive L\n"
           "                           and print its size, writability and geometry\n"
           "  read L OFFSET LENGTH OUT read LENGTH bytes at OFFSET into the file OUT (- for stdout)\n"
           "  write L OFFSET IN        write the whole file IN at OFFSET\n"
           "  release L                unlock and close drive L\n"
           "  copy-out PATH IMAGE      copy the whole drive or file PATH into IMAGE and check it\n"
           "  copy-in IMAGE PATH       copy IMAGE onto the start of PATH and read it back to check\n"
           "\n"
           "Numbers may be decimal or 0x-hex. Exit codes: 0 done, 1 a request failed,\n"
           "2 bad arguments, 3 no connection (or refused), 4 the worker failed.\n";
}

std::optional<PeerOptions> ParsePeerCommandLine(const std::vector<std::string>& args, std::string& error)
{
    PeerOptions options;
    size_t i = 0;
    auto value = [&](const char* option) -> const std::string* {
        if (i + 1 >= args.size()) {
            error = std::string(option) + " needs a value";
            return nullptr;
        }
        return &args[++i];
    };
    for (; i < args.size() && args[i].rfind("--", 0) == 0; ++i) {
        const std::string& option = args[i];
        const std::string* v = nullptr;
        if (option == "--help") {
            options.help = true;
            return options;
        } else if (option == "--quiet") {
            options.quiet = true;
        } else if (option == "--worker") {
            if (!(v = value("--worker")))
                return std::nullopt;
            options.workerPath = *v;
        } else if (option == "--endpoint") {
            if (!(v = value("--endpoint")))
                return std::nullopt;
            options.endpoint = *v;
        } else if (option == "--stream") {
            if (!(v = value("--stream")))
                return std::nullopt;
            options.streamName = *v;
        } else if (option == "--timeout") {
            uint64_t seconds = 0;
            if (!(v = value("--timeout")))
                return std::nullopt;
            if (!ParseNumber(*v, seconds) || seconds == 0 || seconds > 86400) {
                error = "--timeout takes 1 to 86400 seconds";
                return std::nullopt;
            }
            options.timeoutSeconds = static_cast<unsigned>(seconds);
        } else {
            error = "unknown option " + option;
            return std::nullopt;
        }
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
            if (!need(step, 2))
                return std::nullopt;
            s.kind = PeerStepKind::Query;
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
            if (!ParseLetter(args[i + 1], s.letter) || !ParseNumber(args[i + 2], s.offset) ||
                !ParseNumber(args[i + 3], s.length) || s.length == 0 || s.length > 0xFFFFFFFFull) {
                error = "read takes a drive letter, an offset and a length of 1 to 4294967295 bytes";
                return std::nullopt;
            }
            s.file = args[i + 4];
            i += 5;
        } else if (step == "write") {
            if (!need(step, 3))
                return std::nullopt;
            s.kind = PeerStepKind::Write;
            if (!ParseLetter(args[i + 1], s.letter) || !ParseNumber(args[i + 2], s.offset)) {
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
    return options;
}
