// The other process of the link and bootstrap tests. Usage: ipcPeer MODE ARG [ARG]
//   link FD      takes a link's channels from socket FD (ShmHandOver.h) and
//                builds its side with the roles swapped; hand-over mode 1
//                runs the echo client below on 3 streams, mode 2 attaches but
//                never starts (so never frees the buffer) until killed.
//   echo EP N    connects, opens N-1 further streams on the same link, sends
//                a pattern on each, checks every echo byte for byte, closes.
//   v1 EP        as echo 1, through the version-1 procedure.
//   refused EP S connects and expects the call to fail with status S.
//   hold EP      connects, then waits until the server takes the link down.
//   server EP    listens on EP, echoes everything and waits to be killed.
// Exit codes: 0 success, 1 a check failed, 2 set-up failed.

#include "ShmHandOver.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkSharedMemLinux.h"
#include <tamsel/ipc/ipclib.h>
#include <tamsel/ipc/ipclibClient.h>
#include <tolv/log/Log.h>
#include "log/LoggerManager.h"
#include "task/LinuxThreadPoolExecutor.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace tolv::log;
using namespace tamsel::ipc;
using namespace tamsel::ipc::testing;

namespace {

using Streams = std::vector<std::shared_ptr<KxIpclibStream>>;

void Ignore(KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}

// Sends every size on each stream, waits for every echo and the end of each
// stream after closing it: 0 when every echo matched.
int EchoOver(Streams& streams, std::vector<Echoes>& echoes, const std::vector<uint32_t>& sizes)
{
    std::vector<std::vector<std::vector<uint8_t>>> sent(streams.size());  // sends do not copy
    for (uint32_t i = 0; i < sizes.size(); ++i)
        for (uint32_t s = 0; s < streams.size(); ++s) {
            sent[s].push_back(PatternMessage(s, i, sizes[i]));
            if (!streams[s]->send(0, sizes[i], sent[s].back().data(), Ignore))
                return 1;
        }
    int result = 0;
    for (auto& e : echoes) {
        std::unique_lock<std::mutex> lock(e.lock);
        if (!e.changed.wait_for(lock, std::chrono::seconds(60), [&] { return e.received == sizes.size(); }) ||
            e.wrong != 0)
            result = 1;
    }
    for (auto& stream : streams) {
        stream->waitForOutstandingSends(0, std::chrono::seconds(30));
        stream->close(std::chrono::milliseconds(5000));
    }
    for (auto& e : echoes) {
        std::unique_lock<std::mutex> lock(e.lock);
        e.changed.wait_for(lock, std::chrono::seconds(30), [&] { return e.ended; });
    }
    streams.clear();
    return result;
}

int OverHandedLink(int socket)
{
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
    unsigned int out = 0;
    char byte;
    // What the creator sends on, this side receives on, and the reverse.
    if (link->attach(std::move(creatorRecv), std::move(creatorSend), error) != 0 || link->connecting() != 0)
        return 2;
    if (header.mode == 2) {
        [[maybe_unused]] ssize_t n = ::read(socket, &byte, 1);  // until killed
        return 0;
    }
    if (link->start(executor, out) != KxIpcStatusSuccess)
        return 2;
    const auto sizes = MessageSizes(header.sectionSize);
    std::vector<Echoes> echoes(3);
    Streams streams;
    for (uint32_t s = 0; s < echoes.size(); ++s) {
        auto opened = KxIpclibStream::open(link, executor, u"tolvCommands", Flags<KxIpclibStreamFlag>(),
                                           Checker(echoes[s], s, sizes), std::chrono::seconds(30));
        if (!opened)
            return 2;
        streams.push_back(*opened);
    }
    const int result = EchoOver(streams, echoes, sizes);
    link->close();
    // Stay until the test has seen our stop: exiting at once would race it
    // with the server noticing that we are gone.
    [[maybe_unused]] ssize_t n = ::read(socket, &byte, 1);
    return result;
}

int Connect(const _GUID& ep, uint32_t count, KxIpclibBootstrapProc proc)
{
    const std::vector<uint32_t> sizes = {1, 100, 5000, 70000};
    std::vector<Echoes> echoes(count);
    KxIpclibClientOptions options;
    options.procedure = proc;
    auto client = KxIpclibClient::connect(ep, u"tolvCommands", Checker(echoes[0], 0, sizes), options);
    if (!client) {
        std::fprintf(stderr, "peer: connect failed with %u\n", client.error());
        return 2;
    }
    Streams streams = {(*client)->firstStream()};
    for (uint32_t s = 1; s < count; ++s) {
        auto more = (*client)->openStream(u"stream" + std::u16string(1, char16_t(u'0' + s)), Checker(echoes[s], s, sizes));
        if (!more)
            return 2;
        streams.push_back(*more);
    }
    const int result = EchoOver(streams, echoes, sizes);
    return (*client)->close() ? result : 1;
}

// Echoes every message of the stream back; closes when the peer does.
void AcceptAndEcho(std::shared_ptr<KxIpclibStream> s)
{
    std::weak_ptr<KxIpclibStream> weak = s;
    s->accept(Flags<KxIpclibStreamFlag>(), [weak](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
        if (auto self = weak.lock()) {
            if (msg->size() == 0)
                self->close(std::chrono::milliseconds::max());
            else
                self->send(0, msg->size(), msg->data(), [msg](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
        }
    });
}

int Serve(const _GUID& ep)
{
    auto lib = std::make_shared<KxIpclib>();
    if (lib->init(0) != KxIpcStatusSuccess)
        return 2;
    auto listener = lib->listen(ep, Flags<KxIpclibListenerFlag>(0x8), AcceptAndEcho, nullptr);
    if (!listener || (*listener)->accepting() != KxIpcStatusSuccess)
        return 2;
    for (;;)
        ::pause();  // until killed
}

int Hold(const _GUID& ep)
{
    Echoes ended;
    auto client = KxIpclibClient::connect(ep, u"tolvCommands", [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
        std::lock_guard<std::mutex> guard(ended.lock);
        ended.ended = ended.ended || msg->size() == 0;
        ended.changed.notify_all();
    });
    static const uint8_t hello[] = {'h', 'i'};
    if (!client || !(*client)->firstStream()->send(0, sizeof hello, hello, Ignore))
        return 2;
    {
        // The server's uninit closes our stream, then the link.
        std::unique_lock<std::mutex> lock(ended.lock);
        if (!ended.changed.wait_for(lock, std::chrono::seconds(60), [&] { return ended.ended; }))
            return 1;
    }
    (*client)->firstStream()->close(std::chrono::milliseconds(5000));
    return (*client)->waitLinkClosed(std::chrono::seconds(60)) ? 0 : 1;
}

bool ParseGuid(const char* text, _GUID& g)
{
    unsigned d4[8];
    if (std::sscanf(text, "%8x-%4hx-%4hx-%2x%2x-%2x%2x%2x%2x%2x%2x", &g.Data1, &g.Data2, &g.Data3, &d4[0], &d4[1],
                    &d4[2], &d4[3], &d4[4], &d4[5], &d4[6], &d4[7]) != 11)
        return false;
    for (int i = 0; i < 8; ++i)
        g.Data4[i] = static_cast<uint8_t>(d4[i]);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    LogToStandardError("ipcPeer", LOG_LEVEL_ERROR);
    const std::string mode = argc >= 3 ? argv[1] : "";
    const uint32_t extra = argc > 3 ? static_cast<uint32_t>(std::atoi(argv[3])) : 1;
    _GUID ep{};
    if (mode == "link")
        return OverHandedLink(std::atoi(argv[2]));
    if (mode.empty() || !ParseGuid(argv[2], ep))
        return 2;
    if (mode == "echo")
        return Connect(ep, extra, KxIpclibBootstrapProc::CreateSharedMemoryLinkV2);
    if (mode == "v1")
        return Connect(ep, 1, KxIpclibBootstrapProc::CreateSharedMemoryLink);
    if (mode == "server")
        return Serve(ep);
    if (mode == "hold")
        return Hold(ep);
    if (mode == "refused") {
        auto client = KxIpclibClient::connect(ep, u"tolvCommands", Ignore);
        const uint32_t status = client ? 0u : static_cast<uint32_t>(client.error());
        std::fprintf(stderr, "peer: %s %u\n", client ? "connected, not refused" : "refused with", status);
        return !client && status == extra ? 0 : 1;
    }
    return 2;
}
