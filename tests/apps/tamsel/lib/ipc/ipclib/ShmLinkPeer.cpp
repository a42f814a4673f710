// The other process of the shared-memory link tests. It takes a link's
// channel descriptors from the socket named on its command line, builds its
// side of the link with the roles swapped, and then, by mode:
//   1 echo client: opens streams towards the test process, sends every size on
//     each, checks the echoes byte for byte, closes; exit 0 when all matched.
//   2 silent: attaches but never starts, so it never frees the buffer; waits
//     to be killed.
// Exit codes: 0 success, 1 a check failed, 2 set-up failed.

#include "ShmHandOver.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkSharedMemLinux.h"
#include <tamsel/ipc/ipclibStream.h>
#include <tolv/log/Log.h>
#include "log/LoggerManager.h"
#include "task/LinuxThreadPoolExecutor.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

using namespace tolv::log;

using namespace tamsel::ipc;
using namespace tamsel::ipc::testing;

namespace {

constexpr uint32_t kStreams = 3;

} // namespace

int main(int argc, char** argv)
{
    LogToStandardError("shmLinkPeer", LOG_LEVEL_ERROR);
    if (argc != 2)
        return 2;
    const int socket = std::atoi(argv[1]);
    HandOver header;
    KxIpclibLinkChannelResourceLinux creatorSend, creatorRecv;
    if (!ReceiveHandOver(socket, header, creatorSend, creatorRecv))
        return 2;
    tolv::platform::UniqueFd parent(static_cast<int>(::syscall(SYS_pidfd_open, ::getppid(), 0)));
    auto executor = tamsel::task::LinuxThreadPoolExecutor::create();
    auto link = std::make_shared<KxIpclibLinkSharedMemLinux>(_GUID{}, 0, u"peer", static_cast<uint32_t>(::getppid()),
                                                             nullptr, nullptr, header.sectionSize, std::move(parent),
                                                             tolv::platform::UniqueFd());
    int error = 0;
    // What the creator sends on, this side receives on, and the reverse.
    if (link->attach(std::move(creatorRecv), std::move(creatorSend), error) != 0 || link->connecting() != 0)
        return 2;
    if (header.mode == 2) {
        char byte;
        [[maybe_unused]] ssize_t n = ::read(socket, &byte, 1);  // until killed
        return 0;
    }
    unsigned int out = 0;
    if (link->start(executor, out) != KxIpcStatusSuccess)
        return 2;

    const auto sizes = MessageSizes(header.sectionSize);
    std::vector<Echoes> echoes(kStreams);
    std::vector<std::shared_ptr<KxIpclibStream>> streams;
    std::vector<std::vector<std::vector<uint8_t>>> sent(kStreams);
    for (uint32_t s = 0; s < kStreams; ++s) {
        Echoes& e = echoes[s];
        auto opened = KxIpclibStream::open(
            link, executor, u"tolvCommands", Flags<KxIpclibStreamFlag>(),
            Checker(e, s, sizes),
            std::chrono::seconds(30));
        if (!opened)
            return 2;
        streams.push_back(*opened);
    }
    for (uint32_t s = 0; s < kStreams; ++s)
        for (uint32_t i = 0; i < sizes.size(); ++i)
            sent[s].push_back(PatternMessage(s, i, sizes[i]));
    for (uint32_t i = 0; i < sizes.size(); ++i)
        for (uint32_t s = 0; s < kStreams; ++s)
            if (!streams[s]->send(0, sizes[i], sent[s][i].data(), [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}))
                return 1;
    int result = 0;
    for (uint32_t s = 0; s < kStreams; ++s) {
        std::unique_lock<std::mutex> lock(echoes[s].lock);
        if (!echoes[s].changed.wait_for(lock, std::chrono::seconds(60),
                                        [&] { return echoes[s].received == sizes.size(); }) ||
            echoes[s].wrong != 0)
            result = 1;
    }
    for (auto& stream : streams) {
        stream->waitForOutstandingSends(0, std::chrono::seconds(30));
        stream->close(std::chrono::milliseconds(1000));
    }
    for (uint32_t s = 0; s < kStreams; ++s) {
        std::unique_lock<std::mutex> lock(echoes[s].lock);
        echoes[s].changed.wait_for(lock, std::chrono::seconds(30), [&] { return echoes[s].ended; });
    }
    link->close();
    streams.clear();
    std::fprintf(stderr, "peer: %s\n", result == 0 ? "every echo matched" : "echo mismatch");
    // Stay until the test has seen our stop: exiting at once would race it
    // with the server noticing that we are gone.
    char byte;
    [[maybe_unused]] ssize_t n = ::read(socket, &byte, 1);
    return result;
}
